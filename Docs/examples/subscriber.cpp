// A small subscriber of the address daemon, in C++ with sd-bus.
//
//     subscriber [COUNT]
//
// Prints a line for each change of an address, on any interface that runs a DHCP client; after COUNT lines, if given,
// it ends with status 0. It configures nothing. Leases are printed when the daemon posts them. What it doesn't post is
// asked for every two seconds: the loss of a lease, a link-local address, and what was there before this program. An
// address in a reply may still be in its ARP check, so it counts when it has stood for long enough. The daemon may come
// and go; whenever its name has a new owner, that one is subscribed to.
//
// A request without an interface is answered for all of them, but the daemon logs it as an error. So each one that is
// known is asked about by its name, and all of them only now and then.
//
// It shows what the daemon says. A program that configures addresses would keep one of a daemon that went away until
// the lease ends, see Docs/subscriber.md.
//
// Any process may send a signal to any other, with any contents: only what the owner of the daemon's name sends counts.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <systemd/sd-bus.h>
#include <vector>

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr char kService[] = "org.ostrel.dhcp";
constexpr char kInterface[] = "org.ostrel.dhcp.client";
constexpr char kPath[] = "/client";
constexpr char kBus[] = "org.freedesktop.DBus";
constexpr char kOwnerChanges[] =
    "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='org.ostrel.dhcp'";
constexpr char kNone[] = "0.0.0.0";
constexpr auto kAskInterval = 2s;
constexpr auto kLookInterval = 30s;   // for interfaces that are not known yet
constexpr auto kLeaseCheck = 3s;      // the ARP check of a lease takes two
constexpr auto kLinkLocalCheck = 6s;  // probes and the first announcement take up to five

struct Address {
    std::string text = kNone;
    Clock::time_point since;
    bool isPrinted = false;
};

struct Subscriber {
    sd_bus* bus = nullptr;
    std::string owner;                         // unique name of the daemon; empty: it is not there
    std::map<std::string, Address> addresses;  // by interface
    Clock::time_point nextLook;
    unsigned long printed = 0;
    bool isRefused = false;
};

void Print(Subscriber& self, const std::string& interface, Address& address, const std::string& words) {
    printf("%s: %s %s\n", interface.c_str(), address.text.c_str(), words.c_str());
    (void)fflush(stdout);
    address.isPrinted = true;
    ++self.printed;
}

void Lose(Subscriber& self, const std::string& interface, Address& address) {
    if (address.isPrinted) Print(self, interface, address, "is gone");
    address = {};
}

// A lease has a time, and a subnet: without one it is an address that was only wished for.
bool IsLease(const json& entry) {
    return entry.contains("leaseTime") && entry.value("ipv4Subnet", kNone) != kNone;
}

std::string WordsFor(const json& entry) {
    if (!IsLease(entry)) return "is link-local";
    return "is leased until " + entry.value("leaseExpiryString", "the end of time");
}

// One element of an "interfaceList".
void Take(Subscriber& self, const json& entry, bool isPosted) {
    const std::string interface = entry.value("interface", "");
    const bool isLinkLocal = !entry.contains("leaseTime");
    const std::string text = isLinkLocal || IsLease(entry) ? entry.value("ipv4Address", kNone) : kNone;
    Address& address = self.addresses[interface];
    if (address.text != text) {
        Lose(self, interface, address);
        address = {.text = text, .since = Clock::now()};
    }
    const bool hasStood = Clock::now() - address.since >= (isLinkLocal ? kLinkLocalCheck : kLeaseCheck);
    if (text != kNone && (isPosted || (!address.isPrinted && hasStood)))
        Print(self, interface, address, WordsFor(entry));
}

