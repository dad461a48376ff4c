#include <KelMsgFeaMessaging/KelMsgPrintingHandler.h>

#include <KelMsgFeaMessaging/KelMsgBBMessage.h>

KelMsgPrintingHandler::KelMsgPrintingHandler(FILE* stream) : m_stream(stream) {}

KelMsgPrintingHandler::~KelMsgPrintingHandler() = default;

void KelMsgPrintingHandler::HandleMessage(const KelMsgBBMessage& msg, const char* id) {
  if (m_stream == nullptr)
    return;
  std::fprintf(m_stream, "KelMsgPrintingHandler::HandleMessage -- id %s\n", id);
  // The trace line reaches the reader even when the message's own printout
  // is lost, for instance because the process dies while printing it.
  std::fflush(m_stream);
  msg.Print(m_stream, nullptr);
}
