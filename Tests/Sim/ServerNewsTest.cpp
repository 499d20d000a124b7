// What a server tells of its leases while they live, and what it says to each frame.

#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>

#include "Ostrel/Publish.h"

#include "ServerScene.h"

namespace {

using namespace sim;

constexpr char kListener[] = ":1.9";

// The value of a key in a text of one object: of a string without its quotes.
std::string ValueOf(const std::string& text, const std::string& key) {
    const size_t place = text.find('"' + key + "\":");
    if (place == std::string::npos) return "";
    const std::string rest = text.substr(place + key.size() + 3);
    return rest[0] == '"' ? rest.substr(1, rest.find('"', 1) - 1) : rest.substr(0, rest.find_first_of(",}"));
}

// What the listener has read since it was last asked for, of one method.
std::vector<std::string> Read(World& world, const std::string& method) {
    std::vector<std::string> texts;
    world.RunFor(1ms);
    for (const Post& post : world.posts)
        if (post.subscriber == kListener && post.method.starts_with(method)) texts.push_back(post.payload);
    world.posts.clear();
    return texts;
}

// A server with another on usb0, whose leases are half as long, and one who listens to what happens to leases.
class NewsLan : public ServerLan {
public:
    explicit NewsLan(const std::string& keys, int32_t leaseTime = 60)
        : ServerLan({.maxLeases = 6, .leaseTime = leaseTime, .keys = keys}), office(world.AddSegment()) {
        world.AddInterface("usb0", kOtherMAC, office);
        EXPECT_TRUE(Start({.address = "10.0.0.1",
                           .router = "10.0.0.1",
                           .rangeStart = "10.0.0.100",
                           .maxLeases = 6,
                           .leaseTime = leaseTime / 2,
                           .keys = keys},
                          "usb0"));
        Subscribe();
    }
    void Subscribe() {
        EXPECT_EQ(world.Call("/server", "leaseEvents", R"({"subscribe":true})", kListener),
                  R"({"returnValue":true,"subscribed":true})");
    }
    bool Operate(const char* action, const std::string& address, const std::string& ifname = "eth0") {
        return world
            .Call("/server", "leaseAction",
                  R"({"interface":")" + ifname + R"(","ipv4Address":")" + address + R"(","leaseAction":")" + action +
                      "\"}")
            .starts_with(R"({"returnValue":true)");
    }
    // "granted 100 by 1 for 60, ": what, the address, the station, seconds from now.
    std::string News() {
        std::string news;
        for (const std::string& text : Read(world, "leaseEvents")) {
            const std::string address = ValueOf(text, "ipv4Address"), end = ValueOf(text, "expires");
            const int64_t now = world.wallStart + world.Now() / 1s;
            news += (news.empty() ? "" : ", ") + ValueOf(text, "event") + " " + address.substr(address.rfind('.') + 1) +
                    " by " + ValueOf(text, "macAddress").substr(16);
            if (end != "null") news += " for " + std::to_string(std::stoll(end) - now);
            if (ValueOf(text, "hostName") != "null") news += " " + ValueOf(text, "hostName");
        }
        return news;
    }

    Segment& office;
};

DHCPMessage Named(DHCPMessage message, const std::string& name) {
    message.options.emplace_back(12, std::vector<uint8_t>(name.begin(), name.end()));
    return message;
}

