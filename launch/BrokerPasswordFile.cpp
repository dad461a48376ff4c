#include "BrokerPasswordFile.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace {

constexpr int kSaltBytes = 12;
constexpr int kHashBytes = 64;
constexpr int kIterations = 1000;
constexpr std::size_t kNewPasswordLength = 24;
constexpr std::string_view kPasswordAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

std::string Base64(const unsigned char* bytes, int size) {
  std::string text(4 * ((size + 2) / 3) + 1, '\0');
  text.resize(static_cast<std::size_t>(
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes, size)));
  return text;
}

void Random(unsigned char* bytes, int size) {
  if (RAND_bytes(bytes, size) != 1)
    throw std::runtime_error("no random bytes from OpenSSL");
}

// mosquitto's "$7$<iterations>$<salt>$<hash>".
std::string Hash(const std::string& password) {
  unsigned char salt[kSaltBytes];
  unsigned char hash[kHashBytes];
  Random(salt, kSaltBytes);
  if (PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()), salt, kSaltBytes,
                        kIterations, EVP_sha512(), kHashBytes, hash) != 1) {
    throw std::runtime_error("cannot hash the password");
  }
  return "$7$" + std::to_string(kIterations) + "$" + Base64(salt, kSaltBytes) + "$" +
         Base64(hash, kHashBytes);
}

}  // namespace

BrokerPasswordFile::BrokerPasswordFile(std::string path) : m_path(std::move(path)) {
  std::ifstream file(m_path);
  if (!file && errno != ENOENT)
    throw std::runtime_error("cannot read " + m_path);
  std::string line;
  while (std::getline(file, line)) {
    if (const std::size_t colon = line.find(':'); colon != std::string::npos)
      m_hashes[line.substr(0, colon)] = line.substr(colon + 1);
  }
}

void BrokerPasswordFile::Set(const std::string& user, const std::string& password) {
  if (user.empty() || user.find_first_of(":\r\n") != std::string::npos)
    throw std::invalid_argument("a user name is not empty and holds no ':' and no line break");
  m_hashes[user] = Hash(password);
}

bool BrokerPasswordFile::Remove(const std::string& user) {
  return m_hashes.erase(user) == 1;
}

std::vector<std::string> BrokerPasswordFile::Users() const {
  std::vector<std::string> users;
  for (const auto& entry : m_hashes)
    users.push_back(entry.first);
  return users;
}

void BrokerPasswordFile::Save() const {
  std::string text;
  for (const auto& [user, hash] : m_hashes)
    text += user + ':' + hash + '\n';
  WriteSecret(m_path, text);
}

void BrokerPasswordFile::WriteSecret(const std::string& path, const std::string& text) {
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const bool written =
      descriptor >= 0 && ::fchmod(descriptor, 0600) == 0 &&
      ::write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  if (descriptor >= 0)
    ::close(descriptor);
  if (!written)
    throw std::runtime_error("cannot write " + path);
}

std::string BrokerPasswordFile::NewPassword() {
  // Bytes from 248 up would favour the alphabet's first letters.
  constexpr std::size_t kEvenlySpread = 256 - 256 % kPasswordAlphabet.size();
  std::string password;
  while (password.size() < kNewPasswordLength) {
    unsigned char byte = 0;
    Random(&byte, 1);
    if (byte < kEvenlySpread)
      password += kPasswordAlphabet[byte % kPasswordAlphabet.size()];
  }
  return password;
}
