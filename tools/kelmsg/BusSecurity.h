// What secures `kelmsg bus`: TLS with a private CA or with given files, and
// passwords per user, kept in a state directory (by default
// $XDG_STATE_HOME/kelmsg or ~/.local/state/kelmsg, readable by its owner
// only); and the rule that only a loopback bus may go without them.
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
};

// --tls, --auth, --state-dir, --cert, --key, --ca on `bus`, and its
// subcommands `user add NAME` and `user remove NAME`.
void AddBusSecurity(CLI::App& bus, BusSecurityOptions& options);

// Whether a `bus` subcommand (user ...) ran instead of the broker.
bool RanBusSubcommand(const CLI::App& bus);

// Refuses a bus on an address other than loopback without TLS and
// passwords; otherwise adds to `settings` the certificate, key and password
// file that `options` ask for, making the certificate for `names` (the host
// names and the address that clients use) with the private CA if needed.
void SecureBroker(const BusSecurityOptions& options, const std::string& address,
                  const std::vector<std::string>& names, PrivateBroker::Settings* settings);

// The lines that tell a client how to connect to the broker at `host` and
// `port`: KELBUS_URL, and KELBUS_CA_FILE and KELBUS_PASSWORD_FILE as they
// apply, one "NAME=value\n" each.
std::string ClientSettings(const BusSecurityOptions& options, const std::string& host, int port);

#endif  // KELMSG_TOOLS_KELMSG_BUSSECURITY_H_
