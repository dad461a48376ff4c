// Files moved between this test process and real peer processes over a
// private broker, in all three ways.
#include <KelMsgFeaMessaging/KelMsgFileTransfer.h>

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferHandler.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <KelMsgFeaMessaging/KelMsgStringType.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "FatalErrorCapture.h"
#include "ScratchDirectory.h"
#include "TestBroker.h"
#include "TextMessages.h"

namespace fs = std::filesystem;

namespace {

constexpr char kTester[] = "tester";
constexpr char kJob[] = "job";
constexpr int kWaitMs = 60000;

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteRandomFile(const fs::path& path, std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes(size, '\0');
  for (char& byte : bytes)
    byte = static_cast<char>(random());
  std::ofstream(path, std::ios::binary) << bytes;
}

// Collects the raw string messages the peers answer with, as "id: text".
class ReplyCollector : public KelMsgBBMessageHandler {
 public:
  explicit ReplyCollector(std::vector<std::string>* replies) : m_replies(replies) {}
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    const auto& text = static_cast<const KelMsgStringType&>(msg);
    m_replies->push_back(std::string(id) + ": " +
                         std::string(text.Data(), static_cast<std::size_t>(text.Size())));
  }

 private:
  std::vector<std::string>* m_replies;
};

// Captures what an engine traces, through a real stdio stream.
class TraceCapture {
 public:
  TraceCapture() : m_stream(open_memstream(&m_text, &m_length)) {}
  ~TraceCapture() {
    std::fclose(m_stream);
    std::free(m_text);
  }
  FILE* Stream() const { return m_stream; }
  std::vector<std::string> Lines() {
    std::fflush(m_stream);
    std::vector<std::string> lines;
    std::string all(m_text, m_length);
    for (std::size_t start = 0, end; (end = all.find('\n', start)) != std::string::npos;
         start = end + 1) {
      lines.push_back(all.substr(start, end - start));
    }
    return lines;
  }

 private:
  char* m_text = nullptr;
  std::size_t m_length = 0;
  FILE* m_stream;
};

class FileTransferTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    s_broker = new TestBroker;
    s_broker->ExportUrl();
  }
  static void TearDownTestSuite() {
    delete s_broker;
    s_broker = nullptr;
  }

  void SetUp() override {
    ASSERT_TRUE(s_broker->Running()) << s_broker->Error();
    fs::create_directories(m_mine.Path() / kJob);
    fs::create_directories(m_peers.Path() / kJob);
    ASSERT_EQ(KelMsgBBAPI::RegisterCommunicator(kTester, m_communicator), 0);
    ASSERT_EQ(KelMsgBBAPI::DeclareApplicationId(m_communicator, kTester, false), 0);
    KelMsgBBCallbackManager::SetMessageID(kTester);
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new KelMsgStringType,
                                                      new ReplyCollector(&m_replies));
    ASSERT_EQ(KelMsgBBAPI::EnableReceiveHandling(m_communicator, kTester), 0);
  }

  void TearDown() override {
    for (const std::string& peer : m_started)
      Command(peer, "quit");
    for (ChildProcess& child : m_children) {
      EXPECT_EQ(child.ExitCode(std::chrono::seconds(30)), 0) << "a peer did not leave cleanly";
    }
    m_engine.reset();
    CloseCommunicator(m_communicator);
    KelMsgBBCallbackManager registry;
  }

  // This process's own engine, tracing at `level` into `trace` (or nowhere).
  KelMsgFileTransfer& Engine(int level = 0, FILE* trace = nullptr) {
    m_engine = std::make_unique<KelMsgFileTransfer>(m_communicator, trace, level);
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(
        new KelMsgFileTransferType, new KelMsgFileTransferHandler(m_engine.get()));
    return *m_engine;
  }

  void StartPeer(const std::string& name, const std::string& id = {}) {
    std::vector<std::string> argv = {KELMSG_FAULT_PEER, name, kTester};
    if (!id.empty())
      argv.insert(argv.end(), {"--id", id});
    m_children.push_back(ChildProcess::Exec(argv));
    m_started.push_back(name);
    AwaitReply((id.empty() ? name : id) + ": ready");
  }

  void Command(const std::string& peer, const std::string& verb,
               const std::vector<std::string>& names = {}) {
    std::string text = verb;
    for (const std::string& name : names)
      text += "\n" + name;
    SendText(m_communicator, peer, text);
  }

  // Dispatches until a reply that begins with `reply` has arrived; fails the
  // test after a minute.
  void AwaitReply(const std::string& reply) {
    for (int waited = 0; waited < kWaitMs; waited += 100) {
      for (auto it = m_replies.begin(); it != m_replies.end(); ++it) {
        if (it->rfind(reply, 0) == 0) {
          m_replies.erase(it);
          return;
        }
      }
      int idle = -1;
      KelMsgBBAPI::WaitingLoop(m_communicator, 100, idle);
    }
    FAIL() << "no reply " << reply;
  }

  // Eight names: a file of the peers' directory and one of this process's.
  std::vector<std::string> FromPeer(const std::string& peer, const std::string& source,
                                    const std::string& target) const {
    return {peer,    m_peers.Path().string(), kJob, source,
            kTester, m_mine.Path().string(),  kJob, target};
  }
  std::vector<std::string> ToPeer(const std::string& peer, const std::string& source,
                                  const std::string& target) const {
    return {kTester, m_mine.Path().string(),  kJob, source,
            peer,    m_peers.Path().string(), kJob, target};
  }

  fs::path Mine(const std::string& name) const { return m_mine.Path() / kJob / name; }
  fs::path Peers(const std::string& name) const { return m_peers.Path() / kJob / name; }

  static TestBroker* s_broker;
  ScratchDirectory m_mine;
  ScratchDirectory m_peers;
  int m_communicator = -1;
  std::vector<std::string> m_replies;
  std::vector<std::string> m_started;
  std::vector<ChildProcess> m_children;
  std::unique_ptr<KelMsgFileTransfer> m_engine;
};

