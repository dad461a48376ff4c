#include "Application.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>

#include "BusFailure.h"
#include "BusLock.h"
#include "FileRecordMessage.h"
#include "KillMessage.h"
#include "LibraryText.h"
#include "PythonHandler.h"
#include "TextMessage.h"
#include "TransferFailure.h"
#include "XmlMessage.h"

namespace py = pybind11;

namespace {

// Waits are cut into slices this long, so that Ctrl-C is noticed and other
// threads get their turn at the library.
constexpr int kWaitSliceMilliseconds = 100;

std::string JoinFailure(const KelMsgBBApplication& application, const std::string& name) {
  const int result = application.Result();
  if (application.Communicator() == 0)
    return std::string("cannot join the bus: ") + KelBusLastError();
  if (result == KELBUS_ERR_NAME_HELD)
    return name + " is already on the bus";
  return "cannot join the bus as " + name + ": " + KelBusLastError();
}

// Seconds of a transfer's patience: 0 waits for ever.
int Patience(std::optional<double> timeout) {
  if (!timeout || *timeout <= 0.0)
    return 0;
  return static_cast<int>(std::ceil(std::min(*timeout, 1e9)));
}

bool Truth(const py::object& value) {
  const int truth = PyObject_IsTrue(value.ptr());
  if (truth < 0)
    throw py::error_already_set();
  return truth != 0;
}

}  // namespace

struct Application::Slots {
  py::object text = py::none();
  py::object xml = py::none();
  py::object kill = py::none();
  py::object fileRecord = py::none();
  py::object departure = py::none();
};

// Counts the library calls under way; the lock makes them this thread's.
class Application::Busy {
 public:
  explicit Busy(int& calls) : m_calls(calls) { ++m_calls; }
  ~Busy() { --m_calls; }
  Busy(const Busy&) = delete;
  Busy& operator=(const Busy&) = delete;

 private:
  int& m_calls;
};

Application* Application::s_open = nullptr;

Application::Application(const Options& options)
    : m_name(options.name), m_slots(std::make_unique<Slots>()) {
  if (m_name.empty())
    throw py::value_error("an application needs a name");
  LibraryText::From(m_name, "the application name");
  if (s_open != nullptr) {
    throw std::runtime_error("this process is on the bus as " + s_open->m_name +
                             " already; close it first: handlers are registered per process");
  }
  s_open = this;  // before the GIL goes, so that no other thread joins meanwhile
  try {
    BusLock::Run([&] {
      try {
        Join(options);
      } catch (...) {
        Leave();
        throw;
      }
    });
  } catch (...) {
    s_open = nullptr;
    throw;
  }
}

Application::~Application() {
  Close();
}

void Application::Join(const Options& options) {
  m_registry = std::make_unique<KelMsgBBCallbackManager>();
  auto application =
      std::make_unique<KelMsgBBApplication>(m_name.c_str(), options.takeOver ? 1 : 0);
  if (!application->Joined())
    throw BusFailure(JoinFailure(*application, m_name));
  m_application = std::move(application);
  if (options.transfers) {
    m_files = std::make_unique<KelMsgVerifiedTransfer>(m_application->Communicator(),
                                                       m_name.c_str(), nullptr, 0, stderr);
    m_files->SetKeepPartial(options.keepPartial);
    WatchDepartures();
  }
}

void Application::Leave() {
  m_files.reset();        // no handler runs until the registry goes
  m_application.reset();  // the others see the departure
  m_registry.reset();     // deletes the prototypes and handlers adopted
  m_departures.reset();
}

void Application::Close() {
  if (m_application == nullptr)
    return;
  BusLock::Run([&] {
    if (m_activeCalls > 0)
      throw std::runtime_error("cannot close " + m_name + " from inside its own handlers");
    Leave();
  });
  s_open = nullptr;
  *m_slots = Slots();  // lets go of the callables, and of what they hold
}

KelMsgBBApplication& Application::Joined() const {
  if (m_application == nullptr)
    throw BusFailure(m_name + " has left the bus");
  return *m_application;
}

KelMsgVerifiedTransfer& Application::Files() const {
  Joined();
  if (m_files == nullptr)
    throw std::runtime_error(m_name + " was opened without transfers");
  return *m_files;
}

void Application::SendMessage(const std::string& target, const KelMsgBBMessage& message) {
  LibraryText::From(target, "the target");
  BusLock::Run([&] {
    if (Joined().Send(target.c_str(), message) != KELBUS_OK)
      throw BusFailure("cannot send to " + target + ": " + KelBusLastError());
  });
}

