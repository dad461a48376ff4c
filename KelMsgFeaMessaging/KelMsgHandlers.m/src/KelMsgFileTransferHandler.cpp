#include <KelMsgFeaMessaging/KelMsgFileTransferHandler.h>

#include <KelMsgFeaMessaging/KelMsgFileTransfer.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>

#include "KelMsgCheck.h"

namespace {

// Send and Receive take the record's eight names in the same order.
using NamedOperation = int (KelMsgFileTransfer::*)(const char*, const char*, const char*,
                                                   const char*, const char*, const char*,
                                                   const char*, const char*);

void CallWithNames(KelMsgFileTransfer& engine, NamedOperation operation,
                   const KelMsgFileTransferData& record) {
  (engine.*operation)(record.m_sourceApplication.GetUTF8(), record.m_sourceBaseDir.GetUTF8(),
                      record.m_sourceJobDir.GetUTF8(), record.m_sourceFileName.GetUTF8(),
                      record.m_targetApplication.GetUTF8(), record.m_targetBaseDir.GetUTF8(),
                      record.m_targetJobDir.GetUTF8(), record.m_targetFileName.GetUTF8());
}

}  // namespace

void KelMsgFileTransferHandler::HandleMessage(const KelMsgBBMessage& msg, const char* id) {
  // The registry hands this handler only messages of the type it was adopted
  // for, so the static view is safe.
  const auto* fileTransferMessage = static_cast<const KelMsgFileTransferType*>(&msg);
  KELMSG_ASSERT(fileTransferMessage != NULL);
  KELMSG_ASSERT(m_fileTransfer != NULL);
  const KelMsgFileTransferData& record = fileTransferMessage->Data();

  switch (record.m_dataType) {
    case KelMsgFileTransferData::FILE_TRANSFER_SEND_REQUEST:
      CallWithNames(*m_fileTransfer, &KelMsgFileTransfer::Send, record);
      m_fileTransfer->SendISendCompletion(record.m_targetApplication.GetUTF8());
      break;
    case KelMsgFileTransferData::FILE_TRANSFER_NOTIFY:
      CallWithNames(*m_fileTransfer, &KelMsgFileTransfer::Receive, record);
      break;
    case KelMsgFileTransferData::FILE_TRANSFER_CHUNK:
      m_fileTransfer->ReceiveChunk(id, record.m_chunkId, record.m_chunkSize, record.m_chunkData);
      break;
    case KelMsgFileTransferData::FILE_TRANSFER_SEND_COMPLETION:
      m_fileTransfer->ReceiveSendCompletion(id);
      break;
    case KelMsgFileTransferData::FILE_TRANSFER_ISEND_COMPLETION:
      m_fileTransfer->ReceiveISendCompletion(id);
      break;
    case KelMsgFileTransferData::FILE_TRANSFER_RECEIVE_COMPLETION:
      m_fileTransfer->ReceiveReceiveCompletion();
      break;
    default:
      break;
  }
}
