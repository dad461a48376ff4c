// listen, send, watch, serve, push and pull, as separate kelmsg processes on
// a real broker.
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KelmsgProcess.h"
#include "ScratchDirectory.h"
#include "TestBroker.h"
#include "TestFiles.h"

namespace fs = std::filesystem;

namespace {

class KelmsgOnBus : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_broker.Running()) << m_broker.Error();
    m_broker.ExportUrl();
  }

  TestBroker m_broker;
  ScratchDirectory m_scratch;
};

// One way to send, the number of messages it makes, and what a listener
// prints of them, in order.
struct Delivery {
  std::vector<std::string> send;
  int messages;
  std::vector<std::string> printed;
};

TEST_F(KelmsgOnBus, ListenPrintsWhatSendSentOfEveryType) {
  WriteFile(m_scratch / "progress.xml", "<Progress percent=\"50\"/>");
  WriteFile(m_scratch / "deck.inp", "*NODE\n1, 0.0, 0.0\n");
  const Delivery deliveries[] = {
      {{"send", "inbox", "--as", "sender", "--text", "hello, bus"},
       1,
       {"KelMsgPrintingHandler::HandleMessage -- id sender\nMessage Type: KelMsgStringType\n"
        "   size: 10\n   data[0]: h\n   data[9]: s\n"}},
      {{"send", "inbox", "--text", "x"}, 1, {"   size: 1\n   data[0]: x\n   data[0]: x\n"}},
      // What peers send reaches the terminal only as visible escapes.
      {{"send", "inbox", "--as", "a\x1b]0;t\x07\n\xc2\x9b", "--text", "\x1b[2J\xff"},
       1,
       {"-- id a\\x1b]0;t\\x07\\x0a\\xc2\\x9b\n", "data[0]: \\x1b\n", "data[4]: \\xff\n"}},
      {{"send", "inbox", "--as", "sender", "--xml", "progress.xml"},
       1,
       {"-- id sender\n", "<Progress percent=\"50\"/>\n"}},
      {{"send", "inbox", "--as", "monitor", "--kill", "soft"},
       1,
       {"-- id monitor\nMessage Type: KelMsgProcessControlType\n",
        "<Kill type=\"symconst\">SOFT_KILL</Kill>"}},
      {{"send", "inbox", "--kill", "hard"}, 1, {"-- id kelmsg-send-", "HARD_KILL</Kill>"}},
      {{"push", "inbox", "deck.inp", "copy.inp", "--no-wait", "--as", "holder"},
       3,
       {"id holder\nMessage Type: KelMsgFileTransferType\n   DataType: 2\n",
        "id holder\nMessage Type: KelMsgFileTransferType\n   DataType: 3\n",
        "id holder\nMessage Type: KelMsgFileTransferType\n   DataType: 5\n"}}};
  for (const Delivery& delivery : deliveries) {
    SCOPED_TRACE(::testing::PrintToString(delivery.send));
    KelmsgProcess listen({"listen", "inbox", "--count", std::to_string(delivery.messages)});
    ASSERT_TRUE(listen.WaitForOutput("listening as inbox\n")) << listen.Err();
    const KelmsgResult sent = RunKelmsg(delivery.send, m_scratch.Path());
    ASSERT_EQ(sent.status, 0) << sent.err;
    EXPECT_EQ(sent.err, "");
    ASSERT_EQ(listen.ExitCode(10s), 0) << listen.Err();
    const std::string printed = listen.Out();
    std::size_t at = 0;
    for (const std::string& expected : delivery.printed) {
      at = printed.find(expected, at);
      ASSERT_NE(at, std::string::npos) << "no \"" << expected << "\" in order in:\n" << printed;
    }
  }
}