TEST(ServerNews, TellTheLivesOfLeasesInOrder) {
    for (const bool rfc : {false, true}) {
        SCOPED_TRACE(rfc ? "rfc" : "plain");
        NewsLan lan(rfc ? R"("rfc":true,"probe":0)" : R"("probe":0)");
        Guest one(lan.wire, 1), two(lan.wire, 2), three(lan.wire, 3), far(lan.office, 4);
        const std::string subnet = "192.168.1.";
        const auto ask = [&](Guest& guest, MessageType type, const std::string& ciaddr, const std::string& requested) {
            guest.Ask(MessageFrom(guest.mac, type, ciaddr.empty() ? "" : subnet + ciaddr,
                                  requested.empty() ? "" : subnet + requested));
            return lan.News();
        };
        EXPECT_EQ(ask(one, kDiscover, "", ""), "") << "an offer is no lease";
        one.Ask(Named(MessageFrom(one.mac, kRequest, "", subnet + "100"), "camera"));
        EXPECT_EQ(lan.News(), "granted 100 by 1 for 60 camera");
        EXPECT_EQ(ask(two, kRequest, "", "100"), "refused 100 by 2");
        EXPECT_EQ(ask(two, kRequest, "", "101"), "granted 101 by 2 for 60");
        far.Request("10.0.0.105");
        EXPECT_EQ(lan.News(), "granted 105 by 4 for 30");
        lan.world.RunFor(20s);
        EXPECT_EQ(ask(one, kRequest, "100", ""), rfc ? "renewed 100 by 1 for 60" : "renewed 100 by 1 for 40");
        EXPECT_EQ(ask(two, kRelease, "101", ""), "released 101 by 2");
        EXPECT_EQ(ask(two, kRelease, "101", ""), "");
        EXPECT_EQ(ask(two, kRequest, "", "102"), "granted 102 by 2 for 60");
        EXPECT_EQ(ask(two, kRequest, "", "103"), "released 102 by 2, granted 103 by 2 for 60");
        EXPECT_EQ(ask(two, kDiscover, "", ""), rfc ? "" : "released 103 by 2");
        EXPECT_EQ(ask(two, kRequest, "", "103"), std::string(rfc ? "renewed" : "granted") + " 103 by 2 for 60");
        EXPECT_EQ(ask(three, kRequest, "", "104"), "granted 104 by 3 for 60");
        EXPECT_EQ(ask(three, kDecline, "", "104"), rfc ? "declined 104 by 3 for 600" : "");
        EXPECT_TRUE(lan.Operate("hold", subnet + "105"));
        EXPECT_TRUE(lan.Operate("release", subnet + "105"));
        EXPECT_EQ(lan.News(), "held 105 by 0, freed 105 by 0");

        // No frame comes any more.
        lan.world.RunFor(9s);
        EXPECT_EQ(lan.News(), "");
        lan.world.RunFor(1s);
        EXPECT_EQ(lan.News(), "expired 105 by 4 for 0");
        lan.world.RunFor(30s);
        EXPECT_EQ(lan.News(), rfc ? "" : "expired 100 by 1 for 0");
        lan.world.RunFor(21s);
        EXPECT_EQ(lan.News(), rfc ? "expired 100 by 1 for -1, expired 103 by 2 for -1"
                                  : "expired 103 by 2 for -1, expired 104 by 3 for -1");
        EXPECT_EQ(lan.Books().substr(0, 1), "A") << "the table ends a lease with a frame";
        EXPECT_TRUE(lan.Operate("release", subnet + "103"));
        EXPECT_EQ(lan.News(), "") << "it is over";
        EXPECT_EQ(ask(one, kRequest, "", "100"), "granted 100 by 1 for 60");
        if (rfc) {
            lan.world.RunFor(600s);
            EXPECT_EQ(lan.News(), "expired 100 by 1 for -540");
            EXPECT_EQ(ask(one, kDiscover, "", ""), "freed 104 by 3");
        }
        EXPECT_TRUE(lan.daemon.Finalize("eth0"));
        EXPECT_EQ(lan.News(), "");
    }
}

TEST(ServerNews, CostNothingForNobodyAndWhoComesLateIsToldWhatIsOver) {
    NewsLan lan(R"("rfc":true,"probe":0)");
    Guest one(lan.wire, 1);
    one.Request("192.168.1.100");
    EXPECT_EQ(lan.News(), "granted 100 by 1 for 60");
    EXPECT_TRUE(lan.Server().endIsAwaited);
    lan.world.LeaveBus(kListener);
    EXPECT_FALSE(lan.Server().endIsAwaited);
    lan.world.RunFor(61s);
    EXPECT_EQ(lan.News(), "");
    for (int i = 0; i < 2; ++i) {
        lan.Subscribe();
        EXPECT_EQ(lan.News(), "expired 100 by 1 for -1");
        EXPECT_FALSE(lan.Server().endIsAwaited) << "there is no lease";
        lan.world.LeaveBus(kListener);
    }
    // Given back while somebody listens: they were granted before.
    one.Request("192.168.1.100");
    const std::string shown = lan.world.Call("/server", "leaseInformation", R"({"interface":"eth0"})");
    const size_t list = shown.find('[');
    EXPECT_TRUE(lan.daemon.Finalize("eth0"));
    lan.Subscribe();
    lan.world.RunFor(10s);
    EXPECT_TRUE(
        lan.Start({.leaseTime = 60,
                   .keys = R"("rfc":true,"probe":0,"leases":)" + shown.substr(list, shown.rfind(']') + 1 - list)}))
        << lan.startReply;
    EXPECT_EQ(lan.News(), "");
    lan.world.RunFor(50s);
    EXPECT_EQ(lan.News(), "expired 100 by 1 for 0");
}

