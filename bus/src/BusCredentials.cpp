#include "BusCredentials.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

namespace kelbus {
namespace {

struct FileVariable {
  const char* name;
  std::string TlsFiles::*field;
};

constexpr FileVariable kTlsVariables[] = {{"KELBUS_CA_FILE", &TlsFiles::caFile},
                                          {"KELBUS_CERT_FILE", &TlsFiles::certFile},
                                          {"KELBUS_KEY_FILE", &TlsFiles::keyFile}};

std::string Variable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

// Says why the last attempt to open `path` failed.
std::string CannotRead(const char* variable, const std::string& path) {
  return std::string("cannot read ") + variable + " '" + path + "': " + std::strerror(errno);
}

bool ReadPassword(const std::string& path, BusAddress* address, std::string* why) {
  if (address->user.empty()) {
    *why = "KELBUS_PASSWORD_FILE is set but KELBUS_URL names no user (user@host)";
    return false;
  }
  if (!address->password.empty()) {
    *why = "both KELBUS_URL and KELBUS_PASSWORD_FILE give a password";
    return false;
  }
  std::ifstream file(path);
  if (!file) {
    *why = CannotRead("KELBUS_PASSWORD_FILE", path);
    return false;
  }
  std::getline(file, address->password);
  if (address->password.ends_with('\r'))
    address->password.pop_back();
  if (address->password.empty()) {
    *why = "KELBUS_PASSWORD_FILE '" + path + "' holds no password on its first line";
    return false;
  }
  return true;
}

bool ReadTlsFiles(BusAddress* address, std::string* why) {
  for (const auto& [name, field] : kTlsVariables) {
    const std::string path = Variable(name);
    if (path.empty())
      continue;
    if (address->kind != BusAddress::Kind::kMqtts) {
      *why = std::string(name) + " is set but mqtt:// does not use TLS; write mqtts://";
      return false;
    }
    if (access(path.c_str(), R_OK) != 0) {
      *why = CannotRead(name, path);
      return false;
    }
    address->tls.*field = path;
  }
  if (address->tls.certFile.empty() != address->tls.keyFile.empty()) {
    *why = "KELBUS_CERT_FILE and KELBUS_KEY_FILE go together: set both or neither";
    return false;
  }
  return true;
}

}  // namespace

bool AddCredentialsFromEnvironment(BusAddress* address, std::string* why) {
  if (address->kind == BusAddress::Kind::kLocal)
    return true;
  const std::string passwordFile = Variable("KELBUS_PASSWORD_FILE");
  if (!passwordFile.empty() && !ReadPassword(passwordFile, address, why))
    return false;
  return ReadTlsFiles(address, why);
}

std::string HolderSecret(const BusAddress& address) {
  std::string secret = address.password;
  if (!address.tls.keyFile.empty()) {
    std::ifstream key(address.tls.keyFile, std::ios::binary);
    secret += '\0';
    secret.append(std::istreambuf_iterator<char>(key), std::istreambuf_iterator<char>());
  }
  return secret;
}

}  // namespace kelbus
