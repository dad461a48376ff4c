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

TEST(KelMsgPortFinderParseTest, WalksEveryRangeInOrderAndStartsAgain) {
  EXPECT_EQ(Candidates("500", 3), (Ports{500, 500, 500}));
  EXPECT_EQ(Candidates("500-502,600-601", 7), (Ports{500, 501, 502, 600, 601, 500, 501}));
  EXPECT_EQ(Candidates("600-601,500", 4), (Ports{600, 601, 500, 600}));
  EXPECT_EQ(Candidates("500-501,500", 4), (Ports{500, 501, 500, 500}));
}

TEST(KelMsgPortFinderParseTest, SkipsItemsThatDoNotReadAndKeepsTheOthers) {
  EXPECT_EQ(Candidates("502-500,0,500x,500-50a,700,701-701", 3), (Ports{700, 701, 700}));
  EXPECT_EQ(Candidates("abc,700", 2), (Ports{700, 700}));
  EXPECT_EQ(Candidates("0-10,0x10,800 ,-0,900", 2), (Ports{900, 900}));
  EXPECT_EQ(Candidates(" 800,+801,010", 3), (Ports{800, 801, 10}));
}

TEST(KelMsgPortFinderParseTest, ReadsOnlyTheFirstTwoNumbersOfAnItem) {
  EXPECT_EQ(Candidates("500-502-510", 4), (Ports{500, 501, 502, 500}));
  EXPECT_EQ(Candidates("500-", 2), (Ports{500, 500}));
}

TEST(KelMsgPortFinderParseTest, RunsOfSeparatorsCountAsOne) {
  EXPECT_EQ(Candidates("500,,600", 3), (Ports{500, 600, 500}));
  EXPECT_EQ(Candidates(",500--501,", 3), (Ports{500, 501, 500}));
  EXPECT_EQ(Candidates("-3", 2), (Ports{3, 3}));
}

TEST(KelMsgPortFinderParseTest, EmptyOrInvalidSpecificationHasNoCandidate) {
  for (const char* portList : {"", ",", ",,,", "abc", "0", "0-10", "510-500,x-1"}) {
    EXPECT_EQ(Candidates(portList, 3), (Ports{0, 0, 0})) << "list \"" << portList << "\"";
  }
}

TEST(KelMsgPortFinderParseTest, RangeEndingAtTheLargestIntDoesNotOverflow) {
  EXPECT_EQ(Candidates("2147483646-2147483647", 3), (Ports{2147483646, 2147483647, 2147483646}));
}

class KelMsgPortFinderProbeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_ports = HoldAdjacentPorts();
    ASSERT_NE(m_ports.low, nullptr) << "no two adjacent free ports";
    m_low = m_ports.low->Port();
    m_portList = std::to_string(m_low) + "-" + std::to_string(m_low + 1);
  }

  KelMsgPortFinder Finder() const { return KelMsgPortFinder(DovUnicodeString(m_portList.c_str())); }

  HeldPortPair m_ports;
  int m_low = 0;
  std::string m_portList;
};

TEST_F(KelMsgPortFinderProbeTest, ReturnsAFreePortAndGivesItUpAgain) {
  m_ports.low->Close();
  m_ports.high->Close();
  KelMsgPortFinder finder = Finder();
  EXPECT_EQ(finder.FindOpenPort(), m_low);
  EXPECT_TRUE(ListeningSocket(static_cast<std::uint16_t>(m_low)).IsListening());
  EXPECT_EQ(finder.FindOpenPort(), m_low + 1) << "the next search starts after the last port";
}

TEST_F(KelMsgPortFinderProbeTest, SkipsAPortHeldByAnotherSocketAndWraps) {
  m_ports.high->Close();
  KelMsgPortFinder finder = Finder();
  EXPECT_EQ(finder.FindOpenPort(), m_low + 1);

  m_ports.low->Close();
  const ListeningSocket holdHigh(static_cast<std::uint16_t>(m_low + 1));
  ASSERT_TRUE(holdHigh.IsListening());
  EXPECT_EQ(finder.FindOpenPort(), m_low) << "the candidate after the last range is its first";
}

TEST_F(KelMsgPortFinderProbeTest, GivesUpAfterOneFullCycle) {
  KelMsgPortFinder finder = Finder();
  EXPECT_EQ(finder.FindOpenPort(), 0);
  EXPECT_EQ(finder.GetPort(), m_low) << "the search handed out each candidate once";

  const std::string twice = m_portList + "," + m_portList;
  KelMsgPortFinder overlapping{DovUnicodeString(twice.c_str())};
  EXPECT_EQ(overlapping.FindOpenPort(), 0);
  EXPECT_EQ(overlapping.GetPort(), m_low);
  EXPECT_EQ(overlapping.GetPort(), m_low + 1);
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

}  // namespace
