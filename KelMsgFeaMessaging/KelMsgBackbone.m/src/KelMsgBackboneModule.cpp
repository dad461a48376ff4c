// The module holds no resources of its own; its entry points keep the count.
#include <KelMsgFeaMessaging/KelMsgModules.h>

#include <KelMsgFeaMessaging/KelModuleCounter.h>

namespace {
KelModuleCounter g_module;
}  // namespace

void KelMsgBackbone_initialize(int& n) {
  g_module.Initialize(n);
}
void KelMsgBackbone_finalize(int& n) {
  g_module.Finalize(n);
}

void KelFeaBackbone_initialize(int& /*n*/) {}
void KelFeaBackbone_finalize(int& /*n*/) {}
