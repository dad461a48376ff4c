// KelMsgVerifiedTransfer: file transfers that end with a receipt, so that a
// transfer succeeds only when the receiver wrote exactly the bytes that the
// sender read.
//
// It drives a KelMsgFileTransfer engine, whose messages, sequence and trace
// stay those of the engine, and adds KelMsgTransferReceiptType messages
// around them:
//   push  the sender's statement of what it read follows the chunks; the
//         receiver answers the completion with a receipt of what it wrote;
//   pull  the puller asks for a statement, which the holder sends after the
//         chunks.
// The side that receives, a pusher's peer or a puller, verifies: it counts
// and digests (SHA-256) the bytes actually written, keeps the first error
// (cannot create, cannot write, out-of-sequence chunks, the sender left),
// and compares with the sender's statement (which may say that the source
// is missing or unreadable).  It writes under the target's name followed by
// ".partial" in the target's directory and renames to the target's name only
// once verified; a failed transfer removes the partial file unless
// SetKeepPartial(true).  A pusher that makes no statement (a program that
// only speaks the engine's messages) still gets its file, reported as
// unverified, unless writing it failed.
//
// Peers that leave the bus mid-transfer: give DepartureWatcher() to the
// application's departure reports (KelMsgBBApplication::WatchDepartures); a
// receiving side then closes and removes the sender's file at once, and a
// waiting Push or Pull ends.
//
// A sending side owes statements to at most 256 pullers at a time (a
// puller's request settles its ask at once, so only a burst of pullers or
// asks never followed by a request come near); a further ask is refused with
// a line on the report stream, and that puller fails for want of a
// statement.  An ask a minute old, or from a puller that left the bus, no
// longer counts.
//
// Every finished transfer that this side received for a peer, and every
// send that a peer requested and that failed, is reported in one line on
// the report stream given at construction (nothing when null).  Push and
// Pull return true when verified and leave one line in Report() either way.
// While a Pull or a waiting Push waits, transfer messages and receipts from
// any application but its peer (the one asked, the one pushed to) are
// refused, each reported in one line on that stream: nobody else can
// answer for the peer, keep the wait alive or slip a file in meanwhile.
// A process that wants a file-size limit reported as "File too large" rather
// than dying of it ignores SIGXFSZ.
//
// Ownership: construction adopts a prototype and a handler for
// "KelMsgFileTransferType" and for "KelMsgTransferReceiptType" into the
// registry, which deletes them; they point at this object, which must
// outlive every dispatch to them.  Streams are lent and never closed.
// Threading: not thread-safe; everything runs on the thread that waits in
// the bus's loop, where the handlers re-enter the object during Push and
// Pull.
#ifndef KELMSGFEAMESSAGING_KELMSGVERIFIEDTRANSFER_H_
#define KELMSGFEAMESSAGING_KELMSGVERIFIEDTRANSFER_H_

#include <cstdio>
#include <functional>
#include <memory>

#include <KelMsgFeaMessaging/KelString.h>

class KelMsgBBDisconnectHandler;

class KelMsgVerifiedTransfer {
 public:
  // `application` is this process's application identifier, also its
  // message identifier, on the communicator `communicatorId`.  The engine
  // traces to `traceStream` at `traceLevel` (see KelMsgFileTransfer).
  KelMsgVerifiedTransfer(int communicatorId, const char* application, FILE* traceStream,
                         int traceLevel, FILE* report);
  ~KelMsgVerifiedTransfer();
  KelMsgVerifiedTransfer(const KelMsgVerifiedTransfer&) = delete;
  KelMsgVerifiedTransfer& operator=(const KelMsgVerifiedTransfer&) = delete;

  // Push and Pull give up when nothing of theirs has arrived for this many
  // seconds; 0 (the default) waits for ever.  A peer that is not on the bus
  // shows only this way, since the bus drops messages to a name nobody
  // holds: ask the bus first (KelBusApplicationPresent).
  void SetPatience(int seconds);
  // Failed transfers received here leave their NAME.partial in place.
  void SetKeepPartial(bool keep);
  // Confinement and limits of the engine (KelMsgFileTransfer::ConfineTo and
  // SetReceiveLimits): ConfineTo returns 0 or the errno.
  int ConfineTo(const char* directory);
  void SetReceiveLimits(int maxOpenFiles, int idleSeconds);
  // Closes the received transfers left idle beyond the limit: each is
  // reported as failed and its NAME.partial removed.  Once SetReceiveLimits
  // has set an idle time, the library's waiting loops (KelMsgBBAPI,
  // KelMsgBBApplication::Wait) do it on their own when a transfer falls
  // idle; a program that waits in KelBus.h's loops instead calls it.
  void CloseIdleTransfers();
  // Hands the size of every chunk this side reads from a file it sends, or
  // writes to a file it receives, to `listener` (empty: nobody), on the
  // thread that transfers, as the chunk passes.
  void SetProgressListener(std::function<void(int bytes)> listener);
  // Reports departures to this object; lent, valid while it lives.
  const KelMsgBBDisconnectHandler& DepartureWatcher() const;

  // Sends this side's file to `targetApplication`.  With `wait`, returns
  // once the receipt has come (true when it matches), the peer has left, or
  // the patience has run out; without, once everything is sent (true unless
  // the source could not be read), and the peer verifies on its own.
  bool Push(const char* sourceBaseDir, const char* sourceJobDir, const char* sourceFileName,
            const char* targetApplication, const char* targetBaseDir, const char* targetJobDir,
            const char* targetFileName, bool wait);
  // Fetches the file of `sourceApplication` into this side's target and
  // returns once it is verified (true) or has failed.
  bool Pull(const char* sourceApplication, const char* sourceBaseDir, const char* sourceJobDir,
            const char* sourceFileName, const char* targetBaseDir, const char* targetJobDir,
            const char* targetFileName);
  // The last Push's or Pull's outcome in one line: what was verified, or
  // who could not do what with which file, and why.
  const KelString& Report() const;

 private:
  class Parts;
  std::unique_ptr<Parts> m_parts;
};

#endif  // KELMSGFEAMESSAGING_KELMSGVERIFIEDTRANSFER_H_
