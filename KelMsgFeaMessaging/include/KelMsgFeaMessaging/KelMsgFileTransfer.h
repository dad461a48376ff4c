// KelMsgFileTransfer: the engine that moves files between applications on
// the bus, in numbered chunks of at most 65,536 bytes.
//
// A file moves in one of three ways:
//   SendFile     push, blocking: announcement, chunks, send completion, then
//                wait in the bus's loop for the receiver's acknowledgement;
//   ISendFile    push, immediate: announcement, chunks, immediate-send
//                completion; no wait;
//   ReceiveFile  pull, blocking: open the target, ask the holder to send,
//                wait for its immediate-send completion.
// Every transfer is described by eight names, always in this order: source
// application, source base directory, source job directory, source file
// name, target application, target base directory, target job directory,
// target file name.  Each side forms the path of its own file with
// KelMsgPathExplorer::FormPath from its own three names.
//
// Identity: the receiver files an incoming transfer under the source
// application named by the announcement (or given to ReceiveFile), but knows
// chunks and completions by the message identifier of their envelope.  A
// process that sends files therefore sets its message identifier
// (KelMsgBBCallbackManager::SetMessageID) to its own application identifier.
//
// Incoming file-transfer messages reach the engine through a
// KelMsgFileTransferHandler adopted for "KelMsgFileTransferType".  The engine
// must outlive that handler.  It is not thread-safe: everything runs on the
// thread that drives the bus, and its handlers re-enter it from inside the
// waits of SendFile and ReceiveFile.
//
// Trace: nothing at level 0; from level 1 one group of lines per transfer
// step (and, receiving, one per accepted chunk); from level 4 also every file
// operation and every chunk.  Lines go to the given stream, or to standard
// error when none is given and the level is 1 or more.
//
// What another process sends is never trusted: a second announcement (or
// pull) for a source that already has a file open, a completion for a source
// without one, and a chunk out of sequence are reported and abandoned; the
// process goes on.  After a chunk out of sequence, every further chunk of
// that source is dropped until its completion, which still closes the file.
//
// An observer (KelMsgFileTransferObserver) may follow the files the engine
// opens, reads, writes and closes; it changes nothing of what the engine
// sends or traces.
//
// Files that peers name.  The engine opens only regular files: a FIFO, a
// device or a directory is refused without the engine ever blocking on it.
// A receiving program may confine the engine to directories of its choice
// (ConfineTo): the files it writes for received transfers (pushed to it or
// pulled by it) and those it reads for a peer's send request must then
// resolve beneath one of them; an absolute path elsewhere, ".." and
// symbolic links that lead out are refused.  Refusals are traced at level 1
// and fail as a file that cannot be opened does, so the peer sees the
// transfer fail in the usual way.  The application's own pushes read
// wherever it says.  At most kDefaultMaxReceiveFiles received files are open
// at once unless SetReceiveLimits says otherwise; an announcement beyond
// that is refused (EMFILE).  CloseIdleFiles closes the received files that
// nothing has reached for a while; once SetReceiveLimits has set an idle
// time, the library's waiting loops (KelMsgBBAPI) on the engine's
// communicator call it on their own whenever a file falls idle.
//
// Every operation returns 0, except where said otherwise.
#ifndef KELMSGFEAMESSAGING_KELMSGFILETRANSFER_H_
#define KELMSGFEAMESSAGING_KELMSGFILETRANSFER_H_

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include <KelMsgFeaMessaging/KelBasTreeGeneric.h>

class KelMsgConfinement;
class KelMsgWaitChore;
class KelMsgFileTransferObserver;
class KelMsgFileTransferType;

class KelMsgFileTransfer {
 public:
  // `traceStream` is not owned and never closed; null with a level of 1 or
  // more means standard error.
  KelMsgFileTransfer(int communicatorId, FILE* traceStream, int traceLevel);
  // Closes the descriptors of transfers still open, so nothing leaks.
  ~KelMsgFileTransfer();
  KelMsgFileTransfer(const KelMsgFileTransfer&) = delete;
  KelMsgFileTransfer& operator=(const KelMsgFileTransfer&) = delete;

  static constexpr int kDefaultMaxReceiveFiles = 64;
  static constexpr int kDefaultIdleSeconds = 60;

  int SetCommunicatorId(int communicatorId);
  // Lends `observer` (null: none) to the engine until the next call.
  int SetObserver(KelMsgFileTransferObserver* observer);

  // Confinement and limits are the receiving program's choice, never a
  // peer's; set them on the thread that drives the bus, like everything.
  // Adds `directory` as a root of the confinement, which the engine keeps
  // open for its lifetime.  Returns 0, or the errno why it cannot be opened.
  int ConfineTo(const char* directory);
  // At most `maxOpenFiles` (at least 1) received files open at once; files
  // idle for `idleSeconds` are closed by CloseIdleFiles (0: never), which
  // the library's waiting loops call from now on.
  int SetReceiveLimits(int maxOpenFiles, int idleSeconds);
  // Closes and forgets every received file that no announcement or chunk
  // has reached for the idle time, traced at level 1 and told to the
  // observer; returns how many.  Closing ends the wait of SendFile and
  // ReceiveFile as a completion does.
  int CloseIdleFiles();
  // Renames a received file within its directory, or removes one, beneath
  // the confinement's roots when there are any.  Return 0 or the errno.
  int RenameReceivedFile(const char* from, const char* to);
  int RemoveReceivedFile(const char* path);

