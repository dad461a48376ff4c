// KelMsgPrintingHandler: prints every message it is handed.
//
// For each message it writes the line
//   "KelMsgPrintingHandler::HandleMessage -- id <id>\n"
// flushes the stream, and then lets the message print itself (Print with a
// null prefix), which is not flushed.  A null stream silences the handler.
//
// The stream stays the caller's: it is never closed and must outlive the
// handler's use.
#ifndef KELMSGFEAMESSAGING_KELMSGPRINTINGHANDLER_H_
#define KELMSGFEAMESSAGING_KELMSGPRINTINGHANDLER_H_

#include <cstdio>

#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>

class KelMsgPrintingHandler : public KelMsgBBMessageHandler {
 public:
  // `stream` may be null.
  explicit KelMsgPrintingHandler(FILE* stream);
  ~KelMsgPrintingHandler() override;

  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override;

 private:
  FILE* m_stream;
};

#endif  // KELMSGFEAMESSAGING_KELMSGPRINTINGHANDLER_H_
