// The process: command line, logging, one system object, one event loop.
//
// ostreld has no configuration of its own; all it manages comes over the bus while the loop runs. The loop ends on a
// termination signal, after five minutes with nothing to manage, or when the bus connection is lost. The exit status is
// the low eight bits of the status: 0, 184 without memory for the system object, 212 without the bus.
#include <getopt.h>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"
#include "Ostrel/System.h"

#include "eloop.h"
#include "os_memory.h"

namespace {

constexpr uint32_t kLogFileLimit = 10;  // MiB
constexpr int32_t kLongestLine = 65535;

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
    StartLogging(ParseOptions(argc, argv));

    Ostrel_SystemObj* sysRef = nullptr;
    Ostrel_Status status = Ostrel_SystemObjInitialize(&sysRef);
    if (status != kNoErr) {
        OSTREL_REPORT_EXPRESSION("sysRef");
        StopLogging();
        return status;
    }

    status = Ostrel_DaemonStart(sysRef);
    if (status == kNoErr) {
        eloop_run();
        status = Ostrel_DaemonStop(sysRef);
    } else {
        OSTREL_REPORT_STATUS(status);
    }

    os_delete(sysRef);
    StopLogging();
    return status;
}
