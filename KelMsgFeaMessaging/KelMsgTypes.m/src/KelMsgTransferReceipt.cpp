#include <KelMsgFeaMessaging/KelMsgTransferReceipt.h>

bool KelMsgTransferReceipt::Matches(const KelMsgTransferReceipt& other) const {
  return m_failure == FAILURE_NONE && other.m_failure == FAILURE_NONE && m_bytes == other.m_bytes &&
         m_digest == other.m_digest;
}
