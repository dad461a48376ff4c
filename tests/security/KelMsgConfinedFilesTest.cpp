// A stranger (a plain MQTT client writing transfer messages by hand) against
// file servers: `kelmsg serve`, confined or not, a handler-only program with
// a confined engine, and a waiting pull.  Nothing beyond the served
// directories is read or written, nothing blocks, and serving goes on.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgFileTransfer.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <gtest/gtest.h>

#include "KelMsgConfinement.h"
#include "KelmsgProcess.h"
#include "PeerController.h"
#include "RawMqttClient.h"
#include "TestBroker.h"

namespace fs = std::filesystem;

namespace {

using Data = KelMsgFileTransferData;
constexpr int kPull = Data::FILE_TRANSFER_SEND_REQUEST, kPush = Data::FILE_TRANSFER_NOTIFY;
constexpr int kChunk = Data::FILE_TRANSFER_CHUNK, kEnd = Data::FILE_TRANSFER_SEND_COMPLETION;
constexpr int kIEnd = Data::FILE_TRANSFER_ISEND_COMPLETION;

template <class Condition>
bool Eventually(Condition done) {
  for (int tries = 0; tries < 200 && !done(); ++tries)
    std::this_thread::sleep_for(100ms);
  return done();
}

// Sends transfer steps under any identifier; counts the steps that come
// back to mallory (identifiers are short: the envelope's count is a byte).
struct Stranger {
  explicit Stranger(int port)
      : client(port, [this](const std::string&, const char* bytes, int size) {
          if (size > 0 && size >= 8 + bytes[0])
            ++steps[static_cast<unsigned char>(bytes[4 + bytes[0]]) % steps.size()];
        }) {}

  // A pull names the victim's source and has it sent to mallory.
  void Send(const std::string& victim, int step, const std::string& id, const char* file = "") {
    KelMsgFileTransferType message;
    Data& record = message.Data();
    record.m_dataType = step;
    (step == kPull ? record.m_sourceFileName : record.m_targetFileName).BuildFromUTF8(file);
    record.m_sourceApplication.BuildFromUTF8(id.c_str());
    record.m_targetApplication.BuildFromUTF8(step == kPull ? "mallory" : victim.c_str());
    record.m_chunkId = step == kChunk ? 1 : -1;
    record.m_chunkSize = step == kChunk ? 5 : 0;
    record.m_chunkData = chunk;
    const int size = message.RequiredBufferSize();
    std::string bytes = std::string(1, char(id.size())) + std::string(3, '\0') + id;
    bytes.resize(bytes.size() + std::size_t(size));
    message.Stream(bytes.data() + 4 + id.size(), size);
    client.Publish("kelbus/a/" + victim, bytes.data(), int(bytes.size()), message.Type());
  }

