// listen, send, serve, push and pull, as separate kelmsg processes on a real
// broker.  How they bear faults is KelMsgFaultTest's.
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KelmsgProcess.h"
#include "TestBroker.h"
#include "TestFiles.h"

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

// Each send is over before the next starts, so the listener prints them in
// the order sent.
TEST_F(KelmsgOnBus, ListenPrintsWhatSendSentOfEveryType) {
  WriteFile(m_scratch / "progress.xml", "<Progress percent=\"50\"/>");
  WriteFile(m_scratch / "deck.inp", "*NODE\n1, 0.0, 0.0\n");
  KelmsgProcess listen({"listen", "inbox", "--count", "8"});
  ASSERT_TRUE(listen.WaitForOutput("listening as inbox\n")) << listen.Err();
  const std::vector<std::string> sends[] = {
      {"send", "inbox", "--as", "sender", "--text", "hello, bus"},
      {"send", "inbox", "--text", "x"},
      {"send", "inbox", "--as", "sender", "--xml", "progress.xml"},
      {"send", "inbox", "--as", "monitor", "--kill", "soft"},
      {"send", "inbox", "--kill", "hard"},
      {"push", "inbox", "deck.inp", "copy.inp", "--no-wait", "--as", "holder"}};
  for (const std::vector<std::string>& send : sends) {
    const KelmsgResult sent = RunKelmsg(send, m_scratch.Path());
    EXPECT_EQ(sent.status, 0) << sent.err;
    EXPECT_EQ(sent.err, "");
  }
  ASSERT_EQ(listen.ExitCode(10s), 0) << listen.Err();
  const std::string printed = listen.Out();
  std::size_t at = 0;
  for (const char* expected :
       {"KelMsgPrintingHandler::HandleMessage -- id sender\nMessage Type: KelMsgStringType\n"
        "   size: 10\n   data[0]: h\n   data[9]: s\n",
        "   size: 1\n   data[0]: x\n   data[0]: x\n", "-- id sender\n",
        "<Progress percent=\"50\"/>\n", "-- id monitor\nMessage Type: KelMsgProcessControlType\n",
        "<Kill type=\"symconst\">SOFT_KILL</Kill>", "-- id kelmsg-send-", "HARD_KILL</Kill>",
        "id holder\nMessage Type: KelMsgFileTransferType\n   DataType: 2\n",
        "id holder\nMessage Type: KelMsgFileTransferType\n   DataType: 3\n",
        "id holder\nMessage Type: KelMsgFileTransferType\n   DataType: 5\n"}) {
    at = printed.find(expected, at);
    ASSERT_NE(at, std::string::npos) << "no \"" << expected << "\" in order in:\n" << printed;
  }
}

// A file server in its own directory, and a client directory beside it.
TEST_F(KelmsgOnBus, FilesCrossByteForByteUntilAKillEndsServing) {
  const std::string server = m_scratch / "server";
  const std::string client = m_scratch / "client";
  std::filesystem::create_directories(server + "/runs/job7");
  std::filesystem::create_directories(client + "/job7");
  const std::string model = RandomBytes(3 * 65536 + 1000);
  WriteFile(client + "/model.inp", model);
  WriteFile(client + "/job7/input.dat", "load case 7\n");
  KelmsgProcess serve({"serve", "files", "--dir", server});
  ASSERT_TRUE(serve.WaitForOutput("serving files as files from " + server + "\n")) << serve.Err();

  const KelmsgResult push = RunKelmsg({"push", "files", "model.inp", "deck.inp"}, client);
  ASSERT_EQ(push.status, 0) << push.err;
  EXPECT_EQ(push.out.rfind("model.inp -> files:deck.inp: ", 0), 0U) << push.out;
  EXPECT_EQ(LineCount(push.out), 1) << "not on a terminal: one summary line";
  const KelmsgResult pull = RunKelmsg({"pull", "files", "deck.inp", "result.inp"}, client);
  ASSERT_EQ(pull.status, 0) << pull.err;
  EXPECT_EQ(pull.out.rfind("files:deck.inp -> result.inp: ", 0), 0U) << pull.out;
  EXPECT_EQ(ReadFile(client + "/result.inp"), model);

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
  const KelmsgResult bar = RunKelmsgOnTerminal({"push", "files", "model.inp", "bar.inp"}, client);
  ASSERT_EQ(bar.status, 0) << bar.out;
  EXPECT_NE(bar.out.find("\rmodel.inp -> files:bar.inp [########################] 100%  "),
            std::string::npos)
      << bar.out;
  EXPECT_TRUE(bar.out.ends_with("/s  0:00 left\033[K\r\n")) << bar.out;
  EXPECT_EQ(LineCount(bar.out), 1) << bar.out;
  EXPECT_EQ(ReadFile(server + "/bar.inp"), model);

  ASSERT_EQ(RunKelmsg({"send", "files", "--kill", "soft", "--as", "monitor"}).status, 0);
  EXPECT_EQ(serve.ExitCode(10s), 0) << serve.Err();
  EXPECT_NE(serve.Out().find("SOFT_KILL from monitor: leaving\n"), std::string::npos);
}

}  // namespace
