// The records published on an application's presence topic.
//
// Wire layout (integers little-endian):
//   uint8  version (1)
//   uint8  kind (ProcessRecord::Kind)
//   int32  process id
//   uint64 claim: random number of one declaration, shared by its presence
//          and departure records (a probe carries its own)
//   3 x { uint32 byte count, bytes }: application, host, user (UTF-8)
#ifndef KELBUS_SRC_PROCESSRECORD_H_
#define KELBUS_SRC_PROCESSRECORD_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace kelbus {

struct ProcessRecord {
  enum class Kind : std::uint8_t {
    kPresent = 1,   // the process holds the application
    kDeparted = 2,  // the process left it (its will)
    kProbe = 3,     // a reader marking where the retained record ends
  };

  Kind kind = Kind::kPresent;
  int pid = 0;
  std::uint64_t claim = 0;
  std::string app;
  std::string host;
  std::string user;

  std::string Encode() const;
  // Refuses (returns nothing) anything that is not exactly one record.
  static std::optional<ProcessRecord> Decode(const void* bytes, std::size_t size);
};

// This process: its id, host name and user name, with no application yet.
ProcessRecord ThisProcess();

// A random number for claims and probes.
std::uint64_t RandomClaim();

}  // namespace kelbus

#endif  // KELBUS_SRC_PROCESSRECORD_H_
