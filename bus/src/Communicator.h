// One communicator: its transport, its callbacks and its send buffer.
#ifndef KELBUS_SRC_COMMUNICATOR_H_
#define KELBUS_SRC_COMMUNICATOR_H_

#include <KelMsgFeaMessaging/KelBus.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>

#include "Transport.h"

namespace kelbus {

class Communicator {
 public:
  Communicator(int id, std::unique_ptr<Transport> transport);
  ~Communicator();
  Communicator(const Communicator&) = delete;
  Communicator& operator=(const Communicator&) = delete;

  int Id() const { return m_id; }
  KelBusResult Declare(const char* app, int flag);
  KelBusResult Send(const char* target, KelBusStreamCallback stream, KelBusSizeCallback size,
                    KelBusTypeCallback type);

  KelBusResult Present(const char* app, int timeoutMs, int* present);

  void SetReceiver(KelBusReceiveCallback receiver) { m_receiver = receiver; }
  KelBusReceiveCallback Receiver() const { return m_receiver; }
  KelBusResult SetDisconnectReceiver(KelBusDisconnectCallback receiver);
  KelBusDisconnectCallback DisconnectReceiver() const { return m_disconnectReceiver; }

  void Consumed(const ReceivedMessage& message) { m_transport->Consumed(message); }
  bool NameLost() const { return m_transport->NameLost(); }
  void Close();
  void AbandonAfterFork() { m_transport->AbandonAfterFork(); }

 private:
  unsigned char* BufferOf(std::size_t size);

  const int m_id;
  const std::unique_ptr<Transport> m_transport;
  std::atomic<KelBusReceiveCallback> m_receiver{nullptr};
  std::atomic<KelBusDisconnectCallback> m_disconnectReceiver{nullptr};

  std::mutex m_controlMutex;  // declaration and departure watching
  bool m_declared = false;

  std::mutex m_sendMutex;  // the buffer, reused by every send
  std::unique_ptr<unsigned char[]> m_buffer;
  std::size_t m_capacity = 0;

  std::atomic<bool> m_closed{false};
};

}  // namespace kelbus

#endif  // KELBUS_SRC_COMMUNICATOR_H_
