// What is told of the client, and the doors by which it is known: of states, of timeouts, of the lease.
//
// Every state is entered, every timeout armed and the lease held or given up here and nowhere else, so that "since",
// "reason", "nextTry" and "held" are true without any step of the machine thinking of them. A step begins by letting
// what has changed before it be posted (Ostrel_InterfacePictureTurns), and all that it changes is posted after it.
#include <algorithm>

#include "Ostrel/Log.h"
#include "Ostrel/Publish.h"

#include "DHCPClient/Machine.h"
#include "os_time.h"

namespace {

// The earlier one of two moments, of which 0 is none.
uint64_t Earlier(uint64_t one, uint64_t other) {
    return one == 0 || (other != 0 && other < one) ? other : one;
}

// When the client sends next, in a state in which it waits for an answer or to begin; 0: nothing says when. The last
// wait of some states ends in another one.
uint64_t NextSending(const Ostrel_ClientObj* client) {
    if (client->linkIsLost || Ostrel_DHCPClientIsStatic(client)) return 0;
    const auto dueIf = [client](bool sends, Ostrel_ClientTimeout timeout) { return sends ? client->due[timeout] : 0; };
    switch (client->state) {
        case kClientStateInit:
            return client->due[kClientTimeoutInit];
        case kClientStateSelecting:
            return dueIf(client->rules->discoverIsRepeated || client->leaseOffers != nullptr, kClientTimeoutSelecting);
        case kClientStateRequesting:
            return dueIf(client->requestRetries + 1 < kRequestTries, kClientTimeoutRequesting);
        case kClientStateRebooting: {
            const uint32_t tries = client->iface->leaseIsHeld ? kConfirmTries : 1;
            return dueIf(client->requestRetries < tries, kClientTimeoutRebooting);
        }
        case kClientStateRenewing:
        case kClientStateRebinding:
            return Earlier(client->due[kClientTimeoutRenewing], client->due[kClientTimeoutRebinding]);
        case kClientStateUnknown:
        case kClientStateBound:
        case kClientStateInitReboot:
            break;
    }
    return 0;
}

// Unless the lease is over before.
uint64_t NextTry(const Ostrel_ClientObj* client) {
    const uint64_t next = NextSending(client);
    const uint64_t expiry = client->due[kClientTimeoutExpiry];
    return expiry != 0 && next >= expiry ? 0 : next;
}

// Of the lease that is held; while the address of a renewal is checked its timer does not run.
uint64_t End(const Ostrel_ClientObj* client) {
    const Ostrel_ClientLease& lease = client->lease;
    const uint64_t due = client->due[kClientTimeoutExpiry];
    const bool ends = !Ostrel_DHCPClientIsStatic(client) && lease.leaseTime != kInfiniteLease;
    if (due != 0 || !ends || client->state != kClientStateBound || !Ostrel_DHCPClientHolds(client)) return due;
    return (uint64_t{lease.leaseAcquired} + lease.leaseTime) * 1000;
}

void SetDue(Ostrel_ClientObj* client, Ostrel_ClientTimeout timeout, uint64_t moment) {
    if (timeout < client->due.size()) client->due[timeout] = moment;
}

// "[eth0] client REQUESTING, offer, 192.0.2.50 of 192.0.2.1"
void LogState(const Ostrel_ClientObj* client) {
    const char* const ifname = client->iface->ifname.data();
    const char* const state = Ostrel_DHCPClientShownState(client);
    const char* const reason = Ostrel_ReasonWord(client->story.reason);
    const Ostrel_IPv4 address = Ostrel_DHCPClientShownAddress(client);
    const Ostrel_IPv4 server = client->story.server;
    if (address != kAnyIPv4 && server != kAnyIPv4)
        DebugPrintF(kDebugLevelInfo, "[%s] client %s, %s, %.4a of %.4a\n", ifname, state, reason, &address, &server);
    else if (address != kAnyIPv4)
        DebugPrintF(kDebugLevelInfo, "[%s] client %s, %s, %.4a\n", ifname, state, reason, &address);
    else if (client->story.reason == Ostrel_Reason::Nak && client->state == kClientStateInit)
        DebugPrintF(kDebugLevelInfo, "[%s] client %s, %s of %.4a\n", ifname, state, reason, &server);
    else
        DebugPrintF(kDebugLevelInfo, "[%s] client %s, %s\n", ifname, state, reason);
}

// Whether the lease is acquired from the beginning, rather than once more after it could not be had.
bool BeginsAnew(Ostrel_ClientState state, Ostrel_Reason reason) {
    if (state != kClientStateInit && state != kClientStateInitReboot) return false;
    return reason != Ostrel_Reason::Timeout && reason != Ostrel_Reason::Nak && reason != Ostrel_Reason::Conflict;
}

void BeginState(Ostrel_ClientObj* client, Ostrel_ClientState state, Ostrel_Reason reason) {
    Ostrel_ClientStory& story = client->story;
    const bool isUnanswered = client->state == kClientStateSelecting && state == kClientStateInit;
    if (state != kClientStateSelecting && !(isUnanswered && reason == Ostrel_Reason::Timeout)) story.tries = 0;
    if (BeginsAnew(state, reason)) {
        story.server = kAnyIPv4;
        story.refusals = 0;
        story.conflictAddress = kAnyIPv4;
    }
    story.since = os_monotonic_milliseconds();
    story.reason = reason;
}

// Counts and says that the address came into use, or went out of it, if it did.
void NoteUse(Ostrel_ClientObj* client, bool wasHeld) {
    const bool isHeld = Ostrel_DHCPClientHolds(client);
    if (isHeld == wasHeld) return;
    const char* const ifname = client->iface->ifname.data();
    const Ostrel_IPv4 address = client->lease.IPv4Address;
    if (isHeld)
        DebugPrintF(kDebugLevelInfo, "[%s] client holds %.4a\n", ifname, &address);
    else
        DebugPrintF(kDebugLevelInfo, "[%s] client gives up %.4a, %s\n", ifname, &address,
                    Ostrel_ReasonWord(client->story.reason));
    ++(isHeld ? client->counters.leasesHeld : client->counters.leasesLost);
    Ostrel_InterfacePictureChanged(client->iface);
}

}  // namespace

