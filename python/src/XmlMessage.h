// XmlMessage: one analysis document (KelMsgAnalysisMessageType), kelmsg.Xml
// in Python.  The document is carried as it is, not parsed.
#ifndef KELMSG_PYTHON_XMLMESSAGE_H_
#define KELMSG_PYTHON_XMLMESSAGE_H_

#include <string>

#include <KelMsgFeaMessaging/KelMsgAnalysisMessageType.h>
#include <pybind11/pybind11.h>

#include "LibraryText.h"

struct XmlMessage {
  using Library = KelMsgAnalysisMessageType;

  std::string document;

  bool operator==(const XmlMessage&) const = default;

  static XmlMessage From(const KelMsgAnalysisMessageType& message) {
    return {LibraryText::ToString(message.GetXmlBuffer())};
  }
  template <class Use>
  void Lend(Use&& use) const {
    if (document.empty())
      throw pybind11::value_error("an XML document cannot be empty");
    use(KelMsgAnalysisMessageType(LibraryText::From(document, "the XML document")));
  }
};

#endif  // KELMSG_PYTHON_XMLMESSAGE_H_
