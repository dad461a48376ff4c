// Files moved between this process and real peer processes (kelmsg_test_peer)
// over a private broker, in all three ways.
#include <KelMsgFeaMessaging/KelMsgFileTransfer.h>

#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgFileTransferHandler.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferObserver.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <gtest/gtest.h>

#include "FatalErrorCapture.h"
#include "MemoryStream.h"
#include "PeerController.h"
#include "ScratchDirectory.h"
#include "TestBroker.h"
#include "TestFiles.h"

namespace fs = std::filesystem;

namespace {

constexpr char kTester[] = "tester";
constexpr char kJob[] = "job";
constexpr std::chrono::seconds kLimit(60);

// Notes every record that reaches the engine as "<data type> <source
// application>", then hands it on.
class RecordTap : public KelMsgBBMessageHandler {
 public:
  explicit RecordTap(KelMsgFileTransfer* engine) : m_handler(engine) {}
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    const auto& record = static_cast<const KelMsgFileTransferType&>(msg).Data();
    m_records.push_back(std::to_string(record.m_dataType) + " " +
                        record.m_sourceApplication.GetUTF8());
    m_handler.HandleMessage(msg, id);
  }
  const std::vector<std::string>& Records() const { return m_records; }

 private:
  KelMsgFileTransferHandler m_handler;
  std::vector<std::string> m_records;
};

// Notes what the engine tells an observer of the files it receives.
class ReceivingNotes : public KelMsgFileTransferObserver {
 public:
  void ReceiveFileOpened(const char* source, const char* /*path*/, int descriptor,
                         int error) override {
    Note("opened", source, descriptor < 0 ? error : 0);
  }
  void TransferAbandoned(const char* source) override { Note("abandoned", source, 0); }
  void ReceiveFileClosed(const char* source) override { Note("closed", source, 0); }
  void Note(const std::string& what, const char* source, int error) {
    m_notes.push_back(what + " " + source + (error != 0 ? " " + std::to_string(error) : ""));
  }

  std::vector<std::string> m_notes;
};

class FileTransferTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    s_broker = new TestBroker;
    s_broker->ExportUrl();
  }
  static void TearDownTestSuite() { delete s_broker; }

  void SetUp() override {
    ASSERT_TRUE(s_broker->Running()) << s_broker->Error();
    ASSERT_TRUE(m_controller.Bus().Joined());
    fs::create_directories(m_mine.Path() / kJob);
    fs::create_directories(m_peers.Path() / kJob);
  }

  void TearDown() override {
    for (const std::string& peer : m_started)
      m_controller.Tell(peer, "quit");
    for (ChildProcess& child : m_children)
      EXPECT_EQ(child.ExitCode(kLimit), 0) << "a peer did not leave cleanly";
  }

  // This process's engine, tracing at `level` into m_trace.
  KelMsgFileTransfer& Engine(int level = 0) {
    m_engine = std::make_unique<KelMsgFileTransfer>(m_controller.Bus().Communicator(),
                                                    m_trace.Get(), level);
    m_tap = new RecordTap(m_engine.get());
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new KelMsgFileTransferType, m_tap);
    return *m_engine;
  }

  void StartPeer(const std::string& name, const std::string& id = "") {
    m_children.push_back(m_controller.StartPeer(
        id.empty() ? std::vector<std::string>{name} : std::vector<std::string>{name, "--id", id}));
    m_started.push_back(name);
    ASSERT_TRUE(m_controller.TakeAnswer(id.empty() ? name : id, "ready", kLimit));
  }

  void Tell(const std::string& peer, const std::string& verb,
            const std::vector<std::string>& names = {}) {
    std::string text = verb;
    for (const std::string& name : names)
      text += "\n" + name;
    m_controller.Tell(peer, text);
  }
  void Expect(const std::string& sender, const std::string& answer) {
    EXPECT_TRUE(m_controller.TakeAnswer(sender, answer, kLimit)) << sender << ": " << answer;
  }

  // Eight names: a file of the peers' directory and one of this process's.
  std::vector<std::string> FromPeer(const std::string& peer, const std::string& source,
                                    const std::string& target) const {
    return {peer, m_peers.Path(), kJob, source, kTester, m_mine.Path(), kJob, target};
  }
  std::vector<std::string> ToPeer(const std::string& peer, const std::string& source,
                                  const std::string& target) const {
    return {kTester, m_mine.Path(), kJob, source, peer, m_peers.Path(), kJob, target};
  }

  fs::path Mine(const std::string& name) const { return m_mine.Path() / kJob / name; }
  fs::path Peers(const std::string& name) const { return m_peers.Path() / kJob / name; }

  static TestBroker* s_broker;
  ScratchDirectory m_mine;
  ScratchDirectory m_peers;
  MemoryStream m_trace;
  PeerController m_controller{kTester};
  std::unique_ptr<KelMsgFileTransfer> m_engine;
  RecordTap* m_tap = nullptr;  // the registry's
  std::vector<std::string> m_started;
  std::vector<ChildProcess> m_children;
};

