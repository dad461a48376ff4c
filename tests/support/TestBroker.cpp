#include "TestBroker.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "TestTlsFiles.h"

namespace {

// Another process may take the free port before the broker does.
constexpr int kAttempts = 5;

// A port nobody listens on right now (the kernel's choice).
int FreePort() {
  const int probe = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = 0;
  if (bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  close(probe);
  return port;
}

}  // namespace

TestBroker::TestBroker(Security security, std::vector<std::string> overrides)
    : m_security(security), m_overrides(std::move(overrides)) {
  for (int attempt = 0; attempt < kAttempts && !Running(); ++attempt)
    m_broker = Start(FreePort());
}

TestBroker::TestBroker(int port) : m_broker(Start(port)) {}

std::unique_ptr<PrivateBroker> TestBroker::Start(int port) const {
  PrivateBroker::Settings settings{.configuration = m_security == Security::kSite
                                                        ? KELMSG_SITE_CONFIGURATION
                                                        : KELMSG_BROKER_CONFIGURATION,
                                   .overrides = m_overrides};
  if (m_security == Security::kSite)
    settings.aclFile = KELMSG_SITE_ACL;
  if (m_security != Security::kNone) {
    const TestTlsFiles& files = TestTlsFiles::Get();
    settings.certificateFile = files.certificateFile;
    settings.keyFile = files.keyFile;
    settings.passwordFile = files.passwordFile;
  }
  return std::make_unique<PrivateBroker>(settings, port);
}

std::string TestBroker::Url(const std::string& nameSpace) const {
  const std::string scheme =
      m_security == Security::kNone ? "mqtt://" : "mqtts://" + TestTlsFiles::Get().user + "@";
  return scheme + "127.0.0.1:" + std::to_string(Port()) + "/" + nameSpace;
}

void TestBroker::ExportUrl(const std::string& nameSpace) const {
  setenv("KELBUS_URL", Url(nameSpace).c_str(), 1);
  setenv("KELBUS_DEPARTURE_DELAY_SECONDS", "0", 1);
  if (m_security == Security::kNone) {
    unsetenv("KELBUS_CA_FILE");
    unsetenv("KELBUS_PASSWORD_FILE");
    return;
  }
  setenv("KELBUS_CA_FILE", TestTlsFiles::Get().caFile.c_str(), 1);
  setenv("KELBUS_PASSWORD_FILE", TestTlsFiles::Get().userPasswordFile.c_str(), 1);
}
