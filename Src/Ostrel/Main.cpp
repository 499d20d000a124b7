// The process: command line, logging, one system object, one event loop.
//
// ostreld has no configuration of its own; all it manages comes over the bus while the loop runs. The loop ends on a
// termination signal, after five minutes with nothing to manage, or when the bus connection is lost. The exit status is
// the low eight bits of the status: 0, 184 without memory for the system object or a timeout, 212 without the bus. Who
// starts it by hand and fails is told why on the terminal, which it gives up once it runs.
#include <cstdlib>
#include <exception>
#include <getopt.h>
#include <string_view>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"
#include "Ostrel/System.h"

#include "eloop.h"
#include "os_console.h"
#include "os_memory.h"

// What ends the process when an exception leaves a function that lets none out. The C++ library's own handler first
// tells the exception's type, and has the decoder of such names linked in, an eighth of this program. NOLINTBEGIN
namespace __cxxabiv1 {
extern std::terminate_handler __terminate_handler;
std::terminate_handler __terminate_handler = std::abort;
}  // namespace __cxxabiv1
// NOLINTEND

namespace {

constexpr uint32_t kLogFileLimit = 10;  // MiB
constexpr int32_t kLongestLine = 65535;

constexpr std::string_view kVersion = "ostreld " OSTREL_VERSION "\n";
constexpr std::string_view kHelp =
    "usage: ostreld [-z] [-l LEVEL]\n"
    "\n"
    "IPv4 address daemon: DHCP client with ARP check, link-local addresses, DHCP server. It is told over D-Bus what "
    "to\n"
    "do, for example by ostrelctl(1), and started by the bus with the first call.\n"
    "\n"
    "  -z          debug output to /var/log/ostrel.log, from the level error up;\n"
    "              without it to the system log, all of it\n"
    "  -l LEVEL    debug output from this level up: chatty, verbose, trace, info, notice,\n"
    "              warning, assert, require, error, critical, alert, emergency, tragic\n"
    "  --help      this text\n"
    "  --version   the version\n"
    "\n"
    "More stands in ostreld(8).\n";

// What is only asked is answered before anything is started; null for a start.
const std::string_view* AnswerTo(int argc, char* argv[]) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        if (word == "--help") return &kHelp;
        if (word == "--version") return &kVersion;
    }
    return nullptr;
}

struct Options {
    bool logToFile = false;
    const char* levelName = nullptr;
};

Options ParseOptions(int argc, char* argv[]) {
    Options options;
    for (int option = getopt(argc, argv, "zl:"); option != -1; option = getopt(argc, argv, "zl:")) {
        if (option == 'z') options.logToFile = true;
        if (option == 'l') options.levelName = optarg;
    }
    return options;
}

void StartLogging(const Options& options) {
    if (options.logToFile) {
        DebugInitialize(kDebugBackEndFile, kLogFileLimit, kLogFile);
        gMaxDebugLevel = kDebugLevelError;
    } else {
        (void)QxLogGetContext(kServiceName, &gLogCxt);  // without one the default context serves
        DebugInitialize(kDebugBackEndSystemLog, kServiceName);
        gMaxDebugLevel = kDebugLevelChatty;
    }
    DebugSetProperty(kDebugPropertyMinimumLevel, gMaxDebugLevel);
    DebugSetProperty(kDebugPropertyLongestLine, kLongestLine);
    DebugRedirectStandardStreams(kLogFile);
    if (options.levelName != nullptr) Ostrel_SetDebugLevel(options.levelName);
    DebugPrintF(kDebugLevelInfo, "started %s valdo\n", kServiceName);
    Ostrel_LogPrint(kQxLogCritical, "%s\n", "OSTREL STARTED");
}

void StopLogging() {
    DebugPrintF(kDebugLevelInfo, "stopped %s\n", kServiceName);
    DebugFinalize();
}

}  // namespace

int main(int argc, char* argv[]) {
    if (const std::string_view* const answer = AnswerTo(argc, argv); answer != nullptr) {
        os_console_print(*answer);
        return 0;
    }
    os_console_keep();
    StartLogging(ParseOptions(argc, argv));

    Ostrel_SystemObj* sysRef = nullptr;
    Ostrel_Status status = Ostrel_SystemObjInitialize(&sysRef);
    if (status != kNoErr) {
        OSTREL_REPORT_EXPRESSION("sysRef");
        os_console_complain("no memory");
        StopLogging();
        return status;
    }

    status = Ostrel_DaemonStart(sysRef);
    if (status == kNoErr) {
        os_console_release();
        eloop_run();
        status = Ostrel_DaemonStop(sysRef);
    } else {
        OSTREL_REPORT_STATUS(status);
        os_console_complain("cannot start; the log says why");
    }

    os_delete(sysRef);
    StopLogging();
    return status;
}
