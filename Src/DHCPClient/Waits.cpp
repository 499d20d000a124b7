// How long the client waits, and what it leaves to chance. Everything here is asked of the rules; nothing is armed but
// the times of a lease.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include "DHCPClient/Machine.h"
#include "os_random.h"
#include "os_time.h"

namespace {

constexpr uint32_t kLeastExtension = 3000;  // milliseconds from a lease's beginning to its T1 and T2, however short
constexpr uint32_t kMostDoublings = 16;     // more make no difference to any pause
constexpr uint32_t kLinkSpread = 500;       // milliseconds from a link's return to the first frame, at most

uint32_t SecretNumber() {
    std::array<uint8_t, sizeof(uint32_t)> bytes{};
    os_random_bytes(bytes);
    uint32_t number = 0;
    std::memcpy(&number, bytes.data(), sizeof number);
    return number;
}

// The delay to the next retransmission: half of what remains, but not below `minimum`; what then remains is stored.
uint32_t Ostrel_DHCPClientUpdateRequestRetryTime(uint32_t remaining, uint32_t minimum, uint32_t* remainingOut) {
    const uint32_t half = remaining / 2;
    if (half <= minimum) return minimum;
    *remainingOut = remaining - half;
    return half;
}

// The seconds of T1 or T2 as milliseconds, earlier by up to the rules' part of them.
uint64_t Fuzzed(const Ostrel_ClientObj* client, uint32_t seconds) {
    const uint64_t milliseconds = uint64_t{seconds} * 1000;
    if (client->rules->leaseFuzz == 0) return milliseconds;
    return milliseconds - milliseconds / 100 * Ostrel_DHCPClientDraw(client, 0, client->rules->leaseFuzz * 100) / 100;
}

// A lease that was over at once counts as a refusal, or a server that grants seconds would be asked without end.
bool IsSetback(const Ostrel_ClientObj* client, Ostrel_Reason reason) {
    if (reason == Ostrel_Reason::Expired) return os_monotonic_milliseconds() - client->heldSince < kLasting;
    return reason == Ostrel_Reason::Nak || reason == Ostrel_Reason::Conflict;
}

// What is left of a time that began with the REQUEST, but not less than `least`.
uint64_t LeftOf(const Ostrel_ClientObj* client, uint64_t milliseconds, uint64_t least) {
    const uint64_t passed = os_monotonic_milliseconds() - client->requestSent;
    return std::max(milliseconds - std::min(milliseconds, passed), least);
}

}  // namespace

const Ostrel_TimeoutKind& Ostrel_DHCPClientKindOf(const Ostrel_ClientObj* client, Ostrel_ClientTimeout timeout) {
    const bool countsInSleep = client->rules->timesAreTheServers;
    if (countsInSleep && timeout == kClientTimeoutRenewing) return kClientTimeouts[kClientTimeoutRenewingAlarm];
    if (countsInSleep && timeout == kClientTimeoutRebinding) return kClientTimeouts[kClientTimeoutRebindingAlarm];
    return kClientTimeouts[timeout];
}

uint32_t Ostrel_DHCPClientDraw(const Ostrel_ClientObj* client, uint32_t minimum, uint32_t maximum) {
    return Ostrel_DrawTimeout(client->rules->randomIsSecret, minimum, maximum);
}

uint32_t Ostrel_DHCPClientNewTransactionID(const Ostrel_ClientObj* client) {
    if (client->rules->randomIsSecret) return SecretNumber();
    std::array<uint8_t, sizeof(uint32_t)> bytes{};
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(std::rand());
    uint32_t transactionID = 0;
    std::memcpy(&transactionID, bytes.data(), sizeof transactionID);
    return transactionID;
}

uint32_t Ostrel_DHCPClientNextTransactionID(const Ostrel_ClientObj* client) {
    return client->rules->randomIsSecret ? SecretNumber() : client->transactionID + 1;
}

