#include "PrivateBroker.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <utility>

namespace fs = std::filesystem;

namespace {

constexpr auto kStartLimit = std::chrono::seconds(5);
constexpr auto kPollInterval = std::chrono::milliseconds(10);

// A broker that listens on every interface answers on the loopback one.
bool AcceptsConnections(const std::string& address, int port) {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(static_cast<std::uint16_t>(port));
  const char* reachable = address == "0.0.0.0" ? "127.0.0.1" : address.c_str();
  if (inet_pton(AF_INET, reachable, &peer.sin_addr) != 1)
    return false;
  const int client = socket(AF_INET, SOCK_STREAM, 0);
  const bool connected =
      connect(client, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) == 0;
  close(client);
  return connected;
}

// The last line that says something: mosquitto's reason for giving up.
std::string LastLine(const std::string& text) {
  const std::size_t end = text.find_last_not_of("\n");
  if (end == std::string::npos)
    return "";
  const std::size_t start = text.rfind('\n', end);
  return text.substr(start == std::string::npos ? 0 : start + 1,
                     end - (start == std::string::npos ? 0 : start + 1) + 1);
}

std::string MakePrivateDirectory() {
  std::string pattern = (fs::temp_directory_path() / "kelbus-broker-XXXXXX").string();
  return mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
}

}  // namespace

std::string MosquittoProgram() {
  if (const char* path = std::getenv("PATH")) {
    std::stringstream directories(path);
    std::string directory;
    while (std::getline(directories, directory, ':')) {
      const fs::path candidate = fs::path(directory) / "mosquitto";
      if (access(candidate.c_str(), X_OK) == 0)
        return candidate;
    }
  }
  return "/usr/sbin/mosquitto";
}

PrivateBroker::PrivateBroker(Settings settings, int port)
    : m_settings(std::move(settings)), m_port(port), m_directory(MakePrivateDirectory()) {
  if (m_directory.empty()) {
    m_error = "cannot create a directory for the broker";
    return;
  }
  Start();
}

PrivateBroker::~PrivateBroker() {
  Kill();
  if (!m_directory.empty()) {
    std::error_code ignored;
    fs::remove_all(m_directory, ignored);
  }
}

bool PrivateBroker::Exited() {
  if (!m_process || m_process->Running())
    return false;
  m_error = "mosquitto ended on its own: " + LastLine(Log());
  return true;
}

std::string PrivateBroker::Log() const {
  std::ifstream log(m_directory + "/broker.log");
  std::stringstream text;
  text << log.rdbuf();
  return text.str();
}

bool PrivateBroker::Stop(std::chrono::milliseconds limit) {
  if (!m_process)
    return false;
  m_process->Signal(SIGTERM);
  const std::optional<int> status = m_process->Wait(limit);
  const bool clean = status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0;
  Kill();
  return clean;
}

void PrivateBroker::Signal(int signal) {
  if (m_process)
    m_process->Signal(signal);
}

void PrivateBroker::Kill() {
  if (m_process)
    m_process->Kill();
  m_process.reset();
}

bool PrivateBroker::Restart() {
  Kill();
  const auto deadline = std::chrono::steady_clock::now() + kStartLimit;
  // The port may stay busy for a moment after the kill.
  while (!Start() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return Running();
}

bool PrivateBroker::Start() {
  const std::string configuration = m_directory + "/mosquitto.conf";
  if (!WriteConfiguration(configuration)) {
    m_error = "cannot derive a broker configuration from " + m_settings.configuration;
    return false;
  }
  ChildProcess broker =
      ChildProcess::Exec({m_settings.program, "-c", configuration}, m_directory + "/broker.log");
  const auto deadline = std::chrono::steady_clock::now() + kStartLimit;
  while (std::chrono::steady_clock::now() < deadline && broker.Running()) {
    if (AcceptsConnections(m_settings.address, m_port)) {
      m_process.emplace(std::move(broker));
      m_error.clear();
      return true;
    }
    std::this_thread::sleep_for(kPollInterval);
  }
  m_error = "mosquitto did not start on port " + std::to_string(m_port) + ": " + LastLine(Log());
  return false;
}

// The project's configuration with its listener moved to our address and port.
bool PrivateBroker::WriteConfiguration(const std::string& path) const {
  std::ifstream project(m_settings.configuration);
  std::ofstream derived(path);
  if (!project || !derived)
    return false;
  std::string line;
  while (std::getline(project, line)) {
    if (line.starts_with("listener ")) {
      line = "listener " + std::to_string(m_port) + " " + m_settings.address;
    }
    derived << line << '\n';
  }
  return static_cast<bool>(derived);
}
