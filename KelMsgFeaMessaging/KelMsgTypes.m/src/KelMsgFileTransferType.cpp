#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include <KelMsgFeaMessaging/mem_Operators.h>

#include "KelMsgCheck.h"
#include "KelMsgPayloadReader.h"
#include "KelMsgPayloadWriter.h"

namespace {

// The eight names in record order, which is also their order on the wire.
constexpr std::array<KelString KelMsgFileTransferData::*, 8> kNames = {
    &KelMsgFileTransferData::m_sourceApplication, &KelMsgFileTransferData::m_sourceBaseDir,
    &KelMsgFileTransferData::m_sourceJobDir,      &KelMsgFileTransferData::m_sourceFileName,
    &KelMsgFileTransferData::m_targetApplication, &KelMsgFileTransferData::m_targetBaseDir,
    &KelMsgFileTransferData::m_targetJobDir,      &KelMsgFileTransferData::m_targetFileName,
};

// m_dataType, the eight name counts, m_chunkId and m_chunkSize.
constexpr int kFixedBytes = 4 + 8 * 4 + 4 + 4;

// A chunk size of 0 or less carries no bytes, on the wire as in the record: a
// peer may send a negative one, and a forwarder sends it on as it came.
int ChunkBytes(std::int32_t chunkSize) {
  return chunkSize > 0 ? chunkSize : 0;
}

}  // namespace

KelMsgFileTransferType::KelMsgFileTransferType()
    : KelMsgBBMessage(KelString("KelMsgFileTransferType")) {}

KelMsgFileTransferType::~KelMsgFileTransferType() {
  ReleaseOwnedChunk();
}

void KelMsgFileTransferType::ReleaseOwnedChunk() noexcept {
  if (m_ownsChunk) {
    mem_Free(m_record.m_chunkData);
    m_record.m_chunkData = nullptr;
    m_ownsChunk = false;
  }
}

int KelMsgFileTransferType::RequiredBufferSize() const {
  int size = kFixedBytes + ChunkBytes(m_record.m_chunkSize);
  for (const auto name : kNames)
    size += (m_record.*name).GetLengthInByte();
  return size;
}

void KelMsgFileTransferType::Stream(void* buffer, int size) const {
  KELMSG_ASSERT(m_record.m_chunkData != nullptr || m_record.m_chunkSize <= 0);
  KELMSG_ASSERT(size >= RequiredBufferSize());
  KelMsgPayloadWriter payload(buffer, 0);
  payload.WriteInt32(m_record.m_dataType);
  for (const auto name : kNames)
    payload.WriteCountedString(m_record.*name);
  payload.WriteInt32(m_record.m_chunkId);
  payload.WriteInt32(m_record.m_chunkSize);
  payload.WriteBytes(m_record.m_chunkData, ChunkBytes(m_record.m_chunkSize));
  const int offset = payload.Offset();
  KELMSG_ASSERT(offset == RequiredBufferSize());
}

void KelMsgFileTransferType::Unstream(const void* buffer, int size) {
  KelMsgPayloadReader payload(buffer, size);
  const std::int32_t dataType = payload.ReadInt32();
  std::array<KelString, kNames.size()> names;
  for (KelString& name : names)
    payload.ReadCountedString(name);
  const std::int32_t chunkId = payload.ReadInt32();
  const std::int32_t chunkSize = payload.ReadInt32();
  const char* chunk = payload.ReadBytes(ChunkBytes(chunkSize));
  if (!payload.ExpectEnd())
    return;

  char* copy = nullptr;
  if (chunkSize > 0) {
    copy = static_cast<char*>(mem_OperatorNewThrowBuiltin(static_cast<std::size_t>(chunkSize)));
    std::memcpy(copy, chunk, static_cast<std::size_t>(chunkSize));
  }
  // Without chunk bytes a lent pointer stays as it was; owned bytes never
  // outlive the payload they came with.
  ReleaseOwnedChunk();
  if (copy != nullptr) {
    m_record.m_chunkData = copy;
    m_ownsChunk = true;
  }
  m_record.m_dataType = dataType;
  for (std::size_t i = 0; i < kNames.size(); ++i)
    m_record.*kNames[i] = std::move(names[i]);
  m_record.m_chunkId = chunkId;
  m_record.m_chunkSize = chunkSize;
}

KelMsgBBMessage* KelMsgFileTransferType::Clone() const {
  return new KelMsgFileTransferType();
}

void KelMsgFileTransferType::Print(FILE* stream, const char* prefix) const {
  KelMsgBBMessage::Print(stream, prefix);
  std::fprintf(stream, "%s   DataType: %d\n", prefix != nullptr ? prefix : "",
               static_cast<int>(m_record.m_dataType));
}
