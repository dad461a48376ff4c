// KelMsgFileTransferHandler: routes every received "KelMsgFileTransferType"
// message to the process's file-transfer engine by the record's step code.
//
// Adopt it with a KelMsgFileTransferType prototype.  The engine is not owned
// and must outlive the handler.  Chunks and completions are attributed to the
// application named by the envelope's message identifier; the names in the
// record are read only for send requests and announcements.  Step codes
// outside 1 to 6 are ignored.
#ifndef KELMSGFEAMESSAGING_KELMSGFILETRANSFERHANDLER_H_
#define KELMSGFEAMESSAGING_KELMSGFILETRANSFERHANDLER_H_

#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>

class KelMsgFileTransfer;

class KelMsgFileTransferHandler : public KelMsgBBMessageHandler {
 public:
  explicit KelMsgFileTransferHandler(KelMsgFileTransfer* fileTransfer)
      : m_fileTransfer(fileTransfer) {}
  ~KelMsgFileTransferHandler() override = default;

  // Precondition (the process ends otherwise): the handler was built with an
  // engine.
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override;

 private:
  KelMsgFileTransfer* m_fileTransfer;
};

#endif  // KELMSGFEAMESSAGING_KELMSGFILETRANSFERHANDLER_H_
