// One process of scripts/soak.sh, on the bus that KELBUS_URL names.
//
//   kelbus_soak member NUMBER MEMBERS SECONDS RATE START_FILE
//     joins as soak<NUMBER-1>, says "joined", waits for START_FILE to exist,
//     then for SECONDS sends RATE numbered messages a second to the next
//     member (the last to soak0) and takes those of the one before; then
//     tells its successor how many it sent, waits for its predecessor's
//     count and prints one line of what it sent, received, missed and
//     received out of order, with its peak resident size.  Status 0 when
//     every message of its predecessor arrived once and in order.
//   kelbus_soak watch MEMBERS LIMIT_SECONDS
//     says "watching" once departures reach it, waits until every soak<i>
//     has left or LIMIT_SECONDS have passed, and says how many left.
//     Status 0 when all did.
#include <sys/stat.h>

#include <KelMsgFeaMessaging/KelBus.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kNumberType = "soak.number";
constexpr const char* kCountType = "soak.count";
// How long a member waits for its predecessor's count after its own run.
constexpr int kDrainMilliseconds = 120000;

[[noreturn]] void Die(const std::string& why) {
  std::fprintf(stderr, "kelbus_soak: %s\n", why.c_str());
  std::exit(1);
}

std::string MemberName(long index) {
  return "soak" + std::to_string(index);
}

long PeakResidentKiB() {
  std::ifstream status("/proc/self/status");
  long kib = 0;
  for (std::string field; status >> field && field != "VmHWM:";) {
  }
  status >> kib;
  return kib;
}

// What goes out: a number of 8 bytes, little-endian, under a type.  The
// bus's callbacks carry no context, hence one outgoing message at a time.
struct Outgoing {
  const char* type = kNumberType;
  std::uint64_t value = 0;
} outgoing;

int OutgoingSize() {
  return sizeof outgoing.value;
}
const char* OutgoingType() {
  return outgoing.type;
}
void StreamOutgoing(void* buffer, int) {
  auto* bytes = static_cast<unsigned char*>(buffer);
  for (std::size_t i = 0; i < sizeof outgoing.value; ++i)
    bytes[i] = static_cast<unsigned char>(outgoing.value >> (8 * i));
}

// What came in from the predecessor.
struct Incoming {
  std::uint64_t received = 0, outOfOrder = 0, next = 0;
  std::int64_t announced = -1;  // the predecessor's count, once it came
  int changed = 0;              // for the waiting loop
} incoming;

void Receive(const char* type, const void* buffer, int size) {
  std::uint64_t value = 0;
  if (size != sizeof value)
    return;
  const auto* bytes = static_cast<const unsigned char*>(buffer);
  for (std::size_t i = sizeof value; i > 0; --i)
    value = (value << 8) | bytes[i - 1];
  if (std::strcmp(type, kCountType) == 0) {
    incoming.announced = static_cast<std::int64_t>(value);
    ++incoming.changed;
    return;
  }
  ++incoming.received;
  if (value != incoming.next)
    ++incoming.outOfOrder;
  incoming.next = value + 1;
}

void Send(int communicator, const std::string& target, const char* type, std::uint64_t value) {
  outgoing = {type, value};
  if (SendRequest(communicator, target.c_str(), StreamOutgoing, OutgoingSize, OutgoingType) !=
      KELBUS_OK) {
    Die("cannot send to " + target + ": " + KelBusLastError());
  }
}

int Member(long index, long members, long seconds, long rate, const std::string& startFile) {
  const std::string name = MemberName(index);
  const std::string successor = MemberName((index + 1) % members);
  int communicator = 0;
  if (RegisterCommunicator(name.c_str(), &communicator) != KELBUS_OK ||
      DeclareApplicationId(communicator, name.c_str(), 0) != KELBUS_OK ||
      AssociateHandler(communicator, nullptr, Receive) != KELBUS_OK) {
    Die("cannot join as " + name + ": " + KelBusLastError());
  }
  std::printf("joined\n");
  std::fflush(stdout);
  struct stat ignored;
  while (stat(startFile.c_str(), &ignored) != 0)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));

  const auto start = Clock::now();
  const auto interval = std::chrono::microseconds(1000000 / rate);
  std::uint64_t sent = 0;
  for (auto due = start; due < start + std::chrono::seconds(seconds); due += interval) {
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(due - Clock::now());
    int unchanged = 0;
    if (wait.count() > 0)
      WaitingLoop(communicator, static_cast<int>(wait.count()), &unchanged);
    Send(communicator, successor, kNumberType, sent++);
  }
  Send(communicator, successor, kCountType, sent);
  const auto drainEnd = Clock::now() + std::chrono::milliseconds(kDrainMilliseconds);
  while (incoming.announced < 0 && Clock::now() < drainEnd)
    WaitingLoop(communicator, kDrainMilliseconds, &incoming.changed);
  const bool whole = incoming.announced >= 0 &&
                     incoming.received == static_cast<std::uint64_t>(incoming.announced) &&
                     incoming.outOfOrder == 0;
  std::printf("%s sent %llu received %llu of %lld out-of-order %llu peak-rss-kib %ld\n",
              name.c_str(), static_cast<unsigned long long>(sent),
              static_cast<unsigned long long>(incoming.received),
              static_cast<long long>(incoming.announced),
              static_cast<unsigned long long>(incoming.outOfOrder), PeakResidentKiB());
  CloseCommunicator(communicator);
  return whole ? 0 : 1;
}

// Names of the members that have left.
std::set<std::string> departed;
int departures = 0;  // for the waiting loop

void Departed(int, const char* app, const char*, const char*) {
  if (std::strncmp(app, "soak", 4) == 0 && departed.insert(app).second)
    ++departures;
}

int Watch(long members, long limitSeconds) {
  int communicator = 0;
  if (RegisterCommunicator("soak-watch", &communicator) != KELBUS_OK ||
      AssociateDisconnectHandler(communicator, nullptr, Departed) != KELBUS_OK) {
    Die(std::string("cannot watch departures: ") + KelBusLastError());
  }
  std::printf("watching\n");
  std::fflush(stdout);
  const auto end = Clock::now() + std::chrono::seconds(limitSeconds);
  while (static_cast<long>(departed.size()) < members && Clock::now() < end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    WaitingLoop(communicator, static_cast<int>(left.count()) + 1, &departures);
  }
  std::printf("departures %zu of %ld\n", departed.size(), members);
  CloseCommunicator(communicator);
  return static_cast<long>(departed.size()) == members ? 0 : 1;
}

long Number(const char* text) {
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (*end != '\0' || value <= 0)
    Die(std::string("not a positive number: ") + text);
  return value;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 7 && std::strcmp(argv[1], "member") == 0) {
    const long members = Number(argv[3]);
    const long index = Number(argv[2]) - 1;  // counted from 1 on the command line
    if (index >= members)
      Die(std::string("no member ") + argv[2] + " among " + argv[3]);
    return Member(index, members, Number(argv[4]), Number(argv[5]), argv[6]);
  }
  if (argc == 4 && std::strcmp(argv[1], "watch") == 0)
    return Watch(Number(argv[2]), Number(argv[3]));
  std::fprintf(stderr,
               "usage: kelbus_soak member NUMBER MEMBERS SECONDS RATE START_FILE\n"
               "       kelbus_soak watch MEMBERS LIMIT_SECONDS\n");
  return 2;
}
