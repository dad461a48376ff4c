#include <KelMsgFeaMessaging/KelMsgProcessControlEncoder.h>

#include <KelMsgFeaMessaging/KelBasTreeGeneric.h>
#include <KelMsgFeaMessaging/KelBasXmlDocument.h>
#include <KelMsgFeaMessaging/KelBasXmlNode.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlType.h>

#include "KelMsgCheck.h"

KelString KelMsgProcessControlEncoder::CreateKillXmlMessage(const KelString& killValue) {
  KelString xml("<?xml version=\"1.0\" encoding=\"utf-8\"?><Kill type=\"symconst\">");
  xml.Append(killValue);
  xml.Append(KelString("</Kill>"));
  return xml;
}

void KelMsgProcessControlEncoder::ExternalizeProcessControlMsg(KelMsgProcessControlType& pcType) {
  KELMSG_ASSERT(pcType.m_processControlType == KelMsgProcessControlType::PROCESS_CONTROL_KILL);
  KelString killValue("SOFT_KILL");
  // operator[] inserts "Kill" with an empty value when it is absent.
  const KelString& requested = pcType.m_values[KelString("Kill")];
  if (requested == "HARD_KILL") {
    killValue = KelString("HARD_KILL");
  } else if (requested != "SOFT_KILL") {
    KELMSG_ASSERT("Unknown Kill Type in KelMsgProcessControlType" == 0);
  }
  pcType.m_xmlMessage = CreateKillXmlMessage(killValue);
}

void KelMsgProcessControlEncoder::InternalizeProcessControlMsg(KelMsgProcessControlType& pcType) {
  KelBasXmlDocument document;
  const int hr = document.ReadString(pcType.m_xmlMessage);
  if (!KELMSG_PEER_CHECK(hr == S_OK))
    return;
  const KelBasXmlNode root = document.GetRootElement();
  const KelString rootTagName = root.GetTagName();
  if (!KELMSG_PEER_CHECK(rootTagName == "Kill"))
    return;
  pcType.m_processControlType = KelMsgProcessControlType::PROCESS_CONTROL_KILL;
  const KelBasTreeGeneric<KelString> atts = root.GetAttributes();
  if (!KELMSG_PEER_CHECK(atts.size() == 1))
    return;
  const auto itr = atts.find(KelString("type"));
  if (!KELMSG_PEER_CHECK(itr != atts.end()))
    return;
  const KelString& killType = itr->second;
  if (!KELMSG_PEER_CHECK(killType == "symconst"))
    return;
  const KelString killVal = root.GetTextContent();
  if (!KELMSG_PEER_CHECK(killVal == "SOFT_KILL" || killVal == "HARD_KILL"))
    return;
  pcType.m_values.emplace(KelString("Kill"), killVal);
}
