#include <KelMsgFeaMessaging/KelMsgFileTransfer.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferObserver.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <KelMsgFeaMessaging/KelMsgPathExplorer.h>
#include <KelMsgFeaMessaging/mem_Operators.h>

#include "KelMsgCheck.h"
#include "KelMsgConfinement.h"
#include "KelMsgWaitChore.h"

namespace {

constexpr int kSenderFlags = O_RDONLY;
constexpr int kReceiverFlags = O_RDWR | O_CREAT | O_TRUNC;
constexpr int kFileMode = 0640;
static_assert(kSenderFlags == 0 && kReceiverFlags == 0x242 && kFileMode == 0x1a0,
              "peers on other machines expect the Linux open flags");

// After a chunk out of sequence, the chunk-number entry of the source holds
// this, and the rest of its chunks are dropped until its completion.
constexpr int kAbandoned = -1;

// Observes nothing, so that the engine never tests for an observer.
KelMsgFileTransferObserver g_noObserver;

// Opens the files that the application names itself: anywhere, but only
// regular files.
const KelMsgConfinement g_anywhere;

// The errno of a call whose result says it failed, else 0.
int ErrorOf(long long result) {
  return result < 0 ? errno : 0;
}

// The eight names of a transfer, in the order they travel.
struct TransferNames {
  const char* sourceApplication;
  const char* sourceBaseDir;
  const char* sourceJobDir;
  const char* sourceFileName;
  const char* targetApplication;
  const char* targetBaseDir;
  const char* targetJobDir;
  const char* targetFileName;
};

// A fresh notice or completion: no chunk, chunk number -1.
void FillControl(KelMsgFileTransferData& record, int dataType) {
  record.m_dataType = dataType;
  record.m_chunkId = -1;
  record.m_chunkSize = 0;
  record.m_chunkData = nullptr;
}

void FillNames(KelMsgFileTransferData& record, const TransferNames& names) {
  record.m_sourceApplication.BuildFromUTF8(names.sourceApplication);
  record.m_sourceBaseDir.BuildFromUTF8(names.sourceBaseDir);
  record.m_sourceJobDir.BuildFromUTF8(names.sourceJobDir);
  record.m_sourceFileName.BuildFromUTF8(names.sourceFileName);
  record.m_targetApplication.BuildFromUTF8(names.targetApplication);
  record.m_targetBaseDir.BuildFromUTF8(names.targetBaseDir);
  record.m_targetJobDir.BuildFromUTF8(names.targetJobDir);
  record.m_targetFileName.BuildFromUTF8(names.targetFileName);
}

// How a step writes its base and job directory pairs after its heading.
struct DirectoryFormats {
  const char* baseDirs;
  const char* jobDirs;
};
constexpr DirectoryFormats kSendFormats{"sourceBaseDir (%s) ==> targetBaseDir (%s)\n",
                                        "sourceJobDir (%s) ==> targetJobDir (%s)\n"};
constexpr DirectoryFormats kReceiveFormats{"sourceBaseDir (%s), targetBaseDir (%s)\n",
                                           "sourceJobDir (%s), targetJobDir (%s)\n"};
constexpr DirectoryFormats kReceiveFileFormats{"sourceBaseDir %s, targetBaseDir %s\n",
                                               "sourceJobDir %s, targetJobDir %s\n"};

// The three lines that follow a step's heading, then the flush.
void WriteNamesAndFlush(FILE* stream, const TransferNames& names, const DirectoryFormats& formats) {
  std::fprintf(stream, "sourceFileName %s, targetFileName %s\n", names.sourceFileName,
               names.targetFileName);
  std::fprintf(stream, formats.baseDirs, names.sourceBaseDir, names.targetBaseDir);
  std::fprintf(stream, formats.jobDirs, names.sourceJobDir, names.targetJobDir);
  std::fflush(stream);
}

}  // namespace

