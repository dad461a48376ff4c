// TcpRelay: relays every connection made to a free loopback port to another
// loopback port, on a thread of its own, so that a test can cut the
// connections of the processes it points there and of nobody else.
//
//   TcpRelay relay(broker.Port());
//   // start a process whose bus is at relay.Port()
//   relay.Cut(1s);   // its connection breaks, and comes back after a second
#ifndef KELMSG_TESTS_SUPPORT_TCPRELAY_H_
#define KELMSG_TESTS_SUPPORT_TCPRELAY_H_

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>
#include <vector>

class TcpRelay {
 public:
  explicit TcpRelay(int targetPort);
  ~TcpRelay();
  TcpRelay(const TcpRelay&) = delete;
  TcpRelay& operator=(const TcpRelay&) = delete;

  // 0 when the relay could not listen.
  int Port() const { return m_port; }
  // Closes every relayed connection and, for `duration`, every new one as
  // soon as it is accepted, as a network that goes away and comes back.
  void Cut(std::chrono::milliseconds duration);

 private:
  using Clock = std::chrono::steady_clock;

  void Run();
  void Accept();
  // Moves what one end has sent to the other; false when either closed.
  static bool Forward(int from, int to);
  void CloseAll();

  const int m_targetPort;
  int m_listener = -1;
  int m_port = 0;
  std::vector<std::pair<int, int>> m_pairs;  // client, target; the thread's
  std::atomic<Clock::rep> m_cutUntil{0};
  std::atomic<bool> m_cutPending{false};
  std::atomic<bool> m_stopping{false};
  std::thread m_thread;
};

#endif  // KELMSG_TESTS_SUPPORT_TCPRELAY_H_
