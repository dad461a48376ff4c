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

// find-port and bus both pass over the held port to the free one beside it.
TEST(KelmsgBus, ServesTheBusUntilStopped) {
  const HeldPortPair held = HoldAdjacentPorts();
  ASSERT_TRUE(held.low) << "no two adjacent free ports";
  const int free = held.high->Port();
  held.high->Close();
  const std::string ports = std::to_string(held.low->Port()) + "-" + std::to_string(free);
  EXPECT_EQ(RunKelmsg({"find-port", ports}).out, std::to_string(free) + "\n");
  KelmsgProcess bus({"bus", "--ports", ports});
  const std::string address = "127.0.0.1:" + std::to_string(free);
  ASSERT_TRUE(bus.WaitForOutput("\n")) << bus.Err();
  ASSERT_EQ(bus.Out(), "KELBUS_URL=mqtt://" + address + "\n");

  // Programs use it through the URL it printed.
  setenv("KELBUS_URL", ("mqtt://" + address).c_str(), 1);
  KelmsgProcess listen({"listen", "inbox", "--count", "1"});
  ASSERT_TRUE(listen.WaitForOutput("listening as inbox\n")) << listen.Err();
  ASSERT_EQ(RunKelmsg({"send", "inbox", "--text", "through the private bus"}).status, 0);
  EXPECT_EQ(listen.ExitCode(10s), 0);

  bus.Signal(SIGTERM);
  EXPECT_EQ(bus.ExitCode(15s), 0) << bus.Err();
  EXPECT_NE(bus.Err().find("kelmsg bus: stopped\n"), std::string::npos) << bus.Err();
  // Its broker is gone with it.  Every command joins the bus through the
  // same session, so one stands for all in saying so in one line.
  const KelmsgResult orphan = RunKelmsg({"send", "inbox", "--text", "a"});
  EXPECT_EQ(orphan.status, 1);
  EXPECT_EQ(LineCount(orphan.err), 1) << orphan.err;
  EXPECT_NE(orphan.err.find(address), std::string::npos) << orphan.err;
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

}  // namespace
