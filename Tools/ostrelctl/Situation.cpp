// What is going on with an interface and what comes next.
//
// What is worst is said first: a link that is lost keeps everything from going on, a conflict or a refusal explains a
// state better than its name does.
#include "Situation.h"

#include <algorithm>

#include "Ostrel/Counters.h"

#include "Lease.h"

namespace ostrelctl {

namespace {

constexpr int64_t kTellingTries = 2;  // after so many it tells something that nothing at all was heard

std::string Ordinal(int64_t number) {
    const int64_t tens = number % 100, ones = number % 10;
    const bool isTeen = tens >= 11 && tens <= 13;
    const char* const ending = isTeen ? "th" : ones == 1 ? "st" : ones == 2 ? "nd" : ones == 3 ? "rd" : "th";
    return std::to_string(number) + ending;
}

std::string Times(int64_t number) {
    return number == 1 ? "once" : number == 2 ? "twice" : std::to_string(number) + " times";
}

std::string InText(const Moment& moment, int64_t now) {
    return *moment <= now ? "now" : "in " + SpanText(*moment - now);
}

// ", 4th try in 12 s"
std::string NextTry(const ClientState& client, int64_t now) {
    if (!client.nextTry) return client.tries == 0 ? "" : ", after " + std::to_string(client.tries) + " tries";
    return ", " + Ordinal(client.tries + 1) + " try " + InText(client.nextTry, now);
}

std::string NextTryAnyway(const ClientState& client, int64_t now) {
    return client.nextTry ? ", next try " + InText(client.nextTry, now) : "";
}

std::string ServerText(const ClientState& client) {
    return client.server == kAnyIPv4 ? "a server" : AddressText(client.server);
}

// Frames that the interface's roles have taken or dropped: none at all is a sign of a wrong cable rather than of a
// missing server.
bool HasHeardNothing(const InterfaceState& state) {
    int64_t heard = CounterOf(state, "arp", "received") + CounterOf(state, "client", "offerReceived");
    for (uint32_t kind = 1; kind < kNumVerdicts; ++kind) {
        const char* const reason = Ostrel_VerdictName(static_cast<Ostrel_VerdictKind>(kind));
        const bool isOfSent = kind == static_cast<uint32_t>(Ostrel_VerdictKind::Limited) ||
                              kind == static_cast<uint32_t>(Ostrel_VerdictKind::Failed);
        if (!isOfSent) heard += DroppedOf(state, "client", reason);
    }
    return heard == 0;
}

std::string NothingHeard(const InterfaceState& state) {
    const bool tells = state.client->tries >= kTellingTries && HasHeardNothing(state);
    return tells ? "; nothing at all is heard: is it the right cable, port and VLAN?" : "";
}

// Without a lease, and not asked for one by a REQUEST.
Situation Searching(const InterfaceState& state, int64_t now) {
    const ClientState& client = *state.client;
    if (client.conflict)
        return {"state",
                "conflict: " + client.conflict->mac + " has " + AddressText(client.conflict->address) + ", declined" +
                    NextTryAnyway(client, now),
                Grade::Bad};
    if (client.refusals > 0)
        return {"state",
                "refused by " + ServerText(client) + " (NAK) " + Times(client.refusals) + NextTryAnyway(client, now),
                Grade::Bad};
    const std::string cause = client.reason == "expired" ? "the lease has expired; " : "";
    const std::string offer = client.tries == 0 ? "" : "no offer yet";
    std::string next = NextTry(client, now);
    if (offer.empty() && !next.empty()) next.erase(0, 2);
    return {"state", cause + "acquiring: " + offer + next + NothingHeard(state), Grade::Waiting};
}

Situation Requesting(const ClientState& client, int64_t now) {
    const std::string words = ServerText(client) + " has offered " + AddressText(client.address);
    const std::string answer = client.tries > 1 ? " and does not answer the REQUEST" : ", asked for it";
    return {"state", "acquiring: " + words + answer + NextTry(client, now), Grade::Waiting};
}

Situation Bound(const ClientState& client, int64_t now) {
    const std::string address = AddressText(client.address);
    const bool isInDoubt = client.reason == "link" || client.reason == "removed" || client.reason == "wakeup";
    if (!client.held && isInDoubt)
        return {"state", "not sure of " + address + " until it is confirmed", Grade::Waiting};
    if (!client.held) return {"state", "checking whether somebody else has " + address, Grade::Waiting};
    if (client.renews) return {"state", "bound, renews " + InText(client.renews, now), Grade::Good};
    return {"state", client.expires ? "bound, ends " + InText(client.expires, now) : "bound for ever", Grade::Good};
}

Situation Extending(const ClientState& client, const std::string& whom, int64_t now) {
    const std::string ends = client.expires ? "; ends " + InText(client.expires, now) : "";
    const std::string answer = client.tries > 0 ? ", no answer yet" : "";
    return {"state", "renewing with " + whom + answer + NextTry(client, now) + ends, Grade::Waiting};
}

// A static client that has met the same address elsewhere has lost it for good.
Situation Static(const ClientState& client) {
    if (client.held) return {"state", "static address", Grade::Good};
    if (client.conflict)
        return {"state", "conflict: " + client.conflict->mac + " has " + AddressText(client.conflict->address),
                Grade::Bad};
    return {"state", "static address, not in use", Grade::Waiting};
}

Situation Halted(const InterfaceState& state) {
    const bool isNew = state.client->reason == "start";
    return {"state",
            std::string(isNew ? "not started" : "halted") + ": 'ostrelctl init " + state.interface + "' starts it" +
                (isNew ? "" : " again"),
            Grade::Idle};
}

Situation OfClient(const InterfaceState& state, int64_t now) {
    const ClientState& client = *state.client;
    const std::string& word = client.state;
    if (state.link == "gone") return {"state", "interface gone: waiting for it to come back", Grade::Bad};
    if (word == "INIT-REBOOT") return Halted(state);
    if (word == "STATIC") return Static(client);
    if (state.link == "down") return {"state", "link down: waiting for the cable", Grade::Bad};
    if (word == "REQUESTING") return Requesting(client, now);
    if (word == "REBOOTING")
        return {"state", "confirming " + AddressText(client.address) + NextTry(client, now), Grade::Waiting};
    if (word == "BOUND") return Bound(client, now);
    if (word == "RENEWING") return Extending(client, ServerText(client), now);
    if (word == "REBINDING") return Extending(client, "any server", now);
    return Searching(state, now);
}

Situation OfLinkLocal(const LinkLocalState& linkLocal) {
    const std::string address = AddressText(linkLocal.address);
    const std::string conflicts =
        linkLocal.conflicts == 0 ? "" : ", after " + std::to_string(linkLocal.conflicts) + " conflicts";
    if (linkLocal.held) return {"link-local", address + conflicts, Grade::Good};
    if (linkLocal.state == "IDLE") return {"link-local", "none", Grade::Idle};
    if (linkLocal.address == kAnyIPv4) return {"link-local", "about to pick an address" + conflicts, Grade::Waiting};
    return {"link-local", "checking whether somebody has " + address + conflicts, Grade::Waiting};
}

Situation OfServer(const InterfaceState& state) {
    const ServerState& server = *state.server;
    const int64_t total = server.active + server.offered + server.held + server.free;
    if (state.link == "gone") return {"state", "interface gone: waiting for it to come back", Grade::Bad};
    std::string use = std::to_string(server.active) + " active";
    if (server.offered > 0) use += ", " + std::to_string(server.offered) + " offered";
    if (server.held > 0) use += ", " + std::to_string(server.held) + " held back";
    if (server.free == 0) return {"state", "pool exhausted: " + use + ", none is free", Grade::Bad};
    const std::string free = std::to_string(server.free) + " of " + std::to_string(total) + " free";
    const char* const link = state.link == "down" ? "link down; " : "";
    return {"state", link + ("serving: " + use) + ", " + free, *link == '\0' ? Grade::Good : Grade::Bad};
}

}  // namespace

std::vector<Situation> SituationsOf(const InterfaceState& state, int64_t now) {
    std::vector<Situation> situations;
    if (state.client) situations.push_back(OfClient(state, now));
    if (state.linkLocal) situations.push_back(OfLinkLocal(*state.linkLocal));
    if (state.server) situations.push_back(OfServer(state));
    return situations;
}

}  // namespace ostrelctl
