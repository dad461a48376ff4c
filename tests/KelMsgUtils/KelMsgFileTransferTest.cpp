// Files moved between this process and real peer processes (kelmsg_test_peer)
// over a private broker, in all three ways.
#include <KelMsgFeaMessaging/KelMsgFileTransfer.h>

#include <sys/stat.h>

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
class RecordTap : public KelMsgFileTransferHandler {
 public:
  using KelMsgFileTransferHandler::KelMsgFileTransferHandler;
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    const auto& record = static_cast<const KelMsgFileTransferType&>(msg).Data();
    records.push_back(std::to_string(record.m_dataType) + " " +
                      record.m_sourceApplication.GetUTF8());
    KelMsgFileTransferHandler::HandleMessage(msg, id);
  }
  std::vector<std::string> records;
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

// Every test has this process's engine, tracing at Level() into m_trace, and
// a peer named "peer".
class FileTransferTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_previousUmask = umask(0);  // the peers inherit it: modes show as the engine gives them
    ASSERT_TRUE(m_broker.Running()) << m_broker.Error();
    m_broker.ExportUrl();
    ASSERT_TRUE(m_controller.emplace(kTester).Bus().Joined());
    fs::create_directories(m_mine.Path() / kJob);
    fs::create_directories(m_peers.Path() / kJob);
    m_engine.emplace(m_controller->Bus().Communicator(), m_trace.Get(), Level());
    m_tap = new RecordTap(&*m_engine);
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new KelMsgFileTransferType, m_tap);
    StartPeer({"peer"}, "peer");
  }

  void TearDown() override {
    umask(m_previousUmask);
    for (auto& [name, child] : m_started) {
      m_controller->Tell(name, "quit");
      EXPECT_EQ(child.ExitCode(kLimit), 0) << name << " did not leave cleanly";
    }
  }

  virtual int Level() const { return 0; }

  // A peer named `arguments[0]` whose messages come from `answerer`.
  void StartPeer(const std::vector<std::string>& arguments, const std::string& answerer) {
    m_started.emplace_back(arguments[0], m_controller->StartPeer(arguments));
    ASSERT_TRUE(m_controller->TakeAnswer(answerer, "ready", kLimit));
  }

  // Sends `verb` and the names, a line each, then waits for `answer` from
  // `answerer` (the peer itself when empty).
  void Ask(const std::string& peer, const std::string& verb, const std::vector<std::string>& names,
           const std::string& answer, const std::string& answerer = "") {
    std::string text = verb;
    for (const std::string& name : names)
      text += "\n" + name;
    m_controller->Tell(peer, text);
    EXPECT_TRUE(m_controller->TakeAnswer(answerer.empty() ? peer : answerer, answer, kLimit))
        << peer << ": " << answer;
  }

  // Eight names: a file of the peers' directory and one of this process's.
  std::vector<std::string> FromPeer(const std::string& source, const std::string& target,
                                    const std::string& peer = "peer") const {
    return {peer, m_peers.Path(), kJob, source, kTester, m_mine.Path(), kJob, target};
  }
  std::vector<std::string> ToPeer(const std::string& source, const std::string& target) const {
    return {kTester, m_mine.Path(), kJob, source, "peer", m_peers.Path(), kJob, target};
  }
  // Moves a file one of the three ways.
  int Call(decltype(&KelMsgFileTransfer::SendFile) way, const std::vector<std::string>& n) {
    return ((*m_engine).*way)(n[0].c_str(), n[1].c_str(), n[2].c_str(), n[3].c_str(), n[4].c_str(),
                              n[5].c_str(), n[6].c_str(), n[7].c_str());
  }

  fs::path Mine(const std::string& name) const { return m_mine.Path() / kJob / name; }
  fs::path Peers(const std::string& name) const { return m_peers.Path() / kJob / name; }

  mode_t m_previousUmask = 0;
  TestBroker m_broker;
  std::optional<PeerController> m_controller;  // joins once the broker's URL is exported
  ScratchDirectory m_mine;
  ScratchDirectory m_peers;
  MemoryStream m_trace;
  std::optional<KelMsgFileTransfer> m_engine;
  RecordTap* m_tap = nullptr;  // the registry's
  std::vector<std::pair<std::string, ChildProcess>> m_started;
};

TEST_F(FileTransferTest, EveryWayMovesEverySizeByteForByteIntoMode0640Files) {
  const std::ptrdiff_t descriptors = OpenDescriptors();
  for (std::size_t size : {0, 1, 65535, 65536, 65537, 3 * 1024 * 1024 + 7}) {
    const std::string name = "f" + std::to_string(size);
    const std::string content = RandomBytes(size);
    WriteFile(Mine(name), content);
    EXPECT_EQ(Call(&KelMsgFileTransfer::SendFile, ToPeer(name, name + ".sent")), 0);
    EXPECT_EQ(Call(&KelMsgFileTransfer::ISendFile, ToPeer(name, name + ".isent")), 0);
    Ask("peer", "sync", {}, "synced");  // answered once everything before it is handled
    EXPECT_EQ(Call(&KelMsgFileTransfer::ReceiveFile, FromPeer(name + ".sent", name + ".got")), 0);
    Ask("peer", "push", FromPeer(name + ".isent", name + ".back"), "pushed ");
    for (const fs::path& copy : {Peers(name + ".sent"), Peers(name + ".isent"), Mine(name + ".got"),
                                 Mine(name + ".back")}) {
      EXPECT_EQ(ReadFile(copy), content) << copy;
    }
  }
  EXPECT_EQ(OpenDescriptors(), descriptors) << "a file was left open";
  EXPECT_EQ(fs::status(Peers("f1.sent")).permissions(), fs::perms(0640));
  EXPECT_EQ(fs::status(Mine("f1.got")).permissions(), fs::perms(0640));

  // A missing source still completes, with an empty (truncated) target.
  WriteFile(Peers("stale"), "old content");
  Call(&KelMsgFileTransfer::SendFile, ToPeer("absent", "stale"));
  Call(&KelMsgFileTransfer::ReceiveFile, FromPeer("absent", "pulled"));
  EXPECT_TRUE(fs::exists(Peers("stale")) && fs::file_size(Peers("stale")) == 0);
  EXPECT_TRUE(fs::exists(Mine("pulled")) && fs::file_size(Mine("pulled")) == 0);
}

