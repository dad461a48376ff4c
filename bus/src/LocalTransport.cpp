#include "LocalTransport.h"

#include <KelMsgFeaMessaging/KelBus.h>

#include "LastError.h"

namespace kelbus {

int LocalHub::Claim(LocalTransport& claimant, const std::string& app, bool takeOver) {
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
  return KELBUS_OK;
}

void LocalHub::Deliver(std::string_view target, const char* type, const void* bytes, int size) {
  std::lock_guard lock(m_mutex);
  const auto holder = m_holders.find(target);
  if (holder != m_holders.end()) {
    holder->second->m_inbox.Message(type, bytes, static_cast<std::size_t>(size));
  }
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

LocalTransport::LocalTransport(LocalHub& hub, const Inbox& inbox)
    : m_hub(hub), m_inbox(inbox), m_self(ThisProcess()) {}

LocalTransport::~LocalTransport() {
  Close();
}

int LocalTransport::Claim(const std::string& app, bool takeOver) {
  return m_hub.Claim(*this, app, takeOver);
}

int LocalTransport::Send(std::string_view target, const char* type, const void* bytes, int size) {
  if (m_lost)
    return Fail(KELBUS_ERR_NAME_LOST, "this communicator's application was taken over");
  m_hub.Deliver(target, type, bytes, size);
  return KELBUS_OK;
}

int LocalTransport::WatchDepartures(bool on) {
  m_hub.Watch(*this, on);
  return KELBUS_OK;
}

int LocalTransport::Health() const {
  return m_lost ? KELBUS_ERR_NAME_LOST : KELBUS_OK;
}

void LocalTransport::Close() {
  if (m_closed)
    return;
  m_closed = true;
  m_hub.Leave(*this);
}

}  // namespace kelbus
