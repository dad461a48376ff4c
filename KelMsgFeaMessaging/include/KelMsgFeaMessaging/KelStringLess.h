// Byte-wise (strcmp) order of KelString texts, for ordered containers.
#ifndef KELMSGFEAMESSAGING_KELSTRINGLESS_H_
#define KELMSGFEAMESSAGING_KELSTRINGLESS_H_

#include <cstring>

#include <KelMsgFeaMessaging/KelString.h>

struct KelStringLess {
  bool operator()(const KelString& a, const KelString& b) const noexcept {
    return std::strcmp(a.GetUTF8(), b.GetUTF8()) < 0;
  }
};

#endif  // KELMSGFEAMESSAGING_KELSTRINGLESS_H_
