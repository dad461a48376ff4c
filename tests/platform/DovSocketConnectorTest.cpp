#include <KelMsgFeaMessaging/DovSocketConnector.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ListeningSocket.h"

namespace {

constexpr int kBacklog = 10;
constexpr std::uint16_t kNoPort = 65535;

// Refusing a held port and giving the port up again are
// KelMsgPortFinderProbeTest's.
TEST(DovSocketConnectorTest, PortZeroTakesAnEphemeralPortAndListens) {
  DovSocketConnector connector(0, kBacklog, AF_INET);
  EXPECT_EQ(connector.GetPort(), kNoPort) << "no port before Declare";
  ASSERT_EQ(connector.Declare(nullptr), 0);
  EXPECT_NE(connector.GetPort(), 0);
  EXPECT_TRUE(AcceptsConnections(connector.GetPort()));
}

// Leaves `port` in TIME_WAIT: a server socket with SO_REUSEADDR (as a
// process's own server would have) accepts one connection and closes its
// side first.  Returns the port, 0 on failure.
std::uint16_t PortWindingDown() {
  const int server = ::socket(AF_INET, SOCK_STREAM, 0);
  const int on = 1;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (server < 0 || ::setsockopt(server, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      ::bind(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(server, 1) != 0 ||
      ::getsockname(server, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return 0;
  }
  const int client = ::socket(AF_INET, SOCK_STREAM, 0);
  if (::connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return 0;
  ::close(::accept(server, nullptr, nullptr));
  char ignored = 0;
  (void)::read(client, &ignored, 1);  // returns 0 once the server's FIN is in
  ::close(client);
  ::close(server);
  return ntohs(address.sin_port);
}

TEST(DovSocketConnectorTest, TakesAPortWhoseLastConnectionIsWindingDown) {
  const std::uint16_t port = PortWindingDown();
  ASSERT_NE(port, 0);
  EXPECT_FALSE(ListeningSocket(port).IsListening()) << "the port should be in TIME_WAIT";
  DovSocketConnector connector(port, kBacklog, AF_INET);
  EXPECT_EQ(connector.Declare(nullptr), 0);
  EXPECT_EQ(connector.GetPort(), port);
}

TEST(DovSocketConnectorDeathTest, CallerContracts) {
  EXPECT_DEATH(DovSocketConnector(0, kBacklog, AF_INET6),
               "AssertionFailed:addressFamily == AF_INET");
  DovSocketConnector connector(0, kBacklog, AF_INET);
  EXPECT_DEATH(connector.Declare("127.0.0.1"), "AssertionFailed:host == nullptr");
  ASSERT_EQ(connector.Declare(nullptr), 0);
  EXPECT_DEATH(connector.Declare(nullptr), "AssertionFailed:m_socket < 0");
}

}  // namespace
