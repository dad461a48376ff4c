// KelMsgAnalysisMessageType: a message that carries one XML document.
//
// The document is the whole content; the name of its root element is the
// document's kind.  The message never looks inside the document when it is
// built, sent or received; GetRootElemNameFromXml and GetTypeFromXmlBuffer
// read the kind for whoever needs it.  The type name is
// "KelMsgAnalysisMessageType".
//
// Payload: a signed 32-bit little-endian byte count n, then the n UTF-8 bytes
// of the document, no terminator.
//
// Example:
//   KelMsgAnalysisMessageType msg(KelString("<Progress>42</Progress>"));
//   KelMsgBBAPI::SendRequest(communicator, "monitor", msg);
#ifndef KELMSGFEAMESSAGING_KELMSGANALYSISMESSAGETYPE_H_
#define KELMSGFEAMESSAGING_KELMSGANALYSISMESSAGETYPE_H_

#include <cstdio>

#include <KelMsgFeaMessaging/KelMsgBBMessage.h>
#include <KelMsgFeaMessaging/KelString.h>

class KelMsgAnalysisMessageType : public KelMsgBBMessage {
 public:
  // An empty document, as a prototype or for Unstream.
  KelMsgAnalysisMessageType();
  // Shares the text of `xmlBuffer`, which is not parsed.
  // Precondition (the process ends otherwise): the document is not empty.
  explicit KelMsgAnalysisMessageType(const KelString& xmlBuffer);
  ~KelMsgAnalysisMessageType() override;

  // The document as text.
  const KelString& GetXmlBuffer() const noexcept { return m_msgBuffer; }

  // The tag name of the root element of `xmlBuffer`, unchanged.  A text the
  // XML parser refuses is reported ("hr == S_OK"), and the result is then
  // empty.
  static KelString GetRootElemNameFromXml(const KelString& xmlBuffer);
  // The kind of `xmlBuffer`: its root element's tag name, read the same way
  // and returned in its UTF-8 form, non-ASCII names included.  Refused texts
  // are reported and give an empty result.  Reads only its argument.
  KelString GetTypeFromXmlBuffer(const KelString& xmlBuffer) const;

  // 4 + the byte count of the document.
  // Precondition (the process ends otherwise): the document is not empty.
  int RequiredBufferSize() const override;
  // Writes the count and the document's bytes at `buffer`.
  void Stream(void* buffer, int size) const override;
  // Takes the document from a payload.  A count of 0 gives an empty document;
  // the text ends at the first NUL byte.  A count that is negative or does
  // not match the payload's size is refused.  The document is not parsed.
  void Unstream(const void* buffer, int size) override;
  // A message carrying the same document.
  KelMsgBBMessage* Clone() const override;
  // Writes "Analysis Message Prefix%s\n" with the prefix ("DefaultPfix" when
  // it is null), then the document and a newline; then flushes the stream.
  // There is no type line.
  void Print(FILE* stream, const char* prefix) const override;

 private:
  KelMsgAnalysisMessageType(const KelMsgAnalysisMessageType&) = default;
  KelMsgAnalysisMessageType& operator=(const KelMsgAnalysisMessageType&) = delete;

  KelString m_msgBuffer;
};

#endif  // KELMSGFEAMESSAGING_KELMSGANALYSISMESSAGETYPE_H_
