// The server's table as it is sent, put together from what was sent before, against the table made anew; and the times
// that leases are shown with.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "Ostrel/DHCPClient.h"
#include "Ostrel/DHCPServer.h"
#include "Ostrel/Interface.h"
#include "Ostrel/Publish.h"
#include "Ostrel/System.h"

#include "DHCPServer/LeaseTable.h"
#include "OstrelVoroBus/Method.h"
#include "Sim.h"

namespace {

using namespace std::chrono_literals;

constexpr char kServer[] = R"({"interface":"%","mode":"server","ipv4Address":"10.0.0.1","ipv4Subnet":"255.255.255.0",)"
                           R"("ipv4Router":"10.0.0.1","ipv4RangeStart":"10.0.0.10","maxLeases":40,"leaseTime":7200})";
constexpr char kClient[] = R"({"interface":"eth0","mode":"client","ipv4Config":"static","ipv4Address":"192.0.2.10",)"
                           R"("ipv4Subnet":"255.255.255.0","ipv4Router":"0.0.0.0","ipv4RangeStart":"0.0.0.0"})";
constexpr char kSubscribe[] = R"({"subscribe":true})";

struct Tables : testing::Test {
    Tables() {
        sim::World::onFailure = [](const std::string& what) { ADD_FAILURE() << what; };
        uint8_t last = 1;
        for (const char* name : {"eth0", "usb0", "usb1"})
            world.AddInterface(name, {2, 0, 0, 0, 0, last++}, world.AddSegment());
        EXPECT_EQ(Ostrel_DaemonStart(&system), kNoErr);
        for (const char* name : {"usb0", "usb1"}) Manage(name);
    }
    ~Tables() override { EXPECT_EQ(Ostrel_DaemonStop(&system), kNoErr); }

    void Manage(const std::string& name) {
        std::string request = kServer;
        request.replace(request.find('%'), 1, name);
        EXPECT_EQ(world.Call("/", "interfaceInitialize", request), R"({"returnValue":true})");
    }
    Ostrel_ServerObj* Server(std::string_view name) {
        Ostrel_InterfaceObj* iface = nullptr;
        EXPECT_EQ(Ostrel_InterfaceFindByName(name, &system.interfaceList, &iface), kNoErr);
        return iface->dhcpServer;
    }
    std::string Ask(std::string_view category = "/server", std::string_view request = "{}") {
        return world.Call(category, "leaseInformation", request);
    }
    // The table, or all of them, made anew.
    std::string Anew(Ostrel_ServerObj* server) {
        valdo::JValue array = valdo::Array();
        Ostrel_VoroServiceCreateServerLeaseInformationArray(&system, server, array);
        std::string text;
        EXPECT_TRUE(valdo::JGenerator::toString(array, valdo::JSchemaFragment("{}"), text));
        return text;
    }
    size_t Random(size_t end) { return static_cast<size_t>(world.random() % end); }
    std::span<const uint8_t> Letters() {
        for (uint8_t& letter : letters) letter = static_cast<uint8_t>(world.random());
        return std::span(letters).first(Random(letters.size() + 1));
    }

    // Something happens to a slot, by the functions that the server itself uses.
    void Change(Ostrel_ServerObj* server) {
        Ostrel_LeaseInformation& slot = server->leases[Random(static_cast<size_t>(server->maxLeases))];
        const Ostrel_MAC mac{2, 0xAA, 0, 0, 0, static_cast<uint8_t>(Random(256))};
        const uint32_t now = world.MonotonicSeconds();
        switch (Random(5)) {
            case 0:
                Ostrel_DHCPServer_LeaseClaim(server, &slot, mac);
                return Ostrel_DHCPServer_LeaseOffer(server, &slot, now);
            case 1:
                return Ostrel_DHCPServer_LeaseActivate(server, &slot, mac, now, {});
            case 2:
                if (slot.state != kLeaseStateFree) (void)Ostrel_DHCPServer_LeaseKeepHostName(&slot, Letters());
                return;
            case 3:
                if (slot.state != kLeaseStateFree) (void)Ostrel_DHCPServer_LeaseKeepIdentifier(&slot, Letters());
                return;
            default:
                if (slot.state != kLeaseStateFree)
                    (void)Ostrel_DHCPServer_LeaseClean(server, &slot, Ostrel_LeaseEventKind::Released);
        }
    }

