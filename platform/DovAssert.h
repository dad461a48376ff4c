// DOV_ASSERT: the base layer's check on its caller's contract.  A failed
// check reports "AssertionFailed:" and the condition as written, then ends
// the process (DovContractFailed).
//
// Each source file defines `kSourcePath`, the path named in its reports.
#ifndef KELMSGFEAMESSAGING_PLATFORM_DOVASSERT_H_
#define KELMSGFEAMESSAGING_PLATFORM_DOVASSERT_H_

#include <KelMsgFeaMessaging/DovFatalError.h>

#define DOV_ASSERT(cond)                                                  \
  do {                                                                    \
    if (!(cond))                                                          \
      DovContractFailed("AssertionFailed:" #cond, kSourcePath, __LINE__); \
  } while (0)

#endif  // KELMSGFEAMESSAGING_PLATFORM_DOVASSERT_H_
