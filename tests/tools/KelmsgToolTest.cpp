// kelmsg as its users run it, each command a process of its own.
//
// What every subcommand owes its user: help, and a failure as one line on
// standard error, with status 2 for a command line it cannot understand and
// 1 for anything else.  stamp, shared and unstamp as a shell script uses
// them.  bus, the private broker itself, started on a free port of a list
// and stopped cleanly, and served to the network only with TLS and
// passwords; listen, send, serve, push and pull on a test's broker.
// How they bear faults is KelMsgFaultTest's.
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "KelmsgProcess.h"
#include "ListeningSocket.h"
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

struct Failure {
  std::vector<std::string> arguments;
  int status;
  std::string message;  // a part of the one line on standard error, after
                        // "kelmsg: " (status 2) or "kelmsg <command>: "
};

// On a bus where "inbox" listens and "files" serves the working directory,
// writing files of 100,000 bytes at most; the commands run at once, since
// each waits on its own.
TEST_F(KelmsgOnBus, EveryFailureIsOneLineWithItsStatus) {
  const std::string dir = m_scratch.Path();
  WriteFile(m_scratch / "notes.txt", "just <some text");
  WriteFile(m_scratch / "model.inp", "*NODE\n");
  WriteFile(m_scratch / "big.inp", std::string(200000, 'b'));
  const ListeningSocket taken(0);
  const std::string port = std::to_string(taken.Port());
  KelmsgProcess inbox({"listen", "inbox"});
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  const rlimit unlimited = limit;
  limit.rlim_cur = 100000;
  setrlimit(RLIMIT_FSIZE, &limit);
  KelmsgProcess files({"serve", "files", "--dir", dir});
  setrlimit(RLIMIT_FSIZE, &unlimited);
  ASSERT_TRUE(inbox.WaitForOutput("listening as inbox\n")) << inbox.Err();
  ASSERT_TRUE(files.WaitForOutput("serving files as files")) << files.Err();
  // Watches of "inbox", which stays; apart from the table, since every
  // departure on the bus shows on a watch's standard error.
  KelmsgProcess limited({"watch", "inbox", "--timeout", "1"});
  KelmsgProcess interrupted({"watch", "inbox"});
  ASSERT_TRUE(interrupted.WaitForOutput("watching inbox\n")) << interrupted.Err();
  interrupted.Signal(SIGINT);

  const Failure failures[] = {
      {{}, 2, "A subcommand is required"},
      {{"send"}, 2, "APP is required"},
      {{"send", "inbox"}, 2, "Exactly 1 option from [--text,--xml,--kill] is required"},
      {{"send", "inbox", "--kill", "gently"}, 2, "--kill: gently not in {soft,hard}"},
      {{"listen", "inbox", "--count", "0"}, 2, "--count: Value 0 not in range"},
      {{"watch", "inbox", "--timeout", "soon"}, 2, "--timeout: Value soon not in range"},
      {{"push", "files", "only-a-source"}, 2, "TARGET is required"},
      {{"bus", "--address", "nowhere"}, 2, "--address: Invalid IPV4"},
      {{"bus", "--address", "0.0.0.0"}, 1, "without TLS and passwords: add a user with"},
      {{"find-port", "1", "2"}, 2, "The following argument was not expected: 2"},
      {{"bus", "--ports", port}, 1, "no free port in " + port + "\n"},
      {{"bus", "--config", "/no/m.conf"}, 1, "cannot read the broker configuration /no/m.conf\n"},
      {{"find-port", port}, 1, "no free port in " + port + "\n"},
      {{"find-port", "ports,please"}, 1, "no port in the list \"ports,please\""},
      {{"stamp", dir, "nojob", "m"}, 1, "cannot create " + dir + "/nojob/m.stamp\n"},
      {{"send", "inbox", "--xml", "notes.txt"}, 1, "notes.txt is not an XML document\n"},
      {{"send", "inbox", "--xml", "absent.xml"}, 1, "cannot read absent.xml\n"},
      {{"listen", "inbox"}, 1, "inbox is already on the bus\n"},
      {{"push", "files", "absent.inp", "x"}, 1, "cannot read " + dir + "/absent.inp: "},
      {{"pull", "files", "no.inp", "x", "--keep-partial"},
       1,
       "files could not read no.inp: No such file or directory; kept x.partial\n"},
      {{"pull", "files", "model.inp", "no/x"}, 1, "could not create no/x: No such file"},
      {{"push", "files", "big.inp", "big.out"},
       1,
       "files could not write big.out: File too large (100000 of 200000 bytes)\n"},
      // Nobody holds the name: said at once, not after the time-out.
      {{"push", "nobody", "model.inp", "x", "--no-wait"},
       1,
       "nobody is not on the bus (is it serving?)\n"},
      {{"pull", "nobody", "model.inp", "y"}, 1, "nobody is not on the bus (is it serving?)\n"},
      // A listener holds its name but answers nothing.
      {{"push", "inbox", "model.inp", "x", "--timeout", "1"},
       1,
       "no receipt from inbox for x within 1 s\n"},
      {{"pull", "inbox", "model.inp", "y", "--timeout", "1"},
       1,
       "abandoned y: inbox sent nothing within 1 s (0 bytes written); removed y.partial\n"},
  };
  std::vector<std::unique_ptr<KelmsgProcess>> runs;
  for (const Failure& failure : failures)
    runs.push_back(std::make_unique<KelmsgProcess>(failure.arguments, dir));
  for (std::size_t i = 0; i < runs.size(); ++i) {
    const Failure& failure = failures[i];
    const std::optional<int> status = runs[i]->ExitCode();
    const std::string err = runs[i]->Err();
    const std::string prefix =
        failure.status == 2 ? "kelmsg: " : "kelmsg " + failure.arguments[0] + ": ";
    SCOPED_TRACE(::testing::PrintToString(failure.arguments) + " wrote " + err);
    EXPECT_EQ(status, failure.status);
    EXPECT_EQ(std::ranges::count(err, '\n'), 1);
    EXPECT_EQ(err.rfind(prefix, 0), 0U);
    EXPECT_NE(err.find(failure.message), std::string::npos);
  }
  for (const char* left : {"x", "big.out", "big.out.partial"})
    EXPECT_FALSE(fs::exists(m_scratch / left)) << left;
  EXPECT_TRUE(fs::exists(m_scratch / "x.partial"));
  // Not waiting for the receipt does not spare the server its check.
  EXPECT_EQ(KelmsgProcess({"push", "files", "big.inp", "later.out", "--no-wait"}, dir).ExitCode(),
            0);
  EXPECT_TRUE(
      files.WaitForOutput("could not write later.out: File too large (100000 of 200000 bytes); "
                          "removed later.out.partial\n"))
      << files.Out();
  EXPECT_EQ(interrupted.ExitCode(), 130) << "as a shell reports Ctrl-C";
  EXPECT_EQ(limited.ExitCode(), 1);
  EXPECT_TRUE(limited.Err().ends_with("kelmsg watch: inbox is still on the bus after 1 s\n"))
      << limited.Err();
}

