// What every subcommand owes its user: help, and a failure as one line on
// standard error, with status 2 for a command line it cannot understand and
// 1 for anything else.
#include <sys/resource.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KelmsgProcess.h"
#include "ListeningSocket.h"
#include "TestBroker.h"
#include "TestFiles.h"

namespace {

TEST(KelmsgCommandLine, EveryCommandHasHelp) {
  const KelmsgResult overview = RunKelmsg({"--help"});
  ASSERT_EQ(overview.status, 0) << overview.err;
  for (const char* command : {"bus", "listen", "send", "serve", "push", "pull", "watch",
                              "find-port", "stamp", "shared", "unstamp"}) {
    EXPECT_NE(overview.out.find(command), std::string::npos) << command;
    const KelmsgResult help = RunKelmsg({command, "--help"});
    EXPECT_EQ(help.status, 0) << command << ": " << help.err;
    EXPECT_NE(help.out.find(std::string("kelmsg ") + command), std::string::npos) << help.out;
    EXPECT_EQ(help.err, "") << command;
  }
}

// Every command joins the bus through the same session, so one stands for all.
TEST(KelmsgCommandLine, WithoutABrokerSaysSoInOneLine) {
  const std::string address = "127.0.0.1:" + std::to_string(ListeningSocket(0).Port());
  setenv("KELBUS_URL", ("mqtt://" + address).c_str(), 1);
  const KelmsgResult result = RunKelmsg({"send", "x", "--text", "a"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(LineCount(result.err), 1) << result.err;
  EXPECT_NE(result.err.find(address), std::string::npos) << result.err;
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
  // A server that may write files of 100,000 bytes at most.
  WriteFile(scratch / "big.inp", std::string(200000, 'b'));
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  const rlimit unlimited = limit;
  limit.rlim_cur = 100000;
  setrlimit(RLIMIT_FSIZE, &limit);
  KelmsgProcess small({"serve", "small", "--dir", dir});
  setrlimit(RLIMIT_FSIZE, &unlimited);
  ASSERT_TRUE(small.WaitForOutput("serving files as small")) << small.Err();

  const Failure failures[] = {
      {{}, 2, "A subcommand is required"},
      {{"frobnicate"}, 2, "A subcommand is required"},
      {{"send"}, 2, "APP is required"},
      {{"send", "inbox"}, 2, "Exactly 1 option from [--text,--xml,--kill] is required"},
      {{"send", "inbox", "--text", "a", "--kill", "soft"}, 2, "and 2 were given"},
      {{"send", "inbox", "--kill", "gently"}, 2, "--kill: gently not in {soft,hard}"},
      {{"listen", "inbox", "--count", "0"}, 2, "--count: Value 0 not in range"},
      {{"watch", "inbox", "--timeout", "soon"}, 2, "--timeout: Value soon not in range"},
      {{"push", "files", "only-a-source"}, 2, "TARGET is required"},
      {{"bus", "--address", "nowhere"}, 2, "--address: Invalid IPV4"},
      {{"stamp", "base", "job"}, 2, "NAME is required"},
      {{"find-port", "1", "2"}, 2, "The following argument was not expected: 2"},
      {{"bus", "--ports", port}, 1, "no free port in " + port + "\n"},
      {{"bus", "--ports", "any"}, 1, "no port in the list \"any\"\n"},
      {{"bus", "--ports", "20000-29999", "--config", "/nonexistent/mosquitto.conf"},
       1,
       "cannot read the broker configuration /nonexistent/mosquitto.conf\n"},
      {{"find-port", port}, 1, "no free port in " + port + "\n"},
      {{"find-port", "ports,please"}, 1, "no port in the list \"ports,please\""},
      {{"stamp", dir, "no-such-job", "monitor"},
       1,
       "cannot create " + dir + "/no-such-job/monitor.stamp\n"},
      {{"send", "inbox", "--xml", "notes.txt"}, 1, "notes.txt is not an XML document\n"},
      {{"send", "inbox", "--xml", "absent.xml"}, 1, "cannot read absent.xml\n"},
      {{"listen", "inbox"}, 1, "inbox is already on the bus\n"},
      {{"push", "files", "absent.inp", "x"}, 1, "cannot read " + dir + "/absent.inp: "},
      {{"pull", "files", "absent.inp", "x"},
       1,
       "files could not read absent.inp: No such file or directory; removed x.partial\n"},
      {{"pull", "files", "absent.inp", "kept", "--keep-partial"}, 1, "; kept kept.partial\n"},
      {{"pull", "files", "model.inp", "no-such-dir/x"},
       1,
       "could not create no-such-dir/x: No such file or directory\n"},
      {{"push", "small", "big.inp", "big.out"},
       1,
       "small could not write big.out: File too large (100000 of 200000 bytes)\n"},
      {{"push", "nobody", "model.inp", "copy.inp"},
       1,
       "nobody is not on the bus (is it serving?)\n"},
      // A listener holds its name but answers nothing.
      {{"push", "inbox", "model.inp", "copy.inp", "--timeout", "1"},
       1,
       "no receipt from inbox for copy.inp within 1 s\n"},
      {{"pull", "inbox", "model.inp", "silent.inp", "--timeout", "1"},
       1,
       "abandoned silent.inp: inbox sent nothing within 1 s (0 bytes written); removed "
       "silent.inp.partial\n"},
      // Another name: probes of one name at once would see each other.
      {{"pull", "noone", "model.inp", "copy.inp"}, 1, "noone is not on the bus (is it serving?)\n"},
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
  for (const char* left : {"/x", "/x.partial", "/kept", "/big.out", "/big.out.partial"})
    EXPECT_FALSE(std::filesystem::exists(dir + left)) << left;
  EXPECT_TRUE(std::filesystem::exists(dir + "/kept.partial"));
  // Not waiting for the receipt does not spare the server its check.
  ASSERT_EQ(RunKelmsg({"push", "small", "big.inp", "later.out", "--no-wait"}, dir).status, 0);
  EXPECT_TRUE(small.WaitForOutput(
      "could not write later.out: File too large (100000 of 200000 bytes); removed "
      "later.out.partial\n"))
      << small.Out();
}

}  // namespace