TestBroker* FileTransferTest::s_broker = nullptr;

int Call(KelMsgFileTransfer& engine, decltype(&KelMsgFileTransfer::SendFile) operation,
         const std::vector<std::string>& n) {
  return (engine.*operation)(n[0].c_str(), n[1].c_str(), n[2].c_str(), n[3].c_str(), n[4].c_str(),
                             n[5].c_str(), n[6].c_str(), n[7].c_str());
}

constexpr std::size_t kSizes[] = {0, 1, 65535, 65536, 65537, 3 * 1024 * 1024 + 7};

void ExpectMode0640(const fs::path& path) {
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0) << path;
  EXPECT_EQ(status.st_mode & 07777, 0640U) << path;
}

// Under an empty umask, which the peer inherits, so that the mode shows as
// the engine gives it.
TEST_F(FileTransferTest, EveryWayMovesEverySizeByteForByteIntoMode0640Files) {
  const mode_t previous = umask(0);
  KelMsgFileTransfer& engine = Engine();
  StartPeer("peer");
  for (std::size_t size : kSizes) {
    const std::string name = "f" + std::to_string(size);
    WriteRandomFile(Mine(name), size, static_cast<unsigned>(size));

    Call(engine, &KelMsgFileTransfer::SendFile, ToPeer("peer", name, name + ".pushed"));
    EXPECT_EQ(ReadFile(Peers(name + ".pushed")), ReadFile(Mine(name))) << "SendFile " << size;

    Call(engine, &KelMsgFileTransfer::ISendFile, ToPeer("peer", name, name + ".ipushed"));
    Command("peer", "sync");  // answered once everything before it is handled
    AwaitReply("peer: synced");
    EXPECT_EQ(ReadFile(Peers(name + ".ipushed")), ReadFile(Mine(name))) << "ISendFile " << size;

    Call(engine, &KelMsgFileTransfer::ReceiveFile,
         FromPeer("peer", name + ".pushed", name + ".pulled"));
    EXPECT_EQ(ReadFile(Mine(name + ".pulled")), ReadFile(Mine(name))) << "ReceiveFile " << size;

    Command("peer", "push", FromPeer("peer", name + ".ipushed", name + ".back"));
    AwaitReply("peer: pushed ");
    EXPECT_EQ(ReadFile(Mine(name + ".back")), ReadFile(Mine(name))) << "push to us " << size;
  }
  umask(previous);
  ExpectMode0640(Peers("f1.pushed"));
  ExpectMode0640(Mine("f1.pulled"));

  // A missing source still completes, with an empty (truncated) target.
  std::ofstream(Peers("stale"), std::ios::binary) << "old content";
  Call(engine, &KelMsgFileTransfer::SendFile, ToPeer("peer", "absent", "stale"));
  EXPECT_TRUE(fs::exists(Peers("stale")));
  EXPECT_EQ(fs::file_size(Peers("stale")), 0U) << "the target is truncated";
  Call(engine, &KelMsgFileTransfer::ReceiveFile, FromPeer("peer", "absent", "pulled"));
  EXPECT_TRUE(fs::exists(Mine("pulled")));
  EXPECT_EQ(fs::file_size(Mine("pulled")), 0U);
}