const char* Ostrel_DHCPClientShownState(const Ostrel_ClientObj* client) {
    return Ostrel_DHCPClientIsStatic(client) ? "STATIC" : Ostrel_ClientStateString(client->state);
}

Ostrel_IPv4 Ostrel_DHCPClientShownAddress(const Ostrel_ClientObj* client) {
    if (Ostrel_DHCPClientIsStatic(client)) return client->lease.IPv4Address;
    switch (client->state) {
        case kClientStateRequesting:
            return client->leaseOffers->address;
        case kClientStateRebooting:
            return client->rebootAddress;
        case kClientStateBound:
        case kClientStateRenewing:
        case kClientStateRebinding:
            return client->lease.IPv4Address;
        case kClientStateUnknown:
        case kClientStateInit:
        case kClientStateSelecting:
        case kClientStateInitReboot:
            break;
    }
    return kAnyIPv4;
}

bool Ostrel_DHCPClientHolds(const Ostrel_ClientObj* client) {
    return client->iface->leaseIsHeld && !client->isInDoubt;
}

void Ostrel_DHCPClientEnterState(Ostrel_ClientObj* client, Ostrel_ClientState state, Ostrel_Reason reason) {
    Ostrel_InterfacePictureTurns(client->iface);
    DebugPrintF(kDebugLevelInfo, "[%s (%d)] DHCP Client state transition %s -> %s.\n", client->iface->ifname.data(),
                os_monotonic_seconds(), Ostrel_ClientStateString(client->state), Ostrel_ClientStateString(state));
    const bool goesOn = state == client->state && reason == Ostrel_Reason::Timeout;
    if (!goesOn) BeginState(client, state, reason);
    client->state = state;
    if (!goesOn) LogState(client);
    Ostrel_DHCPClientTellTimes(client);
    Ostrel_InterfacePictureChanged(client->iface);
}

Ostrel_ClientObj* Ostrel_DHCPClientEnterHandler(void* context, Ostrel_ClientTimeout timeout, const char* handler) {
    DebugPrintF(kDebugLevelTrace, "%s()\n", handler);
    auto* client = static_cast<Ostrel_ClientObj*>(context);
    SetDue(client, timeout, 0);
    return client;
}

void Ostrel_DHCPClientArm(Ostrel_ClientObj* client, Ostrel_ClientTimeout timeout, uint64_t milliseconds) {
    Ostrel_ArmTimeout(client->iface, client, Ostrel_DHCPClientKindOf(client, timeout), milliseconds);
    SetDue(client, timeout, os_monotonic_milliseconds() + milliseconds);
    Ostrel_DHCPClientTellTimes(client);
}

void Ostrel_DHCPClientRearm(Ostrel_ClientObj* client, Ostrel_ClientTimeout timeout, uint64_t milliseconds) {
    Ostrel_RearmTimeout(client->iface, client, Ostrel_DHCPClientKindOf(client, timeout), milliseconds);
    SetDue(client, timeout, os_monotonic_milliseconds() + milliseconds);
    Ostrel_DHCPClientTellTimes(client);
}

// Always in a step that goes on, and tells what is armed then.
void Ostrel_DHCPClientDisarm(Ostrel_ClientObj* client, Ostrel_ClientTimeout timeout) {
    Ostrel_DisarmTimeout(client->iface, client, Ostrel_DHCPClientKindOf(client, timeout));
    SetDue(client, timeout, 0);
}

