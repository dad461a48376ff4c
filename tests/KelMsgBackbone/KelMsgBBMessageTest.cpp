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

TEST(KelMsgBBMessageTest, ComparesTypesByNameAndPrintsTheTypeLine) {
  class OtherClass : public ProbeMessage {
    using ProbeMessage::ProbeMessage;
  };
  ProbeLog log;
  const ProbeMessage msg(&log, "Shared");
  const OtherClass other(&log, "Shared");
  const ProbeMessage none(&log, nullptr);
  EXPECT_TRUE(msg.SameType(other) && other.SameType(msg));
  EXPECT_FALSE(msg.SameType(none));
  EXPECT_STREQ(none.Type(), "");
  EXPECT_EQ(PrintToString(msg, "  "), "  Message Type: Shared\n");
  EXPECT_EQ(PrintToString(msg, nullptr), "Message Type: Shared\n");
  EXPECT_EQ(PrintToString(none, ""), "Message Type: \n");
}

}  // namespace
