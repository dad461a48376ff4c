// TcpRelay: relays every connection made to a free loopback port to another
// loopback port through socat, so that a test can cut the connections of the
// processes it points there and of nobody else.
//
//   TcpRelay relay(broker.Port());
//   // start a process whose bus is at relay.Port()
//   relay.Cut(1s);   // its connection breaks, and comes back after a second
#ifndef KELMSG_TESTS_SUPPORT_TCPRELAY_H_
#define KELMSG_TESTS_SUPPORT_TCPRELAY_H_

#include <chrono>
#include <optional>

#include "ChildProcess.h"

class TcpRelay {
 public:
  explicit TcpRelay(int targetPort);
  ~TcpRelay();
  TcpRelay(const TcpRelay&) = delete;
  TcpRelay& operator=(const TcpRelay&) = delete;

  // 0 when the relay could not listen.
  int Port() const { return m_port; }
  // Closes every relayed connection and refuses new ones for `duration`, as
  // a network that goes away and comes back; returns once it is back.
  void Cut(std::chrono::milliseconds duration);

 private:
  // False when socat does not listen within a few seconds.
  bool Start();
  void Stop();

  const int m_targetPort;
  int m_port = 0;
  // socat leads a process group of its own: one child per connection.
  std::optional<ChildProcess> m_socat;
};

#endif  // KELMSG_TESTS_SUPPORT_TCPRELAY_H_
