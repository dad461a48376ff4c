// bus: a private broker that programs can use, started on a free port of a
// list and stopped cleanly.
#include <csignal>
#include <regex>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "KelmsgProcess.h"
#include "ListeningSocket.h"
#include "ScratchDirectory.h"
#include "TestBroker.h"

namespace {

// find-port and bus both pass over the held port to the free one beside it.
TEST(KelmsgBus, ServesTheBusUntilStopped) {
  const HeldPortPair held = HoldAdjacentPorts();
  ASSERT_TRUE(held.low) << "no two adjacent free ports";
  const int free = held.high->Port();
  held.high->Close();
  const KelmsgResult found =
      RunKelmsg({"find-port", std::to_string(held.low->Port()) + "-" + std::to_string(free)});
  EXPECT_EQ(found.out, std::to_string(free) + "\n") << found.err;
  KelmsgProcess bus(
      {"bus", "--ports", std::to_string(held.low->Port()) + "," + std::to_string(free)});
  const std::string url = "mqtt://127.0.0.1:" + std::to_string(free);
  ASSERT_TRUE(bus.WaitForOutput("\n")) << bus.Err();
  ASSERT_EQ(bus.Out(), "KELBUS_URL=" + url + "\n");

  // Programs use it through the URL it printed.
  setenv("KELBUS_URL", url.c_str(), 1);
  KelmsgProcess listen({"listen", "inbox", "--count", "1"});
  ASSERT_TRUE(listen.WaitForOutput("listening as inbox\n")) << listen.Err();
  ASSERT_EQ(RunKelmsg({"send", "inbox", "--text", "through the private bus"}).status, 0);
  EXPECT_EQ(listen.ExitCode(10s), 0);

  bus.Signal(SIGTERM);
  EXPECT_EQ(bus.ExitCode(15s), 0) << bus.Err();
  EXPECT_FALSE(AcceptsConnections(static_cast<std::uint16_t>(free))) << "the broker still runs";
  EXPECT_NE(bus.Err().find("kelmsg bus: stopped\n"), std::string::npos) << bus.Err();
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
// whose password, with the CA, lets clients in over TLS, and nobody else.
TEST(KelmsgBus, ServesTheNetworkOnlyWithTlsAndPasswords) {
  const KelmsgResult open = RunKelmsg({"bus", "--address", "0.0.0.0"});
  EXPECT_EQ(open.status, 1);
  EXPECT_NE(open.err.find("start with --tls --auth"), std::string::npos) << open.err;
  const ScratchDirectory state;
  const KelmsgResult added = RunKelmsg({"bus", "user", "add", "solver", "--state-dir", state / ""});
  ASSERT_EQ(added.status, 0) << added.err;
  EXPECT_EQ(added.out.size(), 25u) << "one line with the password";

  KelmsgProcess bus(
      {"bus", "--tls", "--auth", "--state-dir", state / "", "--ports", "20000-29999"});
  ASSERT_TRUE(bus.WaitForOutput("KELBUS_PASSWORD_FILE=")) << bus.Err();
  ASSERT_TRUE(bus.WaitForOutput(".password\n")) << bus.Err();
  std::istringstream lines(bus.Out());
  for (std::string line; std::getline(lines, line);)
    setenv(line.substr(0, line.find('=')).c_str(), line.substr(line.find('=') + 1).c_str(), 1);
  EXPECT_EQ(RunKelmsg({"send", "nobody", "--text", "in"}).status, 0);
  unsetenv("KELBUS_PASSWORD_FILE");
  const KelmsgResult anonymous = RunKelmsg({"send", "nobody", "--text", "in"});
  unsetenv("KELBUS_CA_FILE");
  EXPECT_EQ(anonymous.status, 1);
  EXPECT_NE(anonymous.err.find("Not authorized"), std::string::npos) << anonymous.err;
  EXPECT_EQ(anonymous.err.find(added.out.substr(0, 24)), std::string::npos) << anonymous.err;
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

}  // namespace
