// The sibling libraries hold nothing this library uses, so their stand-ins
// only keep the counts.
#include <KelMsgFeaMessaging/KelSiblingLibraries.h>

#include <KelMsgFeaMessaging/KelModuleCounter.h>

namespace {
KelModuleCounter g_poolManager;
KelModuleCounter g_containers;
KelModuleCounter g_xmlDocument;
KelModuleCounter g_xmlParser;
KelModuleCounter g_shared;
KelModuleCounter g_coreUtils;
KelModuleCounter g_genericsLib;
KelModuleCounter g_alloc;
}  // namespace

void KelSimPoolManager_initialize(int& n) {
  g_poolManager.Initialize(n);
}
void KelSimPoolManager_finalize(int& n) {
  g_poolManager.Finalize(n);
}
void KelSimContainers_initialize(int& n) {
  g_containers.Initialize(n);
}
void KelSimContainers_finalize(int& n) {
  g_containers.Finalize(n);
}
void KelBasXmlDocument_initialize(int& n) {
  g_xmlDocument.Initialize(n);
}
void KelBasXmlDocument_finalize(int& n) {
  g_xmlDocument.Finalize(n);
}
void KelBasXmlParser_initialize(int& n) {
  g_xmlParser.Initialize(n);
}
void KelBasXmlParser_finalize(int& n) {
  g_xmlParser.Finalize(n);
}
void KelBasShared_initialize(int& n) {
  g_shared.Initialize(n);
}
void KelBasShared_finalize(int& n) {
  g_shared.Finalize(n);
}
void KelBasCoreUtils_initialize(int& n) {
  g_coreUtils.Initialize(n);
}
void KelBasCoreUtils_finalize(int& n) {
  g_coreUtils.Finalize(n);
}
void KelBasGenericsLib_initialize(int& n) {
  g_genericsLib.Initialize(n);
}
void KelBasGenericsLib_finalize(int& n) {
  g_genericsLib.Finalize(n);
}
void KelBasAlloc_initialize(int& n) {
  g_alloc.Initialize(n);
}
void KelBasAlloc_finalize(int& n) {
  g_alloc.Finalize(n);
}