// A reply lists what was asked about, an interface or all: one that is missing is no longer managed.
void LoseMissing(Subscriber& self, const json& list, const std::string& asked) {
    for (auto known = self.addresses.begin(); known != self.addresses.end();) {
        const std::string interface = known->first;
        const auto isIt = [&interface](const json& entry) { return entry.value("interface", "") == interface; };
        const bool isManaged = std::any_of(list.begin(), list.end(), isIt);
        if (isManaged || (!asked.empty() && asked != interface)) {
            ++known;
        } else {
            Lose(self, interface, known->second);
            known = self.addresses.erase(known);
        }
    }
}

// The text of a reply or a post. One that isn't as documented is reported and left alone.
void TakeMessage(Subscriber& self, sd_bus_message* message, bool isPosted, const std::string& asked) {
    const char* text = "";
    if (sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &text) <= 0) return;
    try {
        const json list = json::parse(text).at("interfaceList");
        for (const json& entry : list) Take(self, entry, isPosted);
        if (!isPosted) LoseMissing(self, list, asked);
    } catch (const std::exception& error) {
        (void)fprintf(stderr, "subscriber: not understood: %s\n", error.what());
    }
}

// Asks what there is on an interface, or with an empty name on all; and with `subscribe` to be told of what comes.
void Ask(Subscriber& self, const std::string& interface, bool subscribe) {
    json request = json::object();
    if (!interface.empty()) request["interface"] = interface;
    if (subscribe) request["subscribe"] = true;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    const int called = sd_bus_call_method(self.bus, self.owner.c_str(), kPath, kInterface, "leaseInformation", &error,
                                          &reply, "s", request.dump().c_str());
    if (called >= 0) TakeMessage(self, reply, false, interface);
    self.isRefused = sd_bus_error_has_name(&error, SD_BUS_ERROR_ACCESS_DENIED) > 0;
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
}

int OnPost(sd_bus_message* message, void* context, sd_bus_error*) {
    auto& self = *static_cast<Subscriber*>(context);
    const char* sender = sd_bus_message_get_sender(message);
    if (sender != nullptr && self.owner == sender) TakeMessage(self, message, true, "");
    return 0;
}

void AskAgain(Subscriber& self) {
    if (Clock::now() >= self.nextLook) {
        self.nextLook = Clock::now() + kLookInterval;
        return Ask(self, "", false);
    }
    std::vector<std::string> names;  // answers change the map
    for (const auto& [interface, address] : self.addresses) names.push_back(interface);
    for (const std::string& interface : names) Ask(self, interface, false);
}

void Follow(Subscriber& self, const char* owner) {
    self.owner = owner;
    if (self.owner.empty()) {
        (void)fputs("subscriber: waiting for the daemon\n", stderr);
    } else {
        Ask(self, "", true);
        self.nextLook = Clock::now() + kLookInterval;
    }
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
            sd_bus_match_signal(self.bus, nullptr, nullptr, kPath, kInterface, "leaseInformationUpdate", OnPost, &self);
    if (status >= 0) FindOwner(self);
    return status;
}

// Until the wanted lines are printed, the bus refuses, or it is lost; 0 or a negative errno value.
int Run(Subscriber& self, unsigned long wanted) {
    for (auto next = Clock::now() + kAskInterval; !self.isRefused && (wanted == 0 || self.printed < wanted);) {
        const int handled = sd_bus_process(self.bus, nullptr);
        if (handled < 0) return handled;
        if (handled > 0) continue;
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(next - Clock::now()).count();
        if (left > 0) {
            const int waited = sd_bus_wait(self.bus, static_cast<uint64_t>(left));
            if (waited < 0 && waited != -EINTR) return waited;
            continue;
        }
        if (!self.owner.empty()) AskAgain(self);
        next = Clock::now() + kAskInterval;
    }
    return 0;
}

// The exit status.
int Subscribe(unsigned long wanted) {
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
        return Subscribe(argc > 1 ? strtoul(argv[1], nullptr, 10) : 0);
    } catch (const std::exception& error) {  // memory is out
        (void)fprintf(stderr, "subscriber: %s\n", error.what());
        return 1;
    }
}
