// The calling thread's description of its last failed bus call.
#ifndef KELBUS_SRC_LASTERROR_H_
#define KELBUS_SRC_LASTERROR_H_

#include <KelMsgFeaMessaging/KelBus.h>

#include <string>

namespace kelbus {

// Records `text` as the calling thread's last error; returns `result`.
KelBusResult Fail(KelBusResult result, std::string text);
void ClearLastError();
const char* LastErrorText();

}  // namespace kelbus

#endif  // KELBUS_SRC_LASTERROR_H_
