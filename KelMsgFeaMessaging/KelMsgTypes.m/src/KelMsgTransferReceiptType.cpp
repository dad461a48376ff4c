#include <KelMsgFeaMessaging/KelMsgTransferReceiptType.h>

#include <cstdint>
#include <utility>

#include "KelMsgCheck.h"
#include "KelMsgPayloadReader.h"
#include "KelMsgPayloadWriter.h"

namespace {

// The step, the two halves of the byte count, the failure code and the
// counts of the three strings.
constexpr int kFixedBytes = 4 * 4 + 3 * 4;

bool KnownStep(std::int32_t step) {
  return step >= KelMsgTransferReceiptType::RECEIPT_ASK &&
         step <= KelMsgTransferReceiptType::RECEIPT_WRITTEN;
}

bool KnownFailure(std::int32_t failure) {
  return failure >= KelMsgTransferReceipt::FAILURE_NONE &&
         failure <= KelMsgTransferReceipt::FAILURE_LAST;
}

}  // namespace

KelMsgTransferReceiptType::KelMsgTransferReceiptType()
    : KelMsgBBMessage(KelString("KelMsgTransferReceiptType")) {}

KelMsgTransferReceiptType::KelMsgTransferReceiptType(e_step step, const KelString& fileName,
                                                     const KelMsgTransferReceipt& receipt)
    : KelMsgTransferReceiptType() {
  m_step = step;
  m_fileName = fileName;
  m_receipt = receipt;
}

int KelMsgTransferReceiptType::RequiredBufferSize() const {
  return kFixedBytes + m_fileName.GetLengthInByte() + m_receipt.m_digest.GetLengthInByte() +
         m_receipt.m_reason.GetLengthInByte();
}

void KelMsgTransferReceiptType::Stream(void* buffer, int size) const {
  KELMSG_ASSERT(size >= RequiredBufferSize());
  const auto bytes = static_cast<std::uint64_t>(m_receipt.m_bytes);
  KelMsgPayloadWriter payload(buffer, 0);
  payload.WriteInt32(m_step);
  payload.WriteCountedString(m_fileName);
  payload.WriteInt32(static_cast<std::int32_t>(bytes & 0xffffffffU));
  payload.WriteInt32(static_cast<std::int32_t>(bytes >> 32));
  payload.WriteCountedString(m_receipt.m_digest);
  payload.WriteInt32(m_receipt.m_failure);
  payload.WriteCountedString(m_receipt.m_reason);
}

void KelMsgTransferReceiptType::Unstream(const void* buffer, int size) {
  KelMsgPayloadReader payload(buffer, size);
  const std::int32_t step = payload.ReadInt32();
  KelString fileName;
  payload.ReadCountedString(fileName);
  const auto low = static_cast<std::uint32_t>(payload.ReadInt32());
  const std::int32_t high = payload.ReadInt32();
  KelMsgTransferReceipt receipt;
  payload.ReadCountedString(receipt.m_digest);
  receipt.m_failure = payload.ReadInt32();
  payload.ReadCountedString(receipt.m_reason);
  if (!payload.ExpectEnd() || !KELMSG_PEER_CHECK(KnownStep(step)) ||
      !KELMSG_PEER_CHECK(KnownFailure(receipt.m_failure)) || !KELMSG_PEER_CHECK(high >= 0))
    return;
  receipt.m_bytes =
      static_cast<std::int64_t>((std::uint64_t{static_cast<std::uint32_t>(high)} << 32) | low);
  m_step = step;
  m_fileName = std::move(fileName);
  m_receipt = std::move(receipt);
}

KelMsgBBMessage* KelMsgTransferReceiptType::Clone() const {
  return new KelMsgTransferReceiptType();
}

void KelMsgTransferReceiptType::Print(FILE* stream, const char* prefix) const {
  KelMsgBBMessage::Print(stream, prefix);
  // The digest lets a user compare what arrived with `sha256sum` of the file.
  const bool digested = m_receipt.m_digest.GetLengthInByte() > 0;
  std::fprintf(stream, "%s   Step: %d, bytes: %lld, failure: %d%s%s\n",
               prefix != nullptr ? prefix : "", m_step, static_cast<long long>(m_receipt.m_bytes),
               m_receipt.m_failure, digested ? ", sha256: " : "", m_receipt.m_digest.GetUTF8());
}
