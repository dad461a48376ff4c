// find-port, stamp, shared and unstamp: what a shell script needs of the port
// finder and of the stamp-file protocol.
#include <cstdio>
#include <memory>
#include <string>

#include <KelMsgFeaMessaging/KelMsgPathExplorer.h>
#include <CLI/CLI.hpp>

#include "CommandFailure.h"
#include "Commands.h"
#include "PortList.h"

namespace {

struct StampOptions {
  std::string base;
  std::string job;
  std::string name;
};

void FindPort(const std::string& ports) {
  const int port = PortFinderFor(ports).FindOpenPort();
  if (port == 0)
    throw CommandFailure("no free port in " + ports);
  std::printf("%d\n", port);
}

std::string StampFile(const StampOptions& stamp) {
  return KelMsgPathExplorer::FormStampPath(stamp.base.c_str(), stamp.job.c_str(),
                                           stamp.name.c_str())
      .GetUTF8();
}

bool IsShared(const StampOptions& stamp) {
  return KelMsgPathExplorer::IsSharedPath(stamp.base.c_str(), stamp.job.c_str(),
                                          stamp.name.c_str());
}

void Stamp(const StampOptions& stamp) {
  KelMsgPathExplorer::StampPath(stamp.base.c_str(), stamp.job.c_str(), stamp.name.c_str());
  // The explorer reports nothing; the stamp's presence tells.
  if (!IsShared(stamp))
    throw CommandFailure("cannot create " + StampFile(stamp));
  std::printf("%s\n", StampFile(stamp).c_str());
}

void Shared(const StampOptions& stamp) {
  const bool shared = IsShared(stamp);
  std::printf("%s: %s\n", shared ? "shared" : "not shared", StampFile(stamp).c_str());
  if (!shared)
    throw CLI::RuntimeError(1);
}

void Unstamp(const StampOptions& stamp) {
  KelMsgPathExplorer::RemoveStampFile(stamp.base.c_str(), stamp.job.c_str(), stamp.name.c_str());
  if (IsShared(stamp))
    throw CommandFailure("cannot remove " + StampFile(stamp));
}

void AddStampCommand(CLI::App& app, const char* name, const char* description,
                     void (*action)(const StampOptions&)) {
  auto options = std::make_shared<StampOptions>();
  CLI::App* command = app.add_subcommand(name, description);
  command->add_option("BASE", options->base, "base directory")->required()->type_name("DIR");
  command->add_option("JOB", options->job, "job directory, relative to BASE unless absolute")
      ->required()
      ->type_name("DIR");
  command->add_option("NAME", options->name, "stamp name; the file is NAME.stamp")
      ->required()
      ->type_name("NAME");
  command->callback([options, action] { action(*options); });
}

}  // namespace

void AddPathCommands(CLI::App& app) {
  auto ports = std::make_shared<std::string>();
  CLI::App* findPort =
      app.add_subcommand("find-port", "print the first port of PORTS that is free on this machine");
  findPort->add_option("PORTS", *ports, "ports and ranges, for example 5000,6000-6010")
      ->required()
      ->type_name("PORTS");
  findPort->callback([ports] { FindPort(*ports); });

  AddStampCommand(app, "stamp", "create the stamp file BASE/JOB/NAME.stamp and print its path",
                  Stamp);
  AddStampCommand(app, "shared",
                  "tell whether this machine sees the stamp file (status 0) or not (status 1)",
                  Shared);
  AddStampCommand(app, "unstamp", "remove the stamp file", Unstamp);
}
