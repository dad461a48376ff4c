// The module holds no resources of its own; its entry points keep the count.
#include <KelMsgFeaMessaging/KelMsgModules.h>

#include <KelMsgFeaMessaging/KelModuleCounter.h>

namespace {
KelModuleCounter g_module;
}  // namespace

void KelMsgUtils_initialize(int& n) {
  g_module.Initialize(n);
}
void KelMsgUtils_finalize(int& n) {
  g_module.Finalize(n);
}
