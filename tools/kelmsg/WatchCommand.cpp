// watch: waits until an application leaves the bus, through the library's
// disconnect handler.
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include <KelMsgFeaMessaging/KelMsgSimpleDisconnectHandler.h>
#include <CLI/CLI.hpp>

#include "CommandFailure.h"
#include "Commands.h"
#include "Session.h"
#include "StopSignals.h"

namespace {

struct WatchOptions {
  std::string watched;
  std::string application;
  int timeoutSeconds = 0;
};

// Known by name only: no departure report carries this process identifier.
constexpr int kAnyProcess = -1;

void Watch(const WatchOptions& options) {
  StopSignals::Catch();
  Session session(options.application);
  KelMsgSimpleDisconnectHandler watcher;
  watcher.SetWatchApplication(options.watched.c_str(), kAnyProcess, nullptr);
  watcher.SetDisconnectBehavior(KelMsgSimpleDisconnectHandler::e_endWaitingLoop);
  session.WatchDepartures(watcher);
  std::printf("watching %s\n", options.watched.c_str());
  std::fflush(stdout);

  switch (session.Wait(watcher.EndingCondition(), std::chrono::seconds(options.timeoutSeconds))) {
    case Session::WaitEnd::kChanged:
      std::printf("%s has left the bus\n", options.watched.c_str());
      return;
    case Session::WaitEnd::kTimedOut:
      throw CommandFailure(options.watched + " is still on the bus after " +
                           std::to_string(options.timeoutSeconds) + " s");
    case Session::WaitEnd::kStopped:
      throw CLI::RuntimeError(130);  // interrupted, as a shell reports Ctrl-C
  }
}

}  // namespace

void AddWatchCommand(CLI::App& app) {
  auto options = std::make_shared<WatchOptions>();
  CLI::App* command =
      app.add_subcommand("watch", "wait until APP leaves the bus, and say so (status 0)");
  command->add_option("APP", options->watched, "application to watch")
      ->required()
      ->type_name("NAME");
  AddApplicationNameOption(*command, options->application);
  command
      ->add_option("--timeout", options->timeoutSeconds,
                   "give up after this many seconds (status 1); 0 waits for ever")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str()
      ->type_name("SECONDS");
  command->callback([options] { Watch(*options); });
}
