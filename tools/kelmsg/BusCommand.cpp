// bus: a private mosquitto on the first free port of a list, with
// the project's broker configuration, until interrupted.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgPortFinder.h>
#include <CLI/CLI.hpp>
#include "PrivateBroker.h"

#include "BusSecurity.h"
#include "CommandFailure.h"
#include "Commands.h"
#include "PortList.h"
#include "StopSignals.h"

namespace fs = std::filesystem;

namespace {

// Ports taken by somebody else between the probe and the broker's start are
// passed over; this many in a row mean something else is wrong.
constexpr int kStartAttempts = 5;
constexpr auto kPollInterval = std::chrono::milliseconds(100);
constexpr auto kStopLimit = std::chrono::seconds(10);

struct BusOptions {
  std::string ports = "1883,20000-20999";
  std::string address = "127.0.0.1";
  std::string configuration;
  std::string program = MosquittoProgram();
  BusSecurityOptions security;
  std::string queueDirectory;  // the broker's persistence
};

// Beside the program, as installed and as built: bin/kelmsg and
// share/KelMsgFeaMessaging/kelbus-mosquitto.conf, kelbus-site.acl.
std::string InstalledFile(const char* name) {
  std::error_code error;
  const fs::path program = fs::read_symlink("/proc/self/exe", error);
  return (program.parent_path().parent_path() / "share" / "KelMsgFeaMessaging" / name).string();
}

// The host that clients put in KELBUS_URL.
std::string Host(const std::string& address) {
  if (address != "0.0.0.0")
    return address;
  char name[256] = {};
  gethostname(name, sizeof name - 1);
  return name;
}

std::unique_ptr<PrivateBroker> StartBroker(const BusOptions& options,
                                           const PrivateBroker::Settings& settings) {
  KelMsgPortFinder finder = PortFinderFor(options.ports);
  std::string lastError;
  for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
    const int port = finder.FindOpenPort();
    if (port == 0)
      throw CommandFailure("no free port in " + options.ports);
    auto broker = std::make_unique<PrivateBroker>(settings, port);
    if (broker->Running())
      return broker;
    lastError = broker->Error();
  }
  throw CommandFailure(lastError);
}

void Bus(const BusOptions& options) {
  PrivateBroker::Settings settings;
  settings.program = options.program;
  settings.configuration = options.configuration.empty() ? InstalledFile("kelbus-mosquitto.conf")
                                                         : options.configuration;
  settings.address = options.address;
  settings.stateDirectory = options.queueDirectory;
  if (access(settings.configuration.c_str(), R_OK) != 0) {
    throw CommandFailure("cannot read the broker configuration " + settings.configuration);
  }
  const std::string host = Host(options.address);
  std::vector<std::string> names{host};
  if (host != options.address && options.address != "0.0.0.0")
    names.push_back(options.address);
  SecureBroker(options.security, options.address, names, &settings);
  StopSignals::Catch();
  const std::unique_ptr<PrivateBroker> broker = StartBroker(options, settings);
  // Standard error first: whoever has read the URL may count on this line.
  std::fprintf(stderr, "kelmsg bus: mosquitto %d listens on %s port %d; Ctrl-C stops it\n",
               broker->Pid(), options.address.c_str(), broker->Port());
  const RunningBrokerNote note(options.security, broker->Pid());
  std::fputs(ClientSettings(options.security, host, broker->Port()).c_str(), stdout);
  std::fflush(stdout);

  while (!StopSignals::Arrived() && !broker->Exited())
    std::this_thread::sleep_for(kPollInterval);
  if (!StopSignals::Arrived())
    throw CommandFailure(broker->Error());
  if (!broker->Stop(kStopLimit))
    throw CommandFailure("the broker did not stop cleanly");
  std::fprintf(stderr, "kelmsg bus: stopped\n");
}

}  // namespace

void AddBusCommand(CLI::App& app) {
  auto options = std::make_shared<BusOptions>();
  CLI::App* command = app.add_subcommand(
      "bus",
      "start a private broker on a free port, print its KELBUS_URL and run until "
      "interrupted");
  command->add_option("--ports", options->ports, "ports and ranges to try, in order")
      ->capture_default_str()
      ->type_name("PORTS");
  command
      ->add_option("--address", options->address,
                   "address to listen on; 0.0.0.0 for every interface")
      ->check(CLI::ValidIPV4)
      ->capture_default_str()
      ->type_name("ADDRESS");
  command
      ->add_option("--config", options->configuration,
                   "broker configuration (default: the installed kelbus-mosquitto.conf)")
      ->type_name("FILE");
  command
      ->add_option("--queue-dir", options->queueDirectory,
                   "directory that keeps queued messages across broker restarts (default: a "
                   "private one, removed when the broker stops)")
      ->check(CLI::ExistingDirectory)
      ->type_name("DIR");
  command->add_option("--mosquitto", options->program, "the broker program")
      ->capture_default_str()
      ->type_name("PROGRAM");
  options->security.siteRules = InstalledFile("kelbus-site.acl");
  AddBusSecurity(*command, options->security);
  command->callback([options, command] {
    if (!RanBusSubcommand(*command))
      Bus(*options);
  });
}
