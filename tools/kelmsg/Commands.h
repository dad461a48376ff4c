// The subcommands of kelmsg, by family.  Each function adds its subcommands
// to the application; a subcommand does its work in its callback, throws
// CommandFailure to give up with a reason, and CLI::RuntimeError(status) to
// end with another status and nothing more to say.
#ifndef KELMSG_TOOLS_KELMSG_COMMANDS_H_
#define KELMSG_TOOLS_KELMSG_COMMANDS_H_

#include <string>

namespace CLI {
class App;
}  // namespace CLI

// bus: a private broker until interrupted.
void AddBusCommand(CLI::App& app);
// listen, send: messages of every type of the library.
void AddMessageCommands(CLI::App& app);
// serve, push, pull: the file transfer.
void AddFileCommands(CLI::App& app);
// watch: waits for an application to leave.
void AddWatchCommand(CLI::App& app);
// find-port, stamp, shared, unstamp: the port finder and the stamp files.
void AddPathCommands(CLI::App& app);

// --as NAME, the application name under which `command` joins the bus;
// `name` starts as DefaultApplicationName(command's name).
void AddApplicationNameOption(CLI::App& command, std::string& name);

#endif  // KELMSG_TOOLS_KELMSG_COMMANDS_H_
