// ostrelwatch: a subscriber of the address daemon, and an example of one.
//
//     ostrelwatch [-n COUNT] [-t SECONDS] CATEGORY METHOD [REQUEST]
//
// Calls the method with a request that asks to be subscribed, prints the reply, and then every update that the daemon
// posts, each on a line of its own. Updates come as signals to this connection alone, so no match rule is needed; the
// order is the daemon's, so nothing posted after the reply can be missed.
//
// Exit status: 0 after COUNT updates, 1 after SECONDS without one, 2 when the call was refused, 3 when the daemon is
// not there or leaves the bus, 64 for a wrong command line.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <systemd/sd-bus.h>
#include <unistd.h>

namespace {

constexpr char kService[] = "org.ostrel.dhcp";
constexpr char kDeparture[] =
    "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='org.ostrel.dhcp',arg2=''";

enum ExitStatus { kSeen = 0, kTimedOut = 1, kRefused = 2, kNotThere = 3, kUsage = 64 };

using Clock = std::chrono::steady_clock;

struct Options {
    std::optional<unsigned long> count;            // updates to wait for; without it, all there are
    std::optional<std::chrono::seconds> patience;  // for the next update; without it, for ever
    std::string category, method, request = R"({"subscribe":true})";

    [[nodiscard]] std::string Interface() const {
        return category == "/" ? kService : kService + ("." + category.substr(1));
    }
};

std::optional<unsigned long> ReadNumber(const char* text) {
    char* end = nullptr;
    const unsigned long number = strtoul(text, &end, 10);
    if (*text < '0' || *text > '9' || *end != '\0') return std::nullopt;
    return number;
}

bool ReadOptions(int argc, char* argv[], Options& options) {
    for (int letter; (letter = getopt(argc, argv, "n:t:")) != -1;) {
        if (letter != 'n' && letter != 't') return false;
        const auto number = ReadNumber(optarg);
        if (!number) return false;
        if (letter == 'n') options.count = number;
        if (letter == 't') options.patience = std::chrono::seconds(*number);
    }
    const int words = argc - optind;
    if (words < 2 || words > 3 || argv[optind][0] != '/') return false;
    options.category = argv[optind];
    options.method = argv[optind + 1];
    if (words == 3) options.request = argv[optind + 2];
    return true;
}

void PrintText(sd_bus_message* message) {
    const char* text = "";
    (void)sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &text);
    puts(text);
    (void)fflush(stdout);
}

int Subscribe(sd_bus* bus, const Options& options) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    const int called = sd_bus_call_method(bus, kService, options.category.c_str(), options.Interface().c_str(),
                                          options.method.c_str(), &error, &reply, "s", options.request.c_str());
    if (called >= 0) PrintText(reply);
    if (called < 0) (void)fprintf(stderr, "ostrelwatch: %s\n", error.message);
    const bool absent = sd_bus_error_has_names(&error, SD_BUS_ERROR_SERVICE_UNKNOWN, SD_BUS_ERROR_NAME_HAS_NO_OWNER,
                                               SD_BUS_ERROR_NO_REPLY, SD_BUS_ERROR_DISCONNECTED) > 0;
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    return called >= 0 ? kSeen : absent ? kNotThere : kRefused;
}

// Sleeps until there is traffic; false when the time is over.
bool WaitForTraffic(sd_bus* bus, const std::optional<Clock::time_point>& deadline) {
    if (!deadline) return sd_bus_wait(bus, UINT64_MAX) >= 0;
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(*deadline - Clock::now()).count();
    return left > 0 && sd_bus_wait(bus, static_cast<uint64_t>(left)) >= 0;
}

int PrintUpdates(sd_bus* bus, const Options& options, const bool& departed) {
    const std::string interface = options.Interface(), signal = options.method + "Update";
    std::optional<Clock::time_point> deadline;
    if (options.patience) deadline = Clock::now() + *options.patience;
    for (unsigned long seen = 0; seen != options.count;) {
        sd_bus_message* message = nullptr;
        const int handled = sd_bus_process(bus, &message);
        if (message != nullptr && sd_bus_message_is_signal(message, interface.c_str(), signal.c_str()) > 0) {
            PrintText(message);
            ++seen;
            if (options.patience) deadline = Clock::now() + *options.patience;
        }
        sd_bus_message_unref(message);
        if (handled < 0 || departed) return kNotThere;
        if (handled == 0 && !WaitForTraffic(bus, deadline)) return kTimedOut;
    }
    return kSeen;
}

int OnDeparture(sd_bus_message*, void* departed, sd_bus_error*) {
    *static_cast<bool*>(departed) = true;
    return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
    Options options;
    if (!ReadOptions(argc, argv, options)) {
        (void)fputs("usage: ostrelwatch [-n COUNT] [-t SECONDS] CATEGORY METHOD [REQUEST]\n", stderr);
        return kUsage;
    }
    sd_bus* bus = nullptr;
    bool departed = false;
    int status = sd_bus_open_system(&bus);
    if (status >= 0) status = sd_bus_add_match(bus, nullptr, kDeparture, OnDeparture, &departed);
    if (status < 0) {
        (void)fprintf(stderr, "ostrelwatch: the bus cannot be reached: %s\n", strerror(-status));
        return kNotThere;
    }
    int result = Subscribe(bus, options);
    if (result == kSeen) result = PrintUpdates(bus, options, departed);
    sd_bus_flush_close_unref(bus);
    return result;
}