    // What a part says beside its slot changes, or who listens does.
    void ChangeTheWorld() {
        switch (Random(8)) {
            case 0:
                world.wallStart += static_cast<int64_t>(Random(7)) - 3;
                break;
            case 1:
                world.zoneSeconds = static_cast<int64_t>(Random(25)) * 3600;
                break;
            case 2:
                Ask("/server", kSubscribe);
                break;
            case 3:
                Ask("/server", R"({"subscribe":false})");
                break;
            case 4:
                world.Call("/", "interfaceFinalize", R"({"interface":"usb1"})");
                Manage("usb1");  // perhaps where the last one was
                break;
            default:
                world.RunFor(sim::Duration(1s) * static_cast<int>(Random(3000)));
        }
    }

    sim::World world;
    Ostrel_SystemObj system{};
    std::array<uint8_t, 12> letters{};
};

TEST_F(Tables, WhatIsCopiedIsWhatWouldBeMade) {
    Ask("/server", kSubscribe);
    for (int i = 0; i < 3000; ++i) {
        Ostrel_ServerObj* const server = Server(Random(2) == 0 ? "usb0" : "usb1");
        Change(server);
        if (Random(10) == 0) ChangeTheWorld();
        if (Random(3) == 0) {
            const std::string expected = Anew(nullptr);
            ASSERT_EQ(Ask(), R"({"returnValue":true,"interfaceList":)" + expected + "}") << i;
        }
        world.posts.clear();
        Ostrel_ServerObj* const posting = Server("usb0");
        const std::string expected = Anew(posting);
        ASSERT_EQ(Ostrel_VoroServicePublishServerLeaseInformation(&system, posting), kNoErr);
        for (const sim::Post& post : world.posts)
            ASSERT_EQ(post.payload, R"({"returnValue":true,"leases":)" + expected + "}") << i;
    }
    Ask("/server", R"({"subscribe":false})");
    EXPECT_EQ(system.leaseTexts, nullptr) << "kept for nobody";
}

TEST_F(Tables, EverySlotShownHasItsLine) {
    Ask("/server", kSubscribe);
    for (uint8_t i = 0; i < 5; ++i)
        Ostrel_DHCPServer_LeaseActivate(Server("usb0"), &Server("usb0")->leases[i], {2, 0, 0, 0, 0, i}, 1000, {});
    for (int round = 0; round < 3; ++round) {
        const size_t before = world.log.size();
        ASSERT_EQ(Ostrel_VoroServicePublishServerLeaseInformation(&system, Server("usb0")), kNoErr);
        const auto lines = std::count_if(world.log.begin() + static_cast<ptrdiff_t>(before), world.log.end(),
                                         [](auto& line) { return line.text.starts_with("server  time <7200>"); });
        EXPECT_EQ(lines, 5) << "round " << round;
    }
}

// The two clocks don't tick together: read in whole seconds, their difference wavers by one.
TEST_F(Tables, ALeaseHasOneTimeUntilTheWallClockIsSet) {
    world.Call("/", "interfaceInitialize", kClient);
    Ostrel_DHCPServer_LeaseActivate(Server("usb0"), &Server("usb0")->leases[0], {2, 0, 0, 0, 0, 9}, 1000, {});
    world.RunFor(100s);
    const std::string server = Ask("/server");
    const std::string client = Ask("/client");
    EXPECT_NE(server.find(R"("leaseTimeString":"Thu May 28 20:26:40 2026")"), std::string::npos) << server;
    for (const int64_t tick : {1, -1, -1, 1, 0}) {
        world.wallStart += tick;
        world.RunFor(100s);
        EXPECT_EQ(Ask("/server"), server);
        EXPECT_EQ(Ask("/client"), client);
    }
    world.wallStart += 3600;
    EXPECT_NE(Ask("/server").find(R"("leaseTimeString":"Thu May 28 21:26:40 2026")"), std::string::npos);
    EXPECT_NE(Ask("/client"), client);
    world.wallStart -= 3600;
    EXPECT_EQ(Ask("/server"), server);
    EXPECT_EQ(Ask("/client"), client);
    world.wallStart += 2;  // as little as is noticed
    EXPECT_NE(Ask("/server").find(R"("leaseTimeString":"Thu May 28 20:26:42 2026")"), std::string::npos);
}

}  // namespace
