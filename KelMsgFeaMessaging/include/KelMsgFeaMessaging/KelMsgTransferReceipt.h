// KelMsgTransferReceipt: one side's account of the bytes of one file
// transfer: how many, their SHA-256, and what went wrong, if anything.
//
// The sender's statement tells what it read; the receiver's receipt tells
// what it wrote.  A transfer is verified when neither names a failure and
// both hold the same count and digest.
//
// Ownership: a plain record of values; copies are independent.
// Threading: none of its own; use a record from one thread at a time.
#ifndef KELMSGFEAMESSAGING_KELMSGTRANSFERRECEIPT_H_
#define KELMSGFEAMESSAGING_KELMSGTRANSFERRECEIPT_H_

#include <cstdint>

#include <KelMsgFeaMessaging/KelString.h>

class KelMsgTransferReceipt {
 public:
  // Values of m_failure, as they travel.
  enum e_failure : int {
    FAILURE_NONE = 0,
    FAILURE_CANNOT_CREATE = 1,  // the receiver could not create its file
    FAILURE_CANNOT_WRITE = 2,   // a write failed or fell short, or the rename
    FAILURE_CANNOT_READ = 3,    // the source is missing or unreadable
    FAILURE_ABANDONED = 4,      // out-of-sequence chunks, or nothing came for too long
    FAILURE_SENDER_LEFT = 5,    // the sender left the bus mid-transfer
    FAILURE_LAST = FAILURE_SENDER_LEFT
  };

  // Same count, same digest, and no failure on either side.
  bool Matches(const KelMsgTransferReceipt& other) const;

  std::int64_t m_bytes = 0;
  KelString m_digest;  // lower-case hexadecimal SHA-256 of the bytes
  int m_failure = FAILURE_NONE;
  KelString m_reason;  // the system's words for the failure, "" when none
};

#endif  // KELMSGFEAMESSAGING_KELMSGTRANSFERRECEIPT_H_
