#include <KelMsgFeaMessaging/DovSocketConnector.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "DovAssert.h"

namespace {

constexpr std::uint16_t kNoPort = 65535;

sockaddr_in AnyInterface(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  return address;
}

}  // namespace

DovSocketConnector::DovSocketConnector(std::uint16_t port, int backlog, int addressFamily)
    : m_port(port), m_backlog(backlog) {
  DOV_ASSERT(addressFamily == AF_INET);
}

DovSocketConnector::~DovSocketConnector() {
  if (m_socket >= 0)
    ::close(m_socket);
}

int DovSocketConnector::Declare(const char* host) {
  DOV_ASSERT(host == nullptr);
  DOV_ASSERT(m_socket < 0);
  m_socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (m_socket < 0)
    return -1;
  const int on = 1;
  const sockaddr_in address = AnyInterface(m_port);
  if (::setsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
      ::bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
      ::listen(m_socket, m_backlog) == 0) {
    return 0;
  }
  const int cause = errno;
  ::close(m_socket);
  m_socket = -1;
  errno = cause;
  return -1;
}

std::uint16_t DovSocketConnector::GetPort() const {
  if (m_socket < 0)
    return kNoPort;
  sockaddr_in address{};
  socklen_t length = sizeof address;
  if (::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    return kNoPort;
  return ntohs(address.sin_port);
}
