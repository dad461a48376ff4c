// Driving the bus's plain C functions from tests: sending bytes through the
// three sending callbacks, and collecting what the bus delivers.
//
// The bus takes plain function pointers, so the collected messages and
// departure reports live in process-wide storage; Received::Reset() empties
// it.
#ifndef KELMSG_TESTS_BUS_BUSTESTSUPPORT_H_
#define KELMSG_TESTS_BUS_BUSTESTSUPPORT_H_

#include <cstddef>
#include <string>
#include <vector>

namespace bustest {

// Sends `bytes` labelled `type` to `target`.
int Send(int communicator, const std::string& target, const std::string& type,
         const std::string& bytes);

struct Message {
  std::string type;
  std::string bytes;
};

struct Report {
  int pid;
  std::string app;
  std::string host;
  std::string user;
};

class Received {
 public:
  static void Reset();
  static const std::vector<Message>& Messages();
  static const std::vector<Report>& Reports();
  // Installs the collecting callbacks on `communicator`.
  static int CollectMessages(int communicator);
  static int CollectReports(int communicator);
  // Dispatches `communicator`'s deliveries until `count` messages (reports)
  // have been collected; false if that takes longer than `milliseconds`.
  static bool AwaitMessages(int communicator, std::size_t count, int milliseconds);
  static bool AwaitReports(int communicator, std::size_t count, int milliseconds);
  // Bumped by every collecting callback.
  static int& Arrivals();
};

// A communicator for the length of a scope: registered (and declared, given
// an application) on construction, closed on destruction.
class Member {
 public:
  explicit Member(const char* app = nullptr, int flag = 0);
  ~Member();
  Member(const Member&) = delete;
  Member& operator=(const Member&) = delete;

  int Id() const { return m_id; }
  // The result of registering, or else of declaring.
  int Result() const { return m_result; }

 private:
  int m_id = 0;
  int m_result;
};

// The host and user name a departure record of this machine carries.
std::string HostName();
std::string UserName();

}  // namespace bustest

#endif  // KELMSG_TESTS_BUS_BUSTESTSUPPORT_H_
