// KelMsgFileTransferType: the one message type of the chunked file transfer.
//
// Every step of a transfer travels as this type; the record's m_dataType says
// which (see KelMsgFileTransferData).  The type name is
// "KelMsgFileTransferType".
//
// Payload (integers signed 32-bit little-endian, no gaps): m_dataType; the
// eight names in record order, each as a counted string (a byte count, then
// the UTF-8 bytes); m_chunkId; m_chunkSize; m_chunkSize chunk bytes, none
// when it is 0 or less.  A default record is 44 zero bytes.
//
// Chunk bytes: when sending, m_chunkData is lent by whoever filled the record
// and the message frees nothing.  Unstream copies received bytes into an
// allocation of its own, which the message frees; a handler that wants the
// bytes beyond its call copies them.
#ifndef KELMSGFEAMESSAGING_KELMSGFILETRANSFERTYPE_H_
#define KELMSGFEAMESSAGING_KELMSGFILETRANSFERTYPE_H_

#include <cstdio>

#include <KelMsgFeaMessaging/KelMsgBBMessage.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferData.h>

class KelMsgFileTransferType : public KelMsgBBMessage {
 public:
  // Default record.
  KelMsgFileTransferType();
  // Frees the chunk bytes when Unstream allocated them.
  ~KelMsgFileTransferType() override;
  KelMsgFileTransferType(const KelMsgFileTransferType&) = delete;
  KelMsgFileTransferType& operator=(const KelMsgFileTransferType&) = delete;

  // The message's own record, not a copy.  Store into m_chunkData only
  // through a message that holds no received bytes (one that was never
  // unstreamed), since those are freed with the message.
  KelMsgFileTransferData& Data() noexcept { return m_record; }
  const KelMsgFileTransferData& Data() const noexcept { return m_record; }

  // 44 + the byte counts of the eight names + the chunk bytes.
  int RequiredBufferSize() const override;
  // Writes the payload at `buffer`.
  // Precondition (the process ends otherwise): m_chunkData is not null when
  // m_chunkSize is 1 or more.
  void Stream(void* buffer, int size) const override;
  // Fills the record from a payload.  Chunk bytes, when m_chunkSize is 1 or
  // more, are copied into an allocation the message owns; bytes it owned
  // before are freed.  A payload whose name counts are negative, whose counts
  // run past its end or that leaves bytes over is refused and leaves the
  // record unchanged.
  void Unstream(const void* buffer, int size) override;
  // A message with the default record: nothing is copied.
  KelMsgBBMessage* Clone() const override;
  // Writes the type line and "%s   DataType: %d\n"; does not flush.
  void Print(FILE* stream, const char* prefix) const override;

 private:
  void ReleaseOwnedChunk() noexcept;

  KelMsgFileTransferData m_record;
  bool m_ownsChunk = false;  // m_record.m_chunkData came from Unstream
};

#endif  // KELMSGFEAMESSAGING_KELMSGFILETRANSFERTYPE_H_
