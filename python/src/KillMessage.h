// KillMessage: a soft or hard kill request (KelMsgProcessControlType),
// kelmsg.Kill in Python.  What a kill means is up to the receiver.
#ifndef KELMSG_PYTHON_KILLMESSAGE_H_
#define KELMSG_PYTHON_KILLMESSAGE_H_

#include <cstring>

#include <KelMsgFeaMessaging/KelMsgProcessControlType.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlTypeFactory.h>

struct KillMessage {
  using Library = KelMsgProcessControlType;

  bool hard = false;

  bool operator==(const KillMessage&) const = default;

  // The library hands on only requests whose value is SOFT_KILL or HARD_KILL.
  static KillMessage From(const KelMsgProcessControlType& message) {
    return {std::strcmp(message.GetVal("Kill").GetUTF8(), "HARD_KILL") == 0};
  }
  template <class Use>
  void Lend(Use&& use) const {
    use(*(hard ? KelMsgProcessControlTypeFactory::CreateHardKillMsg()
               : KelMsgProcessControlTypeFactory::CreateSoftKillMsg()));
  }
};

#endif  // KELMSG_PYTHON_KILLMESSAGE_H_
