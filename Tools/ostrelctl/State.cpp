// What goes on with an interface, as the daemon tells it with "interfaceState".
//
// The one reader of it. Only the daemon is believed to have sent it, and still nothing of it is trusted: texts are
// bounded and made fit to be shown, numbers have the size of what they count.
#include "State.h"

#include "Fields.h"
#include "Terminal.h"

using valdo::JValue;

namespace ostrelctl {

namespace {

constexpr size_t kLongestWord = 64;                 // bytes: of a state, a name, an address
constexpr int64_t kLastMoment = 100'000'000'000;    // the year 5138
constexpr int64_t kMostCounted = INT64_C(1) << 53;  // beyond, JSON's numbers are not exact

std::string WordOf(const JValue& object, const char* key) {
    const std::string text = TextOf(object, key);
    return text.size() <= kLongestWord ? Printable(text) : std::string();
}

Moment WholeOf(const JValue& object, const char* key, int64_t most) {
    int64_t number = 0;
    const bool isOne = object[key].asNumber(number) == valdo::CONV_OK && number >= 0 && number <= most;
    return isOne ? Moment(number) : std::nullopt;
}

Moment MomentOf(const JValue& object, const char* key) {
    return WholeOf(object, key, kLastMoment);
}

int64_t CountOf(const JValue& object, const char* key) {
    return WholeOf(object, key, kMostCounted).value_or(0);
}

Ostrel_IPv4 PlainAddressOf(const JValue& object, const char* key) {
    return object[key].isString() ? AddressOf(object, key) : kAnyIPv4;
}

ClientState ReadClient(const JValue& object) {
    ClientState client{.state = WordOf(object, "state"),
                       .since = MomentOf(object, "since").value_or(0),
                       .reason = WordOf(object, "reason"),
                       .address = PlainAddressOf(object, "ipv4Address"),
                       .held = TruthOf(object, "held"),
                       .server = PlainAddressOf(object, "server"),
                       .renews = MomentOf(object, "renews"),
                       .rebinds = MomentOf(object, "rebinds"),
                       .expires = MomentOf(object, "expires"),
                       .nextTry = MomentOf(object, "nextTry"),
                       .tries = CountOf(object, "tries"),
                       .refusals = CountOf(object, "refusals")};
    const JValue conflict = object["conflict"];
    if (conflict.isObject())
        client.conflict =
            Conflict{.address = PlainAddressOf(conflict, "ipv4Address"), .mac = WordOf(conflict, "macAddress")};
    return client;
}

LinkLocalState ReadLinkLocal(const JValue& object) {
    return {.state = WordOf(object, "state"),
            .since = MomentOf(object, "since").value_or(0),
            .reason = WordOf(object, "reason"),
            .address = PlainAddressOf(object, "ipv4Address"),
            .held = TruthOf(object, "held"),
            .conflicts = CountOf(object, "conflicts")};
}

ServerState ReadServer(const JValue& object) {
    return {.state = WordOf(object, "state"),
            .active = CountOf(object, "active"),
            .offered = CountOf(object, "offered"),
            .held = CountOf(object, "held"),
            .free = CountOf(object, "free")};
}

InterfaceState ReadOne(const JValue& object) {
    InterfaceState state{.interface = WordOf(object, "interface"), .managed = TruthOf(object, "managed")};
    if (!state.managed) {
        state.reason = WordOf(object, "reason");
        return state;
    }
    state.mac = WordOf(object, "macAddress");
    state.link = WordOf(object, "link");
    state.rules = WordOf(object, "rules");
    if (object["client"].isObject()) state.client = ReadClient(object["client"]);
    if (object["linkLocal"].isObject()) state.linkLocal = ReadLinkLocal(object["linkLocal"]);
    if (object["server"].isObject()) state.server = ReadServer(object["server"]);
    state.told = object;
    return state;
}

}  // namespace

std::vector<InterfaceState> ReadStates(const JValue& root) {
    std::vector<InterfaceState> states;
    const JValue list = root["interfaceList"];
    for (size_t i = 0; i < list.arraySize(); ++i) {
        InterfaceState state = ReadOne(list[i]);
        if (!state.interface.empty()) states.push_back(std::move(state));
    }
    return states;
}

int64_t CounterOf(const InterfaceState& state, const char* group, const char* name) {
    return CountOf(state.told["counters"][group], name);
}

int64_t DroppedOf(const InterfaceState& state, const char* group, const char* reason) {
    return CountOf(state.told["counters"][group]["dropped"], reason);
}

}  // namespace ostrelctl