// Two names for one directory, the real one and a symbolic link to it, and
// another directory; relative bases are read against the working directory.
// What a stamp is and when it shows is KelMsgPathExplorerTest's.
TEST(KelmsgPathCommands, StampsTellASharedDirectoryFromAnotherOne) {
  const ScratchDirectory scratch;
  fs::create_directories(scratch / "real/job42");
  fs::create_directories(scratch / "other/job42");
  fs::create_directory_symlink(scratch / "real", scratch / "link");
  const std::string real = scratch / "real/job42/monitor.stamp";
  const std::string link = scratch / "link/job42/monitor.stamp";
  const std::string other = scratch / "other/job42/monitor.stamp";
  // Each command in turn, its status and what it prints.
  const std::tuple<std::vector<std::string>, int, std::string> steps[] = {
      {{"stamp", "real", "job42", "monitor"}, 0, real + "\n"},
      {{"shared", scratch / "link", "job42", "monitor"}, 0, "shared: " + link + "\n"},
      {{"shared", ".", "link/job42", "monitor"}, 0, "shared: " + link + "\n"},
      {{"shared", "other", "job42", "monitor"}, 1, "not shared: " + other + "\n"},
      {{"unstamp", "link", "job42", "monitor"}, 0, ""},
      {{"shared", "real", "job42", "monitor"}, 1, "not shared: " + real + "\n"},
      // Removing a stamp that is not there is no failure.
      {{"unstamp", "real", "job42", "monitor"}, 0, ""}};
  for (const auto& [arguments, status, out] : steps) {
    KelmsgProcess step(arguments, scratch.Path());
    EXPECT_EQ(step.ExitCode(), status) << ::testing::PrintToString(arguments);
    EXPECT_EQ(step.Out(), out);
    EXPECT_EQ(step.Err(), "");
  }
}

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
  EXPECT_EQ(std::ranges::count(orphan.Err(), '\n'), 1) << orphan.Err();
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

