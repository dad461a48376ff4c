// Start-up and shut-down of the library.
//
// Every entry point takes the caller's shared count `n`: a module adds 1 to
// it on its first initialisation and takes 1 away on the finalisation that
// balances its last one.  KelMsgModules_initialize brings up, in this order,
// the eight sibling libraries (KelSiblingLibraries.h), then KelMsgBackbone,
// KelMsgTypes, KelMsgUtils, KelMsgHandlers and the set's specific part;
// KelMsgModules_finalize takes them down in the exact reverse order.  Only
// the first initialise and the balancing finalise of the set do any work.
// Start-up and shut-down run on one thread.
#ifndef KELMSGFEAMESSAGING_KELMSGMODULES_H_
#define KELMSGFEAMESSAGING_KELMSGMODULES_H_

void KelMsgModules_initialize(int& n);
void KelMsgModules_finalize(int& n);
void KelMsgModules_specific_initialize(int& n);
void KelMsgModules_specific_finalize(int& n);

void KelMsgBackbone_initialize(int& n);
void KelMsgBackbone_finalize(int& n);
void KelMsgTypes_initialize(int& n);
void KelMsgTypes_finalize(int& n);
void KelMsgUtils_initialize(int& n);
void KelMsgUtils_finalize(int& n);
void KelMsgHandlers_initialize(int& n);
void KelMsgHandlers_finalize(int& n);

// Kept for callers of the former backbone; they neither count nor touch `n`.
void KelFeaBackbone_initialize(int& n);
void KelFeaBackbone_finalize(int& n);

// The set with a process-wide count, under plain names for any caller.
extern "C" void KelMsgModules_initializeC();
extern "C" void KelMsgModules_finalizeC();

#endif  // KELMSGFEAMESSAGING_KELMSGMODULES_H_