TEST_F(FileTransferTest, TwoFilesInARowAreBothNumberedFromOne) {
  TraceCapture trace;
  Engine(1, trace.Stream());
  StartPeer("peer");
  WriteRandomFile(Peers("a"), 65537, 2);
  WriteRandomFile(Peers("b"), 65537, 3);
  Command("peer", "push", FromPeer("peer", "a", "a"));
  AwaitReply("peer: pushed ");
  Command("peer", "push", FromPeer("peer", "b", "b"));
  AwaitReply("peer: pushed ");

  std::vector<std::string> numbering;
  for (const std::string& line : trace.Lines()) {
    if (line.rfind("updating chunkId", 0) == 0)
      numbering.push_back(line);
  }
  const std::vector<std::string> expected = {
      "updating chunkId 1 for source Application peer",
      "updating chunkId 2 for source Application peer",
      "updating chunkId 1 for source Application peer",
      "updating chunkId 2 for source Application peer",
  };
  EXPECT_EQ(numbering, expected);
  EXPECT_EQ(ReadFile(Mine("b")), ReadFile(Peers("b")));
}

TEST_F(FileTransferTest, TwoSourcesFeedOneReceiverAtOnce) {
  Engine();
  StartPeer("left");
  StartPeer("right");
  WriteRandomFile(Peers("l"), 2 * 1024 * 1024 + 3, 4);
  WriteRandomFile(Peers("r"), 2 * 1024 * 1024 + 5, 5);
  Command("left", "push", FromPeer("left", "l", "from-left"));
  Command("right", "ipush", FromPeer("right", "r", "from-right"));
  AwaitReply("left: pushed ");
  AwaitReply("right: ipushed");
  Command("right", "sync");
  AwaitReply("right: synced");
  EXPECT_EQ(ReadFile(Mine("from-left")), ReadFile(Peers("l")));
  EXPECT_EQ(ReadFile(Mine("from-right")), ReadFile(Peers("r")));
}

TEST_F(FileTransferTest, ASenderUnderAnotherIdentifierIsRefusedAndTheReceiverGoesOn) {
  FatalErrorCapture reports;
  Engine();
  StartPeer("rogue", "someone-else");
  StartPeer("peer");
  WriteRandomFile(Peers("x"), 70000, 6);
  Command("rogue", "ipush", FromPeer("rogue", "x", "from-rogue"));
  AwaitReply("someone-else: ipushed");
  Command("rogue", "sync");
  AwaitReply("someone-else: synced");

  EXPECT_EQ(fs::file_size(Mine("from-rogue")), 0U) << "its chunks were dropped";
  ASSERT_EQ(reports.Reports().size(), 1U);
  EXPECT_EQ(reports.Reports()[0].message, "AssertionFailed:itr != m_receiveFileMap.end()");
  EXPECT_EQ(reports.Reports()[0].path, "KelMsgFeaMessaging/KelMsgUtils.m/src/KelMsgFileTransfer");

  Command("peer", "push", FromPeer("peer", "x", "from-peer"));
  AwaitReply("peer: pushed ");
  EXPECT_EQ(ReadFile(Mine("from-peer")), ReadFile(Peers("x")));
}

