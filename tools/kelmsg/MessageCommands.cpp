// listen and send: messages of every type of the library, from a shell.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <KelMsgFeaMessaging/KelBasResult.h>
#include <KelMsgFeaMessaging/KelBasXmlDocument.h>
#include <KelMsgFeaMessaging/KelMsgAnalysisMessageType.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <KelMsgFeaMessaging/KelMsgPrintingHandler.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlType.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlTypeFactory.h>
#include <KelMsgFeaMessaging/KelMsgStringType.h>
#include <KelMsgFeaMessaging/KelMsgTransferReceiptType.h>
#include <CLI/CLI.hpp>

#include "CommandFailure.h"
#include "Commands.h"
#include "Session.h"
#include "StopSignals.h"
#include "VisibleText.h"

namespace {

struct ListenOptions {
  std::string application;
  int count = 0;
};

// Counts the messages still wanted; 0 wants them all.
struct Countdown {
  int remaining;
  int done = -1;  // set to 0 by the last message wanted

  void Tick() {
    if (remaining > 0 && --remaining == 0)
      done = 0;
  }
};

// The library's printing handler, counted, with what the peer sent made
// safe for a terminal.
class CountedPrinter : public KelMsgBBMessageHandler {
 public:
  explicit CountedPrinter(Countdown& countdown) : m_countdown(countdown) {}
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    const std::string sender = VisibleText(id, LineBreaks::kEscape);
    const std::string printout = Printed([&](std::FILE* stream) {
      KelMsgPrintingHandler(stream).HandleMessage(msg, sender.c_str());
    });
    std::fputs(VisibleText(printout, LineBreaks::kKeep).c_str(), stdout);
    std::fflush(stdout);
    m_countdown.Tick();
  }

 private:
  Countdown& m_countdown;
};

void Listen(const ListenOptions& options) {
  StopSignals::Catch();
  Session session(options.application);
  Countdown countdown{options.count};
  session.Handle(new KelMsgStringType, new CountedPrinter(countdown));
  session.Handle(new KelMsgAnalysisMessageType, new CountedPrinter(countdown));
  session.Handle(new KelMsgProcessControlType, new CountedPrinter(countdown));
  session.Handle(new KelMsgFileTransferType, new CountedPrinter(countdown));
  session.Handle(new KelMsgTransferReceiptType, new CountedPrinter(countdown));
  std::printf("listening as %s\n", session.Application());
  std::fflush(stdout);
  session.Wait(countdown.done, {});
}

struct SendOptions {
  std::string target;
  std::string application;
  std::string text;
  std::string xmlFile;
  std::string kill;
  CLI::Option* textOption = nullptr;
  CLI::Option* xmlOption = nullptr;
};

std::string ReadXmlDocument(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  std::string document{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (!in)
    throw CommandFailure("cannot read " + file);
  // Receivers take analysis messages for XML; refuse to send them anything else.
  KelBasXmlDocument parsed;
  if (document.empty() || parsed.ReadString(document.c_str()) != S_OK) {
    throw CommandFailure(file + " is not an XML document");
  }
  return document;
}

void Send(const SendOptions& options) {
  // Read before joining, so that a bad file costs no trip to the bus.
  const std::string document = options.xmlOption->count() ? ReadXmlDocument(options.xmlFile) : "";
  Session session(options.application);
  if (options.textOption->count()) {
    KelMsgStringType message;
    message.SetData(options.text.data(), static_cast<int>(options.text.size()));
    session.Send(options.target, message);
  } else if (options.xmlOption->count()) {
    session.Send(options.target, KelMsgAnalysisMessageType(document.c_str()));
  } else {
    session.Send(options.target, options.kill == "hard"
                                     ? *KelMsgProcessControlTypeFactory::CreateHardKillMsg()
                                     : *KelMsgProcessControlTypeFactory::CreateSoftKillMsg());
  }
}

}  // namespace

void AddMessageCommands(CLI::App& app) {
  auto listen = std::make_shared<ListenOptions>();
  CLI::App* listenCommand = app.add_subcommand(
      "listen", "join the bus as APP and print every message it receives, until interrupted");
  listenCommand->add_option("APP", listen->application, "application name to join as")
      ->required()
      ->type_name("NAME");
  listenCommand->add_option("--count", listen->count, "leave after this many messages")
      ->check(CLI::PositiveNumber)
      ->type_name("N");
  listenCommand->callback([listen] { Listen(*listen); });

  auto send = std::make_shared<SendOptions>();
  CLI::App* sendCommand = app.add_subcommand("send", "send one message to APP and leave");
  sendCommand->add_option("APP", send->target, "application to send to")
      ->required()
      ->type_name("NAME");
  AddApplicationNameOption(*sendCommand, send->application);
  CLI::Option_group* message = sendCommand->add_option_group("message", "what to send");
  send->textOption = message->add_option("--text", send->text, "raw text (KelMsgStringType)");
  send->xmlOption = message
                        ->add_option("--xml", send->xmlFile,
                                     "an XML document from FILE (KelMsgAnalysisMessageType)")
                        ->type_name("FILE");
  message->add_option("--kill", send->kill, "a kill request (KelMsgProcessControlType)")
      ->check(CLI::IsMember({"soft", "hard"}))
      ->type_name("soft|hard");
  message->require_option(1);
  sendCommand->callback([send] { Send(*send); });
}
