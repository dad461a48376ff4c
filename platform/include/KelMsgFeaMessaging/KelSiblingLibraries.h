// Entry points of the eight sibling libraries the module set brings up.  Each
// follows the counting contract of the module entry points: the first
// initialise adds 1 to `n`, the finalise that balances the last one takes it
// away again.
#ifndef KELMSGFEAMESSAGING_KELSIBLINGLIBRARIES_H_
#define KELMSGFEAMESSAGING_KELSIBLINGLIBRARIES_H_

void KelSimPoolManager_initialize(int& n);
void KelSimPoolManager_finalize(int& n);
void KelSimContainers_initialize(int& n);
void KelSimContainers_finalize(int& n);
void KelBasXmlDocument_initialize(int& n);
void KelBasXmlDocument_finalize(int& n);
void KelBasXmlParser_initialize(int& n);
void KelBasXmlParser_finalize(int& n);
void KelBasShared_initialize(int& n);
void KelBasShared_finalize(int& n);
void KelBasCoreUtils_initialize(int& n);
void KelBasCoreUtils_finalize(int& n);
void KelBasGenericsLib_initialize(int& n);
void KelBasGenericsLib_finalize(int& n);
void KelBasAlloc_initialize(int& n);
void KelBasAlloc_finalize(int& n);

#endif  // KELMSGFEAMESSAGING_KELSIBLINGLIBRARIES_H_
