// What a caller may give a server beside the usual keys, and the bytes, lines and limits of the rfc rules. What they do
// with each message is in ServerRFCModelTest.cpp.

#include <gtest/gtest.h>

#include "Ostrel/Log.h"

#include "ServerScene.h"

namespace {

using namespace sim;

const std::string kRFC = R"("rfc":true,"probe":0)";

bool IsRefused(Guest& guest, std::string_view address) {
    guest.segment.sent.clear();
    (void)guest.Request(address);
    const auto answer = ReadDHCP(guest.segment.sent.back().bytes);  // which goes to all
    return answer && answer->Type() == kNak;
}

TEST(ServerRFC, AnswersARelayByteForByte) {
    ServerLan lan({.router = "0.0.0.0",
                   .keys = kRFC +
                           R"(,"options":[{"code":42,"ipv4":["192.168.1.9"]},{"code":43,"hex":"0102","forced":true},)"
                           R"({"code":114,"text":"unasked"}])"});
    Guest relay(lan.wire, 0x0A);
    DHCPMessage discover = MessageFrom(relay.mac, kDiscover);
    discover.giaddr = ToIPv4("192.168.1.3");
    discover.chaddr = {2, 0, 0, 0, 0, 7};
    discover.options.insert(discover.options.end(),
                            {{61, {255, 1}}, {82, {1, 2, 'p', '1'}}, {55, {1, 3, 6, 42, 42, 28}}});
    ASSERT_TRUE(relay.Ask(discover));

    std::vector<uint8_t> expected = Bytes(
        "020000 00000a 001122334455 0800"
        "45000148 00000000 80110000 c0a80101 c0a80103"
        "00430043 01340000"
        "02010600 a1b2c3d4 00000000 00000000 c0a80164 00000000 c0a80103 02000000 00070000 00000000 00000000");
    expected.resize(42 + 236);
    for (const uint8_t byte : Bytes("63825363 350102 3604c0a80101 330400000e10 3a0400000708 3b0400000c4e 3d02ff01"
                                    "0104ffffff00 2a04c0a80109 2b020102 520401027031 ff"))
        expected.push_back(byte);
    expected.resize(42 + 300);
    Frame offer = relay.heard.front();
    for (const size_t checksum : {24, 25, 40, 41}) offer[checksum] = 0;  // CheckEveryFrame has looked at them
    EXPECT_EQ(offer, expected);
}

// The table in letters as ServerLan::Books has it, but for what the rfc rules and an operator add.
std::string BooksWithHolds(ServerLan& lan) {
    std::string books = lan.Books();
    for (size_t slot = 0; slot < books.size(); ++slot) {
        if (lan.Slot(slot).state == kLeaseStateHeld) books[slot] = '#';
        if (lan.Slot(slot).state == kLeaseStateKept) books[slot] = '-';
    }
    return books;
}

// Both sets of rules.
TEST(ServerRFC, KeepsAnAddressForOneClient) {
    for (const bool rfc : {false, true}) {
        SCOPED_TRACE(rfc ? "rfc" : "plain");
        ServerLan lan(
            {.maxLeases = 3,
             .leaseTime = 60,
             .keys =
                 (rfc ? R"("rfc":true,)" : "") +
                 std::string(R"("probe":0,"fixed":[)"
                             R"({"macAddress":"02:00:00:00:00:01","ipv4Address":"192.168.1.101","hostName":"printer"},)"
                             R"({"clientIdentifierHex":"ff010203","ipv4Address":"192.168.1.9"}])")});
        EXPECT_EQ(BooksWithHolds(lan), ".-.");
        const auto bind = [&lan](uint8_t number, const std::vector<uint8_t>& identifier = {}) {
            Guest guest(lan.wire, number);
            DHCPMessage message = MessageFrom(guest.mac, kDiscover);
            message.options.emplace_back(55, std::vector<uint8_t>{12});
            if (!identifier.empty()) message.options.emplace_back(61, identifier);
            const auto offer = guest.Ask(message);
            if (!offer) return std::string("none");
            message.options[0].second[0] = kRequest;
            message.options.emplace_back(50, AddressBytes(ToText(offer->yiaddr)));
            const auto ack = guest.Ask(message);
            const auto* name = ack->Find(12);
            EXPECT_EQ(ack->Type(), kAck);
            return ToText(ack->yiaddr).substr(10) +
                   (name == nullptr ? "" : ' ' + std::string(name->begin(), name->end()));
        };
        EXPECT_EQ(bind(2), "100");
        EXPECT_EQ(bind(3), "102");
        EXPECT_EQ(bind(4), "none");
        Guest other(lan.wire, 4);
        EXPECT_TRUE(IsRefused(other, "192.168.1.101"));
        EXPECT_EQ(bind(1), "101 printer");
        EXPECT_EQ(bind(1, {0, 'p'}), "101 printer");  // the same host under another name
        EXPECT_EQ(bind(4, {255, 1, 2, 3}), "9");      // outside the range
        EXPECT_EQ(bind(5, {255, 1, 2, 3}), "9");
        EXPECT_EQ(BooksWithHolds(lan), "BAC");
        // It gets no other, for as long as it can have that one.
        lan.world.RunFor(61s);
        Guest printer(lan.wire, 1);
        EXPECT_TRUE(IsRefused(printer, "192.168.1.100"));
        EXPECT_EQ(BooksWithHolds(lan), ".-.");
        EXPECT_TRUE(World::Get()
                        .Call("/server", "leaseAction",
                              R"({"interface":"eth0","ipv4Address":"192.168.1.101","leaseAction":"hold"})")
                        .starts_with(R"({"returnValue":true)"));
        EXPECT_EQ(bind(1), "100");
    }
}

TEST(ServerRFC, DoesAsAnOperatorSaysWithOneAddress) {
    struct Step {
        const char *action, *address, *books;
        bool done = true;
    };
    const Step steps[] = {
        {"hold", "192.168.1.101", ".#B"},        {"hold", "192.168.1.101", ".#B"},
        {"release", "192.168.1.100", ".#B"},                                        // nothing of it was in use
        {"release", "192.168.1.101", "..B"},     {"hold", "192.168.1.102", "..#"},  // a lease ends
        {"release", "192.168.1.102", "..."},     {"release", "192.168.1.103", "...", false},
        {"free", "192.168.1.100", "...", false},
    };
    for (const bool rfc : {false, true}) {
        ServerLan lan({.maxLeases = 3, .keys = rfc ? kRFC : R"("probe":0)"});
        ASSERT_EQ(Guest(lan.wire, 2).Request("192.168.1.102")->Type(), kAck);
        for (const Step& step : steps) {
            SCOPED_TRACE(std::string(step.action) + ' ' + step.address);
            lan.world.posts.clear();
            const std::string reply =
                lan.world.Call("/server", "leaseAction",
                               R"({"interface":"eth0","ipv4Address":")" + std::string(step.address) +
                                   R"(","leaseAction":")" + step.action + "\"}");
            EXPECT_EQ(reply.starts_with(R"({"returnValue":true)"), step.done) << reply;
            EXPECT_EQ(BooksWithHolds(lan), step.books);
            lan.world.RunFor(1ms);
            EXPECT_EQ(lan.world.posts.size(), step.done ? 1U : 0U);
            // Held addresses are no leases.
            const std::string shown = lan.world.Call("/server", "leaseInformation", "{}");
            EXPECT_EQ(shown.find("192.168.1.") != std::string::npos, lan.Books().find('B') != std::string::npos);
            lan.world.RunFor(700s);  // an operator's word doesn't wear out
        }
        EXPECT_TRUE(lan.world.Logged("has ended: its address is held"));
    }
}