// The listener without a count and the watchers run until something ends
// them; only the departure of the watched application ends a watch.
TEST_F(KelmsgOnBus, WatchReturnsOnceItsTargetHasLeft) {
  KelmsgProcess solver({"listen", "solver"});
  KelmsgProcess mesher({"listen", "mesher"});
  ASSERT_TRUE(solver.WaitForOutput("listening as solver\n")) << solver.Err();
  ASSERT_TRUE(mesher.WaitForOutput("listening as mesher\n")) << mesher.Err();
  KelmsgProcess watch({"watch", "solver"});
  KelmsgProcess limited({"watch", "solver", "--timeout", "2"});
  KelmsgProcess interrupted({"watch", "solver"});
  for (KelmsgProcess* watcher : {&watch, &limited, &interrupted})
    ASSERT_TRUE(watcher->WaitForOutput("watching solver\n")) << watcher->Err();
  mesher.Signal(SIGKILL);
  interrupted.Signal(SIGINT);
  EXPECT_EQ(interrupted.ExitCode(10s), 130);
  ASSERT_EQ(RunKelmsg({"send", "solver", "--text", "one"}).status, 0);
  ASSERT_EQ(RunKelmsg({"send", "solver", "--text", "two"}).status, 0);
  ASSERT_TRUE(solver.WaitForOutput("data[2]: o\n")) << solver.Out();
  EXPECT_EQ(limited.ExitCode(), 1);
  EXPECT_NE(limited.Err().find("app -- mesher"), std::string::npos) << "mesher's departure is seen";
  EXPECT_NE(limited.Err().find("kelmsg watch: solver is still on the bus after 2 s\n"),
            std::string::npos);

  solver.Signal(SIGTERM);
  EXPECT_EQ(solver.ExitCode(10s), 0) << solver.Err();
  EXPECT_NE(solver.Out().find("data[2]: e\n"), std::string::npos) << "the first message is lost";
  ASSERT_EQ(watch.ExitCode(), 0) << watch.Err();
  EXPECT_EQ(watch.Out(), "watching solver\nsolver has left the bus\n");
}

// A file server in its own directory, and a client directory beside it.
TEST_F(KelmsgOnBus, FilesCrossByteForByteUntilAKillEndsServing) {
  const std::string server = m_scratch / "server";
  const std::string client = m_scratch / "client";
  fs::create_directories(server + "/runs/job7");
  fs::create_directories(client + "/job7");
  const std::string model = RandomBytes(3 * 65536 + 1000);
  WriteFile(client + "/model.inp", model);
  WriteFile(client + "/job7/input.dat", "load case 7\n");
  KelmsgProcess serve({"serve", "files", "--dir", server});
  ASSERT_TRUE(serve.WaitForOutput("serving files as files from " + server + "\n")) << serve.Err();

  const KelmsgResult push =
      RunKelmsg({"push", "files", "model.inp", "deck.inp", "--as", "client"}, client);
  ASSERT_EQ(push.status, 0) << push.err;
  EXPECT_EQ(push.out.rfind("model.inp -> files:deck.inp: ", 0), 0U) << push.out;
  EXPECT_EQ(LineCount(push.out), 1) << "not on a terminal: one summary line";
  EXPECT_TRUE(serve.WaitForOutput("Receive from application client to application files\n"));
  const KelmsgResult pull = RunKelmsg({"pull", "files", "deck.inp", "result.inp"}, client);
  ASSERT_EQ(pull.status, 0) << pull.err;
  EXPECT_EQ(pull.out.rfind("files:deck.inp -> result.inp: ", 0), 0U) << pull.out;
  EXPECT_EQ(ReadFile(client + "/result.inp"), model);

  ASSERT_EQ(RunKelmsg({"push", "files", "model.inp", "nowait.inp", "--no-wait"}, client).status, 0);
  ASSERT_EQ(RunKelmsg({"push", "files", "input.dat", "input.dat", "--base", client, "--job", "job7",
                       "--server-base", "runs", "--server-job", "job7"})
                .status,
            0);
  ASSERT_EQ(
      RunKelmsg({"pull", "files", server + "/runs/job7/input.dat", "back.dat", "--job", "job7"},
                client)
          .status,
      0);
  EXPECT_EQ(ReadFile(client + "/job7/back.dat"), "load case 7\n");

  // On a terminal the bar is redrawn in place, its last state complete, and
  // the line ended once (the terminal turns the newline into "\r\n").
  std::optional<int> status;
  const std::string shown =
      RunKelmsgOnTerminal({"push", "files", "model.inp", "bar.inp"}, client, status);
  ASSERT_EQ(status, 0) << shown;
  EXPECT_NE(shown.find("\rmodel.inp -> files:bar.inp [########################] 100%  "),
            std::string::npos)
      << shown;
  EXPECT_TRUE(shown.ends_with("/s  0:00 left\033[K\r\n")) << shown;
  EXPECT_EQ(LineCount(shown), 1) << shown;

  ASSERT_EQ(RunKelmsg({"send", "files", "--kill", "soft", "--as", "monitor"}).status, 0);
  EXPECT_EQ(serve.ExitCode(10s), 0) << serve.Err();
  EXPECT_NE(serve.Out().find("SOFT_KILL from monitor: leaving\n"), std::string::npos);
  for (const char* copy : {"/deck.inp", "/nowait.inp", "/bar.inp"})
    EXPECT_EQ(ReadFile(server + copy), model) << copy;
}

}  // namespace
