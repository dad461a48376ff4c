#include "BusSecurity.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include "BrokerPasswordFile.h"
#include "CertificateAuthority.h"

#include "CommandFailure.h"

namespace fs = std::filesystem;

namespace {

constexpr char kCaName[] = "kelmsg bus private CA";

std::string DefaultStateDirectory() {
  const char* state = std::getenv("XDG_STATE_HOME");
  if (state != nullptr && state[0] != '\0')
    return std::string(state) + "/kelmsg";
  const char* home = std::getenv("HOME");
  return std::string(home != nullptr ? home : ".") + "/.local/state/kelmsg";
}

// The files of the state directory, which is created, for its owner only,
// when something is to be written in it.
struct StateFiles {
  explicit StateFiles(const std::string& given)
      : directory(fs::absolute(given).string()),
        passwords(directory + "/passwords"),
        rules(directory + "/access.acl"),
        brokerPid(directory + "/broker.pid"),
        users(directory + "/users"),
        caCertificate(directory + "/ca.pem"),
        caKey(directory + "/ca.key"),
        certificate(directory + "/broker.pem"),
        key(directory + "/broker.key") {}

  std::string UserPassword(const std::string& user) const {
    return users + "/" + user + ".password";
  }
  std::string UserApplications(const std::string& user) const {
    return users + "/" + user + ".apps";
  }

  void Create() const {
    for (const std::string& path : {directory, users}) {
      std::error_code error;
      fs::create_directories(path, error);
      if (error || ::chmod(path.c_str(), 0700) != 0)
        throw CommandFailure("cannot create the state directory " + path);
    }
  }

