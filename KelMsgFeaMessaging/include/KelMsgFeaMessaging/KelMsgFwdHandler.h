// KelMsgFwdHandler: relays every message it is handed to one application.
//
// The message received is sent on as it is, through KelMsgBBAPI::SendRequest
// on the handler's communicator.
// The relayed envelope carries this process's own message identifier (the
// one set with KelMsgBBCallbackManager::SetMessageID), not the identifier
// the message arrived with.  Whatever the send returns is ignored.
//
// With the echo switched on, each relayed message is also printed (Print
// with a null prefix, no trace line, no flush) to the echo stream, which
// stays the caller's: it is never closed and must outlive the handler's use.
#ifndef KELMSGFEAMESSAGING_KELMSGFWDHANDLER_H_
#define KELMSGFEAMESSAGING_KELMSGFWDHANDLER_H_

#include <cstdio>

#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>
#include <KelMsgFeaMessaging/KelString.h>

class KelMsgFwdHandler : public KelMsgBBMessageHandler {
 public:
  // Shares `targetApplication`; a string without text relays to "".  The
  // echo starts switched off.
  KelMsgFwdHandler(const KelString& targetApplication, int communicatorId);
  ~KelMsgFwdHandler() override;

  // Sets the echo flag and its stream together; a message is echoed only
  // when `echo` is true and `stream` is not null.
  void SetEcho(bool echo, FILE* stream);

  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override;

 private:
  KelString m_targetApplication;
  int m_communicatorId;
  bool m_echo = false;
  FILE* m_echoStream = nullptr;
};

#endif  // KELMSGFEAMESSAGING_KELMSGFWDHANDLER_H_
