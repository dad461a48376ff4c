#include "ProbeMessage.h"

#include <cstring>

#include "KelMsgCheck.h"

ProbeMessage::ProbeMessage(ProbeLog* log, const char* type, std::string payload)
    : KelMsgBBMessage(type), m_log(log), m_payload(std::move(payload)) {}

ProbeMessage::~ProbeMessage() {
  ++m_log->destroyed;
}

int ProbeMessage::RequiredBufferSize() const {
  return static_cast<int>(m_payload.size());
}

void ProbeMessage::Stream(void* buffer, int /*size*/) const {
  std::memcpy(buffer, m_payload.data(), m_payload.size());
}

void ProbeMessage::Unstream(const void* buffer, int size) {
  ++m_log->unstreams;
  m_payload.assign(static_cast<const char*>(buffer), static_cast<std::size_t>(size));
  m_log->payloads.push_back(m_payload);
  if (!KELMSG_PEER_CHECK(m_payload.empty() || m_payload[0] != '!'))
    return;
}

KelMsgBBMessage* ProbeMessage::Clone() const {
  ++m_log->clones;
  return new ProbeMessage(m_log, Type());
}

void ProbeHandler::HandleMessage(const KelMsgBBMessage& msg, const char* id) {
  ++m_log->handled;
  m_log->ids.emplace_back(id);
  m_log->received.push_back(&msg);
}
