// A bare service on the bus, and calls as fast as answers come: what a daemon's own share of a call is measured by.
//
//     busload echo TEXT                      owns org.ostrel.bench, whose method leaseInformation answers TEXT
//     busload call NAME SECONDS REQUEST      calls leaseInformation of /server of that name, one call after the other
//
// On the system bus. `call` prints how many calls it were in a second, and the length of the last answer.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <systemd/sd-bus.h>

namespace {

constexpr char kName[] = "org.ostrel.bench";
constexpr char kPath[] = "/server";
constexpr char kInterface[] = "org.ostrel.dhcp.server";

int Fail(const char* what, int error) {
    (void)std::fprintf(stderr, "busload: %s: %s\n", what, std::strerror(-error));
    return 1;
}

int Answer(sd_bus_message* message, void* text, sd_bus_error*) {
    return sd_bus_reply_method_return(message, "s", static_cast<const char*>(text));
}

constexpr sd_bus_vtable kMethods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("leaseInformation", "s", "s", Answer, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

int Echo(sd_bus* bus, char* text) {
    int result = sd_bus_add_object_vtable(bus, nullptr, kPath, kInterface, kMethods, text);
    if (result >= 0) result = sd_bus_request_name(bus, kName, 0);
    while (result >= 0) {
        result = sd_bus_process(bus, nullptr);
        if (result == 0) result = sd_bus_wait(bus, UINT64_MAX);
    }
    return Fail("echo", result);
}

int Call(sd_bus* bus, const char* name, double seconds, const char* request) {
    using Clock = std::chrono::steady_clock;
    const auto begun = Clock::now();
    const auto elapsed = [begun] { return std::chrono::duration<double>(Clock::now() - begun).count(); };
    size_t calls = 0, length = 0;
    for (; elapsed() < seconds; ++calls) {
        sd_bus_message* reply = nullptr;
        const char* text = nullptr;
        int result =
            sd_bus_call_method(bus, name, kPath, kInterface, "leaseInformation", nullptr, &reply, "s", request);
        if (result >= 0) result = sd_bus_message_read(reply, "s", &text);
        if (result < 0) return Fail(name, result);
        length = std::strlen(text);
        sd_bus_message_unref(reply);
    }
    std::printf("%.0f calls a second, %zu bytes\n", static_cast<double>(calls) / elapsed(), length);
    return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
    const std::string_view what = argc > 1 ? argv[1] : "";
    sd_bus* bus = nullptr;
    const int opened = sd_bus_open_system(&bus);
    if (opened < 0) return Fail("bus", opened);
    if (what == "echo" && argc == 3) return Echo(bus, argv[2]);
    if (what == "call" && argc == 5) return Call(bus, argv[2], std::strtod(argv[3], nullptr), argv[4]);
    (void)std::fprintf(stderr, "usage: busload echo TEXT | call NAME SECONDS REQUEST\n");
    return 2;
}
