// ListeningSocket: a plain TCP server socket that holds a port while it lives,
// made without the library so that tests of port probing do not depend on
// the code they test.
#ifndef KELMSG_TESTS_SUPPORT_LISTENINGSOCKET_H_
#define KELMSG_TESTS_SUPPORT_LISTENINGSOCKET_H_

#include <cstdint>
#include <memory>

class ListeningSocket {
 public:
  // Binds to `port` of every interface (0: any free port) and listens.
  // Without SO_REUSEADDR, as a plain client of the port would do.
  explicit ListeningSocket(std::uint16_t port);
  ~ListeningSocket();
  ListeningSocket(const ListeningSocket&) = delete;
  ListeningSocket& operator=(const ListeningSocket&) = delete;

  bool IsListening() const { return m_socket >= 0; }
  // The bound port; 0 when the socket does not listen.
  std::uint16_t Port() const;
  // Closes the socket now; the port is free again.
  void Close();

 private:
  int m_socket = -1;
};

// True when a client can connect to `port` on the loopback interface.
bool AcceptsConnections(std::uint16_t port);

// Two adjacent free ports, each held by a listening socket, so that the
// caller decides which to give up.  Both are null when none could be found.
struct HeldPortPair {
  std::unique_ptr<ListeningSocket> low;
  std::unique_ptr<ListeningSocket> high;  // listens on low's port + 1
};
HeldPortPair HoldAdjacentPorts();

#endif  // KELMSG_TESTS_SUPPORT_LISTENINGSOCKET_H_