// What leaseInformation shows is given back, whatever clients have called themselves, and nobody notices.
TEST(ServerRFC, GoesOnAfterARestartWithTheLeasesThatItIsGivenBack) {
    struct Client {
        MAC mac;
        std::vector<uint8_t> identifier;
        std::string hostName;
    };
    const Client clients[] = {
        {{2, 0, 0, 0, 0, 1}, {}, "one"},
        {{2, 0, 0, 0, 0, 2}, {1, 2, 0, 0, 0, 0, 2}, ""},
        {{2, 0, 0, 0, 0, 3}, {255, 0, 1, 2}, "\xFF"},
        {{2, 0, 0, 0, 0, 3}, {0, 'c'}, "two of one address"},
        {{2, 0, 0, 0, 0, 5}, {7}, std::string("\0", 1)},
        {{}, {0, 0}, ""},
        {{2, 0, 0, 0, 0, 7}, {1, 0xFF, 0, 0, 0, 0, 1}, ""},
    };
    for (const bool rfc : {false, true}) {
        const std::string rules = rfc ? R"("rfc":true,)" : "";
        ServerLan lan({.maxLeases = 7, .leaseTime = 3600, .keys = rules + R"("probe":0)"});
        Guest guest(lan.wire, 9);
        std::vector<IPv4> had;
        const auto request = [&](const Client& client, IPv4 address) {
            DHCPMessage message = MessageFrom(client.mac, address == 0 ? kDiscover : kRequest);
            if (address != 0) message.options.emplace_back(50, AddressBytes(ToText(address)));
            if (!client.identifier.empty()) message.options.emplace_back(61, client.identifier);
            if (!client.hostName.empty())
                message.options.emplace_back(12, std::vector<uint8_t>(client.hostName.begin(), client.hostName.end()));
            lan.wire.sent.clear();
            guest.Ask(message);
            const auto answer = lan.wire.sent.size() < 2 ? std::nullopt : ReadDHCP(lan.wire.sent.back().bytes);
            return answer && answer->Type() != kNak ? answer->yiaddr : 0;
        };
        for (const Client& client : clients) {
            had.push_back(request(client, 0));
            EXPECT_EQ(request(client, had.back()), had.back());
            lan.world.RunFor(60s);
        }
        const std::string shown = lan.world.Call("/server", "leaseInformation", "{}");
        const size_t list = shown.find("\"interfaceList\":");
        ASSERT_NE(list, std::string::npos) << shown;
        const std::string leases = shown.substr(list + 16, shown.size() - list - 17);
        const std::string books = lan.Books();
        ASSERT_TRUE(lan.daemon.Finalize("eth0"));
        lan.world.RunFor(200s);
        std::string keys = rules;
        keys.append(R"("probe":0,"leases":)").append(leases);
        ASSERT_TRUE(lan.Start({.maxLeases = 7, .leaseTime = 3600, .keys = keys})) << lan.startReply << leases;
        // The last client is shown by the address that it says it has.
        EXPECT_EQ(lan.Books().substr(0, 5), books.substr(0, 5));
        const std::string first = leases.substr(0, leases.find('}'));
        EXPECT_NE(lan.world.Call("/server", "leaseInformation", "{}").find(first), std::string::npos) << first;
        // By the plain rules a client that says another address than its own is shown by that.
        for (size_t i = 0; i < (rfc ? std::size(clients) : 6); ++i) EXPECT_EQ(request(clients[i], had[i]), had[i]) << i;
    }
}

