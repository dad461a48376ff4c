// PrivateBroker: a mosquitto of one's own, configured like one of the
// project's brokers (config/kelbus-mosquitto.conf, kelbus-site-mosquitto.conf)
// except that it listens on the address and port it is given, takes its
// certificate, password and access rule files and its state directory from
// the settings, logs to its own directory, and runs as the user who starts
// it.  `kelmsg bus`, the tests and the benchmarks start
// their brokers with it.
//
// The broker lives in a fresh directory under the system's temporary
// directory, which holds the derived configuration and the broker's log and
// goes with the object.  The object owns the process: destroying it kills a
// broker that still runs.
//
//   PrivateBroker broker({.configuration = "kelbus-mosquitto.conf"}, 20000);
//   if (!broker.Running()) Fail(broker.Error());
#ifndef KELMSG_LAUNCH_PRIVATEBROKER_H_
#define KELMSG_LAUNCH_PRIVATEBROKER_H_

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "ChildProcess.h"

// `mosquitto` on PATH, or else /usr/sbin/mosquitto, where Debian puts it.
std::string MosquittoProgram();

class PrivateBroker {
 public:
  struct Settings {
    std::string configuration;          // the project's configuration file
    std::string address = "127.0.0.1";  // IPv4 address to listen on
    std::string program = MosquittoProgram();
    // A command that runs the broker elsewhere, in front of `program`:
    // {"ip", "netns", "exec", NAME} starts it in a network namespace.
    std::vector<std::string> launcher{};
    // When set, the listener speaks TLS with this certificate and key.
    std::string certificateFile{}, keyFile{};
    // When set, only the users of this mosquitto password_file may connect.
    std::string passwordFile{};
    // When set, the access rules of this mosquitto acl_file apply.
    std::string aclFile{};
    // Where the broker keeps its persistent state; empty: the broker's
    // private directory, which goes with the object.
    std::string stateDirectory{};
    // Lines that take the place of every line of the configuration with the
    // same keyword, such as "max_queued_messages 2".
    std::vector<std::string> overrides{};
  };

  // Starts the broker on `port` and waits until it listens on it, at
  // most 5 s.  Running() tells whether it does, Error() why not.
  PrivateBroker(Settings settings, int port);
  ~PrivateBroker();
  PrivateBroker(const PrivateBroker&) = delete;
  PrivateBroker& operator=(const PrivateBroker&) = delete;

  // Started, and neither stopped nor killed through this object since.
  bool Running() const { return m_process.has_value(); }
  // True when a running broker has ended on its own; Error() then says why.
  bool Exited();
  // Why the broker did not start or has ended, in one line.
  const std::string& Error() const { return m_error; }
  int Port() const { return m_port; }
  pid_t Pid() const { return m_process ? m_process->Pid() : -1; }
  // What the broker wrote (its configuration logs errors and warnings).
  std::string Log() const;

  // Asks the broker to stop (SIGTERM) and waits for it, at most `limit`;
  // true when it exited with status 0 in time.  Kills it otherwise.
  bool Stop(std::chrono::milliseconds limit);
  // Sends `signal` to the broker (SIGSTOP freezes it, SIGCONT thaws it,
  // SIGHUP makes it read its password and access rule files again).
  void Signal(int signal);
  // Kills the broker (SIGKILL), as if it crashed.
  void Kill();
  // Starts it again on the same port, retrying for up to 5 s while the port
  // is still held after a kill; false if that fails.  Without
  // `withSavedState` it starts empty, as a broker without persistence does.
  bool Restart(bool withSavedState = true);

 private:
  bool Start();
  std::string StateDirectory() const;
  bool WriteConfiguration(const std::string& path) const;

  Settings m_settings;
  int m_port;
  std::string m_directory;
  std::optional<ChildProcess> m_process;
  std::string m_error;
};

#endif  // KELMSG_LAUNCH_PRIVATEBROKER_H_
