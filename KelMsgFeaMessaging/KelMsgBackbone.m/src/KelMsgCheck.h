// The two kinds of failed check of the library, both reported through
// DovFatalError with "AssertionFailed:" and the condition as written here.
//
// KELMSG_ASSERT guards the calling program's own contract: report, then end
// the process.
//
// KELMSG_PEER_CHECK guards what another process sent: it yields the
// condition's value, and when false it reports and marks the message being
// received as refused, so the registry hands it to no handler.  The caller
// stops working on the message and returns:
//
//   if (!KELMSG_PEER_CHECK(count >= 0)) return;
//
// Reports name the file of the check by its DOV_SOURCE_PATH.
#ifndef KELMSGFEAMESSAGING_KELMSGCHECK_H_
#define KELMSGFEAMESSAGING_KELMSGCHECK_H_

#include <KelMsgFeaMessaging/DovFatalError.h>
#include <KelMsgFeaMessaging/DovSourcePath.h>

// Reports and marks the received message refused; always returns false.
bool KelMsgPeerCheckFailed(const char* text, const char* path, int line);

// The registry's view of the mark: cleared before a payload is taken in, read
// after.  One mark per thread, since each thread that waits in the bus
// dispatches its own messages.
void KelMsgClearRefusal() noexcept;
bool KelMsgWasRefused() noexcept;

#define KELMSG_ASSERT(cond)                                                   \
  do {                                                                        \
    if (!(cond))                                                              \
      DovContractFailed("AssertionFailed:" #cond, DOV_SOURCE_PATH, __LINE__); \
  } while (0)

#define KELMSG_PEER_CHECK(cond) \
  ((cond) || KelMsgPeerCheckFailed("AssertionFailed:" #cond, DOV_SOURCE_PATH, __LINE__))

#endif  // KELMSGFEAMESSAGING_KELMSGCHECK_H_
