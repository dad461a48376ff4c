#include <KelMsgFeaMessaging/KelMsgPortFinder.h>

#include <string>
#include <utility>
#include <vector>

#include <KelMsgFeaMessaging/DovUnicodeString.h>
#include <gtest/gtest.h>

#include "ListeningSocket.h"

// A list and the first candidates of a fresh finder for it; a list without
// ranges yields 0.
TEST(KelMsgPortFinderParseTest, WalksEveryRangeThatReadsInOrderAndStartsAgain) {
  const std::pair<const char*, std::vector<int>> cases[] = {
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
  for (const auto& [portList, candidates] : cases) {
    KelMsgPortFinder finder{DovUnicodeString(portList)};
    for (int candidate : candidates)
      EXPECT_EQ(finder.GetPort(), candidate) << "list \"" << portList << "\"";
  }
  for (const char* portList : {"", ",", ",,,", "abc", "0", "0-10", "510-500,x-1"})
    EXPECT_EQ(KelMsgPortFinder(DovUnicodeString(portList)).GetPort(), 0) << portList;
}

// Two adjacent ports, the low one held: the probe passes over it, gives the
// port it found up again, starts again after the last range, and gives up
// after one cycle of candidates, also when ranges overlap, and after at
// most 65,536 probes however often a very long list repeats them.
TEST(KelMsgPortFinderProbeTest, ProbesOnFromTheLastCandidateForOneCycle) {
  HeldPortPair ports = HoldAdjacentPorts();
  ASSERT_NE(ports.low, nullptr) << "no two adjacent free ports";
  const int low = ports.low->Port();
  const std::string portList = std::to_string(low) + "-" + std::to_string(low + 1);
  std::string longList = portList;
  for (int i = 0; i < 35000; ++i)
    longList += "," + portList;
  for (const std::string& list : {portList, portList + "," + portList, longList}) {
    KelMsgPortFinder finder{DovUnicodeString(list.c_str())};
    EXPECT_EQ(finder.FindOpenPort(), 0) << list.size();
    EXPECT_EQ(finder.GetPort(), low)
        << list.size() << ": the search handed out each candidate once";
    EXPECT_EQ(finder.GetPort(), low + 1) << list.size();
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

// Without ranges the system chooses a free port.  Ports are 16-bit: 65535
// counts as none, and a candidate of 65536 would probe port 0, which the
// system always grants.
TEST(KelMsgPortFinderRangeTest, StopsWhereTheCandidatesLeaveTheSixteenBitPorts) {
  for (const char* portList : {"", "abc,0-10"}) {
    const int port = KelMsgPortFinder(DovUnicodeString(portList)).FindOpenPort();
    EXPECT_TRUE(port > 0 && port < 65535) << port;
    EXPECT_TRUE(ListeningSocket(static_cast<std::uint16_t>(port)).IsListening());
  }
  const ListeningSocket hold65534(65534);
  KelMsgPortFinder crossing{DovUnicodeString("65534-65537")};
  EXPECT_EQ(crossing.FindOpenPort(), 0);
  EXPECT_EQ(crossing.GetPort(), 65537) << "65536 was the last candidate handed out";
  EXPECT_EQ(KelMsgPortFinder(DovUnicodeString("65535")).FindOpenPort(), 0);
}
