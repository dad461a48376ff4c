#include "AnalysisDocuments.h"

#include <KelMsgFeaMessaging/KelBasResult.h>
#include <KelMsgFeaMessaging/KelBasXmlDocument.h>
#include <KelMsgFeaMessaging/KelBasXmlNode.h>
#include <KelMsgFeaMessaging/KelMsgAnalysisMessageType.h>

namespace {

std::string Escaped(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

}  // namespace

std::string MakeDocument(const std::string& kind,
                         std::initializer_list<std::pair<const char*, std::string>> attributes) {
  std::string document = "<" + kind;
  for (const auto& [name, value] : attributes) {
    document += std::string(" ") + name + "=\"" + Escaped(value) + "\"";
  }
  return document + "/>";
}

std::string AttributeOf(const Attributes& attributes, const char* name) {
  const auto found = attributes.find(KelString(name));
  return found == attributes.end() ? std::string() : found->second.GetUTF8();
}

void DocumentHandler::HandleMessage(const KelMsgBBMessage& msg, const char* /*id*/) {
  const auto& analysis = static_cast<const KelMsgAnalysisMessageType&>(msg);
  KelBasXmlDocument document;
  if (document.ReadString(analysis.GetXmlBuffer()) != S_OK)
    return;  // not ours to judge
  const KelBasXmlNode root = document.GetRootElement();
  m_receiver(root.GetTagName().GetUTF8(), root.GetAttributes());
}
