#include <KelMsgFeaMessaging/KelMsgModules.h>

#include <iterator>

#include <KelMsgFeaMessaging/KelModuleCounter.h>
#include <KelMsgFeaMessaging/KelSiblingLibraries.h>

namespace {

KelModuleCounter g_specific;
int g_setCount = 0;
int g_processWideCount = 0;

using EntryPoint = void (*)(int&);

struct Member {
  EntryPoint initialize;
  EntryPoint finalize;
};

// Initialised top to bottom, finalised bottom to top.
constexpr Member kMembers[] = {
    {KelSimPoolManager_initialize, KelSimPoolManager_finalize},
    {KelSimContainers_initialize, KelSimContainers_finalize},
    {KelBasXmlDocument_initialize, KelBasXmlDocument_finalize},
    {KelBasXmlParser_initialize, KelBasXmlParser_finalize},
    {KelBasShared_initialize, KelBasShared_finalize},
    {KelBasCoreUtils_initialize, KelBasCoreUtils_finalize},
    {KelBasGenericsLib_initialize, KelBasGenericsLib_finalize},
    {KelBasAlloc_initialize, KelBasAlloc_finalize},
    {KelMsgBackbone_initialize, KelMsgBackbone_finalize},
    {KelMsgTypes_initialize, KelMsgTypes_finalize},
    {KelMsgUtils_initialize, KelMsgUtils_finalize},
    {KelMsgHandlers_initialize, KelMsgHandlers_finalize},
    {KelMsgModules_specific_initialize, KelMsgModules_specific_finalize},
};

}  // namespace

void KelMsgModules_specific_initialize(int& n) {
  g_specific.Initialize(n);
}
void KelMsgModules_specific_finalize(int& n) {
  g_specific.Finalize(n);
}

void KelMsgModules_initialize(int& n) {
  if (g_setCount++ != 0)
    return;
  ++n;
  for (const Member& member : kMembers)
    member.initialize(n);
}

void KelMsgModules_finalize(int& n) {
  if (--g_setCount != 0)
    return;
  --n;
  for (auto member = std::rbegin(kMembers); member != std::rend(kMembers); ++member) {
    member->finalize(n);
  }
}

extern "C" void KelMsgModules_initializeC() {
  KelMsgModules_initialize(g_processWideCount);
}
extern "C" void KelMsgModules_finalizeC() {
  KelMsgModules_finalize(g_processWideCount);
}
