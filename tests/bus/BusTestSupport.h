// Driving the bus's plain C functions from tests: sending bytes through the
// three sending callbacks, collecting what the bus delivers, and collecting
// its diagnostic lines.  The bus takes plain function pointers, so what is
// collected lives in process-wide storage.
#ifndef KELMSG_TESTS_BUS_BUSTESTSUPPORT_H_
#define KELMSG_TESTS_BUS_BUSTESTSUPPORT_H_

#include <cstddef>
#include <string>
#include <vector>

namespace bustest {

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

// What the collecting callbacks received; `= {}` empties it.
struct Collected {
  std::vector<Message> messages;
  std::vector<Report> reports;
  int arrivals = 0;  // bumped by every collecting callback
};
Collected& Received();

// Installs the collecting callbacks on `communicator`.
int CollectMessages(int communicator);
int CollectReports(int communicator);
// Dispatches the deliveries of every communicator until `messages` messages
// and `reports` reports have been collected; false after ten seconds.
bool Await(std::size_t messages, std::size_t reports = 0);

// Sends `bytes` labelled `type` to `target`.
int Send(int communicator, const std::string& target, const std::string& type,
         const std::string& bytes);

// Expects a departure of `app` in process `pid` of this host and user.
void ExpectReportOf(const Report& report, int pid, const std::string& app);

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

// The bus's diagnostic lines while the object lives, instead of standard
// error.
class DiagnosticLines {
 public:
  DiagnosticLines();
  ~DiagnosticLines();
  DiagnosticLines(const DiagnosticLines&) = delete;
  DiagnosticLines& operator=(const DiagnosticLines&) = delete;

  std::vector<std::string> Lines() const;
};

}  // namespace bustest

#endif  // KELMSG_TESTS_BUS_BUSTESTSUPPORT_H_
