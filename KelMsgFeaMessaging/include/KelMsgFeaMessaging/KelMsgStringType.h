// KelMsgStringType: a message that carries a run of raw bytes.
//
// The payload is the bytes themselves, with no count and no terminator: the
// size the bus delivers is the size of the message.  The type name is
// "KelMsgStringType".
//
// A message is empty (constructed or cloned), lending (after SetData: the
// bytes stay the caller's) or owning (after Unstream: the message copied the
// bytes and frees them).
//
// Example:
//   KelMsgStringType msg;
//   msg.SetData(text, length);   // `text` must outlive the send
//   KelMsgBBAPI::SendRequest(communicator, "solver", msg);
#ifndef KELMSGFEAMESSAGING_KELMSGSTRINGTYPE_H_
#define KELMSGFEAMESSAGING_KELMSGSTRINGTYPE_H_

#include <cstdio>

#include <KelMsgFeaMessaging/KelMsgBBMessage.h>

class KelMsgStringType : public KelMsgBBMessage {
 public:
  KelMsgStringType();
  // Frees the bytes when the message owns them.
  ~KelMsgStringType() override;
  KelMsgStringType(const KelMsgStringType&) = delete;
  KelMsgStringType& operator=(const KelMsgStringType&) = delete;

  // Lends `size` bytes at `data`, copying nothing; the caller keeps them alive
  // and unchanged until the message has been streamed, and frees them itself.
  // Bytes the message owned before are freed first.
  // Preconditions (the process ends otherwise): size >= 0, and data is not
  // null unless size is 0.
  void SetData(const char* data, int size);
  // The bytes held (null when there are none) and their number, for
  // handlers; valid while the message lives and its data is not replaced.
  const char* Data() const noexcept { return m_data; }
  int Size() const noexcept { return m_size; }

  // The number of bytes held.
  int RequiredBufferSize() const override;
  // Copies the bytes to the start of `buffer`.
  void Stream(void* buffer, int size) const override;
  // Copies the whole payload into bytes the message owns, after freeing any
  // it owned before.  A negative size is refused.
  void Unstream(const void* buffer, int size) override;
  // An empty message of this type: the bytes are not copied.
  KelMsgBBMessage* Clone() const override;
  // Writes the type line, "%s   size: %d\n", then, when there are bytes,
  // "%s   data[0]: %c\n" and "%s   data[%d]: %c\n" with the first and the
  // last byte (index size - 1), each prefixed; then flushes the stream.
  void Print(FILE* stream, const char* prefix) const override;

 private:
  void ReleaseOwnedData() noexcept;

  const char* m_data = nullptr;
  int m_size = 0;
  bool m_ownsData = false;  // m_data came from Unstream and is freed here
};

#endif  // KELMSGFEAMESSAGING_KELMSGSTRINGTYPE_H_
