// KelBasTreeGeneric: the ordered map from KelString keys to values.
//
// Keys are unique and ordered byte-wise by their UTF-8 text (strcmp); a
// KelString that holds no text orders as "".  Elements are pairs whose key is
// const; copying the map shares every string's text.
#ifndef KELMSGFEAMESSAGING_KELBASTREEGENERIC_H_
#define KELMSGFEAMESSAGING_KELBASTREEGENERIC_H_

#include <cstring>
#include <map>

#include <KelMsgFeaMessaging/KelString.h>

// The key order of every KelBasTreeGeneric.
struct KelBasStandardComparitor {
  bool operator()(const KelString& a, const KelString& b) const noexcept {
    return std::strcmp(a.GetUTF8(), b.GetUTF8()) < 0;
  }
};

template <typename Value>
using KelBasTreeGeneric = std::map<KelString, Value, KelBasStandardComparitor>;

#endif  // KELMSGFEAMESSAGING_KELBASTREEGENERIC_H_
