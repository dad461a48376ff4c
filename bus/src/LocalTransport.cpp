// The in-process bus (KELBUS_URL=local:): communicators of one process reach
// each other through the process's hub, without broker and without network
// thread.
#include <pthread.h>

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <set>

#include "LastError.h"
#include "ProcessRecord.h"
#include "Transport.h"

namespace kelbus {
namespace {

class LocalTransport;

// Who holds which application and who watches departures, for one process.
class LocalHub {
 public:
  // The hub of the calling process.  A forked child starts with a fresh one:
  // the inherited hub lists the parent's communicators, and a thread the
  // child does not have may hold its lock.
  static LocalHub& Current();

  KelBusResult Claim(LocalTransport& claimant, const std::string& app, bool takeOver);
  // Copies the message into the holder's inbox; drops it when nobody ever
  // held `target`, and refuses it when its holder left.
  KelBusResult Deliver(const LocalTransport& sender, std::string_view target, const char* type,
                       const void* bytes, int size);
  bool Held(std::string_view app);
  void Watch(LocalTransport& watcher, bool on);
  // `member` leaves: gives its application up and reports its departure.
  void Leave(LocalTransport& member);

 private:
  explicit LocalHub(LocalHub* inherited) : m_inherited(inherited) {}
  static std::atomic<LocalHub*>& Slot();
  static void ReplaceInChild();
  void ReportDeparture(const LocalTransport& member);

  // Kept so that what a child inherited stays reachable; never used.
  [[maybe_unused]] LocalHub* const m_inherited;
  std::mutex m_mutex;
  std::map<std::string, LocalTransport*, std::less<>> m_holders;
  std::set<std::string, std::less<>> m_left;  // held once, by nobody now
  std::set<LocalTransport*> m_watchers;
};

class LocalTransport final : public Transport {
 public:
  explicit LocalTransport(const Inbox& inbox)
      : m_hub(LocalHub::Current()), m_inbox(inbox), m_self(ThisProcess()) {}
  ~LocalTransport() override { Close(); }

  KelBusResult Claim(const std::string& app, bool takeOver) override {
    return m_hub.Claim(*this, app, takeOver);
  }
  KelBusResult Send(std::string_view target, const char* type, const void* bytes,
                    int size) override {
    return m_hub.Deliver(*this, target, type, bytes, size);
  }
  KelBusResult Present(const std::string& app, std::chrono::steady_clock::time_point,
                       bool* present) override {
    *present = m_hub.Held(app);
    return KELBUS_OK;
  }
  // The sender and the holder share the dispatch queue and its memory, so
  // no window stands between them.
  void Consumed(const ReceivedMessage&) override {}
  KelBusResult WatchDepartures(bool on) override {
    m_hub.Watch(*this, on);
    return KELBUS_OK;
  }
  bool NameLost() const override { return m_lost; }
  void Close() override;
  void AbandonAfterFork() override {}

 private:
  friend class LocalHub;

  LocalHub& m_hub;
  Inbox m_inbox;
  ProcessRecord m_self;  // the hub's mutex guards m_self.app
  std::atomic<bool> m_lost{false};
  bool m_closed = false;
};

// The hub is never destroyed: communicators still open at exit leave it
// while static objects are being destroyed.
std::atomic<LocalHub*>& LocalHub::Slot() {
  static std::atomic<LocalHub*> current = [] {
    pthread_atfork(nullptr, nullptr, &LocalHub::ReplaceInChild);
    return new LocalHub(nullptr);
  }();
  return current;
}

void LocalHub::ReplaceInChild() {
  std::atomic<LocalHub*>& slot = Slot();
  slot = new LocalHub(slot.load());
}

LocalHub& LocalHub::Current() {
  return *Slot().load();
}

KelBusResult LocalHub::Claim(LocalTransport& claimant, const std::string& app, bool takeOver) {
  std::lock_guard lock(m_mutex);
  const auto held = m_holders.find(app);
  if (held != m_holders.end()) {
    LocalTransport& holder = *held->second;
    if (!takeOver) {
      return Fail(KELBUS_ERR_NAME_HELD, "application '" + app + "' is held by communicator " +
                                            std::to_string(holder.m_inbox.Communicator()) +
                                            " of this process");
    }
    holder.m_lost = true;
    ReportDeparture(holder);
    holder.m_inbox.Wake();
  }
  claimant.m_self.app = app;
  m_holders[app] = &claimant;
  m_left.erase(app);
  return KELBUS_OK;
}

KelBusResult LocalHub::Deliver(const LocalTransport& sender, std::string_view target,
                               const char* type, const void* bytes, int size) {
  std::lock_guard lock(m_mutex);
  const auto holder = m_holders.find(target);
  if (holder != m_holders.end()) {
    // Every communicator of the process is the process itself: the hub
    // knows for sure which application sent.
    std::optional<std::string> from;
    if (!sender.m_self.app.empty())
      from = sender.m_self.app;
    holder->second->m_inbox.Message(type, bytes, static_cast<std::size_t>(size), {},
                                    std::move(from));
  } else if (m_left.contains(target)) {
    return Fail(KELBUS_ERR_GONE, "application '" + std::string(target) + "' has left the bus");
  }
  return KELBUS_OK;
}

bool LocalHub::Held(std::string_view app) {
  std::lock_guard lock(m_mutex);
  return m_holders.find(app) != m_holders.end();
}

void LocalHub::Watch(LocalTransport& watcher, bool on) {
  std::lock_guard lock(m_mutex);
  if (on) {
    m_watchers.insert(&watcher);
  } else {
    m_watchers.erase(&watcher);
  }
}

void LocalHub::Leave(LocalTransport& member) {
  std::lock_guard lock(m_mutex);
  m_watchers.erase(&member);
  const auto held = m_holders.find(member.m_self.app);
  if (held != m_holders.end() && held->second == &member) {
    m_left.insert(held->first);
    m_holders.erase(held);
    ReportDeparture(member);
  }
}

void LocalHub::ReportDeparture(const LocalTransport& member) {
  const ProcessRecord& self = member.m_self;
  for (const LocalTransport* watcher : m_watchers) {
    if (watcher != &member)
      watcher->m_inbox.Departed({self.pid, self.app, self.host, self.user});
  }
}

void LocalTransport::Close() {
  if (m_closed)
    return;
  m_closed = true;
  m_hub.Leave(*this);
}

}  // namespace

std::unique_ptr<Transport> OpenLocalTransport(const Inbox& inbox) {
  return std::make_unique<LocalTransport>(inbox);
}

}  // namespace kelbus