void Ostrel_DHCPClientCancelAllTimeouts(Ostrel_ClientObj* client) {
    Ostrel_DisarmTimeouts(client->iface, client, kClientTimeouts);
    client->due = {};
    Ostrel_DHCPClientTellTimes(client);
}

void Ostrel_DHCPClientPutOff(Ostrel_ClientObj* client) {
    for (const Ostrel_TimeoutKind& kind : kClientTimeouts) {
        if (kind.handler != Ostrel_DHCPClientTimeout_Expiry) Ostrel_DisarmTimeout(client->iface, client, kind);
    }
    const uint64_t expiry = client->due[kClientTimeoutExpiry];
    client->due = {};
    SetDue(client, kClientTimeoutExpiry, expiry);
    Ostrel_DHCPClientTellTimes(client);
}

void Ostrel_DHCPClientSetHeld(Ostrel_ClientObj* client, bool isHeld) {
    const bool wasHeld = Ostrel_DHCPClientHolds(client);
    client->isInDoubt = false;
    if (isHeld) {
        client->story.refusals = 0;
        client->story.conflictAddress = kAnyIPv4;
    }
    if (isHeld != client->iface->leaseIsHeld) {
        const uint64_t now = os_monotonic_milliseconds();
        if (isHeld) client->heldSince = now;
        if (!isHeld && now - client->heldSince >= kLasting) client->setbacks = 0;
        client->defences = 0;
        Ostrel_InterfaceLeaseChanged(client->iface, isHeld);
    }
    NoteUse(client, wasHeld);
    Ostrel_InterfacePictureChanged(client->iface);
}

void Ostrel_DHCPClientDoubt(Ostrel_ClientObj* client, Ostrel_Reason reason) {
    if (!Ostrel_DHCPClientHolds(client)) return;
    Ostrel_InterfacePictureTurns(client->iface);
    client->isInDoubt = true;
    client->story.reason = reason;
    NoteUse(client, true);
}

void Ostrel_DHCPClientTellSent(Ostrel_ClientObj* client, uint8_t messageType) {
    Ostrel_ClientCounters& counters = client->counters;
    counters.discoverSent += messageType == kDHCPDiscover;
    counters.requestSent += messageType == kDHCPRequest;
    counters.declineSent += messageType == kDHCPDecline;
    counters.releaseSent += messageType == kDHCPRelease;
    if (messageType != kDHCPDiscover && messageType != kDHCPRequest) return;
    ++client->story.tries;
    Ostrel_InterfacePictureChanged(client->iface);
}

bool Ostrel_DHCPClientTellConflict(Ostrel_ClientObj* client, const Ostrel_MAC& mac) {
    const Ostrel_ClientStory& story = client->story;
    const bool isNews = story.conflictAddress != client->lease.IPv4Address || story.conflictMAC != mac;
    Ostrel_InterfacePictureTurns(client->iface);
    client->story.conflictAddress = client->lease.IPv4Address;
    client->story.conflictMAC = mac;
    ++client->counters.conflicts;
    DebugPrintF(kDebugLevelInfo, "[%s] client conflict, %.6a has %.4a\n", client->iface->ifname.data(), mac,
                &client->story.conflictAddress);
    return isNews;
}

void Ostrel_DHCPClientTellTimes(Ostrel_ClientObj* client) {
    Ostrel_ClientStory& story = client->story;
    const bool isBound = client->state == kClientStateBound;
    const bool isRenewed = isBound || client->state == kClientStateRenewing;
    const std::array<uint64_t, 4> told{story.nextTry, story.renews, story.rebinds, story.expires};
    story.nextTry = NextTry(client);
    story.renews = isBound ? client->due[kClientTimeoutRenewing] : 0;
    story.rebinds = isRenewed ? client->due[kClientTimeoutRebinding] : 0;
    story.expires = End(client);
    const std::array<uint64_t, 4> now{story.nextTry, story.renews, story.rebinds, story.expires};
    if (now != told) Ostrel_InterfacePictureChanged(client->iface);
}

// Alarms have gone on, and come sooner by the clock of the moments.
void Ostrel_DHCPClientWasAsleep(Ostrel_ClientObj* client) {
    const uint64_t asleep = os_milliseconds_asleep();
    const uint64_t slept = asleep - client->asleep;
    client->asleep = asleep;
    client->story.since -= slept;
    for (const Ostrel_ClientTimeout timeout : {kClientTimeoutRenewing, kClientTimeoutRebinding, kClientTimeoutExpiry}) {
        uint64_t& due = client->due[timeout];
        if (due != 0 && Ostrel_DHCPClientKindOf(client, timeout).rtc) due -= std::min(due - 1, slept);
    }
    Ostrel_DHCPClientTellTimes(client);
    Ostrel_InterfacePictureChanged(client->iface);
}
