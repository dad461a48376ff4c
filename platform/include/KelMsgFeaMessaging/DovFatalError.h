// Reporting of failed checks.
//
// DovFatalError writes one line to standard error naming the failed condition,
// the source path and the line, then returns: whether the process goes on is
// the caller's decision.  The library calls it in two ways:
//   - a check on the calling program's own contract reports, then aborts;
//   - a check that a message from another process can fail reports and
//     abandons that message; the process keeps running.
// A program (or a test) may install its own sink to collect the reports
// instead; the sink then replaces the line on standard error.
#ifndef KELMSGFEAMESSAGING_DOVFATALERROR_H_
#define KELMSGFEAMESSAGING_DOVFATALERROR_H_

// `message` is the report's text, `path` the source path (framework, module
// directory and file) and `line` the source line.  The three middle arguments
// are unused and are passed as null.
void DovFatalError(const char* message, const void* unused1, const void* unused2,
                   const void* unused3, const char* path, int line);

// Reports as DovFatalError does, then ends the process with abort(): the end
// of every check on the calling program's own contract.
[[noreturn]] void DovContractFailed(const char* message, const char* path, int line);

using DovFatalErrorSink = void (*)(const char* message, const char* path, int line);

// Installs `sink` (null restores the line on standard error) and returns the
// previous one.  Not thread-safe: install sinks before starting other threads.
DovFatalErrorSink DovSetFatalErrorSink(DovFatalErrorSink sink);

#endif  // KELMSGFEAMESSAGING_DOVFATALERROR_H_
