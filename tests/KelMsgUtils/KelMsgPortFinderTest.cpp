#include <KelMsgFeaMessaging/KelMsgPortFinder.h>

#include <string>
#include <vector>

#include <KelMsgFeaMessaging/DovUnicodeString.h>
#include <gtest/gtest.h>

#include "ListeningSocket.h"

namespace {

// The first `count` candidates of a fresh finder for `portList`.
std::vector<int> Candidates(const std::string& portList, int count) {
  KelMsgPortFinder finder{DovUnicodeString(portList.c_str())};
  std::vector<int> candidates;
  for (int i = 0; i < count; ++i)
    candidates.push_back(finder.GetPort());
  return candidates;
}

using Ports = std::vector<int>;

TEST(KelMsgPortFinderParseTest, WalksEveryRangeThatReadsInOrderAndStartsAgain) {
  const struct {
    const char* portList;
    Ports candidates;
  } cases[] = {
      {"500", {500, 500, 500}},
      {"500-502,600-601", {500, 501, 502, 600, 601, 500, 501}},
      {"600-601,500", {600, 601, 500, 600}},
      {"500-501,500", {500, 501, 500, 500}},
      {"502-500,0,500x,500-50a,700,701-701", {700, 701, 700}},
      {"abc,700", {700, 700}},
      {"0-10,0x10,800 ,-0,900", {900, 900}},
      {" 800,+801,010", {800, 801, 10}},
      {"500-502-510", {500, 501, 502, 500}},  // only the first two numbers count
      {"500-", {500, 500}},
      {",500--501,,600", {500, 501, 600, 500}},  // runs of separators count as one
      {"-3", {3, 3}},
      {"2147483646-2147483647", {2147483646, 2147483647, 2147483646}},  // no overflow
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Candidates(c.portList, static_cast<int>(c.candidates.size())), c.candidates)
        << "list \"" << c.portList << "\"";
  }
  for (const char* portList : {"", ",", ",,,", "abc", "0", "0-10", "510-500,x-1"})
    EXPECT_EQ(Candidates(portList, 3), (Ports{0, 0, 0})) << "list \"" << portList << "\"";
}

// Two adjacent ports, the low one held: the probe passes over it, gives the
// port it found up again, starts again after the last range, and gives up
// after one cycle of candidates, also when ranges overlap.
TEST(KelMsgPortFinderProbeTest, ProbesOnFromTheLastCandidateForOneCycle) {
  HeldPortPair ports = HoldAdjacentPorts();
  ASSERT_NE(ports.low, nullptr) << "no two adjacent free ports";
  const int low = ports.low->Port();
  const std::string portList = std::to_string(low) + "-" + std::to_string(low + 1);
  for (const std::string& list : {portList, portList + "," + portList}) {
    KelMsgPortFinder finder{DovUnicodeString(list.c_str())};
    EXPECT_EQ(finder.FindOpenPort(), 0) << list;
    EXPECT_EQ(finder.GetPort(), low) << list << ": the search handed out each candidate once";
    EXPECT_EQ(finder.GetPort(), low + 1) << list;
  }

  ports.high->Close();
  KelMsgPortFinder finder{DovUnicodeString(portList.c_str())};
  EXPECT_EQ(finder.FindOpenPort(), low + 1) << "the low port is held";
  EXPECT_TRUE(ListeningSocket(static_cast<std::uint16_t>(low + 1)).IsListening())
      << "the probe gave the port up again";
  ports.low->Close();
  EXPECT_EQ(finder.FindOpenPort(), low) << "the candidate after the last range is its first";
  EXPECT_EQ(finder.FindOpenPort(), low + 1);
}

TEST(KelMsgPortFinderEmptyTest, WithoutRangesTheSystemChoosesAFreePort) {
  for (const char* portList : {"", "abc,0-10"}) {
    KelMsgPortFinder finder{DovUnicodeString(portList)};
    const int port = finder.FindOpenPort();
    EXPECT_GT(port, 0) << "list \"" << portList << "\"";
    EXPECT_LT(port, 65535);
    EXPECT_TRUE(ListeningSocket(static_cast<std::uint16_t>(port)).IsListening());
  }
}

// Ports are 16-bit: 65535 counts as none, and a candidate of 65536 would
// probe port 0, which the system always grants.
TEST(KelMsgPortFinderRangeTest, StopsWhereTheCandidatesLeaveTheSixteenBitPorts) {
  const ListeningSocket hold65534(65534);
  if (!hold65534.IsListening()) {
    EXPECT_FALSE(ListeningSocket(65534).IsListening()) << "65534 should be taken by someone";
  }
  KelMsgPortFinder crossing{DovUnicodeString("65534-65537")};
  EXPECT_EQ(crossing.FindOpenPort(), 0);
  EXPECT_EQ(crossing.GetPort(), 65537) << "65536 was the last candidate handed out";

  KelMsgPortFinder top{DovUnicodeString("65535")};
  EXPECT_EQ(top.FindOpenPort(), 0);
}

// Every candidate taken: a search ends after a bounded number of probes
// however often the list repeats the port.
TEST(KelMsgPortFinderRangeTest, ASearchEndsWhenEveryCandidateOfAVeryLongListIsTaken) {
  HeldPortPair ports = HoldAdjacentPorts();
  ASSERT_NE(ports.low, nullptr) << "no two adjacent free ports";
  std::string portList;
  for (int i = 0; i < 70000; ++i)
    portList += std::to_string(ports.low->Port()) + ",";
  KelMsgPortFinder finder{DovUnicodeString(portList.c_str())};
  EXPECT_EQ(finder.FindOpenPort(), 0);
}

}  // namespace
