// kelmsg on a bus: bus, the private broker itself, started on a free port
// of a list and stopped cleanly; listen, send, serve, push and pull on a
// test's broker.  How they bear faults is KelMsgFaultTest's.
#include <csignal>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KelmsgProcess.h"
#include "ListeningSocket.h"
#include "TestBroker.h"
#include "TestFiles.h"

namespace {

// find-port and bus both pass over the held port to the free one beside it.
TEST(KelmsgBus, ServesTheBusUntilStopped) {
  const HeldPortPair held = HoldAdjacentPorts();
  ASSERT_TRUE(held.low) << "no two adjacent free ports";
  const int free = held.high->Port();
  held.high->Close();
  const std::string ports = std::to_string(held.low->Port()) + "-" + std::to_string(free);
  KelmsgProcess found({"find-port", ports});
  EXPECT_EQ(found.ExitCode(), 0);
  EXPECT_EQ(found.Out(), std::to_string(free) + "\n");
  KelmsgProcess bus({"bus", "--ports", ports});
  const std::string address = "127.0.0.1:" + std::to_string(free);
  ASSERT_TRUE(bus.WaitForOutput("\n")) << bus.Err();
  ASSERT_EQ(bus.Out(), "KELBUS_URL=mqtt://" + address + "\n");

  // Programs join it through the URL it printed.
  setenv("KELBUS_URL", ("mqtt://" + address).c_str(), 1);
  EXPECT_EQ(KelmsgProcess({"send", "inbox", "--text", "a"}).ExitCode(), 0);

  bus.Signal(SIGTERM);
  EXPECT_EQ(bus.ExitCode(15s), 0) << bus.Err();
  EXPECT_NE(bus.Err().find("kelmsg bus: stopped\n"), std::string::npos) << bus.Err();
  // Its broker is gone with it.  Every command joins the bus through the
  // same session, so one stands for all in saying so in one line.
  KelmsgProcess orphan({"send", "inbox", "--text", "a"});
  EXPECT_EQ(orphan.ExitCode(), 1);
  EXPECT_EQ(LineCount(orphan.Err()), 1) << orphan.Err();
  EXPECT_NE(orphan.Err().find(address), std::string::npos) << orphan.Err();
}

TEST(KelmsgBus, SaysSoWhenTheBrokerDiesUnderIt) {
  KelmsgProcess bus({"bus", "--ports", "20000-29999"});
  ASSERT_TRUE(bus.WaitForOutput("\n")) << bus.Err();
  std::smatch match;
  const std::string err = bus.Err();
  ASSERT_TRUE(std::regex_search(err, match, std::regex("mosquitto ([0-9]+) listens"))) << err;
  kill(std::stoi(match[1]), SIGKILL);
  EXPECT_EQ(bus.ExitCode(15s), 1);
  EXPECT_NE(bus.Err().find("kelmsg bus: mosquitto ended on its own"), std::string::npos)
      << bus.Err();
}

// Two buses started at once may both find a port free; the one whose
// broker then cannot take it must not count the other's broker as its own.
TEST(KelmsgBus, ABrokerCountsAsStartedOnlyWhenItHoldsItsPort) {
  TestBroker first;
  ASSERT_TRUE(first.Running()) << first.Error();
  TestBroker second(first.Port());
  EXPECT_FALSE(second.Running());
  EXPECT_NE(second.Error().find("did not start on port " + std::to_string(first.Port())),
            std::string::npos)
      << second.Error();
}

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
  KelmsgProcess listen({"listen", "inbox", "--count", "7"});
  ASSERT_TRUE(listen.WaitForOutput("listening as inbox\n")) << listen.Err();
  const std::vector<std::string> sends[] = {
      {"send", "inbox", "--as", "sender", "--text", "hello, bus"},
      {"send", "inbox", "--as", "sender", "--xml", "progress.xml"},
      {"send", "inbox", "--as", "monitor", "--kill", "soft"},
      {"send", "inbox", "--kill", "hard"},
      {"push", "inbox", "deck.inp", "copy.inp", "--no-wait", "--as", "holder"}};
  for (const std::vector<std::string>& send : sends) {
    KelmsgProcess sent(send, m_scratch.Path());
    EXPECT_EQ(sent.ExitCode(), 0);
    EXPECT_EQ(sent.Err(), "");
  }
  ASSERT_EQ(listen.ExitCode(10s), 0) << listen.Err();
  const std::string printed = listen.Out();
  std::size_t at = 0;
  for (const char* expected :
       {"KelMsgPrintingHandler::HandleMessage -- id sender\nMessage Type: KelMsgStringType\n"
        "   size: 10\n   data[0]: h\n   data[9]: s\n",
        "-- id sender\nAnalysis Message", "<Progress percent=\"50\"/>\n",
        "-- id monitor\nMessage Type: KelMsgProcessControlType\n",
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

  // Off a terminal, each transfer says what it did in one line.  Each runs
  // in the test's working directory, its own side's base given.
  const std::pair<std::vector<std::string>, std::string> transfers[] = {
      {{"push", "files", "model.inp", "deck.inp"}, "model.inp -> files:deck.inp: "},
      {{"pull", "files", "deck.inp", "result.inp"}, "files:deck.inp -> result.inp: "},
      {{"push", "files", "input.dat", "input.dat", "--job", "job7", "--server-base", "runs",
        "--server-job", "job7"},
       "input.dat -> files:input.dat: "},
      {{"pull", "files", server + "/runs/job7/input.dat", "back.dat", "--job", "job7"},
       "files:" + server + "/runs/job7/input.dat -> back.dat: "}};
  for (auto [arguments, summary] : transfers) {
    arguments.insert(arguments.end(), {"--base", client});
    KelmsgProcess transfer(arguments);
    EXPECT_EQ(transfer.ExitCode(), 0) << transfer.Err();
    EXPECT_EQ(transfer.Out().rfind(summary, 0), 0U) << transfer.Out();
    EXPECT_EQ(LineCount(transfer.Out()), 1) << transfer.Out();
  }
  EXPECT_EQ(ReadFile(client + "/result.inp"), model);
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
  EXPECT_EQ(ReadFile(server + "/bar.inp"), model);

  ASSERT_EQ(KelmsgProcess({"send", "files", "--kill", "soft", "--as", "monitor"}).ExitCode(), 0);
  EXPECT_EQ(serve.ExitCode(10s), 0) << serve.Err();
  EXPECT_NE(serve.Out().find("SOFT_KILL from monitor: leaving\n"), std::string::npos);
}

}  // namespace
