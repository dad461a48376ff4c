// serve, push and pull: files cross the bus between kelmsg processes and
// arrive byte for byte.
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "KelmsgProcess.h"
#include "ScratchDirectory.h"
#include "TestBroker.h"

namespace fs = std::filesystem;

namespace {

// A file server in its own directory, and a client directory beside it.
class KelmsgFiles : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_broker.Running()) << m_broker.Error();
    m_broker.ExportUrl();
    fs::create_directories(ServerDir());
    fs::create_directories(ClientDir());
  }

  std::string ServerDir() const { return m_scratch / "server"; }
  std::string ClientDir() const { return m_scratch / "client"; }

  std::unique_ptr<KelmsgProcess> StartServer() {
    auto server = std::make_unique<KelmsgProcess>(
        std::vector<std::string>{"serve", "files", "--dir", ServerDir()});
    EXPECT_TRUE(server->WaitForOutput("serving files as files from " + ServerDir() + "\n"))
        << server->Err();
    return server;
  }

  // Random bytes, so that a chunk out of place shows.
  static std::string RandomBytes(std::size_t size) {
    std::mt19937 generator(static_cast<unsigned>(size));
    std::string bytes(size, '\0');
    for (char& byte : bytes)
      byte = static_cast<char>(generator());
    return bytes;
  }

  static void Write(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
  }

  TestBroker m_broker;
  ScratchDirectory m_scratch;
};

// Several chunks and a partial one; the engine's own test covers the sizes
// around a chunk's edge.
TEST_F(KelmsgFiles, PushAndPullGiveIdenticalFiles) {
  const std::string content = RandomBytes(3 * 65536 + 1000);
  Write(ClientDir() + "/model.inp", content);
  auto server = StartServer();

  const KelmsgResult push =
      RunKelmsg({"push", "files", "model.inp", "deck.inp", "--as", "client"}, ClientDir());
  ASSERT_EQ(push.status, 0) << push.err;
  EXPECT_EQ(FileContent(ServerDir() + "/deck.inp"), content);
  // Not on a terminal: one summary line.
  EXPECT_EQ(LineCount(push.out), 1) << push.out;
  EXPECT_EQ(push.out.rfind("model.inp -> files:deck.inp: ", 0), 0u) << push.out;

  const KelmsgResult pull =
      RunKelmsg({"pull", "files", "deck.inp", "result.inp", "--as", "client"}, ClientDir());
  ASSERT_EQ(pull.status, 0) << pull.err;
  EXPECT_EQ(FileContent(ClientDir() + "/result.inp"), content);
  EXPECT_EQ(pull.out.rfind("files:deck.inp -> result.inp: ", 0), 0u) << pull.out;

  // The server traced both transfers at level 1.
  EXPECT_TRUE(server->WaitForOutput("Receive from application client to application files\n"));
  EXPECT_TRUE(server->WaitForOutput("::Send from application files\n"));
  EXPECT_TRUE(server->WaitForOutput("::SendISendCompletion Application=client \n"));
}

TEST_F(KelmsgFiles, OnATerminalPushShowsAProgressBar) {
  Write(ClientDir() + "/model.inp", RandomBytes(1 << 20));
  auto server = StartServer();
  std::optional<int> status;
  const std::string shown =
      RunKelmsgOnTerminal({"push", "files", "model.inp", "deck.inp"}, ClientDir(), status);
  ASSERT_EQ(status, 0) << shown;
  // Redrawn in place, the last state complete, and the line ended once (the
  // terminal turns the newline into "\r\n").
  EXPECT_NE(shown.find("\rmodel.inp -> files:deck.inp [########################] 100%  "
                       "1.0 MiB / 1.0 MiB  "),
            std::string::npos)
      << shown;
  EXPECT_TRUE(shown.ends_with("/s  0:00 left\033[K\r\n")) << shown;
  EXPECT_EQ(LineCount(shown), 1) << shown;
  EXPECT_EQ(FileContent(ServerDir() + "/deck.inp").size(), 1u << 20);
}