  // For applications.
  int SendFile(const char* sourceApplication, const char* sourceBaseDir, const char* sourceJobDir,
               const char* sourceFileName, const char* targetApplication, const char* targetBaseDir,
               const char* targetJobDir, const char* targetFileName);
  int ISendFile(const char* sourceApplication, const char* sourceBaseDir, const char* sourceJobDir,
                const char* sourceFileName, const char* targetApplication,
                const char* targetBaseDir, const char* targetJobDir, const char* targetFileName);
  // `targetApplication` must be this process's own application identifier:
  // the holder sends the chunks there.
  int ReceiveFile(const char* sourceApplication, const char* sourceBaseDir,
                  const char* sourceJobDir, const char* sourceFileName,
                  const char* targetApplication, const char* targetBaseDir,
                  const char* targetJobDir, const char* targetFileName);

  // Sending side, called by the handler and by the operations above.
  int Send(const char* sourceApplication, const char* sourceBaseDir, const char* sourceJobDir,
           const char* sourceFileName, const char* targetApplication, const char* targetBaseDir,
           const char* targetJobDir, const char* targetFileName);
  int SendNotifyAndContent(const char* sourceApplication, const char* sourceBaseDir,
                           const char* sourceJobDir, const char* sourceFileName,
                           const char* targetApplication, const char* targetBaseDir,
                           const char* targetJobDir, const char* targetFileName);
  int SendSendCompletion(const char* sourceApplication, const char* targetApplication);
  int SendISendCompletion(const char* application);
  int SendReceiveCompletion(const char* application);
  int ReceiveReceiveCompletion();
  int ReadChunk();
  int SendChunk(const char* targetApplication);
  int OpenFile(const char* applicationId, const char* fileName, bool isSender);
  int CloseFile(int fileId);

  // Receiving side, called by the handler and by ReceiveFile.
  int Receive(const char* sourceApplication, const char* sourceBaseDir, const char* sourceJobDir,
              const char* sourceFileName, const char* targetApplication, const char* targetBaseDir,
              const char* targetJobDir, const char* targetFileName);
  // `data` holds `chunkSize` bytes and lives only during the call.
  int ReceiveChunk(const char* sourceApplication, int chunkId, int chunkSize, const void* data);
  // ReceiveFile's steps before its wait: opens the target and asks the holder
  // to send.  The transfer ends, like a pull, with the holder's completion.
  int RequestFile(const char* sourceApplication, const char* sourceBaseDir,
                  const char* sourceJobDir, const char* sourceFileName,
                  const char* targetApplication, const char* targetBaseDir,
                  const char* targetJobDir, const char* targetFileName);
  int WriteChunk(const char* sourceApplication, int chunkSize, const void* data);
  int ReceiveSendCompletion(const char* sourceApplication);
  int ReceiveISendCompletion(const char* sourceApplication);

 private:
  using FileMap = KelBasTreeGeneric<int>;
  using Clock = std::chrono::steady_clock;
  // Whether a file is one that a peer names, and so subject to confinement.
  enum class Reach { kAnywhere, kConfined };

  int OpenFile(const char* applicationId, const char* fileName, bool isSender, Reach reach);
  int SendContent(Reach reach, const char* sourceApplication, const char* sourceBaseDir,
                  const char* sourceJobDir, const char* sourceFileName,
                  const char* targetApplication, const char* targetBaseDir,
                  const char* targetJobDir, const char* targetFileName);
  // Forgets the received file of `source`, already closed.
  void ForgetReceived(const char* source);
  // Has the waiting loops close idle files from now on, when an idle time
  // is set.
  void SweepIdleFilesWhileWaiting();
  // The earliest moment that a received file, open or yet to come, may
  // fall idle.
  Clock::time_point NextIdleMoment() const;

  void Trace(int level, const char* format, ...) const __attribute__((format(printf, 3, 4)));
  void TraceUnflushed(int level, const char* format, ...) const
      __attribute__((format(printf, 3, 4)));
  bool Traces(int level) const { return m_traceLevel >= level && m_traceStream != nullptr; }
  void SendControl(const char* application, int dataType, const char* sourceApplication);

  int m_communicatorId;
  int m_fileId;
  FileMap m_receiveFileMap;
  int m_maxChunkSize;
  KelMsgFileTransferType* m_contentMsg;
  FileMap m_receiveFileChunkIdMap;
  int m_endingCondition;
  FILE* m_traceStream;
  int m_traceLevel;
  KelMsgFileTransferObserver* m_observer;  // never null: a do-nothing one by default
  std::unique_ptr<KelMsgConfinement> m_confinement;
  int m_maxReceiveFiles;
  int m_idleSeconds;
  int m_openReceiveFiles;  // descriptors among those of m_receiveFileMap
  std::map<std::string, Clock::time_point> m_lastReceived;  // same keys as m_receiveFileMap
  std::unique_ptr<KelMsgWaitChore> m_idleSweep;             // set once limits are
};

#endif  // KELMSGFEAMESSAGING_KELMSGFILETRANSFER_H_
