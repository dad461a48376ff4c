#include "TcpRelay.h"

#include <signal.h>

#include <string>
#include <thread>

#include "ListeningSocket.h"

using namespace std::chrono_literals;

TcpRelay::TcpRelay(int targetPort) : m_targetPort(targetPort) {
  ListeningSocket probe(0);
  m_port = probe.Port();
  probe.Close();
  if (!Start())
    m_port = 0;
}

TcpRelay::~TcpRelay() {
  Stop();
}

void TcpRelay::Cut(std::chrono::milliseconds duration) {
  Stop();
  std::this_thread::sleep_for(duration);
  Start();
}

bool TcpRelay::Start() {
  m_socat =
      ChildProcess::Exec({"/usr/bin/setsid", "/usr/bin/socat",
                          "TCP-LISTEN:" + std::to_string(m_port) + ",bind=127.0.0.1,reuseaddr,fork",
                          "TCP:127.0.0.1:" + std::to_string(m_targetPort)},
                         "/dev/null");
  // The probe's connection is relayed too: the broker sees a client that
  // leaves without a word.
  for (auto waited = 0ms; waited < 5s; waited += 20ms) {
    if (AcceptsConnections(static_cast<std::uint16_t>(m_port)))
      return true;
    std::this_thread::sleep_for(20ms);
  }
  return false;
}

void TcpRelay::Stop() {
  if (!m_socat)
    return;
  kill(-m_socat->Pid(), SIGKILL);
  m_socat.reset();
}
