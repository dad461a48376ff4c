#include "PrivateBroker.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>
#include <utility>

namespace fs = std::filesystem;

namespace {

constexpr auto kStartLimit = std::chrono::seconds(5);
constexpr auto kPollInterval = std::chrono::milliseconds(10);
// The broker decrypts and encrypts every byte it passes on; AES-128-GCM
// costs it least on processors with AES instructions, and OpenSSL would
// otherwise settle on AES-256-GCM.  The same list as the site broker's.
constexpr const char* kTls13Ciphers =
    "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256";

// Whether process `pid` holds the IPv4 socket that listens on `port`.  A
// connection test is not enough: a broker started at the same moment on the
// same port by somebody else would answer it while ours failed to bind.
// The table is the one of the process's network namespace, which need not
// be ours.
bool HoldsListener(pid_t pid, int port) {
  constexpr const char* kListening = "0A";
  std::set<std::string> listeners;  // as the descriptors' links name them
  std::ifstream table("/proc/" + std::to_string(pid) + "/net/tcp");
  std::string line;
  std::getline(table, line);  // the column titles
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout, inode;
    fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >>
        timeout >> inode;
    const std::size_t colon = local.find(':');
    if (fields && state == kListening && colon != std::string::npos &&
        std::strtol(local.c_str() + colon + 1, nullptr, 16) == port) {
      listeners.insert("socket:[" + inode + "]");
    }
  }
  std::error_code error;
  for (fs::directory_iterator descriptor("/proc/" + std::to_string(pid) + "/fd", error);
       !error && descriptor != fs::directory_iterator(); descriptor.increment(error)) {
    std::error_code closedMeanwhile;
    if (listeners.contains(fs::read_symlink(descriptor->path(), closedMeanwhile).string()))
      return true;
  }
  return false;
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

std::string Keyword(const std::string& line) {
  return line.substr(0, line.find(' '));
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

bool PrivateBroker::Restart(bool withSavedState) {
  Kill();
  if (!withSavedState) {
    std::error_code ignored;
    fs::remove(StateDirectory() + "/mosquitto.db", ignored);
  }
  const auto deadline = std::chrono::steady_clock::now() + kStartLimit;
  // The port may stay busy for a moment after the kill.
  while (!Start() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return Running();
}

std::string PrivateBroker::StateDirectory() const {
  return m_settings.stateDirectory.empty() ? m_directory : m_settings.stateDirectory;
}

bool PrivateBroker::Start() {
  const std::string configuration = m_directory + "/mosquitto.conf";
  if (!WriteConfiguration(configuration)) {
    m_error = "cannot derive a broker configuration from " + m_settings.configuration;
    return false;
  }
  std::vector<std::string> command = m_settings.launcher;
  command.insert(command.end(), {m_settings.program, "-c", configuration});
  ChildProcess broker = ChildProcess::Exec(command, m_directory + "/broker.log");
  const auto deadline = std::chrono::steady_clock::now() + kStartLimit;
  while (std::chrono::steady_clock::now() < deadline && broker.Running()) {
    if (HoldsListener(broker.Pid(), m_port)) {
      m_process.emplace(std::move(broker));
      m_error.clear();
      return true;
    }
    std::this_thread::sleep_for(kPollInterval);
  }
  m_error = "mosquitto did not start on port " + std::to_string(m_port) + ": " + LastLine(Log());
  return false;
}

// The project's configuration with its listener moved to our address and
// port, secured as the settings ask, and its persistent state in the state
// directory: the files it names are the settings' own.
bool PrivateBroker::WriteConfiguration(const std::string& path) const {
  std::set<std::string> replaced = {"certfile",      "keyfile",  "ciphers_tls1.3",
                                    "password_file", "acl_file", "persistence_location",
                                    "log_dest",      "user"};
  for (const std::string& line : m_settings.overrides)
    replaced.insert(Keyword(line));
  std::ifstream project(m_settings.configuration);
  std::ofstream derived(path);
  if (!project || !derived)
    return false;
  // mosquitto started by root would become user "mosquitto", who may read
  // neither the key nor the password file.
  if (geteuid() == 0)
    derived << "user root\n";
  std::string line;
  while (std::getline(project, line)) {
    if (replaced.contains(Keyword(line)))
      continue;
    if (line.starts_with("listener ")) {
      line = "listener " + std::to_string(m_port) + " " + m_settings.address;
      if (!m_settings.certificateFile.empty()) {
        line += "\ncertfile " + m_settings.certificateFile + "\nkeyfile " + m_settings.keyFile +
                "\nciphers_tls1.3 " + kTls13Ciphers;
      }
    } else if (line.starts_with("allow_anonymous ") && !m_settings.passwordFile.empty()) {
      line = "allow_anonymous false";
    }
    derived << line << '\n';
  }
  if (!m_settings.passwordFile.empty())
    derived << "password_file " << m_settings.passwordFile << '\n';
  if (!m_settings.aclFile.empty())
    derived << "acl_file " << m_settings.aclFile << '\n';
  for (const std::string& line : m_settings.overrides)
    derived << line << '\n';
  derived << "log_dest stderr\n";
  derived << "persistence_location " << StateDirectory() << "/\n";
  return static_cast<bool>(derived);
}