// Trace lines of one small push, on each side, at levels 0, 1 and 4.  The
// descriptor numbers are the only part that is not fixed.
class FileTransferTraceTest : public FileTransferTest, public ::testing::WithParamInterface<int> {
 protected:
  static std::vector<std::string> AtLevel(int level,
                                          const std::vector<std::pair<int, std::string>>& lines) {
    std::vector<std::string> selected;
    for (const auto& [threshold, line] : lines) {
      if (level >= threshold)
        selected.push_back(line);
    }
    return selected;
  }

  static std::vector<std::string> WithoutDescriptors(std::vector<std::string> lines) {
    static const std::string kKey = "fileId ";
    for (std::string& line : lines) {
      const std::size_t at = line.find(kKey);
      if (at == std::string::npos)
        continue;
      std::size_t end = at + kKey.size();
      while (end < line.size() && line[end] != ' ')
        ++end;
      line.replace(at, end - at, "fileId #");
    }
    return lines;
  }
};

TEST_P(FileTransferTraceTest, SendingSide) {
  const int level = GetParam();
  TraceCapture trace;
  KelMsgFileTransfer& engine = Engine(level, trace.Stream());
  StartPeer("peer");
  std::ofstream(Mine("small"), std::ios::binary) << "0123456789";
  Call(engine, &KelMsgFileTransfer::SendFile, ToPeer("peer", "small", "copy"));

  const std::string mine = m_mine.Path().string();
  const std::string peers = m_peers.Path().string();
  const std::vector<std::string> expected = AtLevel(
      level,
      {{1, "::Send from application tester"},
       {1, "sourceFileName small, targetFileName copy"},
       {1, "sourceBaseDir (" + mine + ") ==> targetBaseDir (" + peers + ")"},
       {1, "sourceJobDir (job) ==> targetJobDir (job)"},
       {4, "::OpenFile applicationId tester fileName " + mine + "/job/small isSender 1 fileId #"},
       {4, "::ReadChunk fileId # bytes 10"},
       {4, "::ReadChunk fileId # bytes 0"},
       {1, "::SendSendCompletion sourceApplication=tester targetApplication=peer"}});
  EXPECT_EQ(WithoutDescriptors(trace.Lines()), expected);
}

TEST_P(FileTransferTraceTest, ReceivingSide) {
  const int level = GetParam();
  TraceCapture trace;
  Engine(level, trace.Stream());
  StartPeer("peer");
  std::ofstream(Peers("small"), std::ios::binary) << "0123456789";
  Command("peer", "push", FromPeer("peer", "small", "copy"));
  AwaitReply("peer: pushed ");

  const std::string mine = m_mine.Path().string();
  const std::string peers = m_peers.Path().string();
  const std::vector<std::string> expected = AtLevel(
      level,
      {{1, "Receive from application peer to application tester"},
       {1, "sourceFileName small, targetFileName copy"},
       {1, "sourceBaseDir (" + peers + "), targetBaseDir (" + mine + ")"},
       {1, "sourceJobDir (job), targetJobDir (job)"},
       {4, "::OpenFile applicationId peer fileName " + mine + "/job/copy isSender 0 fileId #"},
       {1, "opened file copy"},
       {4, "::ReceiveChunk sourceApplication=peer chunkId=1 chunkSize=10"},
       {1, "updating chunkId 1 for source Application peer"},
       {4, "::WriteChunk sourceApplication=peer chunkSize=10"},
       {4, "::WriteChunk bytesWritten=10"},
       {1, "::ReceiveISendCompletion sourceApplication=peer"},
       {1, "::SendReceiveCompletion applicationId=peer"}});
  EXPECT_EQ(WithoutDescriptors(trace.Lines()), expected);
}

INSTANTIATE_TEST_SUITE_P(Levels, FileTransferTraceTest, ::testing::Values(0, 1, 4));

}  // namespace
