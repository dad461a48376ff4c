// What secures `kelmsg bus`: TLS with a private CA or with given files,
// passwords per user and the access rules of the site broker
// (kelbus-site.acl) with the applications each user may hold beyond the one
// of its name, kept in a state directory (by default $XDG_STATE_HOME/kelmsg
// or ~/.local/state/kelmsg, readable by its owner only); and the rule that
// only a loopback bus may go without them.  A running bus notes its broker's
// process id there, so that adding or removing a user takes effect at once
// (mosquitto reads its password and access rule files again on SIGHUP).
//
// One thread.  Failures throw CommandFailure.
#ifndef KELMSG_TOOLS_KELMSG_BUSSECURITY_H_
#define KELMSG_TOOLS_KELMSG_BUSSECURITY_H_

#include <string>
#include <vector>

#include "PrivateBroker.h"

namespace CLI {
class App;
}  // namespace CLI

struct BusSecurityOptions {
  bool tls = false;
  bool passwords = false;
  std::string stateDirectory;
  std::string certificateFile, keyFile, caFile;  // given instead of the private CA's
  std::string siteRules;                         // the installed kelbus-site.acl
};

// --tls, --auth, --state-dir, --cert, --key, --ca on `bus`, and its
// subcommands `user add NAME [--app APP ...]` and `user remove NAME`.
void AddBusSecurity(CLI::App& bus, BusSecurityOptions& options);

// Whether a `bus` subcommand (user ...) ran instead of the broker.
bool RanBusSubcommand(const CLI::App& bus);

// Refuses a bus on an address other than loopback without TLS and
// passwords; otherwise adds to `settings` the certificate, key, password
// and access rule files that `options` ask for, making the certificate for
// `names` (the host names and the address that clients use) with the
// private CA if needed.
void SecureBroker(const BusSecurityOptions& options, const std::string& address,
                  const std::vector<std::string>& names, PrivateBroker::Settings* settings);

// The lines that tell a client how to connect to the broker at `host` and
// `port`: KELBUS_URL, and KELBUS_CA_FILE and KELBUS_PASSWORD_FILE as they
// apply, one "NAME=value\n" each.
std::string ClientSettings(const BusSecurityOptions& options, const std::string& host, int port);

// While it lives, the broker `pid` is the one that `user add` and `user
// remove` tell of changes.
class RunningBrokerNote {
 public:
  RunningBrokerNote(const BusSecurityOptions& options, int pid);
  ~RunningBrokerNote();
  RunningBrokerNote(const RunningBrokerNote&) = delete;
  RunningBrokerNote& operator=(const RunningBrokerNote&) = delete;

 private:
  std::string m_path;  // empty: nothing noted
};

#endif  // KELMSG_TOOLS_KELMSG_BUSSECURITY_H_
