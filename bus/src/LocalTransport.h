// The in-process bus (KELBUS_URL=local:): communicators of one process reach
// each other through a hub, without broker and without network thread.
#ifndef KELBUS_SRC_LOCALTRANSPORT_H_
#define KELBUS_SRC_LOCALTRANSPORT_H_

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "DispatchQueue.h"
#include "ProcessRecord.h"
#include "Transport.h"

namespace kelbus {

class LocalTransport;

// Who holds which application and who watches departures, for one process.
class LocalHub {
 public:
  int Claim(LocalTransport& claimant, const std::string& app, bool takeOver);
  // Copies the message into the holder's inbox; drops it when nobody holds
  // `target`.
  void Deliver(std::string_view target, const char* type, const void* bytes, int size);
  void Watch(LocalTransport& watcher, bool on);
  // `member` leaves: gives its application up and reports its departure.
  void Leave(LocalTransport& member);

 private:
  void ReportDeparture(const LocalTransport& member);

  std::mutex m_mutex;
  std::map<std::string, LocalTransport*, std::less<>> m_holders;
  std::set<LocalTransport*> m_watchers;
};

class LocalTransport final : public Transport {
 public:
  LocalTransport(LocalHub& hub, const Inbox& inbox);
  ~LocalTransport() override;

  int Claim(const std::string& app, bool takeOver) override;
  int Send(std::string_view target, const char* type, const void* bytes, int size) override;
  int WatchDepartures(bool on) override;
  int Health() const override;
  void Close() override;
  void AbandonAfterFork() override {}

 private:
  friend class LocalHub;

  LocalHub& m_hub;
  Inbox m_inbox;
  ProcessRecord m_self;  // the hub's mutex guards m_self.app and m_lost
  std::atomic<bool> m_lost{false};
  bool m_closed = false;
};

}  // namespace kelbus

#endif  // KELBUS_SRC_LOCALTRANSPORT_H_
