#include "FileRecordMessage.h"

#include "LibraryText.h"

FileRecordMessage FileRecordMessage::From(const KelMsgFileTransferType& message) {
  const KelMsgFileTransferData& record = message.Data();
  FileRecordMessage value;
  value.dataType = record.m_dataType;
  value.sourceApplication = LibraryText::ToString(record.m_sourceApplication);
  value.sourceBaseDir = LibraryText::ToString(record.m_sourceBaseDir);
  value.sourceJobDir = LibraryText::ToString(record.m_sourceJobDir);
  value.sourceFileName = LibraryText::ToString(record.m_sourceFileName);
  value.targetApplication = LibraryText::ToString(record.m_targetApplication);
  value.targetBaseDir = LibraryText::ToString(record.m_targetBaseDir);
  value.targetJobDir = LibraryText::ToString(record.m_targetJobDir);
  value.targetFileName = LibraryText::ToString(record.m_targetFileName);
  value.chunkId = record.m_chunkId;
  if (record.m_chunkSize > 0)
    value.chunk.assign(record.m_chunkData, static_cast<std::size_t>(record.m_chunkSize));
  return value;
}

void FileRecordMessage::Fill(KelMsgFileTransferData& record) const {
  record.m_dataType = dataType;
  record.m_sourceApplication = LibraryText::From(sourceApplication, "source_application");
  record.m_sourceBaseDir = LibraryText::From(sourceBaseDir, "source_base_dir");
  record.m_sourceJobDir = LibraryText::From(sourceJobDir, "source_job_dir");
  record.m_sourceFileName = LibraryText::From(sourceFileName, "source_file_name");
  record.m_targetApplication = LibraryText::From(targetApplication, "target_application");
  record.m_targetBaseDir = LibraryText::From(targetBaseDir, "target_base_dir");
  record.m_targetJobDir = LibraryText::From(targetJobDir, "target_job_dir");
  record.m_targetFileName = LibraryText::From(targetFileName, "target_file_name");
  record.m_chunkId = chunkId;
  record.m_chunkSize = LibraryText::Size(chunk.size(), "the chunk");
  record.m_chunkData = const_cast<char*>(chunk.data());  // streamed, never written
}
