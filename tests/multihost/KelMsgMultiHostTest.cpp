// The bus across hosts: kelmsg processes on two hosts of a small network
// of namespaces, first around one broker on a third, then on two sites
// whose brokers a mosquitto bridge (config/kelbus-bridge.conf) joins.  Every
// connection crosses a link, with TLS and passwords; the same exchange of
// messages, files and departures must work over both.
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "BrokerPasswordFile.h"
#include "CertificateAuthority.h"
#include "KelmsgProcess.h"
#include "PrivateBroker.h"
#include "ScratchDirectory.h"
#include "TestFiles.h"
#include "TestNetwork.h"

namespace {

constexpr int kBrokerPort = 8883;  // each broker has a network of its own

// Who stands where: applications on "left" and "right", connected to the
// broker on leftBroker and rightBroker, which are one host or two bridged.
struct Layout {
  const char* name;
  std::vector<std::string> hosts;
  std::vector<std::pair<std::string, std::string>> links;
  std::string leftBroker, rightBroker;
};

const Layout kLayouts[] = {
    {"OneBroker",
     {"broker", "left", "right"},
     {{"broker", "left"}, {"broker", "right"}},
     "broker",
     "broker"},
    {"BridgedSites",
     {"siteA", "left", "siteB", "right"},
     {{"siteA", "left"}, {"siteA", "siteB"}, {"siteB", "right"}},
     "siteA",
     "siteB"},
};

void PrintTo(const Layout& layout, std::ostream* out) {
  *out << layout.name;
}

class KelMsgMultiHostTest : public ::testing::TestWithParam<Layout> {
 protected:
  void SetUp() override {
    if (!TestNetwork::Unavailable().empty())
      GTEST_SKIP() << TestNetwork::Unavailable();
    const Layout& layout = GetParam();
    m_network = std::make_unique<TestNetwork>(layout.hosts);
    for (const auto& [a, b] : layout.links)
      ASSERT_TRUE(m_network->Error().empty() && m_network->Link(a, b)) << m_network->Error();
    MakeCredentials(layout);
    // The dialled broker first, so that the bridge finds it up.
    m_brokers.push_back(StartBroker(layout.rightBroker, KELMSG_BROKER_CONFIGURATION));
    if (layout.leftBroker != layout.rightBroker) {
      m_brokers.push_back(StartBroker(layout.leftBroker, BridgedConfiguration(layout)));
      WaitForBridge(layout);
    }
    std::filesystem::create_directories(m_scratch / "left");
    std::filesystem::create_directories(m_scratch / "right");
  }

  // kelmsg on the host `side`, in a directory of its own, connected to the
  // broker of its side.
  std::unique_ptr<KelmsgProcess> Start(const std::string& side,
                                       const std::vector<std::string>& arguments) const {
    const Layout& layout = GetParam();
    const std::string& broker = side == "left" ? layout.leftBroker : layout.rightBroker;
    std::vector<std::string> launcher = m_network->On(side);
    launcher.insert(launcher.end(),
                    {"env",
                     "KELBUS_URL=mqtts://solver@" + m_network->Address(broker, side) + ":" +
                         std::to_string(kBrokerPort) + "/kelbus",
                     "KELBUS_CA_FILE=" + m_scratch / "ca.pem",
                     "KELBUS_PASSWORD_FILE=" + m_scratch / "solver.password",
                     "KELBUS_DEPARTURE_DELAY_SECONDS=0"});
    return std::make_unique<KelmsgProcess>(arguments, m_scratch / side, launcher);
  }
  std::string Path(const std::string& side, const std::string& name) const {
    return m_scratch / (side + "/" + name);
  }

 private:
  // A CA, a certificate per broker for the addresses it is reached by, and
  // passwords for the applications' user and the bridge's.
  void MakeCredentials(const Layout& layout) {
    const CertificateAuthority ca("KelBus multi-host test CA");
    ca.Save(m_scratch / "ca.pem", m_scratch / "ca.key");
    for (const std::string& broker : {layout.leftBroker, layout.rightBroker}) {
      std::vector<std::string> names;
      for (const auto& [a, b] : layout.links) {
        if (a == broker || b == broker)
          names.push_back(m_network->Address(broker, a == broker ? b : a));
      }
      ca.IssueServerCertificate(names, m_scratch / (broker + ".pem"),
                                m_scratch / (broker + ".key"));
    }
    m_password = BrokerPasswordFile::NewPassword();
    m_bridgePassword = BrokerPasswordFile::NewPassword();
    BrokerPasswordFile passwords(m_scratch / "broker.passwords");
    passwords.Set("solver", m_password);
    passwords.Set("bridge", m_bridgePassword);
    passwords.Save();
    BrokerPasswordFile::WriteSecret(m_scratch / "solver.password", m_password + "\n");
  }

  // The project's configuration and the shipped bridge, pointed at the
  // other site with this test's CA and the bridge's password.
  std::string BridgedConfiguration(const Layout& layout) const {
    const std::string path = m_scratch / "bridged.conf";
    std::ofstream out(path);
    out << ReadFile(KELMSG_BROKER_CONFIGURATION);
    std::ifstream bridge(KELMSG_BRIDGE_CONFIGURATION);
    const std::pair<std::string, std::string> settings[] = {
        {"address ", m_network->Address(layout.rightBroker, layout.leftBroker) + ":" +
                         std::to_string(kBrokerPort)},
        {"bridge_cafile ", m_scratch / "ca.pem"},
        {"remote_username ", "bridge"},
        {"remote_password ", m_bridgePassword}};
    for (std::string line; std::getline(bridge, line);) {
      for (const auto& [key, value] : settings) {
        if (line.starts_with(key))
          line = key + value;
      }
      out << line << '\n';
    }
    return path;
  }

