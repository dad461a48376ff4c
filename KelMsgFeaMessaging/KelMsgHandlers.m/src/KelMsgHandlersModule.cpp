// The module holds no resources of its own; its entry points keep the count.
#include <KelMsgFeaMessaging/KelMsgModules.h>

#include <KelMsgFeaMessaging/KelModuleCounter.h>

namespace {
KelModuleCounter g_module;
}  // namespace

void KelMsgHandlers_initialize(int& n) {
  g_module.Initialize(n);
}
void KelMsgHandlers_finalize(int& n) {
  g_module.Finalize(n);
}