TEST(ServerRFC, LeavesOutALeaseThatDoesNotFit) {
    constexpr char kAnothers[] = "the address is kept for, or had by, another client";
    struct Case {
        const char *octet, *station;
        int remaining;
        const char* left = nullptr;  // why; null: it is given back
    };
    const Case cases[] = {
        {"102", "03", 100},
        {"100", "01", 3000},
        {"100", "02", 3100, kAnothers},
        {"101", "01", 3200, "its client has another address"},
        {"103", "04", 0, "it is over"},
        {"104", "05", 100, kAnothers},
        {"50", "06", 100, "its address is not the server's to give"},
        {"105", "07", 9999},
    };
    std::string keys =
        kRFC + R"(,"fixed":[{"macAddress":"02:00:00:00:00:08","ipv4Address":"192.168.1.104"}],"leases":[)";
    for (const Case& row : cases) {
        if (keys.back() == '}') keys += ',';
        keys += std::string(R"({"ipv4Address":"192.168.1.)") + row.octet + R"(","mac":"02:00:00:00:00:)" + row.station +
                R"(","remaining":)" + std::to_string(row.remaining) + '}';
    }
    ServerLan lan({.maxLeases = 6, .leaseTime = 3600, .keys = keys + ']'});
    EXPECT_EQ(BooksWithHolds(lan), "A.C.-G");
    for (const Case& row : cases) {
        const std::string line = std::string("[eth0] Lease 192.168.1.") + row.octet +
                                 " of 02:00:00:00:00:" + row.station + " is not given back: ";
        EXPECT_EQ(lan.world.Logged(line + (row.left == nullptr ? "" : row.left)), row.left != nullptr) << line;
    }
    lan.world.RunFor(101s);
    (void)Guest(lan.wire, 9).Discover();
    EXPECT_EQ(lan.Books().substr(2, 1), ".");
    lan.world.RunFor(3499s);  // no lease is longer than the server's
    (void)Guest(lan.wire, 9).Discover();
    EXPECT_EQ(lan.Books().substr(5, 1), ".");
}

