// KelMsgFileTransferObserver: what a file-transfer engine tells about the
// files it opens, reads, writes and closes, beside everything it does anyway.
//
// The engine traces and sends exactly what it would without an observer; the
// observer only learns facts the trace does not carry in a usable form (the
// bytes themselves, the system's error number).  Every operation does nothing
// here, so an observer overrides only what it needs.  `error` is the errno of
// a failed call and 0 otherwise.
//
// Ownership: KelMsgFileTransfer::SetObserver only lends the observer, which
// must outlive its installation.
// Threading: called on the thread that drives the engine, from inside the
// engine's operations; an observer must not call back into the engine.
#ifndef KELMSGFEAMESSAGING_KELMSGFILETRANSFEROBSERVER_H_
#define KELMSGFEAMESSAGING_KELMSGFILETRANSFEROBSERVER_H_

class KelMsgFileTransferObserver {
 public:
  virtual ~KelMsgFileTransferObserver() = default;

  // The file to send was opened at `path`; `descriptor` is negative when the
  // open failed.
  virtual void SendFileOpened(const char* /*path*/, int /*descriptor*/, int /*error*/) {}
  // One read of the file being sent: `bytes` at `data`, 0 at its end, -1 when
  // the read failed.
  virtual void ChunkRead(const void* /*data*/, int /*bytes*/, int /*error*/) {}
  // A target file for `source` was opened at `path` and recorded; a
  // duplicate that the engine refuses is not reported.
  virtual void ReceiveFileOpened(const char* /*source*/, const char* /*path*/, int /*descriptor*/,
                                 int /*error*/) {}
  // An accepted chunk of `size` bytes at `data` from `source` went to its
  // file: `written` is the result of the write, -1 when it failed.
  virtual void ChunkWritten(const char* /*source*/, const void* /*data*/, int /*size*/,
                            int /*written*/, int /*error*/) {}
  // A chunk of `source` came out of sequence: the rest of its chunks are
  // dropped until its completion.
  virtual void TransferAbandoned(const char* /*source*/) {}
  // Nothing has reached the file received from `source` for `seconds`: it
  // is about to be closed and forgotten.
  virtual void ReceiveFileIdle(const char* /*source*/, int /*seconds*/) {}
  // The file received from `source` was closed and forgotten.
  virtual void ReceiveFileClosed(const char* /*source*/) {}
  // CloseIdleFiles has closed and forgotten every file it found idle.
  virtual void IdleFilesClosed() {}
};

#endif  // KELMSGFEAMESSAGING_KELMSGFILETRANSFEROBSERVER_H_
