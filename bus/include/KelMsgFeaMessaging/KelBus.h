// KelBus: the message bus between the processes of a suite, as plain C
// functions over an MQTT 5 broker.
//
// A process registers one or more communicators.  A communicator may declare
// an application name; messages sent to that name reach the communicator's
// receive callback.  Every message is an opaque byte buffer labelled with a
// type name.  Processes may run on one machine or on several that reach the
// same broker.
//
// WHERE THE BUS IS
//   The environment variable KELBUS_URL, read by each RegisterCommunicator:
//     mqtt://[user[:password]@]host[:port][/namespace]
//     mqtts://[user[:password]@]host[:port][/namespace]
//   The default is mqtt://127.0.0.1:1883.  User and password may be
//   percent-encoded; a numeric IPv6 host is written in brackets.  The
//   namespace (default "kelbus") prefixes every topic, so several suites can
//   share one broker; it may not contain '+', '#' or '%'.  A query or a
//   fragment is refused, never taken for part of the namespace.
//   mqtts:// (default port 8883) speaks TLS: the broker's certificate must be
//   signed by the CA in the file KELBUS_CA_FILE names (unset: a CA of the
//   system's store, /etc/ssl/certs) and name the host of the URL.
//   KELBUS_CERT_FILE and KELBUS_KEY_FILE (both or neither) name the client's
//   certificate and its unencrypted key, for brokers that ask for one.
//   KELBUS_PASSWORD_FILE names a file whose first line is the password of
//   the URL's user; it keeps the password out of the environment and the
//   process list.  No message of the bus shows a password.
//     local:
//   selects an in-process bus without broker: the communicators of one
//   process reach each other and nobody else.
//   The broker must speak MQTT 5.  config/kelbus-mosquitto.conf (installed
//   in share/KelMsgFeaMessaging) configures mosquitto for the bus: queues
//   kept across restarts, bounded queues per client, and room for messages
//   of up to 64 MiB.
//
// MAPPING ONTO MQTT
//   <namespace>/a/<application>/<sender>
//                           messages to the application from a communicator
//                           that holds the application <sender>; the payload
//                           is the buffer byte for byte, the type name is
//                           the MQTT content type (none for the empty name).
//                           QoS 1.
//   <namespace>/a/<application>
//                           the same from a communicator that holds no
//                           application, or from a plain MQTT client.
//   <namespace>/p/<application>
//                           retained presence record of the holder of the
//                           name; the holder's will replaces it by its
//                           departure record.
//   <namespace>/c/<sender>/<tag>, <namespace>/c/<tag>
//                           flow control for the sending communicator <tag>
//                           (holding <sender>, or none).
//   Application names are percent-encoded into one topic level (every byte
//   outside A-Z a-z 0-9 - . _ becomes %XX), so any name is safe.
//   A communicator is one MQTT client.  Before it declares an application it
//   connects under a client identifier of its own; declaring reconnects it
//   under the application's holder identifier, so the broker lets only one
//   live client hold a name.  Messages already handed to SendRequest are
//   delivered before the switch.  The holder identifier is
//   <namespace>/a/<application> on a bus without credentials; with a
//   password or a client key it is <namespace>/a/<application>/<tag>, where
//   <tag> is a keyed hash (HMAC-SHA-256, 128 bits in hex) of the rest under
//   the password and the key's bytes.
//
// IDENTITY
//   A receive callback learns from KelBusMessageSender which application
//   sent the message: the <sender> level of its topic.  What that is worth
//   depends on the broker:
//   - An open broker (config/kelbus-mosquitto.conf, on loopback) trusts
//     everybody who reaches it.  Anybody may publish under any sender level,
//     connect under any client identifier, publish presence and departure
//     records and read every topic: the sender is a claim, no more.
//   - A broker with passwords and the access rules of
//     config/kelbus-site.acl (kelbus-site-mosquitto.conf, `kelmsg bus
//     --auth`) vouches for it.  A user may hold the applications the rules
//     grant it (the one of its own name, and those added for it).  Only
//     such a user may publish under <sender> = X, publish X's presence and
//     departure records, and read X's messages; everybody reads the presence
//     records; nobody publishes on the bare message topic.  So a sender is
//     the application whose user sent the message, nobody can block a name
//     or announce a departure that is not his, and each application reads
//     only its own inbox.  A message that the rules refuse fails the send at
//     once (KELBUS_ERR_REFUSED, "Not authorized"); the same holds for
//     declaring an application the user may not hold.
//   The rules cannot tie a client identifier to a user, and the broker lets
//   whoever connects under an identifier displace its live client and
//   inherit its session.  The keyed holder identifier keeps that from
//   strangers: only a process with the holder's credentials can work it
//   out, so a new holder of the name under the same credentials still ends
//   its predecessor's session, and nobody else can.  Holders under other
//   credentials (two users granted one application) get different
//   identifiers, so the broker leaves the former holder connected after a
//   claim with flag 1; the former holder gives the name up itself when the
//   new holder's presence record reaches it, before any message sent after
//   the claim.  Only a user granted the application can publish that
//   record, so nobody else can make a holder give up.  Should an
//   identifier leak all the same, the broker checks read access on every
//   delivery, so the intruder receives none of the holder's messages (only
//   the presence records everybody reads), and their senders send them
//   again once the holder is back (see DELIVERY).
//   The registry (KelMsgBBCallbackManager) compares the identifier in each
//   message's envelope with the sender and refuses, in one report line
//   naming both, a message that claims another application.
//
// THREADS
//   Each MQTT connection runs on a network thread of its own.  Everything
//   the caller gives to the bus runs on the caller's thread:
//   - SendRequest calls the size, type and stream callbacks before it
//     returns, in that order;
//   - receive and disconnect callbacks run only inside WaitingLoop and
//     BBSysLoopWait, on the thread that waits, one at a time in the whole
//     process.  A callback may call SendRequest and may wait again (a nested
//     WaitingLoop or BBSysLoopWait).
//   Several threads may call the bus at once; the callbacks of SendRequest
//   must not call the bus themselves.
//
// DELIVERY
//   - Messages from one communicator to one application arrive exactly once
//     and in the order sent, as long as the sender and the holder live:
//     broken connections, a stalled receiver, and a broker killed and
//     restarted, with persistence (config/kelbus-mosquitto.conf) or
//     without, lose nothing.  Every message carries its sender's random
//     identifier and a sequence number per target in an MQTT user property
//     ("kelbus-seq").  The holder drops a message delivered again, and holds
//     one back (drops it) that comes after a gap.  The sender keeps every
//     message that the holder has not reported dispatched (see MEMORY AND
//     FLOW CONTROL) and sends all of them again, in order: when its own
//     connection comes back; when the holder's does (the holder renews its
//     subscriptions, then publishes its presence record again); and when
//     the holder, holding a message back, asks for what follows the last
//     one it took.  A holder that receives a message again reports again
//     what it dispatched, since the broker may have lost its reports.  A
//     broker that drops messages while every connection stays up (a queue
//     limit) may drop the last ones, which no later message reveals: so a
//     holder that has reported nothing for 5 s while messages are kept for
//     it is sent the newest again, a probe that draws its report or its
//     request; the pause doubles, up to a minute, while it stays silent.
//   - What is still lost: the messages of a sender that dies (or closes its
//     communicator) before they reached the holder's session on the broker,
//     or that a killed broker lost with it.  The holder reports them in a
//     diagnostic line naming sender, application and count, once a later
//     message of that sender has waited 20 s for the gap to fill.  Messages
//     from plain MQTT clients, without the property, are delivered as they
//     come.
//   - A message to an application that no process ever held is dropped by
//     the broker (SendRequest returns KELBUS_OK).  A message to one whose
//     holder left fails with KELBUS_ERR_GONE, until somebody holds it again.
//     Once its departure record has expired (see DEPARTURES), a sender that
//     had not heard of the departure finds the name never held; one that
//     had goes on getting KELBUS_ERR_GONE.
//   - Sessions: every connection keeps its session on the broker for
//     KELBUS_SESSION_EXPIRY_SECONDS (default 600) after it broke, and the
//     broker queues what arrives meanwhile.  A holder that leaves for good
//     (CloseCommunicator, normal exit) ends its session; a new holder of a
//     name ends the session of the former one first, so that nothing queued
//     for a dead solver reaches its successor.
//
// MEMORY AND FLOW CONTROL
//   - SendRequest blocks while more than KELBUS_SEND_WINDOW_BYTES of the
//     communicator's messages wait for the broker's acknowledgement, and
//     while more than KELBUS_RECEIVE_WINDOW_BYTES of its messages to one
//     holder wait in the holder's process to be dispatched.  The holder
//     reports what its waiting loops dispatched (or dropped for want of a
//     callback) on the sender's credit topic, once a quarter of the receive
//     window has come together, and the sender never waits while less than
//     that is outstanding.  A larger message goes alone when nothing is
//     outstanding in the send window, and once less than a quarter is in
//     the receive window.  So the sender, the broker and the receiver hold
//     a bounded amount however large the traffic and however long the
//     receiver stalls.
//   - Until the holder reports a message dispatched, its sender keeps a
//     copy of it: at most the receive window per holder (and one larger
//     message).
//   - The receive window counts per holder: a new holder of the name starts
//     afresh, and a name nobody holds counts nothing.  A sender learns who
//     holds a target on its first send to it (one round trip to the broker).
//   - A blocked SendRequest fails when the target leaves (KELBUS_ERR_GONE)
//     or after KELBUS_SEND_TIMEOUT_SECONDS (default 300; KELBUS_ERR_TIMEOUT),
//     with KelBusLastError naming the target.  A communicator that sends to
//     its own application more than the window holds without waiting in
//     between blocks until that time-out.
//   - The network thread never waits for the caller, so keepalives go on
//     while the caller is blocked or busy.
//   - The in-process bus (local:) has no windows: sender and receiver share
//     one process's memory, and a message is in the receiver's queue when
//     SendRequest returns.
//
// DEPARTURES
//   The departure record of a communicator that declared an application
//   holds its process id, the application, the host name and the user name.
//   It is published at once when the communicator is closed (at normal
//   process exit every open communicator is closed) and when another process
//   takes the name over.  When the process dies or its connection breaks
//   (noticed within 1.5 keepalive periods of KELBUS_KEEPALIVE_SECONDS on a
//   silent network), the broker publishes it KELBUS_DEPARTURE_DELAY_SECONDS
//   (default 30) later, unless the connection is back by then.
//   A departure counts only once its holder has stayed away for 6 s (or
//   the departure delay, when shorter) while the communicator's own
//   connection was up: a broker stopped cleanly (SIGTERM, a service
//   restart) publishes the record of every holder as it goes, though the
//   holders come back with it and republish their presence under the same
//   claim.  A departure whose holder comes back so is neither reported nor
//   fails a send.  Every departure, a closed communicator's too, is thus
//   told that much after it was published; a departure delay of 0 asks for
//   every departure at once, those of a broker stop included.
//   The delays trade the time to notice a death for tolerance of stalls: a
//   process stopped (SIGSTOP, a debugger, swapping) for less than about 1.5
//   keepalives plus the delay and those 6 s (with the defaults 60 + 30 + 6
//   s, about a minute and a half) is not taken for departed; a killed one,
//   whose connection closes at once, is reported after the delay and those
//   6 s (36 s), and its name stays held (declaring it with flag 0 fails)
//   until the delay has passed.  A process that comes back after its
//   departure was published takes its name and session back.  Every
//   communicator with a disconnect callback receives the record.  A
//   communicator that never declared an application has no departure
//   record.  The broker drops a departure record
//   KELBUS_DEPARTURE_EXPIRY_SECONDS (default 86400, one day; 0 keeps it for
//   ever) after it was published, so the roster does not keep every
//   process that ever ran.
//
// CONNECTION LOSS
//   A lost connection is restored in the background, retried with growing
//   delays of up to a few seconds.  While it is down, SendRequest goes on
//   taking messages into the send window (and blocks when it is full); they
//   go out once the connection is back, and with them, again, every message
//   that the holders have not reported dispatched (see DELIVERY).
//   WaitingLoop goes on waiting.  A
//   communicator that held an application first checks that nobody took its
//   name over meanwhile; if somebody did, it gives the name up for good
//   (KELBUS_ERR_NAME_LOST) instead of taking it back.
//
// LIMITS
//   Every shipped broker configuration (kelbus-mosquitto.conf,
//   kelbus-site-mosquitto.conf, and the private brokers that `kelmsg bus`
//   derives from them) bounds what the broker queues per client and the
//   size of one message (64 MiB); SendRequest refuses a larger message with
//   KELBUS_ERR_TOO_LARGE.  The queue limits lie above the windows, so that a
//   well-behaved bus never reaches them.
//
// RESULTS
//   Every function returns KELBUS_OK (0) or one of the negative codes below.
//   KelBusLastError describes the last failure of the calling thread.
//
// DIAGNOSTICS
//   Some events concern people rather than the caller: why the bus cannot
//   be joined (with KELBUS_ERR_URL, KELBUS_ERR_UNREACHABLE and the like), a
//   connection lost and restored, a name given up, a message the broker
//   refused.  The bus reports each in one line that begins "KelBus:", on
//   standard error unless the program installs a sink of its own
//   (KelBusSetDiagnosticSink).
#ifndef KELMSGFEAMESSAGING_KELBUS_H_
#define KELMSGFEAMESSAGING_KELBUS_H_

