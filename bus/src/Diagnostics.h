// The bus's own diagnostic lines (see KelBusSetDiagnosticSink): every line
// the bus writes goes through here.
#ifndef KELBUS_SRC_DIAGNOSTICS_H_
#define KELBUS_SRC_DIAGNOSTICS_H_

#include <string>

namespace kelbus {

// Hands `line` (no newline) to the installed sink; any thread.
void Diagnose(const std::string& line);

}  // namespace kelbus

#endif  // KELBUS_SRC_DIAGNOSTICS_H_
