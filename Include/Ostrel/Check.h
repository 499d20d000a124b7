// Failed checks: reported where they happen, with the status, the text of what should have held, the area of the
// sources, the line and the function. Reporting never ends anything; the caller goes on with its own failure path.
//
// The text of an expression is part of the log that others read and search: it stays as it is when the code behind it
// changes, and may name what the code no longer has.
//
// The server, the bus service and the JSON helpers report to the system log, everything else to the debug output.
#pragma once

#include <string_view>

#include "Ostrel/Status.h"

// The area of a source file: its directory, "Src/DHCPClient" for "Src/DHCPClient/Client.cpp".
consteval std::string_view Ostrel_AreaOf(std::string_view file) {
    const size_t start = file.rfind("Src/");
    if (start != std::string_view::npos) file.remove_prefix(start);
    const size_t slash = file.rfind('/');
    return slash == std::string_view::npos ? file : file.substr(0, slash);
}

// Writes the report. `expression` is null for a failed status, and `status` 0 for a failed expression.
void Ostrel_ReportFailure(Ostrel_Status status, const char* expression, std::string_view area, int line,
                          const char* function);

#define OSTREL_REPORT_STATUS(status) \
    Ostrel_ReportFailure((status), nullptr, Ostrel_AreaOf(__FILE__), __LINE__, __func__)

#define OSTREL_REPORT_EXPRESSION(text) Ostrel_ReportFailure(0, (text), Ostrel_AreaOf(__FILE__), __LINE__, __func__)

// Returns `result` from the function, reporting `text` under the name `function`, unless the condition holds. For the
// helpers of a bus method or publication: whoever reads the log knows the method, not how it is cut up.
#define OSTREL_REQUIRE_IN(function, condition, text, result)                                \
    do {                                                                                    \
        if (!(condition)) {                                                                 \
            Ostrel_ReportFailure(0, (text), Ostrel_AreaOf(__FILE__), __LINE__, (function)); \
            return result;                                                                  \
        }                                                                                   \
    } while (false)

// Returns a status other than kNoErr from the function, reporting it likewise.
#define OSTREL_REQUIRE_NOERR_IN(function, status)                                                         \
    do {                                                                                                  \
        const Ostrel_Status requiredStatus = (status);                                                    \
        if (requiredStatus != kNoErr) {                                                                   \
            Ostrel_ReportFailure(requiredStatus, nullptr, Ostrel_AreaOf(__FILE__), __LINE__, (function)); \
            return requiredStatus;                                                                        \
        }                                                                                                 \
    } while (false)

// The same under the name of the function that they stand in. A status that is passed on is reported again where a
// failed step ends a larger one that the log should name: a bus method, the making of a role, the handling of a frame.
// Between helpers of one such step it is returned as it is, because the first report says all that is known.
#define OSTREL_REQUIRE(condition, text, result) OSTREL_REQUIRE_IN(__func__, condition, text, result)
#define OSTREL_REQUIRE_NOERR(status) OSTREL_REQUIRE_NOERR_IN(__func__, status)
