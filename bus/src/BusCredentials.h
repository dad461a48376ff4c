// The secrets and TLS files of a bus address, which come from files named in
// the environment rather than from KELBUS_URL, so that they show neither in
// the process list nor in any message.
#ifndef KELBUS_SRC_BUSCREDENTIALS_H_
#define KELBUS_SRC_BUSCREDENTIALS_H_

#include <string>

#include "BusAddress.h"

namespace kelbus {

// Completes `*address` from the environment: the password from the first
// line of the file KELBUS_PASSWORD_FILE names, and for mqtts:// the files
// KELBUS_CA_FILE, KELBUS_CERT_FILE and KELBUS_KEY_FILE name.  Refuses what
// contradicts the URL (a password from both, TLS files for mqtt://) and
// files it cannot read.  On failure returns false and stores the reason,
// which never holds the password, in `*why`.
bool AddCredentialsFromEnvironment(BusAddress* address, std::string* why);

// What only the users who present the same credentials know: the password
// and the bytes of the client's key, "" when `address` has neither.
std::string HolderSecret(const BusAddress& address);

}  // namespace kelbus

#endif  // KELBUS_SRC_BUSCREDENTIALS_H_