// What a peer gets wrong is refused and abandoned; every operation still
// returns 0.
TEST_F(FileTransferTest, ASenderUnderAnotherIdentifierIsRefusedAndTheReceiverGoesOn) {
  FatalErrorCapture reports;
  StartPeer({"rogue", "--id", "someone-else"}, "rogue");
  WriteFile(Peers("x"), RandomBytes(70000));
  std::string ipush = "ipush";
  for (const std::string& name : FromPeer("x", "from-rogue", "rogue"))
    ipush += "\n" + name;
  m_controller->Tell("rogue", ipush);
  // Its transfer and then its answer: none reaches a handler.
  const std::string refusal = "claims to come from 'someone-else' but 'rogue' sent it; refused";
  const std::string answerRefused = "message of type KelMsgStringType " + refusal;
  std::vector<std::string> messages;
  for (const auto deadline = std::chrono::steady_clock::now() + kLimit;
       (messages.empty() || messages.back() != answerRefused) &&
       std::chrono::steady_clock::now() < deadline;
       messages = reports.Messages()) {
    m_controller->TakeAnswer("rogue", "", std::chrono::milliseconds(100));
  }
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.back(), answerRefused);
  for (const std::string& message : messages)
    EXPECT_TRUE(message.ends_with(refusal)) << message;
  EXPECT_FALSE(fs::exists(Mine("from-rogue")));
  const auto refused = static_cast<std::ptrdiff_t>(messages.size());
  EXPECT_EQ(m_engine->ReceiveSendCompletion("nobody"), 0);
  EXPECT_EQ(m_engine->CloseFile(-1), 0);
  EXPECT_EQ(m_engine->ReadChunk(), 0) << "from no file";
  // Chunks out of order abandon the transfer; they are answered like any.
  ReceivingNotes notes;
  m_engine->SetObserver(&notes);
  EXPECT_EQ(m_engine->OpenFile("late", Mine("late").c_str(), false), 0);
  EXPECT_EQ(m_engine->OpenFile("lost", Mine("no/such").c_str(), false), 0);
  EXPECT_EQ(m_engine->ReceiveChunk("late", 2, 0, nullptr), 0);
  EXPECT_EQ(m_engine->ReceiveChunk("late", 1, 0, nullptr), 0);
  EXPECT_EQ(m_engine->ReceiveSendCompletion("late"), 0);
  m_engine->SetObserver(nullptr);
  EXPECT_EQ(notes.m_notes, (std::vector<std::string>{"opened late", "opened lost 2",
                                                     "abandoned late", "closed late"}));
  messages = reports.Messages();
  ASSERT_EQ(std::vector<std::string>(messages.begin() + refused, messages.end()),
            std::vector<std::string>{"AssertionFailed:itr != m_receiveFileMap.end()"});
  EXPECT_EQ(reports.Reports()[refused].path,
            "KelMsgFeaMessaging/KelMsgUtils.m/src/KelMsgFileTransfer");

  Ask("peer", "push", FromPeer("x", "from-peer"), "pushed ");
  EXPECT_EQ(ReadFile(Mine("from-peer")), ReadFile(Peers("x")));
}

// Lines of the trace whose text is promised, each from the level that shows
// it, after a pull, a push to this process and a push from it.  The push
// from it comes last: nothing flushes its lines but the engine itself.  The
// records that reach this process show the chunks of at most 65,536 bytes
// and that only the announcement and the send completion name the source.
class FileTransferTraceTest : public FileTransferTest, public ::testing::WithParamInterface<int> {
  int Level() const override { return GetParam(); }
};

TEST_P(FileTransferTraceTest, ShowsEachStepFromItsLevelOnAndFlushesIt) {
  WriteFile(Peers("two-chunks"), RandomBytes(65537));
  Call(&KelMsgFileTransfer::ReceiveFile, FromPeer("two-chunks", "pulled"));
  Ask("peer", "push", FromPeer("two-chunks", "pushed"), "pushed ");
  Call(&KelMsgFileTransfer::SendFile, ToPeer("pulled", "back"));
  EXPECT_EQ(m_tap->records,
            (std::vector<std::string>{"3 ", "3 ", "5 ", "2 peer", "3 ", "3 ", "4 peer", "6 "}));

  const std::string mine = m_mine.Path();
  const std::string peers = m_peers.Path();
  const std::pair<int, std::string> promised[] = {
      {1, "ReceiveFile from application peer to application tester\n"},
      {1, "sourceBaseDir " + peers + ", targetBaseDir " + mine + "\n"},
      {4, "opened file pulled\n"},
      {4, "::WriteChunk bytesWritten=65536\n"},
      {1, "updating chunkId 2 for source Application peer\n"},
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
