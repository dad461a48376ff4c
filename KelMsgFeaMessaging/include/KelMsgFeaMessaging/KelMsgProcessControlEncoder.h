// KelMsgProcessControlEncoder: converts a process-control request between its
// structured form (the message's map and control type) and its XML text.
//
// The operations keep no state and may be called from any thread on distinct
// messages.
#ifndef KELMSGFEAMESSAGING_KELMSGPROCESSCONTROLENCODER_H_
#define KELMSGFEAMESSAGING_KELMSGPROCESSCONTROLENCODER_H_

#include <KelMsgFeaMessaging/KelString.h>

class KelMsgProcessControlType;

class KelMsgProcessControlEncoder {
 public:
  KelMsgProcessControlEncoder() = delete;

  // The kill document for `killValue`, inserted verbatim (no check, no
  // escaping): the XML declaration, <Kill type="symconst">, the value and
  // </Kill>, with nothing in between.
  static KelString CreateKillXmlMessage(const KelString& killValue);

  // Sets pcType.m_xmlMessage from the map.  A missing "Kill" key is inserted
  // with an empty value on the way.
  // Preconditions (the process ends otherwise): the control type is
  // PROCESS_CONTROL_KILL, and the value under "Kill" is "SOFT_KILL" or
  // "HARD_KILL" (case-sensitive).
  static void ExternalizeProcessControlMsg(KelMsgProcessControlType& pcType);

  // Parses pcType.m_xmlMessage and fills the control type and the map.  The
  // document must have the root element "Kill" with exactly one attribute,
  // type="symconst", and the text SOFT_KILL or HARD_KILL; the pair ("Kill",
  // text) is then inserted unless "Kill" is already in the map.  A document
  // that breaks a rule is reported and refused, and processing stops there:
  // the control type is set once the root's name has passed.
  static void InternalizeProcessControlMsg(KelMsgProcessControlType& pcType);
};

#endif  // KELMSGFEAMESSAGING_KELMSGPROCESSCONTROLENCODER_H_