TEST_F(KelmsgFiles, DirectoriesOfBothSidesAreOptions) {
  fs::create_directories(ClientDir() + "/job7");
  fs::create_directories(ServerDir() + "/runs/job7");
  Write(ClientDir() + "/job7/input.dat", "load case 7\n");
  auto server = StartServer();

  const KelmsgResult push =
      RunKelmsg({"push", "files", "input.dat", "input.dat", "--base", ClientDir(), "--job", "job7",
                 "--server-base", "runs", "--server-job", "job7"});
  ASSERT_EQ(push.status, 0) << push.err;
  EXPECT_EQ(FileContent(ServerDir() + "/runs/job7/input.dat"), "load case 7\n");

  const KelmsgResult pull = RunKelmsg(
      {"pull", "files", ServerDir() + "/runs/job7/input.dat", "back.dat", "--job", "job7"},
      ClientDir());
  ASSERT_EQ(pull.status, 0) << pull.err;
  EXPECT_EQ(FileContent(ClientDir() + "/job7/back.dat"), "load case 7\n");
}

TEST_F(KelmsgFiles, PushWithoutWaitingLeavesBeforeTheServerConfirms) {
  const std::string content = RandomBytes(200000);
  Write(ClientDir() + "/big.bin", content);
  auto server = StartServer();
  const KelmsgResult push =
      RunKelmsg({"push", "files", "big.bin", "big.bin", "--no-wait"}, ClientDir());
  ASSERT_EQ(push.status, 0) << push.err;
  ASSERT_TRUE(server->WaitForOutput("::ReceiveISendCompletion sourceApplication=kelmsg-push-"));
  EXPECT_EQ(FileContent(ServerDir() + "/big.bin"), content);
}

TEST_F(KelmsgFiles, FailuresAreOneLine) {
  auto server = StartServer();

  const KelmsgResult missingSource = RunKelmsg({"push", "files", "absent.inp", "x"}, ClientDir());
  EXPECT_EQ(missingSource.status, 1);
  EXPECT_EQ(missingSource.err.rfind("kelmsg push: cannot read " + ClientDir() + "/absent.inp: ", 0),
            0u)
      << missingSource.err;
  EXPECT_EQ(LineCount(missingSource.err), 1);

  const KelmsgResult missingOnServer = RunKelmsg({"pull", "files", "absent.inp", "x"}, ClientDir());
  EXPECT_EQ(missingOnServer.status, 1);
  EXPECT_EQ(missingOnServer.err,
            "kelmsg pull: files sent nothing for absent.inp (missing or empty there)\n");

  const KelmsgResult unwritable = RunKelmsg({"pull", "files", "x", "no-such-dir/x"}, ClientDir());
  EXPECT_EQ(unwritable.status, 1);
  EXPECT_EQ(
      unwritable.err.rfind("kelmsg pull: cannot write " + ClientDir() + "/no-such-dir/x: ", 0), 0u)
      << unwritable.err;
}

TEST_F(KelmsgFiles, NobodyServingEndsInTheTimeLimit) {
  Write(ClientDir() + "/model.inp", "*NODE\n");
  for (const char* command : {"push", "pull"}) {
    const KelmsgResult result =
        RunKelmsg({command, "nobody", "model.inp", "copy.inp", "--timeout", "1"}, ClientDir());
    EXPECT_EQ(result.status, 1) << command;
    EXPECT_EQ(result.err, std::string("kelmsg ") + command +
                              ": no answer from nobody within 1 s (is it serving?)\n");
  }
}

TEST_F(KelmsgFiles, AKillRequestEndsServing) {
  auto server = StartServer();
  ASSERT_EQ(RunKelmsg({"send", "files", "--kill", "soft", "--as", "monitor"}).status, 0);
  EXPECT_EQ(server->ExitCode(10s), 0) << server->Err();
  EXPECT_NE(server->Out().find("SOFT_KILL from monitor: leaving\n"), std::string::npos)
      << server->Out();
}

}  // namespace
