#include "PayloadTestSupport.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "KelMsgCheck.h"

Bytes Hex(std::initializer_list<int> bytes) {
  Bytes result;
  for (int byte : bytes)
    result.push_back(static_cast<unsigned char>(byte));
  return result;
}

PayloadBuilder& PayloadBuilder::Int32(std::int32_t value) {
  unsigned char bytes[4];
  std::memcpy(bytes, &value, 4);
  m_bytes.insert(m_bytes.end(), bytes, bytes + 4);
  return *this;
}

PayloadBuilder& PayloadBuilder::Counted(const std::string& bytes) {
  return Int32(static_cast<std::int32_t>(bytes.size())).Raw(bytes);
}

PayloadBuilder& PayloadBuilder::Raw(const std::string& bytes) {
  m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
  return *this;
}

Bytes StreamToBytes(const KelMsgBBMessage& msg) {
  Bytes buffer(static_cast<std::size_t>(msg.RequiredBufferSize()));
  msg.Stream(buffer.data(), static_cast<int>(buffer.size()));
  return buffer;
}

bool UnstreamIsRefused(KelMsgBBMessage& msg, const Bytes& payload) {
  // An exact allocation: one byte more and an over-read would go unnoticed.
  std::unique_ptr<unsigned char[]> exact(new unsigned char[payload.size()]);
  if (!payload.empty())
    std::memcpy(exact.get(), payload.data(), payload.size());
  KelMsgClearRefusal();
  msg.Unstream(exact.get(), static_cast<int>(payload.size()));
  return KelMsgWasRefused();
}

Bytes WithInt32At(Bytes payload, std::size_t offset, std::int32_t value) {
  std::memcpy(payload.data() + offset, &value, 4);
  return payload;
}

MemoryStream::MemoryStream() : m_stream(open_memstream(&m_text, &m_length)) {}

MemoryStream::~MemoryStream() {
  std::fclose(m_stream);
  std::free(m_text);
}

std::string MemoryStream::Flushed() const {
  return m_text == nullptr ? std::string() : std::string(m_text, m_length);
}
