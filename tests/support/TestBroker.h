// A private mosquitto for one test or benchmark, configured like the
// project's config/kelbus-mosquitto.conf but listening on a free loopback
// port.  The constructor starts it and waits until it accepts connections;
// the destructor kills it and removes its files.
//
//   TestBroker broker;
//   ASSERT_TRUE(broker.Running()) << broker.Error();
//   broker.ExportUrl();   // KELBUS_URL for this process and later children
//
// The broker program is `mosquitto` on PATH, or /usr/sbin/mosquitto.
#ifndef KELMSG_TESTS_SUPPORT_TESTBROKER_H_
#define KELMSG_TESTS_SUPPORT_TESTBROKER_H_

#include <optional>
#include <string>

#include "ChildProcess.h"

class TestBroker {
 public:
  TestBroker();
  ~TestBroker();
  TestBroker(const TestBroker&) = delete;
  TestBroker& operator=(const TestBroker&) = delete;

  bool Running() const { return m_process.has_value(); }
  // Why the broker is not running.
  const std::string& Error() const { return m_error; }
  int Port() const { return m_port; }
  // mqtt://127.0.0.1:<port>/<nameSpace>
  std::string Url(const std::string& nameSpace = "kelbus") const;
  // Sets KELBUS_URL to Url(nameSpace).
  void ExportUrl(const std::string& nameSpace = "kelbus") const;
  // What the broker wrote (errors and warnings).
  std::string Log() const;

  // Sends `signal` to the broker (SIGSTOP freezes it, SIGCONT thaws it).
  void Signal(int signal);
  // Kills the broker (SIGKILL), as if it crashed.
  void Kill();
  // Starts it again on the same port; false if that fails.
  bool Restart();

 private:
  bool Start();

  std::string m_directory;  // configuration and log
  int m_port = 0;
  std::optional<ChildProcess> m_process;
  std::string m_error;
};

#endif  // KELMSG_TESTS_SUPPORT_TESTBROKER_H_
