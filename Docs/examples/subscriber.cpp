// A small subscriber of the address daemon, in C++ with sd-bus.
//
//     subscriber [COUNT]
//
// Prints a line for each change of an address, on any interface that runs a DHCP client or selects a link-local
// address; after COUNT lines, if given, it ends with status 0. It configures nothing. The daemon tells when an address
// may be used and when no longer, so there is no timer here. The daemon may come and go; whenever its name has a new
// owner, that one is subscribed to.
//
// It shows what the daemon says. A program that configures addresses would keep one of a daemon that went away until
// the lease ends, see Docs/subscriber.md.
//
// Any process may send a signal to any other, with any contents: only what the owner of the daemon's name sends counts.
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <systemd/sd-bus.h>

namespace {

using nlohmann::json;

constexpr char kService[] = "org.ostrel.dhcp";
constexpr char kPath[] = "/";
constexpr char kBus[] = "org.freedesktop.DBus";
constexpr char kOwnerChanges[] =
    "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='org.ostrel.dhcp'";

// An address that may be used, and what is said of it; both empty: there is none.
struct Held {
    std::string address;
    std::string words;
    bool operator==(const Held&) const = default;
};

struct Subscriber {
    sd_bus* bus = nullptr;
    std::string owner;                 // unique name of the daemon; empty: it is not there
    std::map<std::string, Held> held;  // by interface
    unsigned long printed = 0;
    bool isRefused = false;
};

void Print(Subscriber& self, const std::string& interface, const std::string& address, const char* words) {
    (void)printf("%s: %s %s\n", interface.c_str(), address.c_str(), words);
    (void)fflush(stdout);
    ++self.printed;
}

// The time is given in seconds of the wall clock; null: the lease has no end.
std::string WordsFor(const json& expires) {
    if (!expires.is_number()) return "is there for good";
    const auto seconds = static_cast<time_t>(expires.get<int64_t>());
    tm local{};
    std::array<char, 40> text{};
    if (localtime_r(&seconds, &local) == nullptr || strftime(text.data(), text.size(), "%F %T", &local) == 0) return "";
    return std::string("is leased until ") + text.data();
}

// What may be used of an interface: the client's address, or else the link-local one.
Held HeldOf(const json& state) {
    const json none = {{"held", false}};
    const json client = state.value("client", none);
    const json linkLocal = state.value("linkLocal", none);
    if (client.at("held") == true) return {client.at("ipv4Address"), WordsFor(client.at("expires"))};
    if (linkLocal.at("held") == true) return {linkLocal.at("ipv4Address"), "is link-local"};
    return {};
}

void Take(Subscriber& self, const std::string& interface, const Held& now) {
    Held& before = self.held[interface];
    if (now == before) return;
    if (!before.address.empty() && before.address != now.address) Print(self, interface, before.address, "is gone");
    if (!now.address.empty()) Print(self, interface, now.address, now.words.c_str());
    before = now;
}

// The text of a reply or a post. One that isn't as documented is reported and left alone.
void TakeMessage(Subscriber& self, sd_bus_message* message, bool isPosted) {
    const char* text = "";
    if (sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &text) <= 0) return;
    try {
        std::map<std::string, Held> now;
        const json list = json::parse(text).at("interfaceList");
        for (const json& state : list) now[state.at("interface")] = HeldOf(state);
        if (!isPosted)  // a reply lists all: one that is missing is not managed
            for (const auto& [interface, held] : self.held) now.try_emplace(interface);
        for (const auto& [interface, held] : now) Take(self, interface, held);
    } catch (const std::exception& error) {
        (void)fprintf(stderr, "subscriber: not understood: %s\n", error.what());
    }
}

void Subscribe(Subscriber& self) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    const int called = sd_bus_call_method(self.bus, self.owner.c_str(), kPath, kService, "interfaceState", &error,
                                          &reply, "s", R"({"subscribe":true})");
    if (called >= 0) TakeMessage(self, reply, false);
    self.isRefused = sd_bus_error_has_name(&error, SD_BUS_ERROR_ACCESS_DENIED) > 0;
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
}

int OnPost(sd_bus_message* message, void* context, sd_bus_error*) {
    auto& self = *static_cast<Subscriber*>(context);
    const char* sender = sd_bus_message_get_sender(message);
    if (sender != nullptr && self.owner == sender) TakeMessage(self, message, true);
    return 0;
}

void Follow(Subscriber& self, const char* owner) {
    self.owner = owner;
    if (self.owner.empty())
        (void)fputs("subscriber: waiting for the daemon\n", stderr);
    else
        Subscribe(self);
}

int OnOwnerChanged(sd_bus_message* message, void* context, sd_bus_error*) {
    const char* name = "";
    const char* before = "";
    const char* now = "";
    const char* sender = sd_bus_message_get_sender(message);
    if (sender == nullptr || strcmp(sender, kBus) != 0) return 0;
    if (sd_bus_message_read(message, "sss", &name, &before, &now) > 0) Follow(*static_cast<Subscriber*>(context), now);
    return 0;
}

// Whoever owns the name already. The match was added before this question, so no change can fall between the two.
void FindOwner(Subscriber& self) {
    sd_bus_message* reply = nullptr;
    const char* owner = "";
    if (sd_bus_call_method(self.bus, kBus, "/", kBus, "GetNameOwner", nullptr, &reply, "s", kService) >= 0)
        (void)sd_bus_message_read_basic(reply, SD_BUS_TYPE_STRING, &owner);
    Follow(self, owner);
    sd_bus_message_unref(reply);
}

int Connect(Subscriber& self) {
    int status = sd_bus_open_system(&self.bus);
    if (status >= 0) status = sd_bus_add_match(self.bus, nullptr, kOwnerChanges, OnOwnerChanged, &self);
    if (status >= 0)
        status =
            sd_bus_match_signal(self.bus, nullptr, nullptr, kPath, kService, "interfaceStateUpdate", OnPost, &self);
    if (status >= 0) FindOwner(self);
    return status;
}

// Until the wanted lines are printed, the bus refuses, or it is lost; 0 or a negative errno value.
int Run(Subscriber& self, unsigned long wanted) {
    while (!self.isRefused && (wanted == 0 || self.printed < wanted)) {
        int status = sd_bus_process(self.bus, nullptr);
        if (status == 0) status = sd_bus_wait(self.bus, UINT64_MAX);
        if (status < 0 && status != -EINTR) return status;
    }
    return 0;
}

// The exit status.
int Main(unsigned long wanted) {
    Subscriber self;
    int status = Connect(self);
    if (status >= 0) status = Run(self, wanted);
    if (status < 0) (void)fprintf(stderr, "subscriber: the bus: %s\n", strerror(-status));
    if (self.isRefused) (void)fputs("subscriber: the bus refuses; be root, or in the group ostrel\n", stderr);
    sd_bus_flush_close_unref(self.bus);
    return status < 0 || self.isRefused ? 1 : 0;
}

}  // namespace

int main(int argc, char* argv[]) {
    try {
        return Main(argc > 1 ? strtoul(argv[1], nullptr, 10) : 0);
    } catch (const std::exception& error) {  // memory is out
        (void)fprintf(stderr, "subscriber: %s\n", error.what());
        return 1;
    }
}
