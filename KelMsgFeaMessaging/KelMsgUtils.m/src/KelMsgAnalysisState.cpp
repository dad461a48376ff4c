#include <KelMsgFeaMessaging/KelMsgAnalysisState.h>

double KelMsgAnalysisState::m_percentage = 0.0;

void KelMsgAnalysisState::SetPercentage(double percentage) {
  m_percentage = percentage;
}

double KelMsgAnalysisState::GetPercentage() {
  return m_percentage;
}
