#include "ListeningSocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

namespace {

sockaddr_in Address(std::uint32_t host, std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(host);
  return address;
}

}  // namespace

ListeningSocket::ListeningSocket(std::uint16_t port) {
  m_socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (m_socket < 0)
    return;
  const sockaddr_in address = Address(INADDR_ANY, port);
  if (::bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(m_socket, 4) != 0) {
    Close();
  }
}

ListeningSocket::~ListeningSocket() {
  Close();
}

std::uint16_t ListeningSocket::Port() const {
  if (m_socket < 0)
    return 0;
  sockaddr_in address{};
  socklen_t length = sizeof address;
  if (::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    return 0;
  return ntohs(address.sin_port);
}

void ListeningSocket::Close() {
  if (m_socket >= 0)
    ::close(m_socket);
  m_socket = -1;
}

bool AcceptsConnections(std::uint16_t port) {
  const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (client < 0)
    return false;
  const sockaddr_in address = Address(INADDR_LOOPBACK, port);
  const bool connected =
      ::connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  ::close(client);
  return connected;
}

HeldPortPair HoldAdjacentPorts() {
  for (int attempt = 0; attempt < 100; ++attempt) {
    auto low = std::make_unique<ListeningSocket>(0);
    if (!low->IsListening() || low->Port() >= 65534)
      continue;
    auto high = std::make_unique<ListeningSocket>(static_cast<std::uint16_t>(low->Port() + 1));
    if (high->IsListening())
      return {std::move(low), std::move(high)};
  }
  return {};
}
