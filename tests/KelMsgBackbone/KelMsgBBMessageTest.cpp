#include <KelMsgFeaMessaging/KelMsgBBMessage.h>

#include <gtest/gtest.h>

#include "ProbeMessage.h"

namespace {

// The type line of Print is pinned through every message type's printout.
TEST(KelMsgBBMessageTest, SameTypeComparesNamesNotClasses) {
  class OtherClass : public ProbeMessage {
    using ProbeMessage::ProbeMessage;
  };
  ProbeLog log;
  const ProbeMessage msg(&log, "Shared");
  const OtherClass other(&log, "Shared");
  const ProbeMessage none(&log, nullptr);
  EXPECT_TRUE(msg.SameType(other) && other.SameType(msg));
  EXPECT_FALSE(msg.SameType(none));
  EXPECT_STREQ(none.Type(), "") << "a type without text reads as empty";
}

}  // namespace
