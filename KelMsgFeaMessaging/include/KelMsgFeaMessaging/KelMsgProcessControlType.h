// KelMsgProcessControlType: a request to the receiving process to stop.
//
// The request is held twice: structured, in m_values (the one key in use is
// "Kill", whose value is "SOFT_KILL" or "HARD_KILL"), and as the XML text
// m_xmlMessage, which alone travels.  KelMsgProcessControlEncoder converts
// between the two; KelMsgProcessControlTypeFactory builds ready-to-send kill
// requests.  The library only carries the request: what a kill means is up to
// the receiving client's handler.  The type name is "KelMsgProcessControlType".
//
// Payload: a signed 32-bit little-endian byte count n (1 or more), then the n
// UTF-8 bytes of m_xmlMessage, no terminator.  A kill document is
//   <?xml version="1.0" encoding="utf-8"?><Kill type="symconst">SOFT_KILL</Kill>
// on one line (76 bytes), with HARD_KILL for a hard kill.
//
// Receiving: Unstream takes the text and at once internalizes it.  Register a
// default-constructed message as the prototype: a clone copies the map, and
// internalizing keeps an existing "Kill" entry.
#ifndef KELMSGFEAMESSAGING_KELMSGPROCESSCONTROLTYPE_H_
#define KELMSGFEAMESSAGING_KELMSGPROCESSCONTROLTYPE_H_

#include <cstdio>

#include <KelMsgFeaMessaging/KelBasTreeGeneric.h>
#include <KelMsgFeaMessaging/KelMsgBBMessage.h>
#include <KelMsgFeaMessaging/KelString.h>

class KelMsgProcessControlType : public KelMsgBBMessage {
 public:
  enum e_processControlType : int { PROCESS_CONTROL_KILL = 1 };

  // Empty map, control type 0, no XML.
  KelMsgProcessControlType();
  ~KelMsgProcessControlType() override;

  // m_processControlType.
  int ControlType() const noexcept { return m_processControlType; }
  // A copy of the value under `key`, or an empty string when the key is
  // absent; the map is not changed.
  KelString GetVal(const KelString& key) const;
  bool isPresent(const KelString& key) const;

  // 4 + the byte count of the XML.
  // Precondition (the process ends otherwise): the XML is not empty, that is
  // the message was externalized or received.
  int RequiredBufferSize() const override;
  // Writes the count and the XML's bytes at `buffer`.
  void Stream(void* buffer, int size) const override;
  // Takes the XML from a payload and internalizes it.  A count below 1, or
  // one that does not match the payload's size, is refused, as is a document
  // the encoder refuses.
  void Unstream(const void* buffer, int size) override;
  // A full copy: XML, map and control type.
  KelMsgBBMessage* Clone() const override;
  // Writes the type line, then "%s   Content: %s\n" with the prefix and the
  // XML; then flushes the stream.
  void Print(FILE* stream, const char* prefix) const override;

  // The request in structured form; keys in strcmp order.
  KelBasTreeGeneric<KelString> m_values;
  // 0 when nothing is set, PROCESS_CONTROL_KILL for a kill request.
  int m_processControlType = 0;
  // The XML text, the one thing that is sent.
  KelString m_xmlMessage;

 private:
  KelMsgProcessControlType(const KelMsgProcessControlType&) = default;
  KelMsgProcessControlType& operator=(const KelMsgProcessControlType&) = delete;
};

#endif  // KELMSGFEAMESSAGING_KELMSGPROCESSCONTROLTYPE_H_
