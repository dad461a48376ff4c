#include <KelMsgFeaMessaging/KelMsgBBMessage.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "ProbeMessage.h"

namespace {

std::string PrintToString(const KelMsgBBMessage& msg, const char* prefix) {
  char* text = nullptr;
  std::size_t length = 0;
  FILE* stream = open_memstream(&text, &length);
  msg.KelMsgBBMessage::Print(stream, prefix);
  std::fclose(stream);
  std::string printed(text, length);
  std::free(text);
  return printed;
}

TEST(KelMsgBBMessageTest, PrintWritesTheTypeLineWithItsPrefix) {
  ProbeLog log;
  const ProbeMessage msg(&log, "KelMsgStringType");
  EXPECT_EQ(PrintToString(msg, "  "), "  Message Type: KelMsgStringType\n");
  EXPECT_EQ(PrintToString(msg, nullptr), "Message Type: KelMsgStringType\n");
}

TEST(KelMsgBBMessageTest, SameTypeComparesNamesNotClasses) {
  ProbeLog log;
  class OtherClass : public ProbeMessage {
    using ProbeMessage::ProbeMessage;
  };
  const ProbeMessage a(&log, "Shared");
  const OtherClass b(&log, "Shared");
  const ProbeMessage c(&log, "Different");
  EXPECT_TRUE(a.SameType(b));
  EXPECT_TRUE(b.SameType(a));
  EXPECT_FALSE(a.SameType(c));
}

TEST(KelMsgBBMessageTest, TypeWithoutTextReadsAsEmpty) {
  ProbeLog log;
  const ProbeMessage msg(&log, nullptr);
  EXPECT_STREQ(msg.Type(), "");
  EXPECT_EQ(PrintToString(msg, ""), "Message Type: \n");
}

}  // namespace
