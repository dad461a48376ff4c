#include "Communicator.h"

#include <mosquitto.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>

#include "LastError.h"

namespace kelbus {
namespace {
constexpr std::size_t kLongestApplicationName = 4096;
}  // namespace

Communicator::Communicator(int id, std::unique_ptr<Transport> transport)
    : m_id(id), m_transport(std::move(transport)) {}

Communicator::~Communicator() {
  Close();
}

KelBusResult Communicator::Declare(const char* app, int flag) {
  if (app == nullptr || app[0] == '\0')
    return Fail(KELBUS_ERR_INVALID, "empty application name");
  if (std::strlen(app) > kLongestApplicationName) {
    return Fail(KELBUS_ERR_INVALID, "application name longer than 4096 bytes");
  }
  if (flag != 0 && flag != 1)
    return Fail(KELBUS_ERR_INVALID, "the flag is neither 0 nor 1");
  std::lock_guard lock(m_controlMutex);
  if (m_declared) {
    return Fail(KELBUS_ERR_ALREADY_DECLARED,
                "communicator " + std::to_string(m_id) + " already declared its application");
  }
  const KelBusResult result = m_transport->Claim(app, flag == 1);
  m_declared = result == KELBUS_OK;
  return result;
}

unsigned char* Communicator::BufferOf(std::size_t size) {
  if (size > m_capacity || !m_buffer) {
    m_capacity = std::max<std::size_t>(size, 256);
    m_buffer = std::make_unique_for_overwrite<unsigned char[]>(m_capacity);
  }
  return m_buffer.get();
}

KelBusResult Communicator::Send(const char* target, KelBusStreamCallback stream,
                                KelBusSizeCallback size, KelBusTypeCallback type) {
  if (target == nullptr || stream == nullptr || size == nullptr || type == nullptr) {
    return Fail(KELBUS_ERR_INVALID, "null target application or callback");
  }
  if (NameLost()) {
    return Fail(KELBUS_ERR_NAME_LOST, "this communicator's application was taken over");
  }
  std::lock_guard lock(m_sendMutex);
  const int byteCount = size();
  if (byteCount < 0)
    return Fail(KELBUS_ERR_INVALID, "the size callback gave a negative size");
  const char* typeName = type();
  if (typeName == nullptr)
    return Fail(KELBUS_ERR_INVALID, "the type callback gave null");
  // The type name travels as an MQTT string; the in-process bus takes the
  // same names, so that a program behaves alike on both.
  if (mosquitto_validate_utf8(typeName, static_cast<int>(std::strlen(typeName))) !=
      MOSQ_ERR_SUCCESS) {
    return Fail(KELBUS_ERR_INVALID, "the type name is not UTF-8 text that MQTT carries");
  }
  unsigned char* buffer = BufferOf(static_cast<std::size_t>(byteCount));
  stream(buffer, byteCount);
  return m_transport->Send(target, typeName, buffer, byteCount);
}

KelBusResult Communicator::Present(const char* app, int timeoutMs, int* present) {
  if (app == nullptr || app[0] == '\0' || present == nullptr || timeoutMs < 0)
    return Fail(KELBUS_ERR_INVALID, "empty application name, null result or negative time limit");
  bool held = false;
  const KelBusResult result = m_transport->Present(
      app, std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs), &held);
  if (result == KELBUS_OK)
    *present = held ? 1 : 0;
  return result;
}

KelBusResult Communicator::SetDisconnectReceiver(KelBusDisconnectCallback receiver) {
  std::lock_guard lock(m_controlMutex);
  const bool watching = m_disconnectReceiver != nullptr;
  m_disconnectReceiver = receiver;
  if ((receiver != nullptr) == watching)
    return KELBUS_OK;
  return m_transport->WatchDepartures(receiver != nullptr);
}

void Communicator::Close() {
  if (m_closed.exchange(true))
    return;
  m_transport->Close();
}

}  // namespace kelbus