// Nobody could read so many in one go.
TEST(ServerNews, TellTheEndOfManyAtOnce) {
    ServerLan lan({.rangeStart = "192.168.1.2", .maxLeases = 200, .leaseTime = 60});
    Guest guest(lan.wire, 1);
    for (uint8_t last = 2; last <= 201; ++last)
        (void)guest.Ask(MessageFrom({2, 0, 0, 0, 1, last}, kRequest, "", "192.168.1." + std::to_string(last)));
    (void)lan.world.Call("/server", "leaseEvents", R"({"subscribe":true})", kListener);
    lan.world.RunFor(59s);
    lan.world.posts.clear();
    lan.world.RunFor(2s);
    EXPECT_EQ(Read(lan.world, "leaseEvents").size(), 200U);
}

// What a subscriber knows who has read the table when it came, and listened since.
struct Follower {
    std::set<std::string> active, held;

    // Empty when the event goes with what was told before.
    std::string Follow(const std::string& text) {
        const std::string event = ValueOf(text, "event");
        const std::string address = ValueOf(text, "interface") + " " + ValueOf(text, "ipv4Address");
        bool fits = true;
        if (event == "granted") fits = !held.contains(address) && active.insert(address).second;
        if (event == "renewed") fits = active.contains(address);
        if (event == "released" || event == "expired") fits = active.erase(address) == 1;
        if (event == "freed") fits = held.erase(address) + active.erase(address) == 1;
        if (event == "declined" || event == "held") {
            active.erase(address);
            held.insert(address);
        }
        return fits ? "" : text;
    }
    // What there is in the tables, with the leases that are over or without them.
    static Follower Of(const Ostrel_SystemObj& system, bool withOver) {
        Follower all;
        for (const auto* iface = system.interfaceList; iface != nullptr; iface = iface->next) {
            const Ostrel_ServerObj& server = *iface->dhcpServer;
            for (uint32_t slot = 0; slot < server.numSlots; ++slot) {
                const Ostrel_LeaseInformation& lease = server.leases[slot];
                const bool isOver = World::Get().MonotonicSeconds() - lease.offerTime >= server.leaseTime;
                const std::string address = iface->ifname.data() + (" " + ToText(be32toh(lease.IPv4Address)));
                if (lease.state == kLeaseStateActive && (withOver || !isOver)) all.active.insert(address);
                if (lease.state == kLeaseStateHeld) all.held.insert(address);
            }
        }
        return all;
    }
    bool operator==(const Follower&) const = default;
};

