#include <KelMsgFeaMessaging/strnatcmp.h>

#include <string>

#include <gtest/gtest.h>

namespace {

int Sign(int value) { return (value > 0) - (value < 0); }

TEST(StrnatcmpTest, DigitRunsCompareByValue) {
  EXPECT_LT(strnatcmp("item2", "item10"), 0);
  EXPECT_GT(strnatcmp("item10", "item2"), 0);
  EXPECT_EQ(strnatcmp("item10", "item10"), 0);
  EXPECT_LT(strnatcmp("a9b", "a10a"), 0);
  EXPECT_LT(strnatcmp("x1y2", "x1y10"), 0);
}

TEST(StrnatcmpTest, LeadingZerosKeepTheValueButBreakTies) {
  EXPECT_LT(strnatcmp("file007", "file10"), 0);
  EXPECT_LT(strnatcmp("v7", "v007"), 0);
  EXPECT_GT(strnatcmp("v007", "v7"), 0);
  EXPECT_EQ(strnatcmp("000", "000"), 0);
  EXPECT_LT(strnatcmp("0", "00"), 0);
}

TEST(StrnatcmpTest, VeryLongRunsDoNotOverflow) {
  const std::string big = "n" + std::string(200, '9');
  const std::string bigger = "n1" + std::string(200, '0');
  EXPECT_LT(strnatcmp(big.c_str(), bigger.c_str()), 0);
  EXPECT_GT(strnatcmp(bigger.c_str(), big.c_str()), 0);
}

TEST(StrnatcmpTest, OtherBytesCompareLikeStrcmp) {
  const char* samples[] = {"", "a", "b", "ab", "A", "\xC3\xA9", "a-", "a_"};
  for (const char* a : samples) {
    for (const char* b : samples) {
      EXPECT_EQ(Sign(strnatcmp(a, b)), Sign(std::string(a).compare(b))) << a << " vs " << b;
    }
  }
}

TEST(StrnatcmpTest, NaturalOrderSwitch) {
  EXPECT_EQ(atr_getNaturalOrder(), 0) << "off when the library is loaded";
  atr_setNaturalOrder(1);
  EXPECT_NE(atr_getNaturalOrder(), 0);
  atr_setNaturalOrder(0);
  EXPECT_EQ(atr_getNaturalOrder(), 0);
}

}  // namespace
