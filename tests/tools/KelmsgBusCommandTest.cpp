// bus: a private broker that programs can use, started on a free port of a
// list and stopped cleanly.
#include <csignal>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "KelmsgProcess.h"
#include "ListeningSocket.h"
#include "TestBroker.h"

namespace {

// The port of "KELBUS_URL=mqtt://127.0.0.1:<port>" in `output`; 0 if none.
int PortOf(const std::string& output) {
  std::smatch match;
  static const std::regex kUrl("^KELBUS_URL=mqtt://127\\.0\\.0\\.1:([0-9]+)\n");
  return std::regex_search(output, match, kUrl) ? std::stoi(match[1]) : 0;
}

TEST(KelmsgBus, ServesTheBusUntilInterrupted) {
  const HeldPortPair held = HoldAdjacentPorts();
  ASSERT_TRUE(held.low) << "no two adjacent free ports";
  const int free = held.high->Port();
  held.high->Close();
  const std::string ports = std::to_string(held.low->Port()) + "," + std::to_string(free);

  KelmsgProcess bus({"bus", "--ports", ports});
  ASSERT_TRUE(bus.WaitForOutput("\n")) << bus.Err();
  ASSERT_EQ(PortOf(bus.Out()), free) << bus.Out();
  EXPECT_TRUE(AcceptsConnections(static_cast<std::uint16_t>(free)));

  // Programs use it through the URL it printed.
  setenv("KELBUS_URL", ("mqtt://127.0.0.1:" + std::to_string(free)).c_str(), 1);
  KelmsgProcess listen({"listen", "inbox", "--count", "1"});
  ASSERT_TRUE(listen.WaitForOutput("listening as inbox\n")) << listen.Err();
  ASSERT_EQ(RunKelmsg({"send", "inbox", "--text", "through the private bus"}).status, 0);
  EXPECT_EQ(listen.ExitCode(10s), 0);

  bus.Signal(SIGINT);
  EXPECT_EQ(bus.ExitCode(15s), 0) << bus.Err();
  EXPECT_FALSE(AcceptsConnections(static_cast<std::uint16_t>(free))) << "the broker still runs";
  EXPECT_NE(bus.Err().find("kelmsg bus: stopped\n"), std::string::npos) << bus.Err();
}

TEST(KelmsgBus, SigtermStopsItToo) {
  KelmsgProcess bus({"bus", "--ports", "20000-29999"});
  ASSERT_TRUE(bus.WaitForOutput("\n")) << bus.Err();
  const int port = PortOf(bus.Out());
  ASSERT_NE(port, 0) << bus.Out();
  bus.Signal(SIGTERM);
  EXPECT_EQ(bus.ExitCode(15s), 0) << bus.Err();
  EXPECT_FALSE(AcceptsConnections(static_cast<std::uint16_t>(port)));
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
  EXPECT_TRUE(AcceptsConnections(static_cast<std::uint16_t>(first.Port())));
}

TEST(KelmsgBus, RefusesAListWithoutAFreePort) {
  ListeningSocket taken(0);
  ASSERT_TRUE(taken.IsListening());
  const std::string port = std::to_string(taken.Port());
  const KelmsgResult result = RunKelmsg({"bus", "--ports", port});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "kelmsg bus: no free port in " + port + "\n");
  EXPECT_EQ(result.out, "");

  const KelmsgResult garbage = RunKelmsg({"bus", "--ports", "any"});
  EXPECT_EQ(garbage.status, 1);
  EXPECT_EQ(garbage.err, "kelmsg bus: no port in the list \"any\"\n");
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

TEST(KelmsgBus, RefusesAConfigurationItCannotRead) {
  const KelmsgResult result =
      RunKelmsg({"bus", "--ports", "20000-29999", "--config", "/nonexistent/mosquitto.conf"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "kelmsg bus: cannot read the broker configuration /nonexistent/mosquitto.conf\n");
}

}  // namespace