KelMsgFileTransfer::KelMsgFileTransfer(int communicatorId, FILE* traceStream, int traceLevel)
    : m_communicatorId(communicatorId),
      m_fileId(-1),
      m_maxChunkSize(65536),
      m_contentMsg(nullptr),
      m_endingCondition(-1),
      m_traceStream(traceStream == nullptr && traceLevel >= 1 ? stderr : traceStream),
      m_traceLevel(traceLevel),
      m_observer(&g_noObserver),
      m_confinement(std::make_unique<KelMsgConfinement>()),
      m_maxReceiveFiles(kDefaultMaxReceiveFiles),
      m_idleSeconds(kDefaultIdleSeconds),
      m_openReceiveFiles(0) {
  m_contentMsg = new KelMsgFileTransferType;
  KELMSG_ASSERT(m_contentMsg != NULL);
  m_contentMsg->Data().m_chunkData =
      static_cast<char*>(mem_OperatorNewThrowBuiltin(static_cast<std::size_t>(m_maxChunkSize)));
}

KelMsgFileTransfer::~KelMsgFileTransfer() {
  KELMSG_ASSERT(m_contentMsg != NULL);
  for (const auto& [application, descriptor] : m_receiveFileMap) {
    if (descriptor >= 0)
      close(descriptor);
  }
  mem_Free(m_contentMsg->Data().m_chunkData);
  delete m_contentMsg;
}

int KelMsgFileTransfer::SetCommunicatorId(int communicatorId) {
  m_communicatorId = communicatorId;
  if (m_idleSweep)
    SweepIdleFilesWhileWaiting();
  return 0;
}

int KelMsgFileTransfer::SetObserver(KelMsgFileTransferObserver* observer) {
  m_observer = observer != nullptr ? observer : &g_noObserver;
  return 0;
}

void KelMsgFileTransfer::Trace(int level, const char* format, ...) const {
  if (!Traces(level))
    return;
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(m_traceStream, format, arguments);
  va_end(arguments);
  std::fflush(m_traceStream);
}

void KelMsgFileTransfer::TraceUnflushed(int level, const char* format, ...) const {
  if (!Traces(level))
    return;
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(m_traceStream, format, arguments);
  va_end(arguments);
}

int KelMsgFileTransfer::ConfineTo(const char* directory) {
  return m_confinement->AddRoot(directory);
}

int KelMsgFileTransfer::SetReceiveLimits(int maxOpenFiles, int idleSeconds) {
  KELMSG_ASSERT(maxOpenFiles >= 1 && idleSeconds >= 0);
  m_maxReceiveFiles = maxOpenFiles;
  m_idleSeconds = idleSeconds;
  SweepIdleFilesWhileWaiting();
  return 0;
}

void KelMsgFileTransfer::SweepIdleFilesWhileWaiting() {
  m_idleSweep.reset();
  if (m_idleSeconds == 0)
    return;
  m_idleSweep = std::make_unique<KelMsgWaitChore>(m_communicatorId, [this] {
    CloseIdleFiles();
    return NextIdleMoment();
  });
}

KelMsgFileTransfer::Clock::time_point KelMsgFileTransfer::NextIdleMoment() const {
  // A file that a handler opens during the wait falls idle no sooner.
  Clock::time_point oldest = Clock::now();
  for (const auto& [source, last] : m_lastReceived)
    oldest = std::min(oldest, last);
  return oldest + std::chrono::seconds(m_idleSeconds);
}

int KelMsgFileTransfer::CloseIdleFiles() {
  if (m_idleSeconds == 0)
    return 0;
  const Clock::time_point before = Clock::now() - std::chrono::seconds(m_idleSeconds);
  std::vector<std::string> idle;
  for (const auto& [source, last] : m_lastReceived) {
    if (last <= before)
      idle.push_back(source);
  }
  for (const std::string& source : idle) {
    Trace(1, "closing the file from %s: nothing came for %d s\n", source.c_str(), m_idleSeconds);
    m_observer->ReceiveFileIdle(source.c_str(), m_idleSeconds);
    const int descriptor = m_receiveFileMap.find(KelString(source.c_str()))->second;
    if (descriptor >= 0)
      close(descriptor);
    ForgetReceived(source.c_str());
  }
  if (idle.empty())
    return 0;
  // A received file's end, as a completion is: a ReceiveFile whose holder
  // fell silent returns instead of waiting for ever.
  m_endingCondition = 0;
  m_observer->IdleFilesClosed();
  return static_cast<int>(idle.size());
}

