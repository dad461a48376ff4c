#include <KelMsgFeaMessaging/cow_String.h>

#include <cstring>

#include <KelMsgFeaMessaging/strnatcmp.h>

int cow_KeyCompare(const cow_String& a, const cow_String& b) {
  return atr_getNaturalOrder() != 0 ? strnatcmp(a.GetText(), b.GetText())
                                    : std::strcmp(a.GetText(), b.GetText());
}
