// DovSocketConnector: a TCP server socket that holds one port.
//
// The connector is built for a port; Declare makes the socket, binds it to
// that port and listens.  As long as the connector lives the port is taken;
// the destructor closes the socket and gives the port up.  Port 0 asks the
// system for any free (ephemeral) port, which GetPort then reports.
//
// The socket is made with SO_REUSEADDR, as server sockets usually are: a port
// whose last connection is still winding down (TIME_WAIT) counts as free,
// while a port on which another socket listens does not.
#ifndef KELMSGFEAMESSAGING_DOVSOCKETCONNECTOR_H_
#define KELMSGFEAMESSAGING_DOVSOCKETCONNECTOR_H_

#include <cstdint>

class DovSocketConnector {
 public:
  // No socket is made yet.  `backlog` is the length of the queue of pending
  // connections given to listen; `addressFamily` must be AF_INET (2), the
  // one family supported (the process ends otherwise).
  DovSocketConnector(std::uint16_t port, int backlog, int addressFamily);
  // Closes the socket, if any.
  ~DovSocketConnector();
  DovSocketConnector(const DovSocketConnector&) = delete;
  DovSocketConnector& operator=(const DovSocketConnector&) = delete;

  // Makes the socket and listens on the port of every interface.  `host`
  // names the interface to listen on; null, meaning all of them, is the one
  // value supported (the process ends otherwise).  Declaring again while the
  // socket listens ends the process as well.  Returns 0 when the port could be taken, -1 otherwise
  // (errno tells why).
  int Declare(const char* host);
  // The port the socket listens on; 65535 when no socket listens.
  std::uint16_t GetPort() const;

 private:
  std::uint16_t m_port;
  int m_backlog;
  int m_socket = -1;
};

#endif  // KELMSGFEAMESSAGING_DOVSOCKETCONNECTOR_H_