int KelMsgFileTransfer::RenameReceivedFile(const char* from, const char* to) {
  return ErrorOf(m_confinement->Rename(from, to));
}

int KelMsgFileTransfer::RemoveReceivedFile(const char* path) {
  return ErrorOf(m_confinement->Remove(path));
}

int KelMsgFileTransfer::OpenFile(const char* applicationId, const char* fileName, bool isSender) {
  return OpenFile(applicationId, fileName, isSender,
                  isSender ? Reach::kAnywhere : Reach::kConfined);
}

int KelMsgFileTransfer::OpenFile(const char* applicationId, const char* fileName, bool isSender,
                                 Reach reach) {
  const KelMsgConfinement& files = reach == Reach::kConfined ? *m_confinement : g_anywhere;
  int descriptor = -1;
  errno = EMFILE;
  if (isSender || m_openReceiveFiles < m_maxReceiveFiles)
    descriptor = files.Open(fileName, isSender ? kSenderFlags : kReceiverFlags, kFileMode);
  const int error = ErrorOf(descriptor);
  Trace(4, "::OpenFile applicationId %s fileName %s isSender %d fileId %d\n", applicationId,
        fileName, isSender ? 1 : 0, descriptor);
  if (descriptor < 0)
    Trace(4, "KelMsgFileTransfer::OpenFile Opening file %s Failed\n", fileName);
  if (descriptor < 0 && KelMsgConfinement::Refused(error) && isSender)
    Trace(1, "refused to read %s: %s\n", fileName, KelMsgConfinement::Describe(error));
  if (descriptor < 0 && KelMsgConfinement::Refused(error) && !isSender) {
    Trace(1, "refused to write %s from application %s: %s\n", fileName, applicationId,
          KelMsgConfinement::Describe(error));
  }
  if (isSender) {
    m_fileId = descriptor;
    m_observer->SendFileOpened(fileName, descriptor, error);
    return 0;
  }
  const auto itr = m_receiveFileMap.find(KelString(applicationId));
  if (itr != m_receiveFileMap.end()) {
    TraceUnflushed(1, "ERROR: already have a file opened for application %s\n", applicationId);
  }
  if (!KELMSG_PEER_CHECK(itr == m_receiveFileMap.end())) {
    // The new target was opened (and truncated) before the duplicate showed;
    // its descriptor is not kept, so let it go now.
    if (descriptor >= 0)
      close(descriptor);
    return 0;
  }
  m_receiveFileMap.emplace(applicationId, descriptor);
  m_receiveFileChunkIdMap.emplace(applicationId, 0);
  m_lastReceived[applicationId] = Clock::now();
  if (descriptor >= 0)
    ++m_openReceiveFiles;
  m_observer->ReceiveFileOpened(applicationId, fileName, descriptor, error);
  return 0;
}

int KelMsgFileTransfer::CloseFile(int fileId) {
  close(fileId);
  m_fileId = -1;
  return 0;
}

int KelMsgFileTransfer::ReadChunk() {
  KELMSG_ASSERT(m_contentMsg != NULL);
  KelMsgFileTransferData& record = m_contentMsg->Data();
  const ssize_t bytes =
      read(m_fileId, record.m_chunkData, static_cast<std::size_t>(m_maxChunkSize));
  const int error = ErrorOf(bytes);
  record.m_chunkSize = static_cast<int>(bytes);
  Trace(4, "::ReadChunk fileId %d bytes %d\n", m_fileId, record.m_chunkSize);
  m_observer->ChunkRead(record.m_chunkData, record.m_chunkSize, error);
  return 0;
}

int KelMsgFileTransfer::SendChunk(const char* targetApplication) {
  KELMSG_ASSERT(m_contentMsg != NULL);
  KelMsgFileTransferData& record = m_contentMsg->Data();
  ++record.m_chunkId;
  record.m_dataType = KelMsgFileTransferData::FILE_TRANSFER_CHUNK;
  KelMsgBBAPI::SendRequest(m_communicatorId, targetApplication, *m_contentMsg);
  return 0;
}

