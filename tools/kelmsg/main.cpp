// kelmsg: the messaging library from a shell.  Start a private bus, look at
// what travels on it, send a message or a kill, move a file, wait for an
// application to leave, find a free port, test a shared directory.
#include <cstdio>
#include <exception>
#include <string>

#include <CLI/CLI.hpp>

#include "CommandFailure.h"
#include "Commands.h"
#include "Session.h"

namespace {

// The status of a command line that cannot be understood.
constexpr int kUsageStatus = 2;

std::string OneLine(const CLI::App* /*app*/, const CLI::Error& error) {
  return std::string("kelmsg: ") + error.what() + " (see kelmsg --help)\n";
}

std::string ChosenCommand(const CLI::App& app) {
  const auto chosen = app.get_subcommands();
  return chosen.empty() ? std::string() : " " + chosen.front()->get_name();
}

}  // namespace

void AddApplicationNameOption(CLI::App& command, std::string& name) {
  name = DefaultApplicationName(command.get_name());
  command
      .add_option("--as", name,
                  "application name to join the bus as (default: kelmsg-" + command.get_name() +
                      "-<process id>)")
      ->type_name("NAME");
}

int main(int argc, char** argv) {
  // Lines reach a pipe as they are printed, so that scripts can follow along.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);

  CLI::App app(
      "The KelMsgFeaMessaging bus from a shell.  Programs find the bus through "
      "KELBUS_URL (default mqtt://127.0.0.1:1883); `kelmsg bus` starts one.",
      "kelmsg");
  app.failure_message(OneLine);  // before the subcommands, which copy it
  app.require_subcommand(1);
  AddBusCommand(app);
  AddMessageCommands(app);
  AddFileCommands(app);
  AddWatchCommand(app);
  AddPathCommands(app);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    const bool chosenStatus = status == 0 || error.get_name() == "RuntimeError";
    return chosenStatus ? status : kUsageStatus;
  } catch (const CommandFailure& failure) {
    if (*failure.what() != '\0') {
      std::fprintf(stderr, "kelmsg%s: %s\n", ChosenCommand(app).c_str(), failure.what());
    }
    return 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kelmsg%s: %s\n", ChosenCommand(app).c_str(), error.what());
    return 1;
  }
  return 0;
}
