// Neighbours that mind their own business: hosts, DHCP servers and clients, a router that relays, and a station that
// means harm. Written from RFC 826, 1542, 2131, 2132, 3927 and 5227, apart from the daemon, so that neither's mistakes
// are the other's.
//
// What a neighbour leaves to chance it draws from a generator of its own. All of them must live as long as their world.
#pragma once

#include <deque>
#include <map>

#include "Peers.h"

namespace sim {

using Octets = std::vector<uint8_t>;

[[nodiscard]] Octets ToOctets(IPv4 address);
[[nodiscard]] constexpr bool IsOnLink(IPv4 one, IPv4 other, IPv4 mask) {
    return (one & mask) == (other & mask);
}

// A neighbour, and the address that it answers for; 0: none.
class Neighbour : public Peer {
public:
    Neighbour(Segment& wire, const MAC& address, uint64_t seed, IPv4 ipv4 = 0)
        : Peer(wire, address), own(ipv4), random(seed) {}
    void Receive(std::span<const uint8_t> frame) override;
    virtual void Switch(bool isOn) { on = isOn; }

    bool on = true;
    IPv4 own;
    bool ownsEverything = false;  // it answers for each address that is asked for

protected:
    size_t Draw(uint64_t below) { return below == 0 ? 0 : static_cast<size_t>(random() % below); }
    void SendARP(uint16_t operation, IPv4 sender, IPv4 target, const MAC& to = kEveryone);
    // What another host's ARP frame says; the sender may be 0.
    virtual void Hear(const ARPFrame& /*arp*/) {}
    // Calls it later, unless Later was called again, or Never, meanwhile.
    void Later(Duration delay, std::function<void()> act);
    void Never() { ++turn; }

    std::mt19937_64 random;

private:
    uint64_t turn = 0;
};

// Selects a link-local address and keeps it (RFC 3927), while it is on.
class LinkLocalHost : public Neighbour {
public:
    using Neighbour::Neighbour;
    void Switch(bool isOn) override;

private:
    void Hear(const ARPFrame& arp) override;
    void Probe(int number);
    IPv4 candidate = 0;
};

struct Pool {
    IPv4 subnet;  // any address of it; the mask is 24 bits
    IPv4 first;
    uint32_t size;
    IPv4 router;
};

// A DHCP server of its own mind (RFC 2131 section 4.3).
class LeaseServer : public Neighbour {
public:
    LeaseServer(Segment& wire, const MAC& hardware, uint64_t seed, IPv4 ipv4, std::vector<Pool> ofSubnets)
        : Neighbour(wire, hardware, seed, ipv4), pools(std::move(ofSubnets)) {}
    void Receive(std::span<const uint8_t> frame) override;
    void Forget() { leases.clear(); }

    uint32_t leaseTime = 3600;  // seconds
    std::optional<uint32_t> t1, t2;
    bool authoritative = true;  // refuses what it knows nothing of
    bool silent = false;
    bool silentToRequest = false;
    bool refuses = false;  // whatever is asked for
    Duration thinks{0};    // longest time to an answer

private:
    struct Lease {
        Octets client;
        Duration end;       // of the offer, the lease, or the quarantine
        bool isQuarantine;  // somebody else has the address
    };
    [[nodiscard]] const Pool* PoolFor(const DHCPMessage& message) const;
    [[nodiscard]] IPv4 AddressOf(const Octets& client, const Pool& pool) const;
    [[nodiscard]] bool IsFree(IPv4 address, const Octets& client) const;
    IPv4 Choose(const DHCPMessage& message, const Octets& client, const Pool& pool);
    void OnDiscover(const DHCPMessage& message, const Pool& pool);
    void OnRequest(const DHCPMessage& message, const Pool& pool);
    void Reply(const DHCPMessage& to, MessageType type, IPv4 yiaddr, const Pool& pool);

