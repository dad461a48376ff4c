// A private broker for one test or benchmark (see PrivateBroker), configured
// like the project's config/kelbus-mosquitto.conf but listening on a free
// loopback port, in the clear or with TLS and passwords (TestTlsFiles), or
// as the shipped site broker: config/kelbus-site-mosquitto.conf with its
// access rules, config/kelbus-site.acl.  The
// constructor starts it and waits until it accepts connections; the
// destructor kills it and removes its files.
//
//   TestBroker broker;
//   ASSERT_TRUE(broker.Running()) << broker.Error();
//   broker.ExportUrl();   // KELBUS_URL for this process and later children
#ifndef KELMSG_TESTS_SUPPORT_TESTBROKER_H_
#define KELMSG_TESTS_SUPPORT_TESTBROKER_H_

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "PrivateBroker.h"

class TestBroker {
 public:
  enum class Security { kNone, kTlsAndPasswords, kSite };

  // With `overrides` in place of the configuration's lines of the same
  // keywords (PrivateBroker::Settings).
  explicit TestBroker(Security security = Security::kNone, std::vector<std::string> overrides = {});
  // On `port`, one attempt, in the clear.
  explicit TestBroker(int port);

  bool Running() const { return m_broker && m_broker->Running(); }
  // Why the broker is not running.
  const std::string& Error() const { return m_broker->Error(); }
  int Port() const { return m_broker->Port(); }
  pid_t Pid() const { return m_broker->Pid(); }
  // mqtt://127.0.0.1:<port>/<nameSpace>, or with TLS and passwords
  // mqtts://<user>@127.0.0.1:<port>/<nameSpace>
  std::string Url(const std::string& nameSpace = "kelbus") const;
  // Sets KELBUS_URL to Url(nameSpace), KELBUS_CA_FILE and
  // KELBUS_PASSWORD_FILE to the user's files or unsets them, and
  // KELBUS_DEPARTURE_DELAY_SECONDS to 0: tests kill processes and expect to
  // hear of it at once.
  void ExportUrl(const std::string& nameSpace = "kelbus") const;
  // What the broker wrote (errors and warnings).
  std::string Log() const { return m_broker->Log(); }

  // Sends `signal` to the broker (SIGSTOP freezes it, SIGCONT thaws it).
  void Signal(int signal) { m_broker->Signal(signal); }
  // Stops the broker as its service manager does (SIGTERM) and waits for
  // it, at most `limit`; true when it exited cleanly in time.
  bool Stop(std::chrono::milliseconds limit) { return m_broker->Stop(limit); }
  // Kills the broker (SIGKILL), as if it crashed.
  void Kill() { m_broker->Kill(); }
  // Starts it again on the same port, with what it saved or else empty;
  // false if that fails.
  bool Restart(bool withSavedState = true) { return m_broker->Restart(withSavedState); }

 private:
  std::unique_ptr<PrivateBroker> Start(int port) const;

  Security m_security = Security::kNone;
  std::vector<std::string> m_overrides;
  std::unique_ptr<PrivateBroker> m_broker;
};

#endif  // KELMSG_TESTS_SUPPORT_TESTBROKER_H_
