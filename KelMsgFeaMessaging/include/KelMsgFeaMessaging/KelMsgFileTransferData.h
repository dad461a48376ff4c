// KelMsgFileTransferData: the record that one step of a file transfer carries.
//
// A plain record: the file-transfer engine fills it before sending, the
// file-transfer handler reads it after receipt.  The fields are in wire order.
// The eight names always go to the engine in this order: source application,
// base directory, job directory and file name, then the same four of the
// target.
//
// The record never owns m_chunkData: whoever stored the pointer frees the
// bytes.  Copying a record copies the pointer, never the bytes.
#ifndef KELMSGFEAMESSAGING_KELMSGFILETRANSFERDATA_H_
#define KELMSGFEAMESSAGING_KELMSGFILETRANSFERDATA_H_

#include <cstdint>

#include <KelMsgFeaMessaging/KelString.h>

class KelMsgFileTransferData {
 public:
  // Values of m_dataType; any other value travels unchanged and is ignored by
  // the handler.
  enum e_dataType : std::int32_t {
    // The receiving side asks the source to send a file.
    FILE_TRANSFER_SEND_REQUEST = 1,
    // The sending side announces a file before its content.
    FILE_TRANSFER_NOTIFY = 2,
    // One numbered chunk of content.
    FILE_TRANSFER_CHUNK = 3,
    // The three completions carry m_chunkId -1, m_chunkSize 0 and no bytes.
    FILE_TRANSFER_SEND_COMPLETION = 4,
    FILE_TRANSFER_ISEND_COMPLETION = 5,
    FILE_TRANSFER_RECEIVE_COMPLETION = 6,
  };

  KelMsgFileTransferData() = default;
  // Forgets m_chunkData without freeing it.
  ~KelMsgFileTransferData() { m_chunkData = nullptr; }
  KelMsgFileTransferData(const KelMsgFileTransferData&) = default;
  KelMsgFileTransferData& operator=(const KelMsgFileTransferData&) = default;

  std::int32_t m_dataType = 0;
  KelString m_sourceApplication;
  KelString m_sourceBaseDir;
  KelString m_sourceJobDir;
  KelString m_sourceFileName;
  KelString m_targetApplication;
  KelString m_targetBaseDir;
  KelString m_targetJobDir;
  KelString m_targetFileName;
  // Number of the chunk carried; -1 in completions.
  std::int32_t m_chunkId = 0;
  // Bytes at m_chunkData; 0 or less when there are none (the engine sends 0;
  // a peer may send a negative count).
  std::int32_t m_chunkSize = 0;
  char* m_chunkData = nullptr;
};

#endif  // KELMSGFEAMESSAGING_KELMSGFILETRANSFERDATA_H_
