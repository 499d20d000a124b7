// Where the report of a failed check goes.
//
// The server, the bus service and the JSON helpers answer to whoever reads the system log; the rest of the daemon
// reports among its debug output, next to the lines that led there.
#include "Ostrel/Check.h"

#include <algorithm>
#include <array>

#include "Ostrel/Log.h"

namespace {

constexpr std::array<std::string_view, 3> kSystemLogAreas{"Src/DHCPServer", "Src/OstrelVoroBus", "Src/OstrelJsonUtils"};

}  // namespace

void Ostrel_ReportFailure(Ostrel_Status status, const char* expression, std::string_view area, int line,
                          const char* function) {
    if (std::find(kSystemLogAreas.begin(), kSystemLogAreas.end(), area) == kSystemLogAreas.end()) {
        DebugPrintAssert(status, expression, nullptr, area, line, function);
        return;
    }
    if (Ostrel_LogWanted(kQxLogError)) QxLogPrintAssert(gLogCxt, status, expression, area, line, function);
}
