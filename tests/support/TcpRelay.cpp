#include "TcpRelay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int kPollMilliseconds = 20;

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

int ConnectTo(int port) {
  const int target = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = Loopback(port);
  if (target >= 0 &&
      connect(target, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    close(target);
    return -1;
  }
  return target;
}

}  // namespace

TcpRelay::TcpRelay(int targetPort) : m_targetPort(targetPort) {
  m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = Loopback(0);
  socklen_t length = sizeof address;
  if (m_listener < 0 ||
      bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(m_listener, 16) != 0 ||
      getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return;
  }
  m_port = ntohs(address.sin_port);
  m_thread = std::thread(&TcpRelay::Run, this);
}

TcpRelay::~TcpRelay() {
  m_stopping = true;
  if (m_thread.joinable())
    m_thread.join();
  CloseAll();
  if (m_listener >= 0)
    close(m_listener);
}

void TcpRelay::Cut(std::chrono::milliseconds duration) {
  m_cutUntil = (Clock::now() + duration).time_since_epoch().count();
  m_cutPending = true;
}

void TcpRelay::Run() {
  while (!m_stopping) {
    if (m_cutPending.exchange(false))
      CloseAll();
    std::vector<pollfd> watched{{m_listener, POLLIN, 0}};
    for (const auto& [client, target] : m_pairs) {
      watched.push_back({client, POLLIN, 0});
      watched.push_back({target, POLLIN, 0});
    }
    if (poll(watched.data(), watched.size(), kPollMilliseconds) <= 0)
      continue;
    // Backwards, so that a pair erased leaves the indices before it alone.
    for (std::size_t i = m_pairs.size(); i-- > 0;) {
      const auto [client, target] = m_pairs[i];
      const bool open = (watched[1 + 2 * i].revents == 0 || Forward(client, target)) &&
                        (watched[2 + 2 * i].revents == 0 || Forward(target, client));
      if (!open) {
        close(client);
        close(target);
        m_pairs.erase(m_pairs.begin() + static_cast<std::ptrdiff_t>(i));
      }
    }
    // Last: a new pair has no entry in `watched`.
    if (watched[0].revents != 0)
      Accept();
  }
}

void TcpRelay::Accept() {
  const int client = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (client < 0)
    return;
  const int target =
      Clock::now().time_since_epoch().count() < m_cutUntil ? -1 : ConnectTo(m_targetPort);
  if (target < 0) {
    close(client);
    return;
  }
  m_pairs.emplace_back(client, target);
}

bool TcpRelay::Forward(int from, int to) {
  char buffer[65536];
  const ssize_t got = read(from, buffer, sizeof buffer);
  for (ssize_t written = 0, sent = 0; written < got; written += sent) {
    sent = send(to, buffer + written, static_cast<std::size_t>(got - written), MSG_NOSIGNAL);
    if (sent <= 0)
      return false;
  }
  return got > 0;
}

void TcpRelay::CloseAll() {
  for (const auto& [client, target] : m_pairs) {
    close(client);
    close(target);
  }
  m_pairs.clear();
}
