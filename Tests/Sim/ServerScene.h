// The daemon as a DHCP server on eth0, and the stations it serves.
#pragma once

#include <algorithm>

#include "Ostrel/DHCPServer.h"
#include "Ostrel/Interface.h"

#include "Harness.h"

namespace sim {

constexpr char kServerIPv4[] = "192.168.1.1";

[[nodiscard]] inline std::vector<uint8_t> AddressBytes(std::string_view address) {
    const IPv4 value = ToIPv4(address);
    return {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 8),
            static_cast<uint8_t>(value)};
}

// What a station sends; an address that is "" is left out. RELEASE, INFORM, and a REQUEST that extends a lease, name
// theirs in ciaddr, other REQUESTs in option 50.
[[nodiscard]] inline DHCPMessage MessageFrom(const MAC& mac, MessageType type, std::string_view ciaddr = "",
                                             std::string_view requested = "") {
    DHCPMessage message{.ethernetDestination = kEveryone,
                        .ethernetSource = mac,
                        .destination = kEveryoneIPv4,
                        .sourcePort = 68,
                        .destinationPort = 67,
                        .op = 1,
                        .xid = 0xA1B2C3D4,
                        .ciaddr = ciaddr.empty() ? 0 : ToIPv4(ciaddr),
                        .chaddr = mac,
                        .options = {{53, {type}}}};
    if (!requested.empty()) message.options.emplace_back(50, AddressBytes(requested));
    return message;
}

// A station that asks the server, and keeps what it hears.
class Guest : public Peer {
public:
    Guest(Segment& wire, uint8_t number) : Peer(wire, {2, 0, 0, 0, 0, number}) {}

    // Sends it, and returns the last answer, if one comes.
    std::optional<DHCPMessage> Ask(const DHCPMessage& message) { return AskBytes(WriteDHCP(message)); }
    std::optional<DHCPMessage> AskBytes(const Frame& frame) {
        heard.clear();
        segment.Send(*this, frame);
        World::Get().RunFor(1ms);
        return heard.empty() ? std::nullopt : ReadDHCP(heard.back());
    }
    std::optional<DHCPMessage> Discover() { return Ask(MessageFrom(mac, kDiscover)); }
    std::optional<DHCPMessage> Request(std::string_view address) {
        return Ask(MessageFrom(mac, kRequest, "", address));
    }

    void Receive(std::span<const uint8_t> frame) override {
        if (std::equal(mac.begin(), mac.end(), frame.begin()) && ReadDHCP(frame))
            heard.emplace_back(frame.begin(), frame.end());
    }

    std::vector<Frame> heard;
};

struct ServerWishes {
    std::string address = kServerIPv4;
    std::string mask = "255.255.255.0";
    std::string router = kServerIPv4;
    std::string rangeStart = "192.168.1.100";
    int32_t maxLeases = 10;
    int32_t leaseTime = 3600;
    std::vector<std::string> dnsServers{};
    std::string domainName{};
    bool linkLocal = false;
    uint32_t mtu = 1500;
    std::string keys{};  // of the request beside these, as members of a JSON object: "rfc", "fixed" and the like
};

// The daemon with a server on eth0, and a subscriber to its leases.
class ServerLan {
public:
    explicit ServerLan(const ServerWishes& wishes = {}, uint64_t seed = 1)
        : world(seed), wire(world.AddSegment()), eth0(world.AddInterface("eth0", kClientMAC, wire, wishes.mtu)) {
        CheckEveryFrame(world);
        (void)world.Call("/server", "leaseInformation", R"({"subscribe":true})", ":1.7");
        EXPECT_TRUE(Start(wishes)) << startReply;
    }
    ~ServerLan() {
        if (testing::Test::HasFailure()) std::cerr << world.Describe();
    }

    // The reply is kept in `startReply`.
    bool Start(const ServerWishes& wishes, std::string_view ifname = "eth0") {
        valdo::JValue dnsServers = valdo::Array();
        for (const std::string& server : wishes.dnsServers) dnsServers.append(std::string_view(server));
        const valdo::JValue domainName =
            wishes.domainName.empty() ? valdo::JValue() : valdo::JValue(std::string_view(wishes.domainName));
        valdo::JValue request = valdo::Object();
        for (const auto& [key, value] : Members{{"interface", ifname},
                                                {"mode", "server"},
                                                {"ipv4LinkLocal", wishes.linkLocal},
                                                {"ipv4Address", wishes.address.c_str()},
                                                {"ipv4Subnet", wishes.mask.c_str()},
                                                {"ipv4Router", wishes.router.c_str()},
                                                {"ipv4RangeStart", wishes.rangeStart.c_str()},
                                                {"maxLeases", wishes.maxLeases},
                                                {"leaseTime", wishes.leaseTime},
                                                {"dnsServers", dnsServers},
                                                {"domainName", domainName}})
            request.put(key, value);
        std::string text;
        EXPECT_TRUE(valdo::JGenerator::toString(request, valdo::JSchemaFragment("{}"), text));
        if (!wishes.keys.empty()) text.replace(text.size() - 1, 1, "," + wishes.keys + "}");
        startReply = world.Call("/", "interfaceInitialize", text);
        return startReply.starts_with(R"({"returnValue":true)");
    }

    Ostrel_ServerObj& Server() { return *daemon.system.interfaceList->dhcpServer; }
    Ostrel_LeaseInformation& Slot(size_t slot) { return Server().leases[slot]; }

    // The table in letters, one a slot: '.' free, otherwise the number of its station as a letter, small while the slot
    // is only offered.
    std::string Books() {
        std::string books;
        for (int32_t i = 0; i < Server().maxLeases; ++i) {
            const Ostrel_LeaseInformation& slot = Server().leases[i];
            const int letter = (slot.state == kLeaseStateActive ? 'A' : 'a') + slot.srcMAC[5] - 1;
            books += slot.state == kLeaseStateFree ? '.' : static_cast<char>(letter);
        }
        return books;
    }

    // The failed checks of the server since the last call: status, expression and function of each, the latter without
    // what all begin with.
    std::string Reports() {
        constexpr std::string_view kArea = "  Src/DHCPServer ";
        std::string reports;
        for (const LogLine& line : world.log) {
            const size_t area = line.text.find(kArea);
            if (!line.systemLog || line.level != 3 || area == std::string::npos) continue;
            reports += line.text.substr(0, area) + "@" + line.text.substr(line.text.rfind("Server") + 6) + "; ";
        }
        world.log.clear();
        return reports;
    }

    World world;
    Segment& wire;
    Station& eth0;
    Daemon daemon;
    std::string startReply;
};

}  // namespace sim
