#include "KelMsgWaitChore.h"

#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace {

struct Registered {
  int communicatorId;
  std::shared_ptr<KelMsgWaitChore::Work> work;
};

struct Registry {
  std::map<std::uint64_t, Registered> chores;
  std::uint64_t nextKey = 1;
};

// Never destroyed: chores of static objects may end after it otherwise.
Registry& TheRegistry() {
  static Registry* const registry = new Registry;
  return *registry;
}

}  // namespace

KelMsgWaitChore::KelMsgWaitChore(int communicatorId, Work work) {
  Registry& registry = TheRegistry();
  m_key = registry.nextKey++;
  registry.chores.emplace(m_key,
                          Registered{communicatorId, std::make_shared<Work>(std::move(work))});
}

KelMsgWaitChore::~KelMsgWaitChore() {
  Registry& registry = TheRegistry();
  registry.chores.erase(m_key);
}

std::optional<KelMsgWaitChore::Clock::time_point> KelMsgWaitChore::RunDue(int communicatorId) {
  Registry& registry = TheRegistry();
  std::vector<std::pair<std::uint64_t, std::shared_ptr<Work>>> chosen;
  {
    for (const auto& [key, chore] : registry.chores) {
      if (communicatorId == kEveryCommunicator || chore.communicatorId == communicatorId)
        chosen.emplace_back(key, chore.work);
    }
  }
  std::optional<Clock::time_point> next;
  for (const auto& [key, work] : chosen) {
    {
      // An earlier chore may have ended this one.
      if (!registry.chores.contains(key))
        continue;
    }
    const std::optional<Clock::time_point> due = (*work)();
    if (due && (!next || *due < *next))
      next = due;
  }
  return next;
}
