// The breaker of storms.
//
// After a DHCPNAK or a conflict the client asks again at once, and a server that offers and refuses, or a host that
// answers for every address, would have it do so at wire speed for ever. So of any ten seconds the first ten DISCOVERs
// and the first ten DECLINEs go out as the state machine has it, and further ones at one a second, until ten seconds
// have had less. No ordinary sequence comes near.
//
// A DISCOVER too many waits, in INIT. A DECLINE too many is left out, as it could be lost on the wire, and the restart
// that follows it waits until the next one may go out.
#include "Ostrel/Log.h"

#include "DHCPClient/Machine.h"
#include "os_time.h"

namespace {

constexpr uint64_t kWindow = 10'000;  // milliseconds
constexpr uint64_t kSpacing = 1000;   // milliseconds, between those that are held back

// Whether at least `number` went out within the window that ends now.
bool HadInWindow(const Ostrel_StormBreaker& breaker, uint32_t number, uint64_t now) {
    const auto size = static_cast<uint32_t>(breaker.sent.size());
    return breaker.count >= number && now - breaker.sent[(breaker.count - number) % size] < kWindow;
}

}  // namespace

uint32_t Ostrel_DHCPClientStormRest(const Ostrel_StormBreaker& breaker) {
    if (!breaker.holds) return 0;
    const uint64_t since = os_monotonic_milliseconds() - breaker.sent[(breaker.count - 1) % breaker.sent.size()];
    return since < kSpacing ? static_cast<uint32_t>(kSpacing - since) : 0;
}

uint32_t Ostrel_DHCPClientStormAsk(const Ostrel_ClientObj* client, Ostrel_StormBreaker& breaker, const char* message) {
    const uint64_t now = os_monotonic_milliseconds();
    const auto most = static_cast<uint32_t>(breaker.sent.size());
    const bool held = breaker.holds;
    breaker.holds = HadInWindow(breaker, held ? most - 1 : most, now);  // with this one: ten, or more than ten
    if (breaker.holds && !held) {
        DebugPrintF(kDebugLevelWarning, "[%s] DHCP Client holds %ss back: %d in ten seconds, now one a second.\n",
                    client->iface->ifname.data(), message, most);
    }
    if (held && !breaker.holds) {
        DebugPrintF(kDebugLevelWarning, "[%s] DHCP Client no longer holds %ss back.\n", client->iface->ifname.data(),
                    message);
    }
    const uint32_t rest = Ostrel_DHCPClientStormRest(breaker);
    if (rest == 0) breaker.sent[breaker.count++ % most] = now;
    return rest;
}
