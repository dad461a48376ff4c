// What every subcommand owes its user: help, and a failure as one line on
// standard error, with status 2 for a command line it cannot understand and
// 1 for anything else.  And stamp, shared and unstamp, as a shell script
// uses them.
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "KelmsgProcess.h"
#include "ListeningSocket.h"
#include "TestBroker.h"
#include "TestFiles.h"

namespace fs = std::filesystem;

namespace {

TEST(KelmsgCommandLine, EveryCommandHasHelp) {
  for (const char* command : {"bus", "listen", "send", "serve", "push", "pull", "watch",
                              "find-port", "stamp", "shared", "unstamp"}) {
    KelmsgProcess help({command, "--help"});
    EXPECT_EQ(help.ExitCode(), 0) << command << ": " << help.Err();
    EXPECT_NE(help.Out().find(std::string("kelmsg ") + command), std::string::npos) << help.Out();
  }
}

struct Failure {
  std::vector<std::string> arguments;
  int status;
  std::string message;  // a part of the one line on standard error, after
                        // "kelmsg: " (status 2) or "kelmsg <command>: "
};

// On a bus where "inbox" listens and "files" serves the working directory;
// the commands run at once, since each waits on its own.
TEST(KelmsgCommandLine, EveryFailureIsOneLineWithItsStatus) {
  TestBroker broker;
  ASSERT_TRUE(broker.Running()) << broker.Error();
  broker.ExportUrl();
  const ScratchDirectory scratch;
  const std::string dir = scratch.Path();
  WriteFile(scratch / "notes.txt", "just <some text");
  WriteFile(scratch / "model.inp", "*NODE\n");
  const ListeningSocket taken(0);
  const std::string port = std::to_string(taken.Port());
  KelmsgProcess inbox({"listen", "inbox"});
  KelmsgProcess files({"serve", "files", "--dir", dir});
  ASSERT_TRUE(inbox.WaitForOutput("listening as inbox\n")) << inbox.Err();
  ASSERT_TRUE(files.WaitForOutput("serving files as files")) << files.Err();
  // Watches of "inbox", which stays; apart from the table, since every
  // departure on the bus shows on a watch's standard error.
  KelmsgProcess limited({"watch", "inbox", "--timeout", "1"});
  KelmsgProcess interrupted({"watch", "inbox"});
  ASSERT_TRUE(interrupted.WaitForOutput("watching inbox\n")) << interrupted.Err();
  interrupted.Signal(SIGINT);

  const Failure failures[] = {
      {{}, 2, "A subcommand is required"},
      {{"send"}, 2, "APP is required"},
      {{"send", "inbox"}, 2, "Exactly 1 option from [--text,--xml,--kill] is required"},
      {{"send", "inbox", "--kill", "gently"}, 2, "--kill: gently not in {soft,hard}"},
      {{"listen", "inbox", "--count", "0"}, 2, "--count: Value 0 not in range"},
      {{"watch", "inbox", "--timeout", "soon"}, 2, "--timeout: Value soon not in range"},
      {{"push", "files", "only-a-source"}, 2, "TARGET is required"},
      {{"bus", "--address", "nowhere"}, 2, "--address: Invalid IPV4"},
      {{"find-port", "1", "2"}, 2, "The following argument was not expected: 2"},
      {{"bus", "--ports", port}, 1, "no free port in " + port + "\n"},
      {{"bus", "--config", "/no/m.conf"}, 1, "cannot read the broker configuration /no/m.conf\n"},
      {{"find-port", port}, 1, "no free port in " + port + "\n"},
      {{"find-port", "ports,please"}, 1, "no port in the list \"ports,please\""},
      {{"stamp", dir, "nojob", "m"}, 1, "cannot create " + dir + "/nojob/m.stamp\n"},
      {{"send", "inbox", "--xml", "notes.txt"}, 1, "notes.txt is not an XML document\n"},
      {{"send", "inbox", "--xml", "absent.xml"}, 1, "cannot read absent.xml\n"},
      {{"listen", "inbox"}, 1, "inbox is already on the bus\n"},
      {{"push", "files", "absent.inp", "x"}, 1, "cannot read " + dir + "/absent.inp: "},
      {{"pull", "files", "no.inp", "x"}, 1, "files sent nothing for no.inp (missing or empty"},
      {{"pull", "files", "x", "no-such-dir/x"}, 1, "cannot write " + dir + "/no-such-dir/x: "},
      {{"push", "nobody", "model.inp", "x", "--timeout", "1"},
       1,
       "no answer from nobody within 1 s"},
  };
  std::vector<std::unique_ptr<KelmsgProcess>> runs;
  for (const Failure& failure : failures)
    runs.push_back(std::make_unique<KelmsgProcess>(failure.arguments, dir));
  for (std::size_t i = 0; i < runs.size(); ++i) {
    const Failure& failure = failures[i];
    const std::optional<int> status = runs[i]->ExitCode();
    const std::string err = runs[i]->Err();
    const std::string prefix =
        failure.status == 2 ? "kelmsg: " : "kelmsg " + failure.arguments[0] + ": ";
    SCOPED_TRACE(::testing::PrintToString(failure.arguments) + " wrote " + err);
    EXPECT_EQ(status, failure.status);
    EXPECT_EQ(LineCount(err), 1);
    EXPECT_EQ(err.rfind(prefix, 0), 0U);
    EXPECT_NE(err.find(failure.message), std::string::npos);
  }
  EXPECT_EQ(interrupted.ExitCode(), 130) << "as a shell reports Ctrl-C";
  EXPECT_EQ(limited.ExitCode(), 1);
  EXPECT_TRUE(limited.Err().ends_with("kelmsg watch: inbox is still on the bus after 1 s\n"))
      << limited.Err();
}

// Two names for one directory, the real one and a symbolic link to it, and
// another directory; relative bases are read against the working directory.
// What a stamp is and when it shows is KelMsgPathExplorerTest's.
TEST(KelmsgPathCommands, StampsTellASharedDirectoryFromAnotherOne) {
  const ScratchDirectory scratch;
  fs::create_directories(scratch / "real/job42");
  fs::create_directories(scratch / "other/job42");
  fs::create_directory_symlink(scratch / "real", scratch / "link");
  const std::string real = scratch / "real/job42/monitor.stamp";
  const std::string link = scratch / "link/job42/monitor.stamp";
  const std::string other = scratch / "other/job42/monitor.stamp";
  // Each command in turn, its status and what it prints.
  const std::tuple<std::vector<std::string>, int, std::string> steps[] = {
      {{"stamp", "real", "job42", "monitor"}, 0, real + "\n"},
      {{"shared", scratch / "link", "job42", "monitor"}, 0, "shared: " + link + "\n"},
      {{"shared", ".", "link/job42", "monitor"}, 0, "shared: " + link + "\n"},
      {{"shared", "other", "job42", "monitor"}, 1, "not shared: " + other + "\n"},
      {{"unstamp", "link", "job42", "monitor"}, 0, ""},
      {{"shared", "real", "job42", "monitor"}, 1, "not shared: " + real + "\n"},
      // Removing a stamp that is not there is no failure.
      {{"unstamp", "real", "job42", "monitor"}, 0, ""}};
  for (const auto& [arguments, status, out] : steps) {
    KelmsgProcess step(arguments, scratch.Path());
    EXPECT_EQ(step.ExitCode(), status) << ::testing::PrintToString(arguments);
    EXPECT_EQ(step.Out(), out);
    EXPECT_EQ(step.Err(), "");
  }
}

}  // namespace