// Only loopback goes without TLS and passwords; `user add` makes a user
// whose password, with the CA, lets clients in over TLS, and nobody else;
// a user added while the bus runs gets in at once, holding the applications
// it was given and none other.
TEST(KelmsgBus, ServesTheNetworkOnlyWithTlsAndPasswords) {
  const ScratchDirectory state;
  KelmsgProcess added({"bus", "user", "add", "solver", "--state-dir", state / ""});
  ASSERT_EQ(added.ExitCode(), 0) << added.Err();
  EXPECT_EQ(added.Out().size(), 25u) << "one line with the password";

  KelmsgProcess bus(
      {"bus", "--tls", "--auth", "--state-dir", state / "", "--ports", "20000-29999"});
  ASSERT_TRUE(bus.WaitForOutput(".password\n")) << bus.Err();
  bus.ExportPrintedSettings();
  EXPECT_EQ(KelmsgProcess({"send", "nobody", "--as", "solver", "--text", "in"}).ExitCode(), 0);
  ASSERT_EQ(
      KelmsgProcess({"bus", "user", "add", "eve", "--app", "helper", "--state-dir", state / ""})
          .ExitCode(),
      0);
  setenv("KELBUS_URL",
         std::regex_replace(getenv("KELBUS_URL"), std::regex("solver@"), "eve@").c_str(), 1);
  setenv("KELBUS_PASSWORD_FILE", (state / "users/eve.password").c_str(), 1);
  EXPECT_EQ(KelmsgProcess({"send", "nobody", "--as", "helper", "--text", "in"}).ExitCode(), 0);
  KelmsgProcess impostor({"send", "nobody", "--as", "solver", "--text", "in"});
  EXPECT_EQ(impostor.ExitCode(), 1);
  EXPECT_EQ(impostor.Err().find("Not authorized"), impostor.Err().rfind("Not authorized"))
      << "in one line: " << impostor.Err();
  EXPECT_NE(impostor.Err().find("Not authorized"), std::string::npos) << impostor.Err();
  unsetenv("KELBUS_PASSWORD_FILE");
  KelmsgProcess anonymous({"send", "nobody", "--text", "in"});
  EXPECT_EQ(anonymous.ExitCode(), 1);
  unsetenv("KELBUS_CA_FILE");
  EXPECT_NE(anonymous.Err().find("Not authorized"), std::string::npos) << anonymous.Err();
  EXPECT_EQ(anonymous.Err().find(added.Out().substr(0, 24)), std::string::npos) << anonymous.Err();
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

// Each send is over before the next starts, so the listener prints them in
// the order sent.
TEST_F(KelmsgOnBus, ListenPrintsWhatSendSentOfEveryType) {
  WriteFile(m_scratch / "progress.xml", "<Progress percent=\"50\"/>");
  WriteFile(m_scratch / "deck.inp", "*NODE\n1, 0.0, 0.0\n");
  KelmsgProcess listen({"listen", "inbox", "--count", "9"});
  ASSERT_TRUE(listen.WaitForOutput("listening as inbox\n")) << listen.Err();
  const std::vector<std::string> sends[] = {
      {"send", "inbox", "--as", "sender", "--text", "hello, bus"},
      {"send", "inbox", "--as", "a\x1b]0;t\x07\n\xc2\x9b", "--text", "\x1b[2J\xff"},
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
        // What peers send reaches the terminal only as visible escapes.
        "-- id a\\x1b]0;t\\x07\\x0a\\xc2\\x9b\n", "data[0]: \\x1b\n", "data[4]: \\xff\n",
        "-- id sender\nAnalysis Message", "<Progress percent=\"50\"/>\n",
        "-- id monitor\nMessage Type: KelMsgProcessControlType\n",
        "<Kill type=\"symconst\">SOFT_KILL</Kill>", "-- id kelmsg-send-", "HARD_KILL</Kill>",
        "id holder\nMessage Type: KelMsgFileTransferType\n   DataType: 2\n",
        "id holder\nMessage Type: KelMsgFileTransferType\n   DataType: 3\n",
        "id holder\nMessage Type: KelMsgTransferReceiptType\n   Step: 2, bytes: 18, failure: 0, "
        "sha256: 825077552137dcef1fd14607c01858a04c8a90de1b7026395e75db695407ed6c\n",
        "id holder\nMessage Type: KelMsgFileTransferType\n   DataType: 5\n"}) {
    at = printed.find(expected, at);
    ASSERT_NE(at, std::string::npos) << "no \"" << expected << "\" in order in:\n" << printed;
  }
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
    EXPECT_EQ(std::ranges::count(transfer.Out(), '\n'), 1) << transfer.Out();
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
  EXPECT_EQ(std::ranges::count(shown, '\n'), 1) << shown;
  EXPECT_EQ(ReadFile(server + "/bar.inp"), model);

  ASSERT_EQ(KelmsgProcess({"send", "files", "--kill", "soft", "--as", "monitor"}).ExitCode(), 0);
  EXPECT_EQ(serve.ExitCode(10s), 0) << serve.Err();
  EXPECT_NE(serve.Out().find("SOFT_KILL from monitor: leaving\n"), std::string::npos);
}

}  // namespace