int KelMsgFileTransfer::Send(const char* sourceApplication, const char* sourceBaseDir,
                             const char* sourceJobDir, const char* sourceFileName,
                             const char* targetApplication, const char* targetBaseDir,
                             const char* targetJobDir, const char* targetFileName) {
  // Called for a peer's send request: the peer names the file.
  return SendContent(Reach::kConfined, sourceApplication, sourceBaseDir, sourceJobDir,
                     sourceFileName, targetApplication, targetBaseDir, targetJobDir,
                     targetFileName);
}

int KelMsgFileTransfer::SendContent(Reach reach, const char* sourceApplication,
                                    const char* sourceBaseDir, const char* sourceJobDir,
                                    const char* sourceFileName, const char* targetApplication,
                                    const char* targetBaseDir, const char* targetJobDir,
                                    const char* targetFileName) {
  KELMSG_ASSERT(m_contentMsg != NULL);
  const TransferNames names{sourceApplication, sourceBaseDir, sourceJobDir, sourceFileName,
                            targetApplication, targetBaseDir, targetJobDir, targetFileName};
  if (Traces(1)) {
    std::fprintf(m_traceStream, "::Send from application %s\n", sourceApplication);
    WriteNamesAndFlush(m_traceStream, names, kSendFormats);
  }
  if (m_fileId >= 0 && Traces(1)) {
    static constexpr char kOverlap[] =
        "KelMsgFileTransfer: Attempt to send a new file before completion of a previous one\n";
    std::fwrite(kOverlap, 1, sizeof kOverlap - 1, m_traceStream);
    std::fflush(m_traceStream);
  }
  const KelString path = KelMsgPathExplorer::FormPath(sourceBaseDir, sourceJobDir, sourceFileName);
  OpenFile(sourceApplication, path.GetUTF8(), true, reach);

  KelMsgFileTransferData& record = m_contentMsg->Data();
  for (ReadChunk(); record.m_chunkSize > 0; ReadChunk())
    SendChunk(targetApplication);

  CloseFile(m_fileId);
  record.m_chunkId = 0;
  return 0;
}

void KelMsgFileTransfer::SendControl(const char* application, int dataType,
                                     const char* sourceApplication) {
  KelMsgFileTransferType message;
  FillControl(message.Data(), dataType);
  if (sourceApplication != nullptr)
    message.Data().m_sourceApplication.BuildFromUTF8(sourceApplication);
  KelMsgBBAPI::SendRequest(m_communicatorId, application, message);
}

int KelMsgFileTransfer::SendNotifyAndContent(const char* sourceApplication,
                                             const char* sourceBaseDir, const char* sourceJobDir,
                                             const char* sourceFileName,
                                             const char* targetApplication,
                                             const char* targetBaseDir, const char* targetJobDir,
                                             const char* targetFileName) {
  KelMsgFileTransferType announcement;
  FillControl(announcement.Data(), KelMsgFileTransferData::FILE_TRANSFER_NOTIFY);
  FillNames(announcement.Data(), {sourceApplication, sourceBaseDir, sourceJobDir, sourceFileName,
                                  targetApplication, targetBaseDir, targetJobDir, targetFileName});
  KelMsgBBAPI::SendRequest(m_communicatorId, targetApplication, announcement);
  SendContent(Reach::kAnywhere, sourceApplication, sourceBaseDir, sourceJobDir, sourceFileName,
              targetApplication, targetBaseDir, targetJobDir, targetFileName);
  return 0;
}

int KelMsgFileTransfer::SendFile(const char* sourceApplication, const char* sourceBaseDir,
                                 const char* sourceJobDir, const char* sourceFileName,
                                 const char* targetApplication, const char* targetBaseDir,
                                 const char* targetJobDir, const char* targetFileName) {
  SendNotifyAndContent(sourceApplication, sourceBaseDir, sourceJobDir, sourceFileName,
                       targetApplication, targetBaseDir, targetJobDir, targetFileName);
  SendSendCompletion(sourceApplication, targetApplication);
  m_endingCondition = -1;
  KelMsgBBAPI::WaitingLoop(m_communicatorId, -1, m_endingCondition);
  return 0;
}

int KelMsgFileTransfer::ISendFile(const char* sourceApplication, const char* sourceBaseDir,
                                  const char* sourceJobDir, const char* sourceFileName,
                                  const char* targetApplication, const char* targetBaseDir,
                                  const char* targetJobDir, const char* targetFileName) {
  SendNotifyAndContent(sourceApplication, sourceBaseDir, sourceJobDir, sourceFileName,
                       targetApplication, targetBaseDir, targetJobDir, targetFileName);
  SendISendCompletion(targetApplication);
  return 0;
}

