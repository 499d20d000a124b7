// How many frames a client may send, whatever servers, neighbours and strangers make it do.
//
// The machine's pauses keep it well below these bounds in all that is ordinary. Where they don't, a frame too many is
// not sent, as it could be lost on the wire, and what would have followed it takes its course: a REQUEST is repeated, a
// probe was one of several. Before an exchange begins there must be room in the minute for all of it, so that no
// address comes into use unchecked for want of room.
#include "Ostrel/Log.h"
#include "Ostrel/Publish.h"

#include "DHCPClient/Machine.h"
#include "wpabuf.h"

namespace {

constexpr uint32_t kExchange = 8;  // DISCOVER, REQUEST, three probes, and two announcements or a DECLINE

}  // namespace

uint32_t Ostrel_DHCPClientFrameRest(const Ostrel_ClientObj* client, uint32_t number) {
    const Ostrel_ClientRules& rules = *client->rules;
    return Ostrel_FrameRest(client->frames, {rules.mostPerSecond, rules.mostPerMinute}, number);
}

uint32_t Ostrel_DHCPClientExchangeRest(const Ostrel_ClientObj* client) {
    return Ostrel_DHCPClientFrameRest(client, kExchange);
}

bool Ostrel_DHCPClientHasToWait(Ostrel_ClientObj* client, Ostrel_ClientTimeout timeout) {
    const uint32_t rest = Ostrel_DHCPClientFrameRest(client, 1);
    if (rest != 0) Ostrel_DHCPClientArm(client, timeout, rest);
    return rest != 0;
}

bool Ostrel_DHCPClientTakeFrame(Ostrel_ClientObj* client) {
    if (Ostrel_DHCPClientFrameRest(client, 1) != 0) {
        DebugPrintF(kDebugLevelInfo, "[%s] DHCP Client leaves a frame out: there were too many.\n",
                    client->iface->ifname.data());
        ++client->counters.dropped[static_cast<size_t>(Ostrel_VerdictKind::Limited)];
        wpabuf_reset(client->iface->txFrame);  // it was never built
        Ostrel_TraceSent(client->iface, "client", {.kind = Ostrel_VerdictKind::Limited});
        return false;
    }
    Ostrel_FrameNote(client->frames);
    return true;
}

Ostrel_Status Ostrel_DHCPClientAskARP(Ostrel_ClientObj* client, Ostrel_IPv4 sender) {
    if (!Ostrel_DHCPClientTakeFrame(client)) return kNoErr;
    return Ostrel_ARPAsk(client->iface, sender, client->lease.IPv4Address);
}