#ifdef __cplusplus
extern "C" {
#endif

enum KelBusResult {
  KELBUS_OK = 0,
  // An argument is null or out of range, or a callback gave an unusable
  // answer (negative size, null type, or a type name that is not UTF-8 or
  // holds control characters, which MQTT does not carry).
  KELBUS_ERR_INVALID = -1,
  // No open communicator has this identifier (never opened, closed, or
  // inherited from the parent of a forked process).  BBSysLoopWait: the
  // process has no open communicator.
  KELBUS_ERR_BAD_ID = -2,
  // KELBUS_URL is malformed, or the files named by KELBUS_PASSWORD_FILE,
  // KELBUS_CA_FILE, KELBUS_CERT_FILE or KELBUS_KEY_FILE are unusable or do
  // not fit it; a diagnostic line tells why.
  KELBUS_ERR_URL = -3,
  // No broker answered at KELBUS_URL within KELBUS_CONNECT_SECONDS; a
  // diagnostic line names the URL and how to start a broker.
  KELBUS_ERR_UNREACHABLE = -4,
  // The broker answered but refused the connection, a subscription or a
  // message (for instance bad user name or password, not authorised), or
  // TLS failed: the broker's certificate is not trusted or does not name
  // its host.
  KELBUS_ERR_REFUSED = -5,
  // DeclareApplicationId with flag 0: a live process holds the name.
  KELBUS_ERR_NAME_HELD = -6,
  // Another process took this communicator's application over; the
  // communicator receives nothing more and sends nothing more.
  KELBUS_ERR_NAME_LOST = -7,
  // DeclareApplicationId on a communicator that already declared one.
  KELBUS_ERR_ALREADY_DECLARED = -8,
  // The connection to the broker is down (DeclareApplicationId,
  // AssociateDisconnectHandler) or closed (SendRequest).
  KELBUS_ERR_DISCONNECTED = -9,
  // The message is larger than the broker accepts.
  KELBUS_ERR_TOO_LARGE = -10,
  // WaitingLoop or BBSysLoopWait: the time limit passed before the watched
  // value changed.  SendRequest: it blocked KELBUS_SEND_TIMEOUT_SECONDS.
  KELBUS_ERR_TIMEOUT = -11,
  // Any other failure of the network or the broker; see KelBusLastError.
  KELBUS_ERR_TRANSPORT = -12,
  // SendRequest: the target application has left the bus (its holder closed
  // its communicator, exited or died) and nobody holds it again.
  KELBUS_ERR_GONE = -13
};

enum {
  // Bytes of unacknowledged messages per communicator above which SendRequest
  // waits.
  KELBUS_SEND_WINDOW_BYTES = 4 * 1024 * 1024,
  // Bytes of messages from one communicator that the holder of an
  // application has not dispatched yet, above which SendRequest waits.
  KELBUS_RECEIVE_WINDOW_BYTES = 8 * 1024 * 1024,
  // Time limit for reaching the broker when a communicator is registered or
  // declares an application.
  KELBUS_CONNECT_SECONDS = 5,
  // MQTT keepalive of every connection; the environment variable of the
  // same name may set another number of seconds, from 5 (the least that
  // libmosquitto takes) to 65535, for a communicator registered afterwards.
  // The broker drops a connection silent for 1.5 keepalives (see
  // DEPARTURES); a communicator notices a silent broker within two.
  KELBUS_KEEPALIVE_SECONDS = 40
};

// Writes the buffer of the message being sent: `size` bytes at `buffer`,
// `size` being what the size callback returned.
typedef void (*KelBusStreamCallback)(void* buffer, int size);
// Number of bytes of the message being sent.
typedef int (*KelBusSizeCallback)(void);
// Type name of the message being sent, NUL-terminated UTF-8; the bus copies
// it before SendRequest returns.
typedef const char* (*KelBusTypeCallback)(void);
// A message for the communicator's application: its type name and `size`
// bytes at `buffer`, both valid only during the call (`buffer` is not null,
// even when `size` is 0).
typedef void (*KelBusReceiveCallback)(const char* type, const void* buffer, int size);
// A process left the bus: its process id, application, host and user, valid
// only during the call.
typedef void (*KelBusDisconnectCallback)(int pid, const char* app, const char* host,
                                         const char* user);

// Opens a communicator on the bus that KELBUS_URL names and stores its
// identifier (a positive number never used again in this process) in
// `*communicatorId`.  `name` labels the communicator's MQTT client on the
// broker; it may be null.  Waits until the broker has accepted the
// connection, at most KELBUS_CONNECT_SECONDS.
// Results: KELBUS_OK, KELBUS_ERR_INVALID (null `communicatorId`),
// KELBUS_ERR_URL, KELBUS_ERR_UNREACHABLE, KELBUS_ERR_REFUSED,
// KELBUS_ERR_TRANSPORT.
int RegisterCommunicator(const char* name, int* communicatorId);

// Makes the communicator the holder of the application `applicationId`
// (non-empty, at most 4096 bytes), so that messages sent to that name reach
// it.  A communicator declares at most one application, for its lifetime.
// `flag` says what happens when a live process already holds the name:
//   0  refuse, with KELBUS_ERR_NAME_HELD; the communicator stays as it was.
//   1  take the name over: the holder is disconnected, its departure record
//      is published and it gets KELBUS_ERR_NAME_LOST from then on.  On a
//      bus with credentials a holder under other credentials disconnects
//      itself once it learns of the new holder (see IDENTITY).
// A name whose holder died or closed is free with either flag.  Two
// processes that declare one name at the same moment both succeed, and the
// one that connected first loses the name within a second (the broker never
// lets two live clients hold it).  Returns once the communicator receives the
// application's messages and its presence record is published.
// Results: KELBUS_OK, KELBUS_ERR_INVALID, KELBUS_ERR_BAD_ID,
// KELBUS_ERR_ALREADY_DECLARED, KELBUS_ERR_NAME_HELD, KELBUS_ERR_UNREACHABLE,
// KELBUS_ERR_REFUSED, KELBUS_ERR_DISCONNECTED, KELBUS_ERR_TRANSPORT.
int DeclareApplicationId(int communicatorId, const char* applicationId, int flag);

// Sends one message to the application `targetApplication`.  Calls `size`,
// then `type`, then `stream` with a buffer of the size given, and hands the
// bytes to the network; the callbacks are not called when the communicator
// is unusable (bad identifier, name lost).  Blocks while a window is full
// (see MEMORY AND FLOW CONTROL), also while the connection is down.
// KELBUS_OK means the message is on its way, not that anybody holds the
// application.
// Results: KELBUS_OK, KELBUS_ERR_INVALID, KELBUS_ERR_BAD_ID (also when
// another thread closes the communicator while the send is blocked),
// KELBUS_ERR_NAME_LOST, KELBUS_ERR_GONE, KELBUS_ERR_TIMEOUT,
// KELBUS_ERR_REFUSED (the broker's access rules do not let this
// communicator send; reported by the first send to a target, or by the
// send after a message the broker refused),
// KELBUS_ERR_DISCONNECTED (the connection was closed), KELBUS_ERR_TOO_LARGE,
// KELBUS_ERR_TRANSPORT.
int SendRequest(int communicatorId, const char* targetApplication, KelBusStreamCallback stream,
                KelBusSizeCallback size, KelBusTypeCallback type);

// Tells whether a live process holds the application `applicationId`:
// stores 1 in `*present` when its holder's presence record stands, 0 when
// nobody ever held it or its holder left (see DEPARTURES: a holder that died
// counts as present until its departure is published).  Claims nothing and
// sends nothing to the holder; reads the broker's record on a connection of
// its own, so it answers also while the communicator's connection is down,
// within `timeout` milliseconds.
// Results: KELBUS_OK, KELBUS_ERR_INVALID (empty name, null `present`,
// negative `timeout`), KELBUS_ERR_BAD_ID, KELBUS_ERR_UNREACHABLE,
// KELBUS_ERR_REFUSED, KELBUS_ERR_TRANSPORT (no answer in time).
int KelBusApplicationPresent(int communicatorId, const char* applicationId, int timeout,
                             int* present);

// Installs the callback that receives the messages of the communicator's
// application; null removes it.  A message dispatched while no callback is
// installed is dropped.  Messages are kept from the moment the application
// is declared until a waiting loop dispatches them, so installing the
// callback before the first wait loses nothing.  `name` is not interpreted
// and may be null.
// Results: KELBUS_OK, KELBUS_ERR_BAD_ID.
int AssociateHandler(int communicatorId, const char* name, KelBusReceiveCallback receive);

// Installs the callback that receives the departure records of every
// process on the bus; null removes it and stops the reports.  Returns once
// the broker reports departures to this communicator.  `name` is not
// interpreted and may be null.
// Results: KELBUS_OK, KELBUS_ERR_BAD_ID, KELBUS_ERR_REFUSED,
// KELBUS_ERR_DISCONNECTED (the callback is installed and reports start when
// the connection is back), KELBUS_ERR_TRANSPORT (no acknowledgement in
// time).
int AssociateDisconnectHandler(int communicatorId, const char* name,
                               KelBusDisconnectCallback disconnect);

// Runs the callbacks of the process's communicators, in the order their
// messages and departures arrived, until `*watched` differs from its value
// at entry.  `*watched` is read between callbacks on the waiting thread, so
// a callback changes it to end the wait.  `timeout` is a time limit in
// milliseconds; negative means none, 0 runs what has already arrived.
// Results: KELBUS_OK (the value changed), KELBUS_ERR_INVALID (null
// `watched`), KELBUS_ERR_BAD_ID (no open communicator), KELBUS_ERR_TIMEOUT.
int BBSysLoopWait(int* watched, int timeout);

// As BBSysLoopWait, for the messages and departures of one communicator;
// those of others wait for their turn.  Also returns KELBUS_ERR_NAME_LOST
// once the communicator has lost its application and everything it had
// received has been dispatched, and KELBUS_ERR_BAD_ID if a callback closes
// the communicator.
int WaitingLoop(int communicatorId, int timeout, int* watched);

// Closes the communicator: waits (at most KELBUS_CONNECT_SECONDS) until the
// broker has every message it sent, publishes its departure record if it
// declared an application, and drops what it had received but not yet
// dispatched.  The identifier becomes invalid.  A callback may close its own
// communicator; the waiting loop then ends with KELBUS_ERR_BAD_ID.
// Results: KELBUS_OK, KELBUS_ERR_BAD_ID.
int CloseCommunicator(int communicatorId);

// During a receive callback, on its thread: the application that the bus
// vouches sent the message being received, or null when the sender held no
// application (a plain MQTT client, a communicator that declared none).  See
// IDENTITY for what vouches.  Valid until the callback returns; null outside
// a receive callback.
const char* KelBusMessageSender(void);

// Text describing the last failure of a bus call on the calling thread ("" if
// there was none).  Valid until the thread's next bus call.
const char* KelBusLastError(void);

// Receives one diagnostic line of the bus: NUL-terminated, without newline,
// valid only during the call.
typedef void (*KelBusDiagnosticSink)(const char* line);

// Sends the bus's diagnostic lines to `sink` from now on; null restores the
// default, which writes each line and a newline to standard error and
// flushes it.  Returns the sink it replaces.  The sink is called on any
// thread, the network threads included, possibly on several at once; it
// must return soon and must not call the bus.
KelBusDiagnosticSink KelBusSetDiagnosticSink(KelBusDiagnosticSink sink);

#ifdef __cplusplus
}
#endif

#endif  // KELMSGFEAMESSAGING_KELBUS_H_
