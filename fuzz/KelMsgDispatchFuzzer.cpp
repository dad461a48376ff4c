// A received buffer, as any process on the bus could send it, dispatched by
// the registry under one of the library's type names or under a name nobody
// registered.
//
// Input: the first byte picks the type name; the rest is the buffer (envelope
// and payload).  libFuzzer hands the input in an allocation of exactly its
// size, so a read past the buffer's end is an ASan report.
//
// A message that reaches the handler must be sound: it prints, and what it
// streams reads back into a message that streams the same bytes again.
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgAnalysisMessageType.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlType.h>
#include <KelMsgFeaMessaging/KelMsgStringType.h>
#include <KelMsgFeaMessaging/KelMsgTransferReceiptType.h>

#include "FuzzSupport.h"
#include "KelMsgCheck.h"

namespace {

constexpr const char* kTypeNames[] = {"KelMsgStringType",         "KelMsgAnalysisMessageType",
                                      "KelMsgProcessControlType", "KelMsgFileTransferType",
                                      "KelMsgUnknownType",        "KelMsgTransferReceiptType"};

std::vector<char> StreamToBytes(const KelMsgBBMessage& msg) {
  std::vector<char> bytes(static_cast<std::size_t>(msg.RequiredBufferSize()));
  msg.Stream(bytes.data(), static_cast<int>(bytes.size()));
  return bytes;
}

class CheckingHandler : public KelMsgBBMessageHandler {
 public:
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    FUZZ_EXPECT(id != nullptr);
    msg.Print(DevNull(), id);
    // An analysis message may arrive with an empty document, which is not one
    // it may send again.
    const auto* analysis = dynamic_cast<const KelMsgAnalysisMessageType*>(&msg);
    if (analysis != nullptr && analysis->GetXmlBuffer().GetLengthInByte() == 0)
      return;
    // A string cut at a NUL byte may shorten the first image; from then on
    // the images must agree.
    const std::vector<char> first = StreamToBytes(msg);
    const std::unique_ptr<KelMsgBBMessage> copy(msg.Clone());
    KelMsgClearRefusal();
    copy->Unstream(first.data(), static_cast<int>(first.size()));
    FUZZ_EXPECT(!KelMsgWasRefused());
    FUZZ_EXPECT(StreamToBytes(*copy) == first);
  }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  DiscardFatalErrorReports();
  // Destroyed at exit, before the registry's maps: deletes what was adopted.
  static KelMsgBBCallbackManager registry;
  for (KelMsgBBMessage* proto : std::initializer_list<KelMsgBBMessage*>{
           new KelMsgStringType, new KelMsgAnalysisMessageType, new KelMsgProcessControlType,
           new KelMsgFileTransferType, new KelMsgTransferReceiptType}) {
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(proto, new CheckingHandler);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0)
    return 0;
  const char* type = kTypeNames[data[0] % std::size(kTypeNames)];
  KelMsgBBCallbackManager::HandleMessage(type, data + 1, static_cast<int>(size - 1));
  return 0;
}
