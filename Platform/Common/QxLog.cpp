// Named contexts of the system log and the way from a format to its lines.
//
// Contexts live as long as the process, so they stand in a small static table and cannot leak. A program needs one.
#include "QxLog.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "LogBackEnd.h"

namespace {

constexpr size_t kMostContexts = 8;
constexpr const char* kLevelVariable = "OSTREL_LOG_LEVEL";

std::array<QxLogContext, kMostContexts> contexts;
size_t contextCount = 0;

// What the environment says, when it is one digit of a syslog level; level 6 otherwise.
int32_t InitialLevel() noexcept {
    const char* const text = std::getenv(kLevelVariable);
    if (text == nullptr || text[0] < '0' || text[0] > '7' || text[1] != '\0') return kQxLogInfo;
    return text[0] - '0';
}

}  // namespace

int QxLogGetContext(const char* name, QxLogContext** context) noexcept {
    *context = nullptr;
    const auto end = contexts.begin() + contextCount;
    const auto known = std::find_if(
        contexts.begin(), end, [name](const QxLogContext& one) { return std::strcmp(one.name.data(), name) == 0; });
    if (known != end) {
        *context = &*known;
        return 0;
    }
    const size_t length = std::strlen(name);
    if (contextCount == kMostContexts || length >= contexts[0].name.size()) return -1;
    QxLogContext& added = contexts[contextCount++];
    std::copy_n(name, length + 1, added.name.begin());
    added.level = InitialLevel();
    *context = &added;
    return 0;
}

int32_t QxLogGetLevel(const QxLogContext* context) noexcept {
    return context == nullptr ? kQxLogDebug : context->level;
}

void QxLogWriteFormatted(const QxLogContext* context, int32_t level, const LogSite& site, const char* format,
                         std::span<const FormatArgument> arguments) noexcept {
    LogWriteLines(site, {true, context, level}, format, arguments, kLogLongestLine,
                  [=](std::string_view line) noexcept { QxLogBackEndWrite(context, level, line); });
}

void QxLogPrintAssert(const QxLogContext* context, int32_t status, const char* expression, std::string_view source,
                      int line, const char* function) noexcept {
    const char* const text = expression == nullptr ? "" : expression;
    const std::array<FormatArgument, 6> arguments{FormatArgument(status), FormatArgument(text),
                                                  FormatArgument(""),     FormatArgument(source),
                                                  FormatArgument(line),   FormatArgument(function)};
    QxLogWriteFormatted(context, kQxLogError, {function, line}, "%d %s %s %s %d %s\n", arguments);
}
