#include <KelMsgFeaMessaging/KelMsgProcessControlTypeFactory.h>

#include <KelMsgFeaMessaging/KelMsgProcessControlEncoder.h>

namespace {

std::shared_ptr<KelMsgProcessControlType> CreateKillMsg(const char* killValue) {
  std::shared_ptr<KelMsgProcessControlType> msg(new KelMsgProcessControlType());
  msg->m_processControlType = KelMsgProcessControlType::PROCESS_CONTROL_KILL;
  msg->m_values[KelString("Kill")] = KelString(killValue);
  KelMsgProcessControlEncoder::ExternalizeProcessControlMsg(*msg);
  return msg;
}

}  // namespace

std::shared_ptr<KelMsgProcessControlType> KelMsgProcessControlTypeFactory::CreateSoftKillMsg() {
  return CreateKillMsg("SOFT_KILL");
}

std::shared_ptr<KelMsgProcessControlType> KelMsgProcessControlTypeFactory::CreateHardKillMsg() {
  return CreateKillMsg("HARD_KILL");
}
