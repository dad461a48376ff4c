// File-transfer records in any order, from any of three senders, dispatched
// through the registry to the file-transfer handler and a fresh engine per
// input: announcements and send requests for files that exist or not, chunks
// out of sequence, duplicate announcements, completions nobody announced,
// unknown codes, and payloads that are not records at all.
//
// Input: a run of steps (FuzzedDataProvider).  Each picks the sender, then
// either builds a record from chosen fields or takes raw bytes as the
// payload, and delivers it in an envelope that carries the sender's name.
//
// The names of a record become paths that the engine opens, creates and
// truncates.  Before the record reaches the handler its directories are
// replaced by a sandbox made for the run and its job directory and file name
// are folded onto a few names inside it, so that no input touches a file
// outside.  Path forming itself has a target of its own.
//
// The engine sends chunks and completions over the in-process bus (nobody
// holds the names it sends to).  Property: an input leaves no descriptor
// open once its engine is gone.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgFileTransfer.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferHandler.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>

#include "FuzzSupport.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kSenders[] = {"alpha", "beta", ""};
// What the built records' names are drawn from: applications, directories,
// files that exist and do not, and names that try to leave the sandbox.
constexpr const char* kTexts[] = {"",   "alpha", "beta", "job",  "absent",   "f0",
                                  "f2", "f3",    "..",   "/etc", "a/../../b"};
constexpr const char* kJobDirs[] = {"", "job", "absent"};
// Source files: empty, short, exactly one chunk, and one that is missing.
constexpr const char* kFiles[] = {"f0", "f1", "f2", "f3"};
constexpr std::size_t kFileSizes[] = {0, 100, 65536};
constexpr int kMaxSteps = 64;
constexpr std::size_t kMaxChunk = 70000;

int g_communicator = 0;
fs::path g_sandbox;
KelMsgFileTransfer* g_engine = nullptr;  // the current input's

// Any text, folded onto one of a few names.
template <std::size_t N>
KelString Fold(const KelString& text, const char* const (&names)[N]) {
  return names[std::hash<std::string_view>{}(text.GetUTF8()) % N];
}

// Adopted for the file-transfer type: confines the record to the sandbox,
// then hands it to a file-transfer handler for the current input's engine.
class SandboxingHandler : public KelMsgBBMessageHandler {
 public:
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    KelMsgFileTransferType confined;
    // The chunk pointer is copied, not the bytes: they stay the received
    // message's.
    KelMsgFileTransferData& record = confined.Data() =
        static_cast<const KelMsgFileTransferType&>(msg).Data();
    record.m_sourceBaseDir = (g_sandbox / "source").c_str();
    record.m_targetBaseDir = (g_sandbox / "target").c_str();
    record.m_sourceJobDir = Fold(record.m_sourceJobDir, kJobDirs);
    record.m_targetJobDir = Fold(record.m_targetJobDir, kJobDirs);
    record.m_sourceFileName = Fold(record.m_sourceFileName, kFiles);
    record.m_targetFileName = Fold(record.m_targetFileName, kFiles);
    KelMsgFileTransferHandler(g_engine).HandleMessage(confined, id);
  }
};

void MakeSandbox() {
  char pattern[] = "/tmp/kelmsg-fuzz-XXXXXX";
  FUZZ_EXPECT(mkdtemp(pattern) != nullptr);
  g_sandbox = pattern;
  std::atexit([] { fs::remove_all(g_sandbox); });
  for (const fs::path& directory : {g_sandbox / "source", g_sandbox / "source" / "job"}) {
    fs::create_directories(directory);
    for (std::size_t i = 0; i < std::size(kFileSizes); ++i) {
      const std::string contents(kFileSizes[i], static_cast<char>('a' + i));
      FUZZ_EXPECT(std::ofstream(directory / kFiles[i], std::ios::binary) << contents);
    }
  }
  fs::create_directories(g_sandbox / "target" / "job");
}

std::ptrdiff_t OpenDescriptors() {
  return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

std::vector<char> BuildRecord(FuzzedDataProvider& input) {
  KelMsgFileTransferType message;
  KelMsgFileTransferData& record = message.Data();
  record.m_dataType = input.ConsumeIntegralInRange<std::int32_t>(0, 7);
  for (KelString* name :
       {&record.m_sourceApplication, &record.m_sourceBaseDir, &record.m_sourceJobDir,
        &record.m_sourceFileName, &record.m_targetApplication, &record.m_targetBaseDir,
        &record.m_targetJobDir, &record.m_targetFileName}) {
    *name = input.PickValueInArray(kTexts);
  }
  record.m_chunkId = input.ConsumeBool() ? input.ConsumeIntegralInRange<std::int32_t>(-1, 4)
                                         : input.ConsumeIntegral<std::int32_t>();
  std::vector<char> chunk =
      input.ConsumeBytes<char>(input.ConsumeIntegralInRange<std::size_t>(0, kMaxChunk));
  record.m_chunkSize = static_cast<std::int32_t>(chunk.size());
  record.m_chunkData = chunk.data();
  std::vector<char> payload(static_cast<std::size_t>(message.RequiredBufferSize()));
  message.Stream(payload.data(), static_cast<int>(payload.size()));
  return payload;
}

// The envelope a sender of that name writes: its name counted, then the
// payload, in an allocation of exactly that size.
void Deliver(const char* sender, const std::vector<char>& payload) {
  const std::int32_t n = static_cast<std::int32_t>(std::strlen(sender));
  std::vector<char> envelope(sizeof n + static_cast<std::size_t>(n) + payload.size());
  std::memcpy(envelope.data(), &n, sizeof n);
  std::copy(payload.begin(), payload.end(), std::copy_n(sender, n, envelope.begin() + sizeof n));
  KelMsgBBCallbackManager::HandleMessage("KelMsgFileTransferType", envelope.data(),
                                         static_cast<int>(envelope.size()));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  DiscardFatalErrorReports();
  // Opened now, before any input counts descriptors.
  FUZZ_EXPECT(DevNull() != nullptr);
  MakeSandbox();
  setenv("KELBUS_URL", "local:", 1);
  FUZZ_EXPECT(KelMsgBBAPI::RegisterCommunicator("file-transfer-fuzzer", g_communicator) ==
              KELBUS_OK);
  // Destroyed at exit, before the registry's maps: deletes what was adopted.
  static KelMsgBBCallbackManager registry;
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new KelMsgFileTransferType,
                                                    new SandboxingHandler);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::ptrdiff_t descriptorsBefore = OpenDescriptors();
  {
    // Trace level 4: every trace line of the engine is formatted.
    KelMsgFileTransfer engine(g_communicator, DevNull(), 4);
    g_engine = &engine;
    FuzzedDataProvider input(data, size);
    for (int step = 0; step < kMaxSteps && input.remaining_bytes() > 0; ++step) {
      const char* sender = input.PickValueInArray(kSenders);
      if (input.ConsumeBool())
        Deliver(sender, BuildRecord(input));
      else
        Deliver(sender,
                input.ConsumeBytes<char>(input.ConsumeIntegralInRange<std::size_t>(0, 300)));
    }
    g_engine = nullptr;
  }
  FUZZ_EXPECT(OpenDescriptors() == descriptorsBefore);
  return 0;
}
