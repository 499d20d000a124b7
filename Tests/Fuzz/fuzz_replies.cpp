// What the daemon says, as ostrelctl reads it: lines, one after the other as they would come. The first letter picks
// the reader, the rest is a reply, a post or a line of the log.
//
// Nothing that is read can break a line or steer a terminal once it is in words, and what happened can be told as JSON.

#include <array>
#include <cstdlib>
#include <string>

#include "Lines.h"
#include "ostrelctl/Counters.h"
#include "ostrelctl/Happening.h"
#include "ostrelctl/Holding.h"
#include "ostrelctl/KeptFile.h"
#include "ostrelctl/Lease.h"
#include "ostrelctl/Lines.h"
#include "ostrelctl/Managed.h"
#include "ostrelctl/Terminal.h"

namespace {

using namespace ostrelctl;

constexpr int64_t kNow = 1'780'000'000;

void Require(bool holds) {
    if (!holds) std::abort();
}

void RequireWords(const std::string& text) {
    Require(Printable(text) == text);
}

void RequireJson(const valdo::JValue& value) {
    std::string text;
    valdo::JDomParser parser;
    Require(ToText(value, text) && parser.parse(text, valdo::JSchemaFragment("{}")));
}

// What has been heard of an interface so far.
struct Heard {
    std::optional<InterfaceState> state{};
    Holding holding{};
    TimePoint now{};
};

void Tell(const Happening& happening) {
    RequireWords(WordsOf(happening));
    Require(std::string_view("+-! ").find(SignOf(happening)) != std::string_view::npos);
    valdo::JValue line = valdo::Object();
    PutHappening(line, happening);
    RequireJson(line);
}

void Tell(Heard& heard, const InterfaceState& state) {
    for (const Happening& happening : HappeningsBetween(heard.state, state)) Tell(happening);
    for (const CounterGroup& group : CountersOf(state)) RequireWords(group.words);
    heard.state = state;
    Hear(heard.holding, state, {.wall = kNow * 1000, .heard = heard.now});
}

void TellLeases(Heard& heard, const valdo::JValue& root) {
    for (const ClientLease& lease : ReadClientLeases(root)) {
        Hear(heard.holding, lease, {.wall = kNow * 1000, .heard = heard.now});
        valdo::JValue line = valdo::Object();
        PutLease(line, lease);
        RequireJson(line);
        RequireWords(AddressWithPrefix(lease.address, lease.mask) + AddressText(lease.routers) + lease.others);
        if (lease.times) RequireWords(ClockText(lease.times->began, kNow));
    }
}

void TellTable(Heard& /*heard*/, const valdo::JValue& root) {
    for (const ServerLease& lease : ReadServerLeases(root)) {
        valdo::JValue line = valdo::Object();
        PutLease(line, lease);
        RequireJson(line);
        const valdo::JValue kept = LeasesOf(root, lease.interface);
        if (kept.isArray()) RequireJson(kept);
    }
}

void TellStates(Heard& heard, const valdo::JValue& root) {
    for (const InterfaceState& state : ReadStates(root)) Tell(heard, state);
    heard.now += std::chrono::minutes(10);
    (void)NextEnd(heard.holding);
    GiveUpEnded(heard.holding, heard.now);
}

void TellManaged(Heard& /*heard*/, const valdo::JValue& root) {
    for (const Managed& one : ReadManaged(root)) RequireWords(std::string(RulesText(one)) + RoleText(one));
}

void TellEvent(Heard& /*heard*/, const valdo::JValue& root) {
    if (const auto happening = ReadLeaseEvent(root)) Tell(*happening);
}

constexpr std::array kReaders{TellLeases, TellTable, TellStates, TellManaged, TellEvent};

}  // namespace

// The words come from the corpus, which the daemon has written.
const sim::fuzz::Vocabulary& sim::fuzz::TargetVocabulary() {
    static const Vocabulary words{
        {"interfaceList",
         "interface",
         "leases",
         "client",
         "linkLocal",
         "server",
         "state",
         "since",
         "reason",
         "address",
         "held",
         "conflict",
         "mac",
         "link",
         "rules",
         "managed",
         "staticRoutes",
         "destination",
         "router",
         "leaseTime",
         "leaseTimeString",
         "leaseExpiryString",
         "hostName",
         "clientIdentifier",
         "searchDomains",
         "mtu",
         "event",
         "expires",
         "renews",
         "counters",
         "options",
         "ipv4Address",
         "dnsServers",
         "dropped"},
        {R"("BOUND")", R"("0.0.0.0")", R"("169.254.1.1")", R"("192.0.2.10")", R"("Mon Nov 16 11:40:22 2026")",
         "1780000600", R"("down")", R"("nak")", R"("HELD")", R"({"address":"192.0.2.9","mac":"02:00:00:00:00:01"})",
         R"("granted")", R"([{"destination":"10.0.0.0/8","router":"0.0.0.0"}])", R"("a\tb\u202e")", "-1", "4294967295"},
        {"c{\"returnValue\":true,\"interfaceList\":[{\"interface\":\"eth0\",\"managed\":true}]}",
         "f[eth0 (1003)] DHCP state transition SELECTING -> REQUESTING.",
         "e{\"interface\":\"eth0\",\"event\":\"granted\"}"}};
    return words;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Heard heard;
    for (const std::string& line : sim::fuzz::SplitLines({reinterpret_cast<const char*>(data), size})) {
        const auto letter = static_cast<uint8_t>(line.front() - 'a') % (kReaders.size() + 1);
        const std::string_view text = std::string_view(line).substr(1);
        valdo::JDomParser parser;
        if (letter == kReaders.size()) {
            if (const auto happening = ReadLogLine(text)) Tell(*happening);
        } else if (parser.parse(text, valdo::JSchemaFragment("{}"))) {
            kReaders[letter](heard, parser.getDom());
        }
    }
    return 0;
}
