#include "BusState.h"

#include <pthread.h>

#include <atomic>
#include <vector>

namespace kelbus {

// Owns the process's state: creates it, replaces it in a forked child, and
// closes its communicators at exit.
class ProcessBus {
 public:
  ProcessBus() : m_current(new BusState(nullptr)) {
    pthread_atfork(&ProcessBus::BeforeFork, &ProcessBus::InParent, &ProcessBus::InChild);
  }
  // The state itself stays allocated: static objects destroyed later may
  // still call the bus, and find no communicator.
  ~ProcessBus() { m_current.load()->CloseAll(); }

  static ProcessBus& Get() {
    static ProcessBus process;
    return process;
  }

  BusState& Current() { return *m_current.load(); }

 private:
  // Keeps the table consistent across the fork.
  static void BeforeFork() { Get().Current().m_tableMutex.lock(); }
  static void InParent() { Get().Current().m_tableMutex.unlock(); }
  static void InChild() {
    ProcessBus& process = Get();
    BusState* inherited = process.m_current.load();
    inherited->AbandonAfterFork();
    process.m_current = new BusState(inherited);
  }

  std::atomic<BusState*> m_current;
};

BusState& BusState::Current() {
  return ProcessBus::Get().Current();
}

int BusState::NewId() {
  std::lock_guard lock(m_tableMutex);
  return ++m_lastId;
}

void BusState::Add(std::shared_ptr<Communicator> communicator) {
  std::lock_guard lock(m_tableMutex);
  const int id = communicator->Id();
  m_communicators.emplace(id, std::move(communicator));
}

std::shared_ptr<Communicator> BusState::Find(int id) const {
  std::lock_guard lock(m_tableMutex);
  const auto found = m_communicators.find(id);
  return found == m_communicators.end() ? nullptr : found->second;
}

std::shared_ptr<Communicator> BusState::Remove(int id) {
  std::lock_guard lock(m_tableMutex);
  const auto found = m_communicators.find(id);
  if (found == m_communicators.end())
    return nullptr;
  std::shared_ptr<Communicator> communicator = std::move(found->second);
  m_communicators.erase(found);
  return communicator;
}

bool BusState::HasCommunicators() const {
  std::lock_guard lock(m_tableMutex);
  return !m_communicators.empty();
}

void BusState::CloseAll() {
  std::vector<std::shared_ptr<Communicator>> open;
  {
    std::lock_guard lock(m_tableMutex);
    for (auto& [id, communicator] : m_communicators)
      open.push_back(std::move(communicator));
    m_communicators.clear();
  }
  for (const auto& communicator : open)
    communicator->Close();
}

// Runs in the child with the table's mutex held since BeforeFork.
void BusState::AbandonAfterFork() {
  for (const auto& [id, communicator] : m_communicators)
    communicator->AbandonAfterFork();
}

}  // namespace kelbus
