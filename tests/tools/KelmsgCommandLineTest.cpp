// What every subcommand owes its user: help, a usage error in one line with
// status 2, and one line with status 1 when the bus is not there.
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KelmsgProcess.h"
#include "ListeningSocket.h"

namespace {

const std::vector<std::string> kCommands = {"bus",   "listen", "send",   "serve",
                                            "push",  "pull",   "watch",  "find-port",
                                            "stamp", "shared", "unstamp"};

TEST(KelmsgCommandLine, EveryCommandHasHelp) {
  const KelmsgResult overview = RunKelmsg({"--help"});
  ASSERT_EQ(overview.status, 0) << overview.err;
  for (const std::string& command : kCommands) {
    EXPECT_NE(overview.out.find(command), std::string::npos) << command;
    const KelmsgResult help = RunKelmsg({command, "--help"});
    EXPECT_EQ(help.status, 0) << command << ": " << help.err;
    EXPECT_NE(help.out.find("kelmsg " + command), std::string::npos) << help.out;
    EXPECT_EQ(help.err, "") << command;
  }
}

class KelmsgUsageError : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(KelmsgUsageError, IsOneLineAndStatusTwo) {
  const KelmsgResult result = RunKelmsg(GetParam());
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(LineCount(result.err), 1) << result.err;
  EXPECT_EQ(result.err.rfind("kelmsg: ", 0), 0u) << result.err;
  EXPECT_EQ(result.out, "");
}

INSTANTIATE_TEST_SUITE_P(
    CommandLines, KelmsgUsageError,
    testing::Values(std::vector<std::string>{}, std::vector<std::string>{"frobnicate"},
                    std::vector<std::string>{"send"}, std::vector<std::string>{"send", "solver"},
                    std::vector<std::string>{"send", "solver", "--text", "a", "--kill", "soft"},
                    std::vector<std::string>{"send", "solver", "--kill", "gently"},
                    std::vector<std::string>{"listen", "inbox", "--count", "0"},
                    std::vector<std::string>{"watch", "solver", "--timeout", "soon"},
                    std::vector<std::string>{"push", "solver", "only-a-source"},
                    std::vector<std::string>{"bus", "--address", "nowhere"},
                    std::vector<std::string>{"stamp", "base", "job"},
                    std::vector<std::string>{"find-port", "1", "2"}));

// A port on which nothing listens: the kernel's choice, given back at once.
int DeadPort() {
  ListeningSocket socket(0);
  return socket.Port();
}

// Every command joins the bus through the same session, so one stands for all.
TEST(KelmsgWithoutBroker, SaysSoInOneLine) {
  const std::string url = "mqtt://127.0.0.1:" + std::to_string(DeadPort());
  setenv("KELBUS_URL", url.c_str(), 1);
  const KelmsgResult result = RunKelmsg({"send", "x", "--text", "a"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(LineCount(result.err), 1) << result.err;
  EXPECT_NE(result.err.find("127.0.0.1"), std::string::npos) << result.err;
}

}  // namespace
