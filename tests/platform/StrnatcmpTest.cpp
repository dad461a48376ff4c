#include <KelMsgFeaMessaging/strnatcmp.h>

#include <string>

#include <gtest/gtest.h>

namespace {

int Sign(int value) {
  return (value > 0) - (value < 0);
}

TEST(StrnatcmpTest, DigitRunsCompareByValueAndLeadingZerosBreakTies) {
  const std::string big = "n" + std::string(200, '9');  // far beyond any integer type
  const std::string bigger = "n1" + std::string(200, '0');
  const struct {
    const char* a;
    const char* b;
    int order;
  } cases[] = {
      {"item2", "item10", -1}, {"item10", "item10", 0},   {"a9b", "a10a", -1},
      {"x1y2", "x1y10", -1},   {"file007", "file10", -1}, {"v7", "v007", -1},
      {"000", "000", 0},       {"0", "00", -1},           {big.c_str(), bigger.c_str(), -1},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Sign(strnatcmp(c.a, c.b)), c.order) << c.a << " vs " << c.b;
    EXPECT_EQ(Sign(strnatcmp(c.b, c.a)), -c.order) << c.b << " vs " << c.a;
  }
}

TEST(StrnatcmpTest, OtherBytesCompareLikeStrcmp) {
  const char* samples[] = {"", "a", "b", "ab", "A", "\xC3\xA9", "a-", "a_"};
  for (const char* a : samples) {
    for (const char* b : samples)
      EXPECT_EQ(Sign(strnatcmp(a, b)), Sign(std::string(a).compare(b))) << a << " vs " << b;
  }
}

}  // namespace
