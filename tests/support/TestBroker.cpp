#include "TestBroker.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace {

constexpr int kAttempts = 5;
constexpr auto kStartLimit = std::chrono::seconds(5);

std::string BrokerProgram() {
  if (const char* path = std::getenv("PATH")) {
    std::stringstream directories(path);
    std::string directory;
    while (std::getline(directories, directory, ':')) {
      const std::filesystem::path candidate = std::filesystem::path(directory) / "mosquitto";
      if (access(candidate.c_str(), X_OK) == 0)
        return candidate;
    }
  }
  return "/usr/sbin/mosquitto";
}

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// A port nobody listens on right now (the kernel's choice).
int FreePort() {
  const int probe = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = Loopback(0);
  socklen_t length = sizeof address;
  int port = 0;
  if (bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  close(probe);
  return port;
}

bool Accepts(int port) {
  const int client = socket(AF_INET, SOCK_STREAM, 0);
  const sockaddr_in address = Loopback(port);
  const bool connected =
      connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(client);
  return connected;
}

// The project's configuration with the listener moved to `port`.
bool WriteConfiguration(const std::string& path, int port) {
  std::ifstream project(KELMSG_BROKER_CONFIGURATION);
  std::ofstream derived(path);
  if (!project || !derived)
    return false;
  std::string line;
  while (std::getline(project, line)) {
    if (line.starts_with("listener "))
      line = "listener " + std::to_string(port) + " 127.0.0.1";
    derived << line << '\n';
  }
  return static_cast<bool>(derived);
}

}  // namespace

TestBroker::TestBroker() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kelbus-broker-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) {
    m_error = "cannot create a directory for the broker";
    return;
  }
  m_directory = pattern;
  for (int attempt = 0; attempt < kAttempts && !Running(); ++attempt) {
    m_port = FreePort();
    Start();
  }
}

TestBroker::~TestBroker() {
  Kill();
  if (!m_directory.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(m_directory, ignored);
  }
}

bool TestBroker::Start() {
  const std::string configuration = m_directory + "/mosquitto.conf";
  if (!WriteConfiguration(configuration, m_port)) {
    m_error = std::string("cannot derive a configuration from ") + KELMSG_BROKER_CONFIGURATION;
    return false;
  }
  ChildProcess broker =
      ChildProcess::Exec({BrokerProgram(), "-c", configuration}, m_directory + "/broker.log");
  const auto deadline = std::chrono::steady_clock::now() + kStartLimit;
  while (std::chrono::steady_clock::now() < deadline) {
    if (!broker.Running())
      break;
    if (Accepts(m_port)) {
      m_process.emplace(std::move(broker));
      m_error.clear();
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  m_error = "mosquitto did not start on port " + std::to_string(m_port) + ": " + Log();
  return false;
}

std::string TestBroker::Url(const std::string& nameSpace) const {
  return "mqtt://127.0.0.1:" + std::to_string(m_port) + "/" + nameSpace;
}

void TestBroker::ExportUrl(const std::string& nameSpace) const {
  setenv("KELBUS_URL", Url(nameSpace).c_str(), 1);
}

std::string TestBroker::Log() const {
  std::ifstream log(m_directory + "/broker.log");
  std::stringstream text;
  text << log.rdbuf();
  return text.str();
}

void TestBroker::Signal(int signal) {
  if (m_process)
    m_process->Signal(signal);
}

void TestBroker::Kill() {
  if (m_process)
    m_process->Kill();
  m_process.reset();
}

bool TestBroker::Restart() {
  Kill();
  const auto deadline = std::chrono::steady_clock::now() + kStartLimit;
  // The port may stay busy for a moment after the kill.
  while (!Start() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return Running();
}