uint64_t Ostrel_DHCPClientWait(const Ostrel_ClientObj* client, uint64_t milliseconds) {
    const uint32_t jitter = client->rules->jitter;
    if (jitter == 0) return milliseconds;
    return milliseconds - std::min<uint64_t>(milliseconds, jitter) + Ostrel_DHCPClientDraw(client, 0, 2 * jitter + 1);
}

// The first pause is doubled with each setback, and never cut short by chance.
uint64_t Ostrel_DHCPClientTakePause(Ostrel_ClientObj* client, Ostrel_Reason reason) {
    const Ostrel_ClientRules& rules = *client->rules;
    if (reason == Ostrel_Reason::Link || reason == Ostrel_Reason::WakeUp)
        return Ostrel_DHCPClientDraw(client, 0, kLinkSpread);
    if (!IsSetback(client, reason)) return 0;
    const uint64_t doubled = uint64_t{rules.firstPause} << std::min(client->setbacks, kMostDoublings);
    ++client->setbacks;
    uint64_t pause = std::min<uint64_t>(doubled, rules.longestPause);
    if (reason == Ostrel_Reason::Conflict) pause = std::max<uint64_t>(pause, rules.declinePause);
    return pause == 0 ? 0 : pause + Ostrel_DHCPClientDraw(client, 0, rules.jitter);
}

uint64_t Ostrel_DHCPClientTakeSelectingWait(Ostrel_ClientObj* client) {
    const uint32_t wait = client->selectingTime;
    client->selectingTime = std::min(2 * wait, client->rules->longestRetry);
    return Ostrel_DHCPClientWait(client, wait);
}

uint64_t Ostrel_DHCPClientRequestingWait(const Ostrel_ClientObj* client) {
    const Ostrel_TimeoutKind& kind = kClientTimeouts[kClientTimeoutRequesting];
    const uint32_t doubled = kind.shortest << client->requestRetries;
    return Ostrel_DHCPClientWait(client, doubled <= kind.longest ? doubled : kind.shortest);
}

uint64_t Ostrel_DHCPClientTakeRetryWait(const Ostrel_ClientObj* client, Ostrel_ClientTimeout timeout,
                                        uint32_t& remaining) {
    const uint32_t minimum = kClientTimeouts[timeout].shortest / 1000;
    const uint64_t delay = uint64_t{Ostrel_DHCPClientUpdateRequestRetryTime(remaining, minimum, &remaining)} * 1000;
    return std::max<uint64_t>(Ostrel_DHCPClientWait(client, delay), kClientTimeouts[timeout].shortest);
}

void Ostrel_DHCPClientArmLease(Ostrel_ClientObj* client) {
    const Ostrel_ClientLease& lease = client->lease;
    uint64_t renewing = Fuzzed(client, lease.renewalTime);
    uint64_t rebinding = Fuzzed(client, lease.rebindingTime);
    if (client->rules->timesAreTheServers) {
        renewing = LeftOf(client, renewing, kLeastExtension);
        rebinding = LeftOf(client, rebinding, kLeastExtension);
    }
    // What a caller has asked for during the check, and what had no room among the frames yet, comes before that.
    if (client->due[kClientTimeoutRenewing] == 0) Ostrel_DHCPClientArm(client, kClientTimeoutRenewing, renewing);
    if (client->due[kClientTimeoutRebinding] == 0) Ostrel_DHCPClientArm(client, kClientTimeoutRebinding, rebinding);
    Ostrel_DHCPClientArmEnd(client);
}

void Ostrel_DHCPClientArmEnd(Ostrel_ClientObj* client) {
    const uint64_t expiry = uint64_t{client->lease.leaseTime} * 1000;
    const bool isTheServers = client->rules->timesAreTheServers;
    Ostrel_DHCPClientArm(client, kClientTimeoutExpiry, isTheServers ? LeftOf(client, expiry, 0) : expiry);
}
