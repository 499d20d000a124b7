// Scripted neighbours on a segment: what they do is decided by the test that owns them.
#pragma once

#include <functional>
#include <map>

#include "Wire.h"

namespace sim {

// A station that leaves its segment when it goes.
class Peer : public Station {
public:
    Peer(Segment& wire, const MAC& address) : segment(wire), mac(address) { segment.Attach(*this); }
    ~Peer() override { segment.Detach(*this); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    Segment& segment;
    const MAC mac;
};

struct ServerScript {
    MAC mac{0x02, 0, 0, 0, 0, 0x01};
    IPv4 address = ToIPv4("192.0.2.1");
    IPv4 firstLease = ToIPv4("192.0.2.10");  // each new client gets the next one
    uint32_t leaseTime = 3600;               // seconds
    std::optional<uint32_t> t1 = std::nullopt;
    std::optional<uint32_t> t2 = std::nullopt;
    IPv4 mask = ToIPv4("255.255.255.0");
    std::vector<IPv4> routers{ToIPv4("192.0.2.1")};
    std::vector<IPv4> dnsServers{ToIPv4("192.0.2.2"), ToIPv4("192.0.2.3")};
    std::string domainName = "lan.example";

    // What it keeps to itself; each may be changed at any time.
    bool silent = false;           // answers nothing
    bool silentToRequest = false;  // no REQUEST
    // Changes an answer before it leaves.
    std::function<void(DHCPMessage& answer)> tamper = nullptr;
};

// A DHCP server that grants everybody everything, in the order in which they ask.
class ScriptedServer : public Peer {
public:
    explicit ScriptedServer(Segment& wire, ServerScript serverScript = {})
        : Peer(wire, serverScript.mac), script(std::move(serverScript)) {}
    void Receive(std::span<const uint8_t> frame) override;

    // Sends a message that nobody asked for; the server's own addresses and ports are filled in.
    void Send(DHCPMessage message);
    // An answer of that type to `request`, with the script's options.
    [[nodiscard]] DHCPMessage Answer(const DHCPMessage& request, MessageType type);

    ServerScript script;

private:
    IPv4 LeaseOf(const MAC& client);

    std::map<MAC, IPv4> leases;
    IPv4 leasesGiven = 0;
};

// A host that answers ARP requests for its address.
class ArpHost : public Peer {
public:
    ArpHost(Segment& wire, const MAC& address, IPv4 own) : Peer(wire, address), ipv4(own) {}
    void Receive(std::span<const uint8_t> frame) override;
    void Send(uint16_t operation, const MAC& toMAC, IPv4 to);

private:
    IPv4 ipv4;
};

}  // namespace sim