    std::vector<Pool> pools;  // that of its own subnet first
    std::map<IPv4, Lease> leases;
};

// What a client does, beside what every client does.
struct ClientManner {
    bool keepsLease = false;         // asks for its former address when it is switched on again
    bool releases = false;           // when it is switched off
    bool checks = true;              // the address with ARP, and declines it
    bool changesIdentifier = false;  // each time that it starts
    bool hasIdentifier = false;
    bool informs = false;  // asks for parameters, with the address of its lease
    bool isLazy = false;   // lets its lease end, and starts over
    bool wantsBroadcast = false;
};

// A DHCP client (RFC 2131 section 4.4): it has an address while it is on and bound.
class LeaseClient : public Neighbour {
public:
    LeaseClient(Segment& wire, const MAC& hardware, uint64_t seed, ClientManner ofIts)
        : Neighbour(wire, hardware, seed), manner(ofIts) {}
    void Receive(std::span<const uint8_t> frame) override;
    void Switch(bool isOn) override;
    [[nodiscard]] bool IsBound() const { return own != 0; }

    const ClientManner manner;

private:
    enum class State : uint8_t { Off, Rebooting, Selecting, Requesting, Checking, Bound, Renewing, Rebinding };
    void Discover();
    void Ask(State next);
    void AskAgain(Duration left);
    void OnAck(const DHCPMessage& ack);
    void Bind();
    void Extend(State next, Duration until);
    void Expire();
    void Hear(const ARPFrame& arp) override;
    void SendMessage(MessageType type, IPv4 ciaddr, IPv4 requested, IPv4 server, bool isUnicast = false);
    [[nodiscard]] Duration Left(double part) const;  // of the lease, to that part of it

    State state = State::Off;
    uint32_t xid = 0;
    int tries = 0;
    IPv4 leased = 0;  // or asked for
    IPv4 server = 0;
    MAC serverMAC{};  // who brought its answer: on a routed network the router
    Duration asked{0}, length{0};
    uint8_t identifier = 0;
};

// Joins two segments: forwards datagrams to one host between their subnets, and relays DHCP to a server (RFC 1542).
class Router {
public:
    Router(std::array<Segment*, 2> wires, const std::array<MAC, 2>& macs, const std::array<IPv4, 2>& addresses,
           IPv4 dhcpServer);
    bool on = true;

private:
    class Leg : public Neighbour {
    public:
        Leg(Router& ofRouter, size_t at, Segment& wire, const MAC& address, IPv4 ipv4)
            : Neighbour(wire, address, 0, ipv4), router(ofRouter), side(at) {}
        void Receive(std::span<const uint8_t> frame) override;

    private:
        Router& router;
        const size_t side;
    };
    void Learn(size_t side, IPv4 address, const MAC& mac);
    void Relay(size_t side, DHCPMessage message);
    void Forward(size_t side, std::span<const uint8_t> frame);

    std::array<std::unique_ptr<Leg>, 2> legs;
    std::array<std::map<IPv4, MAC>, 2> known;
    const IPv4 server;
};

enum class Harm : uint8_t { Mutants, Refusals, Grants, Conflicts, Starvation, Storm, Replay, OffLink, OwnsAll, kCount };
constexpr size_t kHarms = static_cast<size_t>(Harm::kCount);
[[nodiscard]] const char* HarmName(Harm harm);

// Hears everything on its segment and does harm, of the kinds that it is told.
class Mischief : public Neighbour {
public:
    using Neighbour::Neighbour;
    void Receive(std::span<const uint8_t> frame) override;
    // Begins with that kind, an act about every so often, until Switch(false).
    void Begin(Harm harm, Duration pace);
    void Switch(bool isOn) override;

    MAC gateway{};    // of the router, where there is one
    IPv4 beyond = 0;  // an address behind it
    uint64_t framesSent = 0;

private:
    void Act(Harm harm, Duration pace, uint64_t ofRound);
    void Do(Harm harm);
    void Put(const Frame& frame);
    void Starve();
    void Answer(const DHCPMessage& message, MessageType type);
    [[nodiscard]] Frame Mutate(Frame frame);
    [[nodiscard]] Frame MutateDHCP(DHCPMessage message);

    std::deque<Frame> heard;              // the latest
    std::optional<DHCPMessage> asked;     // the latest of a client
    std::optional<DHCPMessage> answered;  // and of a server
    IPv4 spoken = 0;                      // the latest address that somebody spoke of
    uint64_t round = 0;
    std::map<Harm, bool> harms;
};

}  // namespace sim