  std::unique_ptr<PrivateBroker> StartBroker(const std::string& host,
                                             const std::string& configuration) const {
    auto broker = std::make_unique<PrivateBroker>(
        PrivateBroker::Settings{.configuration = configuration,
                                .address = "0.0.0.0",
                                .launcher = m_network->On(host),
                                .certificateFile = m_scratch / (host + ".pem"),
                                .keyFile = m_scratch / (host + ".key"),
                                .passwordFile = m_scratch / "broker.passwords"},
        kBrokerPort);
    EXPECT_TRUE(broker->Running()) << host << ": " << broker->Error();
    return broker;
  }

  // The bridge announces itself on the dialled broker once it is connected.
  // mosquitto_sub reads the password from its configuration file, so that it
  // does not show in the process list.
  void WaitForBridge(const Layout& layout) const {
    std::ofstream(m_scratch / "mosquitto_sub") << "-P " << m_password << '\n';
    std::vector<std::string> command = m_network->On(layout.rightBroker);
    command.insert(command.end(),
                   {"env", "XDG_CONFIG_HOME=" + m_scratch.Path().string(), KELMSG_MOSQUITTO_SUB,
                    "-h", m_network->Address(layout.rightBroker, layout.leftBroker), "-p",
                    std::to_string(kBrokerPort), "--cafile", m_scratch / "ca.pem", "-u", "solver",
                    "-t", "$SYS/broker/connection/+/state", "-C", "1", "-W", "10"});
    const std::string output = m_scratch / "bridge.state";
    ChildProcess subscriber = ChildProcess::Exec(command, output);
    ASSERT_EQ(subscriber.ExitCode(15s), 0) << ReadFile(output) << m_brokers.back()->Log();
    ASSERT_EQ(ReadFile(output), "1\n");
  }

  ScratchDirectory m_scratch;
  std::unique_ptr<TestNetwork> m_network;  // before the brokers, which run in it
  std::vector<std::unique_ptr<PrivateBroker>> m_brokers;
  std::string m_password, m_bridgePassword;
};

TEST_P(KelMsgMultiHostTest, ApplicationsOnTwoHostsExchangeMessagesFilesAndDepartures) {
  const auto server = Start("left", {"serve", "fs1"});
  ASSERT_TRUE(server->WaitForOutput("serving files as fs1")) << server->Err();
  const auto serverWatch = Start("right", {"watch", "fs1"});
  const auto inbox = Start("left", {"listen", "inbox", "--count", "1"});
  const auto crasher = Start("right", {"listen", "crasher"});
  ASSERT_TRUE(serverWatch->WaitForOutput("watching fs1\n")) << serverWatch->Err();
  ASSERT_TRUE(inbox->WaitForOutput("listening as inbox\n")) << inbox->Err();
  ASSERT_TRUE(crasher->WaitForOutput("listening as crasher\n")) << crasher->Err();
  const auto crasherWatch = Start("left", {"watch", "crasher"});
  ASSERT_TRUE(crasherWatch->WaitForOutput("watching crasher\n")) << crasherWatch->Err();

  // A message, and files both ways with their receipts back.
  EXPECT_EQ(Start("right", {"send", "inbox", "--text", "across", "--as", "courier"})->ExitCode(),
            0);
  EXPECT_EQ(inbox->ExitCode(), 0) << inbox->Err();
  EXPECT_EQ(inbox->Out(),
            "listening as inbox\nKelMsgPrintingHandler::HandleMessage -- id courier\n"
            "Message Type: KelMsgStringType\n   size: 6\n   data[0]: a\n   data[5]: s\n");
  // Larger than a sender may have on the way unconfirmed: credits must cross.
  WriteFile(Path("right", "model.inp"), RandomBytes(12 * 1024 * 1024 + 3));
  WriteFile(Path("left", "result.frd"), RandomBytes(3 * 65536 + 7));
  const auto push = Start("right", {"push", "fs1", "model.inp", "model.inp"});
  EXPECT_EQ(push->ExitCode(), 0) << push->Err();
  const auto pull = Start("right", {"pull", "fs1", "result.frd", "result.frd"});
  EXPECT_EQ(pull->ExitCode(), 0) << pull->Err();
  // Compared whole but not printed: the model is 12 MiB.
  EXPECT_TRUE(ReadFile(Path("left", "model.inp")) == ReadFile(Path("right", "model.inp")));
  EXPECT_TRUE(ReadFile(Path("right", "result.frd")) == ReadFile(Path("left", "result.frd")));

  // Departures: one that leaves when told to, one that dies.
  EXPECT_EQ(Start("right", {"send", "fs1", "--kill", "soft"})->ExitCode(), 0);
  EXPECT_EQ(server->ExitCode(), 0) << server->Err();
  EXPECT_EQ(serverWatch->ExitCode(10s), 0) << serverWatch->Err();
  EXPECT_EQ(serverWatch->Out(), "watching fs1\nfs1 has left the bus\n");
  crasher->Signal(SIGKILL);
  EXPECT_EQ(crasherWatch->ExitCode(10s), 0) << crasherWatch->Err();
  EXPECT_EQ(crasherWatch->Out(), "watching crasher\ncrasher has left the bus\n");
}

INSTANTIATE_TEST_SUITE_P(Layouts, KelMsgMultiHostTest, ::testing::ValuesIn(kLayouts),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