TestBroker* FileTransferTest::s_broker = nullptr;

int Call(KelMsgFileTransfer& engine, decltype(&KelMsgFileTransfer::SendFile) operation,
         const std::vector<std::string>& n) {
  return (engine.*operation)(n[0].c_str(), n[1].c_str(), n[2].c_str(), n[3].c_str(), n[4].c_str(),
                             n[5].c_str(), n[6].c_str(), n[7].c_str());
}

mode_t ModeOf(const fs::path& path) {
  struct stat status {};
  stat(path.c_str(), &status);
  return status.st_mode & 07777;
}

// Under an empty umask, which the peer inherits, so that the mode shows as
// the engine gives it.
TEST_F(FileTransferTest, EveryWayMovesEverySizeByteForByteIntoMode0640Files) {
  const mode_t previous = umask(0);
  KelMsgFileTransfer& engine = Engine();
  StartPeer("peer");
  const std::ptrdiff_t descriptors = OpenDescriptors();
  for (std::size_t size : {0, 1, 65535, 65536, 65537, 3 * 1024 * 1024 + 7}) {
    const std::string name = "f" + std::to_string(size);
    const std::string content = RandomBytes(size);
    WriteFile(Mine(name), content);
    EXPECT_EQ(Call(engine, &KelMsgFileTransfer::SendFile, ToPeer("peer", name, name + ".sent")), 0);
    EXPECT_EQ(Call(engine, &KelMsgFileTransfer::ISendFile, ToPeer("peer", name, name + ".isent")),
              0);
    Tell("peer", "sync");  // answered once everything before it is handled
    Expect("peer", "synced");
    EXPECT_EQ(Call(engine, &KelMsgFileTransfer::ReceiveFile,
                   FromPeer("peer", name + ".sent", name + ".got")),
              0);
    Tell("peer", "push", FromPeer("peer", name + ".isent", name + ".back"));
    Expect("peer", "pushed ");
    for (const fs::path& copy : {Peers(name + ".sent"), Peers(name + ".isent"), Mine(name + ".got"),
                                 Mine(name + ".back")}) {
      EXPECT_EQ(ReadFile(copy), content) << copy;
    }
  }
  umask(previous);
  EXPECT_EQ(OpenDescriptors(), descriptors) << "a file was left open";
  EXPECT_EQ(ModeOf(Peers("f1.sent")), 0640U);
  EXPECT_EQ(ModeOf(Mine("f1.got")), 0640U);

  // A missing source still completes, with an empty (truncated) target.
  WriteFile(Peers("stale"), "old content");
  Call(engine, &KelMsgFileTransfer::SendFile, ToPeer("peer", "absent", "stale"));
  Call(engine, &KelMsgFileTransfer::ReceiveFile, FromPeer("peer", "absent", "pulled"));
  EXPECT_TRUE(fs::exists(Peers("stale")) && fs::file_size(Peers("stale")) == 0);
  EXPECT_TRUE(fs::exists(Mine("pulled")) && fs::file_size(Mine("pulled")) == 0);
}

// Only the announcement and the send completion name the source; chunks
// travel without names.
TEST_F(FileTransferTest, APushIsAnnouncedChunkedAndCompletedUnderItsSourceName) {
  Engine();
  StartPeer("peer");
  WriteFile(Peers("two-chunks"), RandomBytes(65537));
  Tell("peer", "push", FromPeer("peer", "two-chunks", "copy"));
  Expect("peer", "pushed ");
  EXPECT_EQ(m_tap->Records(), (std::vector<std::string>{"2 peer", "3 ", "3 ", "4 peer"}));
}

