#include "ProcessRecord.h"

#include <pwd.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

namespace kelbus {
namespace {

constexpr std::uint8_t kVersion = 1;

void PutUnsigned(std::uint64_t value, int bytes, std::string* out) {
  for (int i = 0; i < bytes; ++i)
    *out += static_cast<char>((value >> (8 * i)) & 0xFF);
}

void PutText(const std::string& text, std::string* out) {
  PutUnsigned(text.size(), 4, out);
  *out += text;
}

// Reads fields front to back; every read fails once the bytes run out.
class FieldReader {
 public:
  FieldReader(const void* bytes, std::size_t size)
      : m_next(static_cast<const unsigned char*>(bytes)), m_left(size) {}

  bool Unsigned(int bytes, std::uint64_t* value) {
    if (m_left < static_cast<std::size_t>(bytes))
      return false;
    *value = 0;
    for (int i = 0; i < bytes; ++i)
      *value |= static_cast<std::uint64_t>(m_next[i]) << (8 * i);
    Skip(bytes);
    return true;
  }

  bool Text(std::string* text) {
    std::uint64_t length = 0;
    if (!Unsigned(4, &length) || m_left < length)
      return false;
    text->assign(reinterpret_cast<const char*>(m_next), length);
    Skip(length);
    return true;
  }

  bool AtEnd() const { return m_left == 0; }

 private:
  void Skip(std::size_t count) {
    m_next += count;
    m_left -= count;
  }

  const unsigned char* m_next;
  std::size_t m_left;
};

std::string HostName() {
  char name[HOST_NAME_MAX + 1] = {};
  if (gethostname(name, sizeof name - 1) != 0)
    return "unknown-host";
  return name;
}

std::string UserName() {
  passwd entry{};
  passwd* found = nullptr;
  std::vector<char> scratch(16384);
  if (getpwuid_r(geteuid(), &entry, scratch.data(), scratch.size(), &found) == 0 &&
      found != nullptr) {
    return found->pw_name;
  }
  const char* user = std::getenv("USER");
  return user != nullptr ? std::string(user) : std::to_string(geteuid());
}

}  // namespace

std::string ProcessRecord::Encode() const {
  std::string out;
  PutUnsigned(kVersion, 1, &out);
  PutUnsigned(static_cast<std::uint8_t>(kind), 1, &out);
  PutUnsigned(static_cast<std::uint32_t>(pid), 4, &out);
  PutUnsigned(claim, 8, &out);
  PutText(app, &out);
  PutText(host, &out);
  PutText(user, &out);
  return out;
}

std::optional<ProcessRecord> ProcessRecord::Decode(const void* bytes, std::size_t size) {
  FieldReader reader(bytes, size);
  ProcessRecord record;
  std::uint64_t version = 0, kind = 0, pid = 0;
  if (!reader.Unsigned(1, &version) || version != kVersion || !reader.Unsigned(1, &kind) ||
      kind < 1 || kind > 3 || !reader.Unsigned(4, &pid) || !reader.Unsigned(8, &record.claim) ||
      !reader.Text(&record.app) || !reader.Text(&record.host) || !reader.Text(&record.user) ||
      !reader.AtEnd()) {
    return std::nullopt;
  }
  record.kind = static_cast<Kind>(kind);
  record.pid = static_cast<int>(static_cast<std::uint32_t>(pid));
  return record;
}

ProcessRecord ThisProcess() {
  ProcessRecord record;
  record.pid = static_cast<int>(getpid());
  record.host = HostName();
  record.user = UserName();
  return record;
}

std::uint64_t RandomClaim() {
  // Drawn afresh each time: a forked child must not repeat its parent's.
  std::random_device device;
  return (static_cast<std::uint64_t>(device()) << 32) ^ device();
}

}  // namespace kelbus