// Whatever stations, an operator and time do, events and the table are one.
TEST(ServerNews, WhoListensKnowsTheTable) {
    constexpr MessageType kTypes[] = {kDiscover, kRequest, kRequest, kRequest, kDecline, kRelease, kInform};
    std::map<std::string, int> seen;
    for (const char* keys : {R"("probe":0)", R"("rfc":true,"probe":0)", R"("rfc":true,"probe":1000)"}) {
        std::mt19937_64 random(7);
        const auto below = [&random](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
        NewsLan lan(keys, 14);  // on usb0 an offer outlives a lease
        Guest guests[] = {{lan.wire, 1}, {lan.wire, 2}, {lan.wire, 3}, {lan.office, 4}, {lan.office, 5}};
        Follower follower;
        for (int step = 0; step < 4000 && !testing::Test::HasFailure(); ++step) {
            Guest& guest = guests[below(std::size(guests))];
            const bool isFar = &guest.segment == &lan.office;
            const std::string address = (isFar ? "10.0.0." : "192.168.1.") + std::to_string(99 + below(8));
            if (const uint32_t what = below(30); what < 24) {
                const MessageType type = kTypes[below(std::size(kTypes))];
                const bool byCiaddr = type == kRelease || type == kInform || below(4) == 0;
                if (what == 0) lan.world.FailSends(isFar ? "usb0" : "eth0", SendFault::Short, 1);
                guest.Ask(MessageFrom(guest.mac, type, byCiaddr ? address : "", byCiaddr ? "" : address));
            } else if (what < 26) {
                (void)lan.Operate(what == 24 ? "hold" : "release", address, isFar ? "usb0" : "eth0");
            } else if (what == 26) {
                guest.segment.Send(guest, WriteARP({kEveryone, 2, guest.mac, ToIPv4(address), kEveryone, 0}));
            } else if (what == 27 && below(8) == 0) {
                lan.world.LeaveBus(kListener);
                lan.world.RunFor(std::chrono::seconds(below(20)));
                lan.Subscribe();
                follower = Follower::Of(lan.daemon.system, true);
                lan.world.posts.clear();
            } else {
                lan.world.RunFor(std::chrono::milliseconds(below(3) == 0 ? below(700'000) : below(9'000)));
            }
            for (const std::string& text : Read(lan.world, "leaseEvents")) {
                EXPECT_EQ(follower.Follow(text), "") << keys << " step " << step;
                ++seen[ValueOf(text, "event")];
            }
            EXPECT_EQ(follower, Follower::Of(lan.daemon.system, false)) << keys << " step " << step;
            const auto [active, offered, held, free] = Ostrel_DHCPServerGaugesOf(&lan.Server());
            EXPECT_EQ(active + offered + held + free, 6U);
        }
    }
    EXPECT_EQ(seen.size(), size_t{kNumLeaseEvents}) << "the play has all";
}

// What the server has counted, by name: "discoverReceived offerSent ".
std::string CountsOf(const Ostrel_ServerCounters& after, const Ostrel_ServerCounters& before) {
    std::string names;
    for (const auto& counter : kServerCounters)
        for (uint64_t i = before.*counter.field; i < after.*counter.field; ++i)
            names += counter.name + std::string(" ");
    for (uint32_t kind = 0; kind < kNumVerdicts; ++kind)
        for (uint64_t i = before.dropped[kind]; i < after.dropped[kind]; ++i)
            names += Ostrel_VerdictName(static_cast<Ostrel_VerdictKind>(kind)) + std::string(" ");
    return names;
}

TEST(ServerNews, EachFrameHasAVerdictWhichIsToldAndCounted) {
    // Addresses by what comes behind that of the network.
    const auto from = [](uint8_t number, MessageType type, const std::string& ciaddr = "",
                         const std::string& requested = "") {
        const auto whole = [](const std::string& last) { return last.empty() ? "" : "192.168." + last; };
        return MessageFrom({2, 0, 0, 0, 0, number}, type, whole(ciaddr), whole(requested));
    };
    const auto asks = [&from](uint8_t number, auto... what) { return WriteDHCP(from(number, what...)); };
    const auto with = [](DHCPMessage message, uint8_t code, std::vector<uint8_t> data) {
        message.options.emplace_back(code, std::move(data));
        return WriteDHCP(message);
    };
    const auto typed = [&from](std::vector<uint8_t> type) {
        DHCPMessage message = from(3, kDiscover);
        message.options[0].second = std::move(type);
        return WriteDHCP(message);
    };
    DHCPMessage relayed = from(1, kDiscover);
    relayed.giaddr = ToIPv4("10.0.0.9");
    Frame endless = asks(1, kDiscover);
    endless.pop_back();
    Frame cookieless = asks(1, kDiscover);
    cookieless[278] = 0;
    const Frame cut(endless.begin(), endless.begin() + 281);
    constexpr char kAnother[] = "192.168.1.2";
    enum Rules { kPlain, kRFC, kBoth };
    // Stations 1 and 2 have the two addresses that there are.
    const struct {
        Frame frame;
        std::string trace, counts;
        Rules rules;
        SendFault fault = SendFault::None;
    } cases[] = {
        {asks(1, kDiscover), "in DISCOVER taken, out OFFER taken", "discoverReceived offerSent ", kBoth},
        {asks(3, kDiscover), "in DISCOVER no address is free", "discoverReceived noAddress ", kBoth},
        {asks(1, kDiscover), "in DISCOVER taken, out OFFER failed", "discoverReceived failed ", kBoth,
         SendFault::Short},
        // What fails when the frames that came together have been handled is lost, as on the wire.
        {asks(1, kDiscover), "in DISCOVER taken, out OFFER taken", "discoverReceived offerSent ", kBoth,
         SendFault::Error},
        {endless, "in DISCOVER malformed: options without an end", "discoverReceived malformed ", kBoth},
        {cut, "in other malformed: shorter than DHCP", "malformed ", kBoth},
        {cookieless, "in other malformed: not DHCP", "malformed ", kBoth},
        {typed({}), "in  without a type malformed: option 53 has 0 bytes", "malformed ", kBoth},
        {with({.ethernetDestination = kEveryone, .sourcePort = 68, .destinationPort = 67}, 12, {'a'}),
         "in  without a type malformed: no message type", "malformed ", kBoth},
        {typed({2}), "in OFFER message type", "messageType ", kBoth},
        {typed({9}), "in  9 message type", "messageType ", kBoth},
        {WriteDHCP(relayed), "in DISCOVER of another subnet", "discoverReceived relay ", kRFC},
        {asks(1, kRequest, "", "1.100"), "in REQUEST taken, out ACK taken", "requestReceived ackSent leasesRenewed ",
         kBoth},
        {asks(3, kRequest, "", "1.100"), "in REQUEST taken, out NAK taken", "requestReceived nakSent ", kBoth},
        {asks(3, kRequest, "", "1.200"), "in REQUEST taken, out NAK taken", "requestReceived nakSent ", kPlain},
        {asks(3, kRequest, "", "1.200"), "in REQUEST another server", "requestReceived server ", kRFC},
        {asks(3, kRequest), "in REQUEST no such lease", "requestReceived noLease ", kRFC},
        {with(from(1, kRequest, "", "1.100"), 54, AddressBytes(kAnother)), "in REQUEST another server",
         "requestReceived server ", kRFC},
        {with(from(1, kRelease, "1.100"), 54, AddressBytes(kAnother)), "in RELEASE another server",
         "releaseReceived server ", kRFC},
        {asks(1, kRelease, "1.100"), "in RELEASE taken", "releaseReceived ", kBoth},
        {asks(3, kRelease, "1.100"), "in RELEASE no such lease", "releaseReceived noLease ", kBoth},
        {asks(1, kDecline, "", "1.100"), "in DECLINE message type", "declineReceived messageType ", kPlain},
        {asks(1, kDecline, "", "1.100"), "in DECLINE taken", "declineReceived addressesHeld ", kRFC},
        {asks(3, kDecline, "", "1.100"), "in DECLINE no such lease", "declineReceived noLease ", kRFC},
        {asks(3, kInform), "in INFORM malformed: no ciaddr", "informReceived malformed ", kRFC},
        {asks(3, kInform, "2.9"), "in INFORM of another subnet", "informReceived relay ", kRFC},
        {asks(3, kInform, "1.9"), "in INFORM taken, out ACK taken", "informReceived ackSent ", kRFC},
        {asks(3, kInform, "1.9"), "in INFORM taken, out NAK taken", "informReceived nakSent ", kPlain},
    };
    for (const auto& [frame, trace, counts, rules, fault] : cases) {
        for (const bool rfc : {false, true}) {
            if (rules == (rfc ? kPlain : kRFC)) continue;
            SCOPED_TRACE((rfc ? "rfc, " : "plain, ") + trace);
            ServerLan lan({.maxLeases = 2, .keys = rfc ? R"("rfc":true,"probe":0)" : R"("probe":0)"});
            Guest one(lan.wire, 1), two(lan.wire, 2), three(lan.wire, 3);
            ASSERT_TRUE(one.Request("192.168.1.100") && two.Request("192.168.1.101"));
            (void)lan.world.Call("/", "trace", R"({"interface":"eth0","subscribe":true})", kListener);
            const Ostrel_ServerCounters before = lan.Server().counters;
            if (fault != SendFault::None) lan.world.FailSends("eth0", fault, 1);
            lan.wire.Send(three, frame);
            std::string told;
            for (const std::string& text : Read(lan.world, "trace")) {
                const std::string type = ValueOf(text, "type");
                told += (told.empty() ? "" : ", ") + ValueOf(text, "direction") + " " +
                        type.substr(type.starts_with("DHCP") ? 4 : 0) + " " + ValueOf(text, "verdict");
            }
            EXPECT_EQ(told, trace);
            EXPECT_EQ(CountsOf(lan.Server().counters, before), counts);
        }
    }
}

}  // namespace