TEST_F(FileTransferTest, ASenderUnderAnotherIdentifierIsRefusedAndTheReceiverGoesOn) {
  FatalErrorCapture reports;
  KelMsgFileTransfer& engine = Engine();
  StartPeer("rogue", "someone-else");
  StartPeer("peer");
  WriteFile(Peers("x"), RandomBytes(70000));
  Tell("rogue", "ipush", FromPeer("rogue", "x", "from-rogue"));
  Tell("rogue", "sync");
  Expect("someone-else", "synced");
  EXPECT_EQ(fs::file_size(Mine("from-rogue")), 0U) << "its chunks were dropped";
  EXPECT_EQ(engine.ReceiveSendCompletion("nobody"), 0);
  EXPECT_EQ(engine.CloseFile(-1), 0);
  // Chunks out of order abandon the transfer; they are answered like any.
  ReceivingNotes notes;
  engine.SetObserver(&notes);
  EXPECT_EQ(engine.OpenFile("late", Mine("late").c_str(), false), 0);
  EXPECT_EQ(engine.OpenFile("lost", Mine("no/such").c_str(), false), 0);
  EXPECT_EQ(engine.ReceiveChunk("late", 2, 0, nullptr), 0);
  EXPECT_EQ(engine.ReceiveChunk("late", 1, 0, nullptr), 0);
  EXPECT_EQ(engine.ReceiveSendCompletion("late"), 0);
  engine.SetObserver(nullptr);
  EXPECT_EQ(notes.m_notes, (std::vector<std::string>{"opened late", "opened lost 2",
                                                     "abandoned late", "closed late"}));
  ASSERT_EQ(reports.Messages(),
            std::vector<std::string>(2, "AssertionFailed:itr != m_receiveFileMap.end()"));
  EXPECT_EQ(reports.Reports()[0].path, "KelMsgFeaMessaging/KelMsgUtils.m/src/KelMsgFileTransfer");

  Tell("peer", "push", FromPeer("peer", "x", "from-peer"));
  Expect("peer", "pushed ");
  EXPECT_EQ(ReadFile(Mine("from-peer")), ReadFile(Peers("x")));
}

// Lines of the trace whose text is promised, each from the level that shows
// it, after a pull, a push to this process and a push from it.  The push
// from it comes last: nothing flushes its lines but the engine itself.
class FileTransferTraceTest : public FileTransferTest, public ::testing::WithParamInterface<int> {};

TEST_P(FileTransferTraceTest, ShowsEachStepFromItsLevelOnAndFlushesIt) {
  KelMsgFileTransfer& engine = Engine(GetParam());
  StartPeer("peer");
  WriteFile(Peers("small"), "0123456789");
  Call(engine, &KelMsgFileTransfer::ReceiveFile, FromPeer("peer", "small", "pulled"));
  Tell("peer", "push", FromPeer("peer", "small", "pushed"));
  Expect("peer", "pushed ");
  Call(engine, &KelMsgFileTransfer::SendFile, ToPeer("peer", "pulled", "back"));

  const std::string mine = m_mine.Path();
  const std::string peers = m_peers.Path();
  const std::pair<int, std::string> promised[] = {
      {1, "ReceiveFile from application peer to application tester\n"},
      {1, "sourceBaseDir " + peers + ", targetBaseDir " + mine + "\n"},
      {4, "opened file pulled\n"},
      {4, "::WriteChunk bytesWritten=10\n"},
      {1, "updating chunkId 1 for source Application peer\n"},
      {1, "sourceBaseDir (" + peers + "), targetBaseDir (" + mine + ")\n"},
      {1, "opened file pushed\n"},
      {1, "sourceBaseDir (" + mine + ") ==> targetBaseDir (" + peers + ")\n"},
      {1, "::SendSendCompletion sourceApplication=tester targetApplication=peer\n"}};
  const std::string trace = m_trace.Flushed();
  for (const auto& [level, line] : promised)
    EXPECT_EQ(trace.find(line) != std::string::npos, GetParam() >= level) << line;
}

INSTANTIATE_TEST_SUITE_P(Levels, FileTransferTraceTest, ::testing::Values(0, 1, 4));

}  // namespace