int KelMsgFileTransfer::SendSendCompletion(const char* sourceApplication,
                                           const char* targetApplication) {
  Trace(1, "::SendSendCompletion sourceApplication=%s targetApplication=%s\n", sourceApplication,
        targetApplication);
  SendControl(targetApplication, KelMsgFileTransferData::FILE_TRANSFER_SEND_COMPLETION,
              sourceApplication);
  return 0;
}

int KelMsgFileTransfer::SendISendCompletion(const char* application) {
  Trace(1, "::SendISendCompletion Application=%s \n", application);
  SendControl(application, KelMsgFileTransferData::FILE_TRANSFER_ISEND_COMPLETION, nullptr);
  return 0;
}

int KelMsgFileTransfer::SendReceiveCompletion(const char* application) {
  Trace(1, "::SendReceiveCompletion applicationId=%s\n", application);
  SendControl(application, KelMsgFileTransferData::FILE_TRANSFER_RECEIVE_COMPLETION, nullptr);
  return 0;
}

int KelMsgFileTransfer::ReceiveReceiveCompletion() {
  m_endingCondition = 0;
  return 0;
}

int KelMsgFileTransfer::Receive(const char* sourceApplication, const char* sourceBaseDir,
                                const char* sourceJobDir, const char* sourceFileName,
                                const char* targetApplication, const char* targetBaseDir,
                                const char* targetJobDir, const char* targetFileName) {
  if (Traces(1)) {
    std::fprintf(m_traceStream, "Receive from application %s to application %s\n",
                 sourceApplication, targetApplication);
    WriteNamesAndFlush(m_traceStream,
                       {sourceApplication, sourceBaseDir, sourceJobDir, sourceFileName,
                        targetApplication, targetBaseDir, targetJobDir, targetFileName},
                       kReceiveFormats);
  }
  const KelString path = KelMsgPathExplorer::FormPath(targetBaseDir, targetJobDir, targetFileName);
  OpenFile(sourceApplication, path.GetUTF8(), false);
  Trace(1, "opened file %s\n", targetFileName);
  return 0;
}

int KelMsgFileTransfer::ReceiveFile(const char* sourceApplication, const char* sourceBaseDir,
                                    const char* sourceJobDir, const char* sourceFileName,
                                    const char* targetApplication, const char* targetBaseDir,
                                    const char* targetJobDir, const char* targetFileName) {
  KELMSG_ASSERT(m_contentMsg != NULL);
  const TransferNames names{sourceApplication, sourceBaseDir, sourceJobDir, sourceFileName,
                            targetApplication, targetBaseDir, targetJobDir, targetFileName};
  if (Traces(1)) {
    std::fprintf(m_traceStream, "ReceiveFile from application %s to application %s\n",
                 sourceApplication, targetApplication);
    WriteNamesAndFlush(m_traceStream, names, kReceiveFileFormats);
  }
  RequestFile(sourceApplication, sourceBaseDir, sourceJobDir, sourceFileName, targetApplication,
              targetBaseDir, targetJobDir, targetFileName);
  m_endingCondition = -1;
  KelMsgBBAPI::WaitingLoop(m_communicatorId, -1, m_endingCondition);
  return 0;
}

int KelMsgFileTransfer::RequestFile(const char* sourceApplication, const char* sourceBaseDir,
                                    const char* sourceJobDir, const char* sourceFileName,
                                    const char* targetApplication, const char* targetBaseDir,
                                    const char* targetJobDir, const char* targetFileName) {
  const KelString path = KelMsgPathExplorer::FormPath(targetBaseDir, targetJobDir, targetFileName);
  OpenFile(sourceApplication, path.GetUTF8(), false);
  Trace(4, "opened file %s\n", targetFileName);

  KelMsgFileTransferType request;
  FillControl(request.Data(), KelMsgFileTransferData::FILE_TRANSFER_SEND_REQUEST);
  FillNames(request.Data(), {sourceApplication, sourceBaseDir, sourceJobDir, sourceFileName,
                             targetApplication, targetBaseDir, targetJobDir, targetFileName});
  KelMsgBBAPI::SendRequest(m_communicatorId, sourceApplication, request);
  return 0;
}

