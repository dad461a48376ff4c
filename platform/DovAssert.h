// DOV_ASSERT: the base layer's check on its caller's contract.  A failed
// check reports "AssertionFailed:" and the condition as written, then ends
// the process (DovContractFailed).  The report names the file by its
// DOV_SOURCE_PATH.
#ifndef KELMSGFEAMESSAGING_PLATFORM_DOVASSERT_H_
#define KELMSGFEAMESSAGING_PLATFORM_DOVASSERT_H_

#include <KelMsgFeaMessaging/DovFatalError.h>
#include <KelMsgFeaMessaging/DovSourcePath.h>

#define DOV_ASSERT(cond)                                                      \
  do {                                                                        \
    if (!(cond))                                                              \
      DovContractFailed("AssertionFailed:" #cond, DOV_SOURCE_PATH, __LINE__); \
  } while (0)

#endif  // KELMSGFEAMESSAGING_PLATFORM_DOVASSERT_H_
