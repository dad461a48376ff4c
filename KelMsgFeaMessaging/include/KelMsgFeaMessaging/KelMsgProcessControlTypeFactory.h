// KelMsgProcessControlTypeFactory: builds ready-to-send kill requests.
//
// Each call returns a new message (use count 1), externalized and ready for
// KelMsgBBAPI::SendRequest; it is destroyed when the last copy of the handle
// goes.  The operations keep no state and may be called from any thread.
//
// Example:
//   KelMsgBBAPI::SendRequest(communicator, "solver",
//                            *KelMsgProcessControlTypeFactory::CreateSoftKillMsg());
#ifndef KELMSGFEAMESSAGING_KELMSGPROCESSCONTROLTYPEFACTORY_H_
#define KELMSGFEAMESSAGING_KELMSGPROCESSCONTROLTYPEFACTORY_H_

#include <memory>

#include <KelMsgFeaMessaging/KelMsgProcessControlType.h>

class KelMsgProcessControlTypeFactory {
 public:
  KelMsgProcessControlTypeFactory() = delete;

  // Control type PROCESS_CONTROL_KILL, "Kill" -> "SOFT_KILL", and its XML.
  static std::shared_ptr<KelMsgProcessControlType> CreateSoftKillMsg();
  // The same with "HARD_KILL".
  static std::shared_ptr<KelMsgProcessControlType> CreateHardKillMsg();
};

#endif  // KELMSGFEAMESSAGING_KELMSGPROCESSCONTROLTYPEFACTORY_H_