int KelMsgFileTransfer::ReceiveChunk(const char* sourceApplication, int chunkId, int chunkSize,
                                     const void* data) {
  KELMSG_ASSERT(m_contentMsg != NULL);
  Trace(4, "::ReceiveChunk sourceApplication=%s chunkId=%d chunkSize=%d\n", sourceApplication,
        chunkId, chunkSize);
  const auto itr = m_receiveFileChunkIdMap.find(KelString(sourceApplication));
  if (itr == m_receiveFileChunkIdMap.end()) {
    TraceUnflushed(
        4, "**ERROR**, cannot write this chunk since we havent initialized the file for app: %s\n",
        sourceApplication);
    return 0;
  }
  m_lastReceived[sourceApplication] = Clock::now();
  int& last = itr->second;
  if (last == kAbandoned)
    return 0;
  // In 64 bits: a peer may send any chunk number, INT_MIN included.
  const std::int64_t previous = std::int64_t{chunkId} - 1;
  if (last != previous) {
    TraceUnflushed(1, "obtained incorrect file chunk from %s, expected %d got %d\n",
                   sourceApplication, last, static_cast<int>(previous));
    last = kAbandoned;
    m_observer->TransferAbandoned(sourceApplication);
    return 0;
  }
  last = chunkId;
  TraceUnflushed(1, "updating chunkId %d for source Application %s\n", chunkId, sourceApplication);
  WriteChunk(sourceApplication, chunkSize, data);
  return 0;
}

int KelMsgFileTransfer::WriteChunk(const char* sourceApplication, int chunkSize, const void* data) {
  Trace(4, "::WriteChunk sourceApplication=%s chunkSize=%d\n", sourceApplication, chunkSize);
  const auto itr = m_receiveFileMap.find(KelString(sourceApplication));
  KELMSG_ASSERT(itr != m_receiveFileMap.end());
  if (!KELMSG_PEER_CHECK(chunkSize >= 0))
    return 0;
  const ssize_t bytesWritten = write(itr->second, data, static_cast<std::size_t>(chunkSize));
  const int error = ErrorOf(bytesWritten);
  Trace(4, "::WriteChunk bytesWritten=%d\n", static_cast<int>(bytesWritten));
  m_observer->ChunkWritten(sourceApplication, data, chunkSize, static_cast<int>(bytesWritten),
                           error);
  return 0;
}

int KelMsgFileTransfer::ReceiveISendCompletion(const char* sourceApplication) {
  KELMSG_ASSERT(m_contentMsg != NULL);
  const KelString source(sourceApplication);
  const auto itr = m_receiveFileMap.find(source);
  if (Traces(1)) {
    std::fprintf(m_traceStream, "::ReceiveISendCompletion sourceApplication=%s\n",
                 sourceApplication);
    if (itr == m_receiveFileMap.end()) {
      std::fprintf(m_traceStream, "cannot find file for sourceApplication\n");
    }
    std::fflush(m_traceStream);
  }
  if (!KELMSG_PEER_CHECK(itr != m_receiveFileMap.end()))
    return 0;
  CloseFile(itr->second);
  ForgetReceived(sourceApplication);
  m_endingCondition = 0;
  m_contentMsg->Data().m_chunkId = 0;
  return 0;
}

void KelMsgFileTransfer::ForgetReceived(const char* source) {
  const KelString key(source);
  const auto itr = m_receiveFileMap.find(key);
  if (itr->second >= 0)
    --m_openReceiveFiles;
  m_receiveFileMap.erase(itr);
  m_receiveFileChunkIdMap.erase(key);
  m_lastReceived.erase(source);
  m_observer->ReceiveFileClosed(source);
}

int KelMsgFileTransfer::ReceiveSendCompletion(const char* sourceApplication) {
  // A completion refused as unknown gets no acknowledgement.
  const bool known = m_receiveFileMap.count(KelString(sourceApplication)) != 0;
  ReceiveISendCompletion(sourceApplication);
  if (known)
    SendReceiveCompletion(sourceApplication);
  return 0;
}
