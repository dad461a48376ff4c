// An arbitrary document, as a peer could put into a process-control or an
// analysis message: the XML layer reads it, the process-control encoder
// internalizes it and the analysis message names its root.
//
// Properties: a document the encoder accepts is a soft or hard kill, and the
// kill it yields externalizes into a document that internalizes to the same
// kill; both root-name operations agree on the documents both accept.
#include <cstdint>

#include <KelMsgFeaMessaging/KelBasXmlDocument.h>
#include <KelMsgFeaMessaging/KelBasXmlNode.h>
#include <KelMsgFeaMessaging/KelMsgAnalysisMessageType.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlEncoder.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlType.h>

#include "FuzzSupport.h"
#include "KelMsgCheck.h"

namespace {

// Every accessor of the parsed tree, so the sanitizers see all of it.
void ReadWholeRoot(const KelString& text) {
  KelBasXmlDocument document;
  const bool read = document.ReadString(text) == S_OK;
  const KelBasXmlNode root = document.GetRootElement();
  FUZZ_EXPECT(root.IsEmpty() == !read);  // a root exactly when the document was read
  if (!read)
    return;
  root.GetTagName().GetLengthInChar();
  for (const auto& [name, value] : root.GetAttributes()) {
    name.GetLengthInChar();
    value.GetLengthInChar();
  }
  root.GetTextContent().GetLengthInChar();
}

// Internalizes `text` into a fresh message; false when it was refused.
bool Internalize(const KelString& text, KelMsgProcessControlType& message) {
  message.m_xmlMessage = text;
  KelMsgClearRefusal();
  KelMsgProcessControlEncoder::InternalizeProcessControlMsg(message);
  return !KelMsgWasRefused();
}

void CheckKillRoundTrip(const KelString& text) {
  KelMsgProcessControlType received;
  if (!Internalize(text, received))
    return;
  FUZZ_EXPECT(received.ControlType() == KelMsgProcessControlType::PROCESS_CONTROL_KILL);
  const KelString kill = received.GetVal(KelString("Kill"));
  FUZZ_EXPECT(kill == "SOFT_KILL" || kill == "HARD_KILL");

  KelMsgProcessControlEncoder::ExternalizeProcessControlMsg(received);
  KelMsgProcessControlType again;
  FUZZ_EXPECT(Internalize(received.m_xmlMessage, again));
  FUZZ_EXPECT(again.GetVal(KelString("Kill")) == kill);
}

void CheckRootNames(const KelString& text) {
  KelMsgClearRefusal();
  const KelString root = KelMsgAnalysisMessageType::GetRootElemNameFromXml(text);
  const bool rootRefused = KelMsgWasRefused();
  KelMsgClearRefusal();
  const KelString kind = KelMsgAnalysisMessageType().GetTypeFromXmlBuffer(text);
  if (!rootRefused && !KelMsgWasRefused())
    FUZZ_EXPECT(kind == root);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  DiscardFatalErrorReports();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const KelString text(reinterpret_cast<const char*>(data), static_cast<int>(size));
  ReadWholeRoot(text);
  CheckKillRoundTrip(text);
  CheckRootNames(text);
  return 0;
}