void Application::Handle(const py::handle& type, py::object handler) {
  if (!handler.is_none() && PyCallable_Check(handler.ptr()) == 0)
    throw py::type_error("a handler must be callable");
  Joined();
  if (type.is(py::type::of<TextMessage>())) {
    Adopt<TextMessage>(m_slots->text, std::move(handler));
  } else if (type.is(py::type::of<XmlMessage>())) {
    Adopt<XmlMessage>(m_slots->xml, std::move(handler));
  } else if (type.is(py::type::of<KillMessage>())) {
    Adopt<KillMessage>(m_slots->kill, std::move(handler));
  } else if (type.is(py::type::of<FileRecordMessage>())) {
    if (m_files != nullptr) {
      throw std::runtime_error(m_name +
                               " keeps file records for its transfers; open it with "
                               "transfers=False to handle them");
    }
    Adopt<FileRecordMessage>(m_slots->fileRecord, std::move(handler));
  } else {
    throw py::type_error("kelmsg handles Text, Xml, Kill and FileRecord, not " +
                         py::repr(type).cast<std::string>());
  }
}

template <class Value>
void Application::Adopt(py::object& slot, py::object handler) {
  slot = std::move(handler);
  BusLock::Run([&] {
    std::unique_ptr<typename Value::Library> prototype(new typename Value::Library);
    if (KelMsgBBCallbackManager::IsMessageTypeHandled(prototype->Type()))
      return;  // the slot is read at each message
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(prototype.release(),
                                                      new PythonHandler<Value>(m_calls, slot));
  });
}

void Application::OnDeparture(py::object handler) {
  if (!handler.is_none() && PyCallable_Check(handler.ptr()) == 0)
    throw py::type_error("a handler must be callable");
  Joined();
  m_slots->departure = std::move(handler);
  if (m_departures == nullptr)
    BusLock::Run([&] { WatchDepartures(); });
}

void Application::WatchDepartures() {
  m_departures = std::make_unique<DepartureRelay>(
      m_calls, m_slots->departure, m_files != nullptr ? &m_files->DepartureWatcher() : nullptr);
  if (Joined().WatchDepartures(*m_departures) != KELBUS_OK) {
    throw BusFailure(std::string("cannot follow departures from the bus: ") + KelBusLastError());
  }
}

bool Application::Wait(const py::object& until, std::optional<double> timeout) {
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  const int seen = m_calls.Dispatches();
  for (bool first = true;; first = false) {
    if (until.is_none() ? m_calls.Dispatches() != seen : Truth(until()))
      return true;
    if (PyErr_CheckSignals() != 0)
      throw py::error_already_set();
    int slice = kWaitSliceMilliseconds;
    if (timeout) {
      const double left = *timeout - std::chrono::duration<double>(Clock::now() - start).count();
      if (left <= 0.0 && !first)
        return false;
      slice = static_cast<int>(std::clamp(std::ceil(left * 1000.0), 0.0, double(slice)));
    }
    WaitSlice(slice);
  }
}

void Application::WaitSlice(int milliseconds) {
  BusLock::Run([&] {
    const int communicator = Joined().Communicator();
    const Busy busy(m_activeCalls);
    const int result = KelMsgBBAPI::WaitingLoop(communicator, milliseconds, m_calls.Dispatches());
    if (result != KELBUS_OK && result != KELBUS_ERR_TIMEOUT)
      throw BusFailure(std::string("lost the bus: ") + KelBusLastError());
  });
  m_calls.RaiseInterruption();
}

std::string Application::Push(const Transfer& transfer, bool wait) {
  return Move(transfer, [&](KelMsgVerifiedTransfer& files) {
    return files.Push(transfer.baseDir.c_str(), transfer.jobDir.c_str(), transfer.fileName.c_str(),
                      transfer.peer.c_str(), transfer.peerBaseDir.c_str(),
                      transfer.peerJobDir.c_str(), transfer.peerFileName.c_str(), wait);
  });
}

std::string Application::Pull(const Transfer& transfer) {
  return Move(transfer, [&](KelMsgVerifiedTransfer& files) {
    return files.Pull(transfer.peer.c_str(), transfer.peerBaseDir.c_str(),
                      transfer.peerJobDir.c_str(), transfer.peerFileName.c_str(),
                      transfer.baseDir.c_str(), transfer.jobDir.c_str(), transfer.fileName.c_str());
  });
}

template <class Operation>
std::string Application::Move(const Transfer& transfer, Operation&& operation) {
  for (const std::string* name :
       {&transfer.peer, &transfer.baseDir, &transfer.jobDir, &transfer.fileName,
        &transfer.peerBaseDir, &transfer.peerJobDir, &transfer.peerFileName}) {
    LibraryText::From(*name, "a file's name");
  }
  std::int64_t bytes = 0;
  const auto [verified, report] = BusLock::Run([&] {
    KelMsgVerifiedTransfer& files = Files();
    const Busy busy(m_activeCalls);
    files.SetPatience(Patience(transfer.timeout));
    if (!transfer.progress.is_none()) {
      files.SetProgressListener([&](int chunk) {
        bytes += chunk;
        m_calls.Call(transfer.progress, bytes);
      });
    }
    const bool done = operation(files);
    files.SetProgressListener(nullptr);
    return std::make_pair(done, LibraryText::ToString(files.Report()));
  });
  m_calls.RaiseInterruption();
  if (!verified)
    throw TransferFailure(report);
  return report;
}
