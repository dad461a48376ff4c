// Application: this Python process on the bus as one application, kelmsg.Application
// in Python.  It joins on construction and leaves on Close (which `with`
// and garbage collection call): the communicator closes, the other
// applications see the departure, and the handlers it registered go.
//
// The library's registry of handlers is process-wide, so a process holds
// one open Application at a time.  Unless opened without transfers, it
// takes pushes, answers pulls and pushes and pulls itself through the
// library's verified transfers; without them, file-transfer records reach a
// Python handler instead.
//
// Every call into the library runs under BusLock without the GIL; handlers
// run on the thread that waits, with the GIL (HandlerCalls).
#ifndef KELMSG_PYTHON_APPLICATION_H_
#define KELMSG_PYTHON_APPLICATION_H_

#include <memory>
#include <optional>
#include <string>

#include <KelMsgFeaMessaging/KelMsgBBApplication.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgVerifiedTransfer.h>
#include <pybind11/pybind11.h>

#include "DepartureRelay.h"
#include "HandlerCalls.h"

class Application {
 public:
  struct Options {
    std::string name;
    bool takeOver = false;
    bool transfers = true;
    bool keepPartial = false;
  };
  // One file between this application and a peer, each side's file named by
  // a base directory, a job directory and a file name.
  struct Transfer {
    std::string peer;
    std::string baseDir;
    std::string jobDir;
    std::string fileName;
    std::string peerBaseDir;
    std::string peerJobDir;
    std::string peerFileName;
    std::optional<double> timeout;  // seconds of silence; None: for ever
    pybind11::object progress;      // called with the bytes so far
  };

  // Throws BusFailure when the bus cannot be joined as `options.name`.
  explicit Application(const Options& options);
  ~Application();
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  // Leaves the bus; later calls raise BusError.  Closing twice does nothing.
  void Close();
  bool Open() const { return m_application != nullptr; }
  const std::string& Name() const { return m_name; }

  template <class Value>
  void Send(const std::string& target, const Value& value) {
    value.Lend([&](const KelMsgBBMessage& message) { SendMessage(target, message); });
  }
  // Calls `handler(message, sender)` for every message of the Python class
  // `type` that arrives from now on, replacing any handler of that class.
  void Handle(const pybind11::handle& type, pybind11::object handler);
  // Calls `handler(departure)` for every process that leaves the bus.
  void OnDeparture(pybind11::object handler);
  // Runs handlers until `until()` is true (without `until`: until one has
  // run) or `timeout` seconds have passed (None: no limit).  False when the
  // time ran out.
  bool Wait(const pybind11::object& until, std::optional<double> timeout);

  // Push sends this side's file to the peer, Pull fetches the peer's file;
  // both return the transfer's one line once verified and throw
  // TransferFailure with it otherwise.  Push without `wait` returns once
  // the file is sent.
  std::string Push(const Transfer& transfer, bool wait);
  std::string Pull(const Transfer& transfer);

 private:
  struct Slots;
  class Busy;

  void Join(const Options& options);
  void Leave();
  KelMsgBBApplication& Joined() const;
  KelMsgVerifiedTransfer& Files() const;
  void SendMessage(const std::string& target, const KelMsgBBMessage& message);
  template <class Value>
  void Adopt(pybind11::object& slot, pybind11::object handler);
  void WatchDepartures();
  void WaitSlice(int milliseconds);
  template <class Operation>
  std::string Move(const Transfer& transfer, Operation&& operation);

  static Application* s_open;  // the process's one open application

  std::string m_name;
  int m_activeCalls = 0;  // waits and transfers under way, on the thread holding BusLock
  HandlerCalls m_calls;
  std::unique_ptr<Slots> m_slots;                       // the Python callables
  std::unique_ptr<KelMsgBBCallbackManager> m_registry;  // deletes what was adopted
  std::unique_ptr<KelMsgBBApplication> m_application;
  std::unique_ptr<KelMsgVerifiedTransfer> m_files;
  std::unique_ptr<DepartureRelay> m_departures;
};

#endif  // KELMSG_PYTHON_APPLICATION_H_
