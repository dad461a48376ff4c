// send and listen: a message of every type of the library goes from one
// kelmsg process to another through a real broker.
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KelmsgProcess.h"
#include "ScratchDirectory.h"
#include "TestBroker.h"

namespace {

class KelmsgOnBus : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_broker.Running()) << m_broker.Error();
    m_broker.ExportUrl();
  }

  std::string WriteFile(const std::string& name, const std::string& content) const {
    const std::string path = m_scratch / name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }

  TestBroker m_broker;
  ScratchDirectory m_scratch;
};

// One way to send, the number of messages it makes, and what a listener
// prints of them, in order.
struct Delivery {
  const char* name;
  std::vector<std::string> send;
  int messages;
  std::vector<std::string> printed;
};

void PrintTo(const Delivery& delivery, std::ostream* out) {
  *out << delivery.name;
}

class KelmsgDelivery : public KelmsgOnBus, public testing::WithParamInterface<Delivery> {};

TEST_P(KelmsgDelivery, ListenPrintsWhatSendSent) {
  const Delivery& delivery = GetParam();
  WriteFile("progress.xml", "<Progress percent=\"50\"/>");
  WriteFile("deck.inp", "*NODE\n1, 0.0, 0.0\n");

  KelmsgProcess listen({"listen", "inbox", "--count", std::to_string(delivery.messages)});
  ASSERT_TRUE(listen.WaitForOutput("listening as inbox\n")) << listen.Err();
  const KelmsgResult sent = RunKelmsg(delivery.send, m_scratch.Path());
  ASSERT_EQ(sent.status, 0) << sent.err;
  EXPECT_EQ(sent.err, "");

  ASSERT_EQ(listen.ExitCode(10s), 0) << listen.Out() << listen.Err();
  const std::string printed = listen.Out();
  std::size_t at = 0;
  for (const std::string& expected : delivery.printed) {
    const std::size_t found = printed.find(expected, at);
    ASSERT_NE(found, std::string::npos)
        << "no \"" << expected << "\" after offset " << at << " of:\n"
        << printed;
    at = found + expected.size();
  }
}

INSTANTIATE_TEST_SUITE_P(
    EveryMessageType, KelmsgDelivery,
    testing::Values(
        Delivery{"Text",
                 {"send", "inbox", "--as", "sender", "--text", "hello, bus"},
                 1,
                 {"KelMsgPrintingHandler::HandleMessage -- id sender\n"
                  "Message Type: KelMsgStringType\n"
                  "   size: 10\n"
                  "   data[0]: h\n"
                  "   data[9]: s\n"}},
        Delivery{"Xml",
                 {"send", "inbox", "--as", "sender", "--xml", "progress.xml"},
                 1,
                 {"KelMsgPrintingHandler::HandleMessage -- id sender\n",
                  "<Progress percent=\"50\"/>\n"}},
        Delivery{"SoftKill",
                 {"send", "inbox", "--as", "monitor", "--kill", "soft"},
                 1,
                 {"id monitor\n", "Message Type: KelMsgProcessControlType\n",
                  "<Kill type=\"symconst\">SOFT_KILL</Kill>"}},
        Delivery{"HardKill",
                 {"send", "inbox", "--kill", "hard"},
                 1,
                 {"id kelmsg-send-", "Message Type: KelMsgProcessControlType\n",
                  "<Kill type=\"symconst\">HARD_KILL</Kill>"}},
        Delivery{"FileTransfer",
                 {"push", "inbox", "deck.inp", "deck-copy.inp", "--no-wait", "--as", "holder"},
                 3,
                 {"id holder\nMessage Type: KelMsgFileTransferType\n   DataType: 2\n",
                  "id holder\nMessage Type: KelMsgFileTransferType\n   DataType: 3\n",
                  "id holder\nMessage Type: KelMsgFileTransferType\n   DataType: 5\n"}}),
    [](const testing::TestParamInfo<Delivery>& info) { return info.param.name; });

TEST_F(KelmsgOnBus, ListenRunsUntilInterrupted) {
  KelmsgProcess listen({"listen", "inbox"});
  ASSERT_TRUE(listen.WaitForOutput("listening as inbox\n")) << listen.Err();
  ASSERT_EQ(RunKelmsg({"send", "inbox", "--text", "one"}).status, 0);
  ASSERT_EQ(RunKelmsg({"send", "inbox", "--text", "two"}).status, 0);
  ASSERT_TRUE(listen.WaitForOutput("data[2]: o\n")) << listen.Out();
  listen.Signal(SIGINT);
  EXPECT_EQ(listen.ExitCode(10s), 0) << listen.Err();
  EXPECT_NE(listen.Out().find("data[2]: e\n"), std::string::npos) << "the first message is lost";
}

TEST_F(KelmsgOnBus, AnApplicationNameIsTakenOnce) {
  KelmsgProcess listen({"listen", "inbox"});
  ASSERT_TRUE(listen.WaitForOutput("listening as inbox\n")) << listen.Err();
  const KelmsgResult second = RunKelmsg({"listen", "inbox"});
  EXPECT_EQ(second.status, 1);
  EXPECT_EQ(second.err, "kelmsg listen: inbox is already on the bus\n");
}

TEST_F(KelmsgOnBus, SendRefusesWhatIsNotXmlBeforeJoining) {
  const std::string notXml = WriteFile("notes.txt", "just <some text");
  const KelmsgResult result = RunKelmsg({"send", "inbox", "--xml", notXml});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "kelmsg send: " + notXml + " is not an XML document\n");

  const KelmsgResult missing = RunKelmsg({"send", "inbox", "--xml", m_scratch / "absent.xml"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "kelmsg send: cannot read " + (m_scratch / "absent.xml") + "\n");
}

}  // namespace