// A router that answers for every address, and more clients than are probed for at a time.
TEST(ServerRFC, OffersAllTheSameToWhoCannotBeProbedFor) {
    class Proxy : public Peer {
    public:
        explicit Proxy(Segment& wire) : Peer(wire, {2, 0, 0, 0, 0, 0x99}) {}
        void Receive(std::span<const uint8_t> frame) override {
            const auto arp = ReadARP(frame);
            if (arp && arp->operation == 1)
                segment.Send(*this, WriteARP({arp->senderMAC, 2, mac, arp->target, arp->senderMAC, 0}));
        }
    };
    ServerLan lan({.maxLeases = 100, .keys = R"("rfc":true)"});
    {
        Proxy proxy(lan.wire);
        Guest guest(lan.wire, 1);
        EXPECT_FALSE(guest.Discover());
        lan.world.RunFor(240ms);
        EXPECT_TRUE(guest.heard.empty());
        lan.world.RunFor(20ms);
        EXPECT_EQ(guest.heard.size(), 1U);
        EXPECT_EQ(BooksWithHolds(lan).substr(0, 6), "####a.");
        EXPECT_TRUE(lan.world.Logged("[eth0] Address 192.168.1.100 is held for 600 s: in use, 02:00:00:00:00:99"));
        guest.Ask(MessageFrom(guest.mac, kDecline, "", "192.168.1.104"));
        EXPECT_TRUE(lan.world.Logged("[eth0] Address 192.168.1.104 is held for 600 s: declined, 02:00:00:00:00:01"));
    }
    for (uint8_t number = 2; number < 60; ++number) {
        Guest guest(lan.wire, number);
        EXPECT_EQ(guest.Discover().has_value(), number >= 2 + kMaxServerProbes) << int{number};
    }
    ASSERT_TRUE(lan.daemon.Finalize("eth0"));    // with all of them under way
    EXPECT_EQ(lan.world.PendingTimeouts(), 1U);  // the daemon's own
}

TEST(ServerRFC, TakesASubnetAsItIs) {
    struct Case {
        ServerWishes wishes;
        bool started;
    };
    const Case cases[] = {
        {{.mask = "255.255.255.252", .router = "0.0.0.0", .rangeStart = "192.168.1.2", .maxLeases = 1}, true},
        {{.mask = "255.255.255.252", .router = "0.0.0.0", .rangeStart = "192.168.1.2", .maxLeases = 2}, false},
        {{.mask = "255.255.255.254", .router = "0.0.0.0", .rangeStart = "192.168.1.0", .maxLeases = 1}, false},
        {{.mask = "255.255.255.128", .maxLeases = 27}, true},
        {{.mask = "255.255.255.128", .maxLeases = 28}, false},
        {{.mask = "255.0.255.0"}, false},
        {{.router = "192.168.2.1"}, false},
        {{.router = "192.168.1.255"}, false},
        {{.rangeStart = "192.168.2.100"}, false},
        {{.rangeStart = "192.168.1.0"}, false},
        {{.rangeStart = "192.168.1.1"}, false},
        {{.rangeStart = "192.168.1.200", .maxLeases = 55}, true},
        {{.maxLeases = 0}, false},
        {{.address = "10.255.255.250",
          .mask = "248.0.0.0",
          .router = "0.0.0.0",
          .rangeStart = "10.255.255.254",
          .maxLeases = 9},
         false},
    };
    ServerLan lan;
    ASSERT_TRUE(lan.daemon.Finalize("eth0"));
    for (Case row : cases) {
        row.wishes.keys = kRFC;
        EXPECT_EQ(lan.Start(row.wishes), row.started) << row.wishes.mask << ' ' << row.wishes.rangeStart;
        EXPECT_EQ(lan.world.IsPortHeld("eth0", 67), row.started);
        EXPECT_EQ(lan.daemon.Finalize("eth0"), row.started);
    }
    // The router's address is nobody else's.
    ASSERT_TRUE(lan.Start({.router = "192.168.1.101", .maxLeases = 3, .keys = kRFC}));
    EXPECT_EQ(BooksWithHolds(lan), ".#.");
}

}  // namespace