  char chunk[6] = "pwned";
  std::array<std::atomic<int>, 8> steps{};
  RawMqttClient client;
};

TEST(KelMsgConfinedFiles, StrangersReachNoFileBeyondTheServedDirectoriesAndServingGoesOn) {
  const TestBroker broker;
  ASSERT_TRUE(broker.Running()) << broker.Error();
  broker.ExportUrl();
  const ScratchDirectory scratch;
  const std::string secret = scratch / "secret", client = scratch / "client";
  const std::string served = scratch / "served", peer = scratch / "peer";
  WriteFile(secret, "secret\n");
  for (const std::string& dir : {served, peer, client, scratch / "open"}) {
    fs::create_directory(dir);
    fs::create_directory_symlink(scratch.Path(), dir + "/out");
    ASSERT_EQ(mkfifo((dir + "/pipe").c_str(), 0600), 0);
  }
  const std::string content = RandomBytes(100000);
  WriteFile(client + "/a.txt", content);
  KelmsgProcess files({"serve", "files", "--dir", served, "--idle-timeout", "1"});
  KelmsgProcess unconfined({"serve", "open", "--dir", scratch / "open", "--unconfined"});
  PeerController controller;
  const ChildProcess peerProcess = controller.StartPeer({"peer", "--confine", peer});
  Stranger stranger(broker.Port());
  ASSERT_TRUE(files.WaitForOutput("serving") && unconfined.WaitForOutput("serving"));
  ASSERT_TRUE(controller.TakeAnswer("peer", "ready", 10s) && stranger.client.Connected() &&
              stranger.client.Subscribe("kelbus/a/mallory/#"));
  EXPECT_NE(unconfined.Err().find("warning: unconfined"), std::string::npos);

  const std::tuple<const char*, int, std::string> attacks[] = {
      {"files", kPull, "/etc/passwd"}, {"files", kPull, secret},  {"files", kPull, "../secret"},
      {"files", kPull, "out/secret"},  {"files", kPush, secret},  {"files", kPush, "../planted"},
      {"files", kPush, "out/planted"}, {"peer", kPush, secret},   {"peer", kPush, "out/planted"},
      {"peer", kPull, secret},         {"files", kPull, "pipe"},  {"peer", kPull, "pipe"},
      {"open", kPull, "/dev/zero"},    {"files", kPull, "absent"}};
  int answers[] = {0, 0};  // a pull ends with a completion (5), a push with a receipt (6)
  for (const auto& [victim, step, file] : attacks) {
    SCOPED_TRACE(std::string(victim) + " " + std::to_string(step) + " " + file);
    stranger.Send(victim, step, "mallory", file.c_str());
    for (const int sent : {kChunk, kEnd})
      if (step == kPush)
        stranger.Send(victim, sent, "mallory");
    const int answered = ++answers[step - kPull], answer = step + 4;
    EXPECT_TRUE(Eventually([&] { return stranger.steps[answer] == answered; }));
    EXPECT_EQ(stranger.steps[kChunk], 0);
  }
  EXPECT_EQ(ReadFile(secret), "secret\n");
  EXPECT_FALSE(fs::exists(scratch / "planted") || fs::exists(scratch / "planted.partial"));
  EXPECT_NE(files.Out().find("refused to read /etc/passwd: outside the permitted directories\n"),
            std::string::npos);
  EXPECT_EQ(files.Out().find("/absent: "), std::string::npos)
      << "a missing file is no refusal: " << files.Out();

  // A stranger's transfer to a pull that waits for mallory, and to a push
  // that waits for trudy's receipt.
  const std::tuple<std::string, std::vector<std::string>, std::string> waits[] = {
      {"mallory", {"pull", "mallory", "x", "got"}, "pulling from mallory only"},
      {"trudy", {"push", "trudy", "a.txt", "x"}, "pushing to trudy only"}};
  for (const auto& [peer, command, refusal] : waits) {
    KelmsgProcess listener({"listen", peer});
    ASSERT_TRUE(listener.WaitForOutput("listening as " + peer + "\n"));
    std::vector<std::string> arguments = command;
    arguments.insert(arguments.end(), {"--as", "waiter", "--timeout", "2"});
    KelmsgProcess waiter(arguments, client);
    ASSERT_TRUE(listener.WaitForOutput("Message Type: KelMsgFileTransferType\n"));
    for (const int step : {kPush, kChunk, kIEnd})
      stranger.Send("waiter", step, "eve", "stolen");
    EXPECT_EQ(waiter.ExitCode(), 1) << refusal;
    EXPECT_NE(waiter.Err().find("refused a transfer message from eve: " + refusal + "\n"),
              std::string::npos)
        << waiter.Err();
    EXPECT_FALSE(fs::exists(client + "/stolen") || fs::exists(client + "/stolen.partial"));
  }

  // Unfinished transfers from many senders hold few descriptors, and not
  // for long, though neither server closes idle files itself: the
  // library's waits do.
  const auto count = [](const std::string& dir) {
    return std::distance(fs::directory_iterator(dir), fs::directory_iterator());
  };
  for (const auto& [victim, pid] : {std::pair{"files", files.Pid()}, {"peer", peerProcess.Pid()}}) {
    const std::string fds = "/proc/" + std::to_string(pid) + "/fd";
    const auto before = count(fds);
    for (int i = 0; i < 300; ++i)
      stranger.Send(victim, kPush, "flood" + std::to_string(i), "flood");
    EXPECT_TRUE(Eventually([&] { return count(fds) > before; })) << victim;
    EXPECT_LE(count(fds), before + KelMsgFileTransfer::kDefaultMaxReceiveFiles) << victim;
    EXPECT_TRUE(Eventually([&] { return count(fds) == before; })) << victim;
  }
  EXPECT_TRUE(files.Out().find("could not receive from flood299: ") != std::string::npos);
  EXPECT_EQ(count(served), 2);

  EXPECT_EQ(KelmsgProcess({"push", "files", "a.txt", "a.txt"}, client).ExitCode(), 0);
  EXPECT_EQ(KelmsgProcess({"pull", "files", "a.txt", "b.txt"}, client).ExitCode(), 0);
  EXPECT_EQ(ReadFile(client + "/b.txt"), content);
  EXPECT_EQ(KelmsgProcess({"push", "peer", "a.txt", "a.txt", "--no-wait"}, client).ExitCode(), 0);
  EXPECT_TRUE(Eventually([&] { return ReadFile(peer + "/a.txt") == content; }));
}

// Where the kernel has no openat2, a walk stands in that refuses every link.
TEST(KelMsgConfinedFiles, TheWalkOpensOnlyBeneathTheRoot) {
  const ScratchDirectory scratch;
  const std::string root = scratch / "root";
  fs::create_directories(root);
  WriteFile(root + "/a", "a");
  WriteFile(scratch / "keep", "keep");
  fs::create_symlink("a", root + "/in");
  fs::create_directory_symlink("..", root + "/up");
  ASSERT_EQ(mkfifo((root + "/p").c_str(), 0600), 0);
  KelMsgConfinement walk(KelMsgConfinement::Resolution::kComponents);
  ASSERT_EQ(walk.AddRoot(root.c_str()), 0);
  // The errno of each open; 0 when it opened.
  const std::pair<std::string, int> rows[] = {{"/a", 0},           {"/in", EXDEV},
                                              {"/up/keep", EXDEV}, {"/../root/a", EXDEV},
                                              {"/p", ENXIO},       {"", ENXIO}};
  for (const auto& [path, error] : rows) {
    const int descriptor = walk.Open((root + path).c_str(), O_RDONLY, 0);
    EXPECT_EQ(descriptor < 0 ? errno : 0, error) << path;
    close(descriptor);
  }
  EXPECT_NE(walk.Remove((root + "/up/keep").c_str()), 0);
  EXPECT_NE(walk.Rename((root + "/a").c_str(), (root + "/up/a").c_str()), 0);
  EXPECT_TRUE(fs::exists(scratch / "keep") && fs::exists(root + "/a"));
}

}  // namespace
