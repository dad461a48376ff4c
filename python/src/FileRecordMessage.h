// FileRecordMessage: one step of a chunked file transfer
// (KelMsgFileTransferType), kelmsg.FileRecord in Python, for programs that
// speak the transfer's messages themselves.
#ifndef KELMSG_PYTHON_FILERECORDMESSAGE_H_
#define KELMSG_PYTHON_FILERECORDMESSAGE_H_

#include <cstdint>
#include <string>

#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>

struct FileRecordMessage {
  using Library = KelMsgFileTransferType;

  std::int32_t dataType = 0;
  std::string sourceApplication;
  std::string sourceBaseDir;
  std::string sourceJobDir;
  std::string sourceFileName;
  std::string targetApplication;
  std::string targetBaseDir;
  std::string targetJobDir;
  std::string targetFileName;
  std::int32_t chunkId = 0;
  std::string chunk;

  bool operator==(const FileRecordMessage&) const = default;

  static FileRecordMessage From(const KelMsgFileTransferType& message);
  template <class Use>
  void Lend(Use&& use) const {
    KelMsgFileTransferType message;
    Fill(message.Data());
    use(message);
  }
  // The record lends the chunk's bytes, which stay ours.
  void Fill(KelMsgFileTransferData& record) const;
};

#endif  // KELMSG_PYTHON_FILERECORDMESSAGE_H_
