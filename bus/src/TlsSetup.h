// TLS for the links of mqtts:// addresses, through libmosquitto.
//
// Threads: SetUpTls is called before the link connects, on its set-up
// thread; TakeTlsFailure on whichever thread a libmosquitto call failed.
#ifndef KELBUS_SRC_TLSSETUP_H_
#define KELBUS_SRC_TLSSETUP_H_

#include <mosquitto.h>

#include <KelMsgFeaMessaging/KelBus.h>

#include <string>

#include "BusAddress.h"

namespace kelbus {

// Makes `mosq` connect through TLS: the broker's certificate must be signed
// by the CA of `files` (or of the system's store when it names none) and
// name the host that the link connects to; the client's certificate, if
// `files` names one, is presented.  On failure returns the bus's result and
// the reason is the calling thread's last error.
KelBusResult SetUpTls(mosquitto* mosq, const TlsFiles& files);

// Lets the TLS connection of `mosq`, once made, keep its record buffers
// between records: libmosquitto has OpenSSL free and allocate them again
// around every record, which costs a busy link more than the encryption.
void KeepTlsBuffers(mosquitto* mosq);

// Why the last TLS handshake or set-up on this thread failed, in the words of
// OpenSSL and libmosquitto, with a hint for a certificate that is not
// trusted; forgets it.
std::string TakeTlsFailure();

}  // namespace kelbus

#endif  // KELBUS_SRC_TLSSETUP_H_