  std::string directory, passwords, rules, brokerPid, users, caCertificate, caKey, certificate, key;
};

// Names that the access rules can hold as they are: the bus escapes every
// other byte in topics, and mosquitto refuses user names with wildcards.
void CheckPlainName(const std::string& what, const std::string& name) {
  const bool plain = !name.empty() && std::ranges::all_of(name, [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.' || c == '_';
  });
  if (!plain)
    throw CommandFailure(what + " '" + name + "' may hold only A-Z a-z 0-9 - . _");
}

std::string ReadWhole(const std::string& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

// The site's rules, then for every user the applications it may hold
// beyond the one of its name.
void WriteAccessRules(const BusSecurityOptions& options, const StateFiles& files) {
  std::string rules = ReadWhole(options.siteRules);
  if (rules.empty())
    throw CommandFailure("cannot read the access rules " + options.siteRules);
  for (const std::string& user : BrokerPasswordFile(files.passwords).Users()) {
    std::istringstream applications(ReadWhole(files.UserApplications(user)));
    std::string app;
    bool first = true;
    while (std::getline(applications, app)) {
      if (std::exchange(first, false))
        rules += "\nuser " + user + "\n";
      for (const char* rule : {"topic write +/p/", "topic write +/a/+/"})
        rules += rule + app + "\n";
      rules += "topic read +/a/" + app + "/#\ntopic read +/c/" + app + "/#\n";
    }
  }
  BrokerPasswordFile::WriteSecret(files.rules, rules);
}

// Makes a running broker of this state directory read its files again.
std::string TellRunningBroker(const StateFiles& files) {
  const std::string pid = ReadWhole(files.brokerPid);
  if (pid.empty() ||
      ReadWhole("/proc/" + std::to_string(std::atoi(pid.c_str())) + "/comm") != "mosquitto\n") {
    return "a kelmsg bus --auth started from now on lets it in";
  }
  if (::kill(std::atoi(pid.c_str()), SIGHUP) != 0)
    throw CommandFailure("cannot tell the running broker " + pid + ": " + std::strerror(errno));
  return "the running kelmsg bus --auth takes it at once";
}

bool IsLoopback(const std::string& address) {
  in_addr parsed{};
  return inet_pton(AF_INET, address.c_str(), &parsed) == 1 && (ntohl(parsed.s_addr) >> 24) == 127;
}

void AddUser(const BusSecurityOptions& options, const std::string& user,
             const std::vector<std::string>& applications, bool fromStdin) {
  CheckPlainName("user name", user);
  for (const std::string& app : applications)
    CheckPlainName("application", app);
  const StateFiles files(options.stateDirectory);
  files.Create();
  std::string password;
  if (fromStdin) {
    std::getline(std::cin, password);
    if (password.empty())
      throw CommandFailure("no password on standard input");
  } else {
    password = BrokerPasswordFile::NewPassword();
  }
  BrokerPasswordFile passwords(files.passwords);
  try {
    passwords.Set(user, password);
  } catch (const std::invalid_argument& error) {
    throw CommandFailure(error.what());
  }
  passwords.Save();
  // The client's copy, for KELBUS_PASSWORD_FILE on this host.
  BrokerPasswordFile::WriteSecret(files.UserPassword(user), password + "\n");
  std::string held;
  for (const std::string& app : applications)
    held += app + "\n";
  BrokerPasswordFile::WriteSecret(files.UserApplications(user), held);
  WriteAccessRules(options, files);
  if (!fromStdin)
    std::printf("%s\n", password.c_str());
  std::fprintf(stderr,
               "kelmsg bus: user %s added, holding application %s%s; its password%s is kept for "
               "the clients of this host in %s; %s\n",
               user.c_str(), user.c_str(), held.empty() ? "" : " and those of --app",
               fromStdin ? "" : ", shown above and nowhere else,", files.UserPassword(user).c_str(),
               TellRunningBroker(files).c_str());
}

void RemoveUser(const BusSecurityOptions& options, const std::string& user) {
  const StateFiles files(options.stateDirectory);
  BrokerPasswordFile passwords(files.passwords);
  if (!passwords.Remove(user))
    throw CommandFailure("no user " + user + " in " + files.passwords);
  passwords.Save();
  std::error_code ignored;
  fs::remove(files.UserPassword(user), ignored);
  fs::remove(files.UserApplications(user), ignored);
  WriteAccessRules(options, files);
  std::fprintf(stderr, "kelmsg bus: user %s removed; %s\n", user.c_str(),
               TellRunningBroker(files).c_str());
}

void AddUserCommands(CLI::App& bus, BusSecurityOptions& options) {
  CLI::App* users = bus.add_subcommand("user", "maintain the users that --auth lets in");
  users->require_subcommand(1);
  users->fallthrough();
  auto name = std::make_shared<std::string>();
  auto applications = std::make_shared<std::vector<std::string>>();
  auto fromStdin = std::make_shared<bool>(false);
  CLI::App* add = users->add_subcommand(
      "add", "add user NAME (or give it a new password); prints a new password once");
  add->add_option("NAME", *name, "user name")->required();
  add->add_flag("--password-stdin", *fromStdin, "read the password from standard input instead");
  add->add_option("--app", *applications,
                  "an application the user may hold besides the one named like it (repeatable)")
      ->type_name("APP");
  add->fallthrough();
  add->callback([&options, name, applications, fromStdin] {
    AddUser(options, *name, *applications, *fromStdin);
  });
  CLI::App* remove = users->add_subcommand("remove", "remove user NAME");
  remove->add_option("NAME", *name, "user name")->required();
  remove->fallthrough();
  remove->callback([&options, name] { RemoveUser(options, *name); });
}

// The private CA's certificate for `names`, issued anew at each start so
// that it names the host and address of the moment.
void IssueCertificate(const StateFiles& files, const std::vector<std::string>& names) {
  files.Create();
  try {
    const bool existing = fs::exists(files.caCertificate) && fs::exists(files.caKey);
    const CertificateAuthority ca = existing
                                        ? CertificateAuthority(files.caCertificate, files.caKey)
                                        : CertificateAuthority(kCaName);
    if (!existing)
      ca.Save(files.caCertificate, files.caKey);
    ca.IssueServerCertificate(names, files.certificate, files.key);
  } catch (const std::runtime_error& error) {
    throw CommandFailure(error.what());
  }
}

std::string FirstUser(const StateFiles& files) {
  const std::vector<std::string> users = BrokerPasswordFile(files.passwords).Users();
  return users.empty() ? std::string() : users.front();
}

}  // namespace

void AddBusSecurity(CLI::App& bus, BusSecurityOptions& options) {
  options.stateDirectory = DefaultStateDirectory();
  bus.add_flag("--tls", options.tls,
               "speak TLS, with a certificate of the private CA in the state directory unless "
               "--cert and --key are given");
  bus.add_flag("--auth", options.passwords,
               "let in only the users of `kelmsg bus user add`, with their passwords");
  bus.add_option("--state-dir", options.stateDirectory,
                 "where the CA, certificates and passwords are kept")
      ->capture_default_str()
      ->type_name("DIR");
  bus.add_option("--cert", options.certificateFile, "the broker's certificate (PEM), with --tls")
      ->type_name("FILE");
  bus.add_option("--key", options.keyFile, "the key of --cert (PEM)")->type_name("FILE");
  bus.add_option("--ca", options.caFile, "the CA that signed --cert, for the clients")
      ->type_name("FILE");
  AddUserCommands(bus, options);
}

bool RanBusSubcommand(const CLI::App& bus) {
  return !bus.get_subcommands().empty();
}

void SecureBroker(const BusSecurityOptions& options, const std::string& address,
                  const std::vector<std::string>& names, PrivateBroker::Settings* settings) {
  if (!IsLoopback(address) && !(options.tls && options.passwords)) {
    throw CommandFailure("refusing to serve " + address +
                         " to the network without TLS and passwords: add a user with `kelmsg "
                         "bus user add NAME`, then start with --tls --auth");
  }
  if (options.certificateFile.empty() != options.keyFile.empty())
    throw CommandFailure("--cert and --key go together");
  const StateFiles files(options.stateDirectory);
  if (options.passwords) {
    if (FirstUser(files).empty())
      throw CommandFailure("--auth, but no users yet: add one with `kelmsg bus user add NAME`");
    WriteAccessRules(options, files);
    settings->passwordFile = files.passwords;
    settings->aclFile = files.rules;
  }
  if (!options.tls)
    return;
  if (options.certificateFile.empty()) {
    IssueCertificate(files, names);
    settings->certificateFile = files.certificate;
    settings->keyFile = files.key;
  } else {
    settings->certificateFile = options.certificateFile;
    settings->keyFile = options.keyFile;
  }
}

std::string ClientSettings(const BusSecurityOptions& options, const std::string& host, int port) {
  const StateFiles files(options.stateDirectory);
  const std::string user = options.passwords ? FirstUser(files) : std::string();
  std::string lines = std::string("KELBUS_URL=") + (options.tls ? "mqtts://" : "mqtt://") +
                      (user.empty() ? "" : user + "@") + host + ":" + std::to_string(port) + "\n";
  const std::string ca = options.certificateFile.empty() ? files.caCertificate : options.caFile;
  if (options.tls && !ca.empty())
    lines += "KELBUS_CA_FILE=" + fs::absolute(ca).string() + "\n";
  if (!user.empty())
    lines += "KELBUS_PASSWORD_FILE=" + files.UserPassword(user) + "\n";
  return lines;
}

RunningBrokerNote::RunningBrokerNote(const BusSecurityOptions& options, int pid) {
  if (!options.passwords)
    return;
  m_path = StateFiles(options.stateDirectory).brokerPid;
  BrokerPasswordFile::WriteSecret(m_path, std::to_string(pid) + "\n");
}

RunningBrokerNote::~RunningBrokerNote() {
  if (!m_path.empty())
    std::remove(m_path.c_str());
}
