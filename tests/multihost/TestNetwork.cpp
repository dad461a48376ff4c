#include "TestNetwork.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <optional>

#include "ChildProcess.h"
#include "TestFiles.h"

namespace {

// Subnets 10.213.<link>.0/24: rarely anybody's, and private to the
// namespaces anyway.
std::string LinkAddress(int link, int end) {
  return "10.213." + std::to_string(link) + "." + std::to_string(end);
}

constexpr const char* kPrefix = "kelmsg-";

// The namespaces of test programs that were killed before they could remove
// them: named kelmsg-<pid>-<host>, for a process that is gone.
void RemoveLeftovers() {
  std::error_code error;
  for (std::filesystem::directory_iterator entry("/run/netns", error);
       !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    const std::size_t start = std::strlen(kPrefix);
    const std::string pid = name.substr(std::min(start, name.size()),
                                        name.find('-', start) - start);  // to the end without '-'
    if (name.starts_with(kPrefix) && !pid.empty() &&
        pid.find_first_not_of("0123456789") == std::string::npos &&
        !std::filesystem::exists("/proc/" + pid)) {
      ChildProcess::Exec({KELMSG_IP_PROGRAM, "netns", "delete", name}, "/dev/null")
          .ExitCode(std::chrono::seconds(10));
    }
  }
}

}  // namespace

const std::string& TestNetwork::Unavailable() {
  static const std::string why = [] {
    if (access(KELMSG_IP_PROGRAM, X_OK) != 0)
      return std::string("no ip program (iproute2) at " KELMSG_IP_PROGRAM);
    RemoveLeftovers();
    TestNetwork probe({"probe"});
    return probe.Error().empty() ? std::string()
                                 : "cannot make network namespaces: " + probe.Error();
  }();
  return why;
}

TestNetwork::TestNetwork(const std::vector<std::string>& hosts) {
  for (const std::string& host : hosts) {
    const std::string name = kPrefix + std::to_string(getpid()) + "-" + host;
    if (!Ip({"netns", "add", name}))
      return;
    m_namespaces[host] = name;
    if (!Ip({"-n", name, "link", "set", "lo", "up"}))
      return;
  }
}

TestNetwork::~TestNetwork() {
  for (const auto& [host, name] : m_namespaces)
    Ip({"netns", "delete", name});
}

bool TestNetwork::Link(const std::string& a, const std::string& b) {
  const int link = ++m_links;
  const std::string device = "kelmsg" + std::to_string(link);
  const std::string& left = m_namespaces.at(a);
  const std::string& right = m_namespaces.at(b);
  if (!Ip({"-n", left, "link", "add", device, "type", "veth", "peer", "name", device, "netns",
           right})) {
    return false;
  }
  for (const auto& [space, end] : {std::pair{left, 1}, std::pair{right, 2}}) {
    if (!Ip({"-n", space, "address", "add", LinkAddress(link, end) + "/24", "dev", device}) ||
        !Ip({"-n", space, "link", "set", device, "up"})) {
      return false;
    }
  }
  m_addresses[a + " " + b] = LinkAddress(link, 1);
  m_addresses[b + " " + a] = LinkAddress(link, 2);
  return true;
}

std::string TestNetwork::Address(const std::string& to, const std::string& from) const {
  return m_addresses.at(to + " " + from);
}

std::vector<std::string> TestNetwork::On(const std::string& host) const {
  return {KELMSG_IP_PROGRAM, "netns", "exec", m_namespaces.at(host)};
}

bool TestNetwork::Ip(const std::vector<std::string>& arguments) {
  std::vector<std::string> command{KELMSG_IP_PROGRAM};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const std::string output = m_scratch / "ip.out";
  const std::optional<int> code =
      ChildProcess::Exec(command, output).ExitCode(std::chrono::seconds(10));
  if (code == 0)
    return true;
  std::string said = ReadFile(output);
  while (!said.empty() && said.back() == '\n')
    said.pop_back();
  m_error = "ip";
  for (const std::string& argument : arguments)
    m_error += " " + argument;
  m_error += ": " + (said.empty() ? std::string("failed") : said);
  return false;
}
