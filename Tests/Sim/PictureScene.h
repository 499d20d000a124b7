// A subscriber to "interfaceState" that only listens, and what it has learnt.
#pragma once

#include <algorithm>
#include <endian.h>
#include <string>

#include "Ostrel/DHCPClient.h"
#include "Ostrel/Interface.h"
#include "Ostrel/LinkLocal.h"

#include "Harness.h"

namespace sim {

constexpr char kListener[] = ":1.9";
constexpr char kLease[] = "192.0.2.10";

// The value of a member of an object in JSON, as it stands there; "" where there is none.
inline std::string ValueOf(const std::string& text, const std::string& key) {
    const std::string mark = "\"" + key + "\":";
    const size_t place = text.find(mark);
    if (place == std::string::npos) return "";
    const size_t start = place + mark.size();
    const size_t end = text[start] == '"' ? text.find('"', start + 1) + 1 : text.find_first_of(",}", start);
    return text.substr(start, end - start);
}
// Likewise, of a text without its quotes.
inline std::string WordOf(const std::string& text, const std::string& key) {
    const std::string value = ValueOf(text, key);
    return value.starts_with('"') ? value.substr(1, value.size() - 2) : value;
}
// An object within one, without what it has of others.
inline std::string RoleOf(const std::string& text, const std::string& role) {
    const size_t start = text.find("\"" + role + "\":{\"state\"");
    return start == std::string::npos ? "" : text.substr(start, text.find('}', start) - start);
}

inline Frame& OptionOf(DHCPMessage& message, uint8_t code) {
    return std::find_if(message.options.begin(), message.options.end(), [code](auto& one) { return one.first == code; })
        ->second;
}

// eth0 with a client and a selector that both idle, a server, and a subscriber that only listens.
struct PictureLan {
    explicit PictureLan(bool rfc, std::string_view config = "dhcp", uint64_t seed = 1) : world(seed) {
        world.AddInterface("eth0", kClientMAC, wire);
        (void)world.Call("/", "interfaceState", R"({"subscribe":true})", kListener);
        Manage("eth0", rfc, config);
        world.RunFor(1ms);
    }
    void Manage(std::string_view ifname, bool rfc, std::string_view config = "dhcp") {
        EXPECT_TRUE(daemon.Initialize(ifname, {{"rfc", rfc},
                                               {"ipv4Config", config},
                                               {"ipv4Address", "192.0.2.7"},
                                               {"ipv4Subnet", "255.255.255.0"},
                                               {"ipv4LinkLocal", true}}));
    }
    Ostrel_InterfaceObj& Interface() { return *daemon.system.interfaceList; }
    Ostrel_ClientObj& Client() { return *Interface().dhcpClient; }
    // What one is told of the client who asks.
    std::string Asked() { return RoleOf(world.Call("/", "interfaceState", "{}"), "client"); }
    // The client alone, or the selector.
    void Act(const char* word, Ostrel_ActionValues values = {}) {
        EXPECT_EQ(Ostrel_DHCPClientLeaseAction(&Interface(), word, values), kNoErr);
    }
    void Select(const char* word) { EXPECT_EQ(Ostrel_LinkLocalAction(&Interface(), word), kNoErr); }
    void Bind(uint32_t leaseTime = 3600) {
        server.script.leaseTime = leaseTime;
        Act("init");
        world.RunFor(5s);
        world.posts.clear();
    }
    void SelectAndHold() {
        Select("init");
        world.RunFor(20s);
        world.posts.clear();
    }
    void RunUntil(const std::string& told) {
        for (int i = 0; i < 10'000 && !Told("client").ends_with(told); ++i) world.RunFor(100ms);
    }
    void Answer(MessageType type) {
        server.script.tamper = [type](DHCPMessage& answer) {
            if (answer.Type() == kAck) answer.options[0].second[0] = static_cast<uint8_t>(type);
        };
    }
    // The link is lost, and for good half a second longer back.
    void Unplug(Duration absence = 5s) {
        world.SetLink("eth0", false);
        world.RunFor(absence);
        world.SetLink("eth0", true);
        world.RunFor(251ms);
    }
    void Contest() { Claim(be32toh(Interface().linkLocal->IPv4Address)); }
    // A host that has the address speaks up.
    void Claim(IPv4 address) {
        ArpHost(wire, kOtherMAC, address).Send(2, kClientMAC, address);
        world.RunFor(1ms);
    }

    // What the posts have told of a role: its states with their reasons, and "held" where the address may be used.
    [[nodiscard]] std::string Told(const std::string& role) const {
        std::string story;
        std::string last;
        for (const Post& post : world.posts) {
            const std::string text = RoleOf(post.payload, role);
            std::string moment = WordOf(text, "state") + " " + WordOf(text, "reason");
            if (!last.empty() && !last.starts_with(WordOf(text, "state"))) {
                EXPECT_LE(std::abs(std::stoll(ValueOf(text, "since")) - world.wallStart - post.time / 1s), 1) << moment;
            }
            if (ValueOf(text, "held") == "true") moment += " held";
            if (moment != last) story += (story.empty() ? "" : "; ") + moment;
            last = moment;
        }
        return story;
    }

    World world;
    Segment& wire = world.AddSegment();
    Daemon daemon;
    ScriptedServer server{wire};
};

}  // namespace sim
