// KelMsgTransferReceiptType: the message that makes a file transfer
// verifiable, beside the file-transfer messages, which it leaves unchanged.
// The type name is "KelMsgTransferReceiptType".
//
// Steps, in m_step:
//   RECEIPT_ASK      a puller asks the holder to state what it sends with the
//                    next file it requests; nothing else is read;
//   RECEIPT_SENT     the sender's statement of what it read, sent after the
//                    chunks and before its completion;
//   RECEIPT_WRITTEN  the receiver's receipt of what it wrote, sent once the
//                    file is final, to a sender that made a statement.
// m_fileName names the file as the message's sender knows it.
//
// Payload (integers signed 32-bit little-endian, strings counted UTF-8, no
// gaps): m_step; m_fileName; the byte count's low 32 bits, then its high 32
// bits; the digest; the failure code; the reason.  A payload cut short, with
// bytes over, with an unknown step or failure code or a negative byte count
// is refused and leaves the message unchanged.
//
// Ownership: the message owns its strings; nothing is lent.
// Threading: none of its own; use a message from one thread at a time.
#ifndef KELMSGFEAMESSAGING_KELMSGTRANSFERRECEIPTTYPE_H_
#define KELMSGFEAMESSAGING_KELMSGTRANSFERRECEIPTTYPE_H_

#include <cstdio>

#include <KelMsgFeaMessaging/KelMsgBBMessage.h>
#include <KelMsgFeaMessaging/KelMsgTransferReceipt.h>

class KelMsgTransferReceiptType : public KelMsgBBMessage {
 public:
  enum e_step : int { RECEIPT_ASK = 1, RECEIPT_SENT = 2, RECEIPT_WRITTEN = 3 };

  // A RECEIPT_ASK for no file, with an empty receipt.
  KelMsgTransferReceiptType();
  KelMsgTransferReceiptType(e_step step, const KelString& fileName,
                            const KelMsgTransferReceipt& receipt);

  int Step() const noexcept { return m_step; }
  const KelString& FileName() const noexcept { return m_fileName; }
  const KelMsgTransferReceipt& Receipt() const noexcept { return m_receipt; }

  int RequiredBufferSize() const override;
  void Stream(void* buffer, int size) const override;
  void Unstream(const void* buffer, int size) override;
  // A message with the default content: nothing is copied.
  KelMsgBBMessage* Clone() const override;
  // Writes the type line and "%s   Step: %d, bytes: %lld, failure: %d\n";
  // does not flush.
  void Print(FILE* stream, const char* prefix) const override;

 private:
  int m_step = RECEIPT_ASK;
  KelString m_fileName;
  KelMsgTransferReceipt m_receipt;
};

#endif  // KELMSGFEAMESSAGING_KELMSGTRANSFERRECEIPTTYPE_H_
