// What is told at once: the states of interfaces, what happens to leases, and frames, to whom it concerns.

#include "Ostrel/Interface.h"
#include "Ostrel/Publish.h"

#include "Harness.h"

namespace sim {
namespace {

using Texts = std::vector<std::string>;

// Two interfaces that the daemon may manage, and callers that subscribe.
struct NewsLan {
    World world;
    Segment& wire = world.AddSegment();
    Daemon daemon;

    NewsLan() {
        world.AddInterface("eth0", kClientMAC, wire);
        world.AddInterface("usb0", kOtherMAC, wire);
    }
    std::string Ask(std::string_view method, std::string_view request, std::string_view caller) {
        return world.Call(method == "leaseEvents" ? "/server" : "/", method, request, caller);
    }
    // What a subscriber has read since it was last asked for.
    Texts Take(std::string_view subscriber) {
        Texts texts;
        for (const Post& post : world.posts)
            if (post.subscriber == subscriber) texts.push_back(post.payload);
        std::erase_if(world.posts, [=](const Post& post) { return post.subscriber == subscriber; });
        return texts;
    }
    // Which interfaces they are about, in order, a "-" before one that is not managed.
    std::string TakeNames(std::string_view subscriber) {
        std::string names;
        for (const std::string& text : Take(subscriber)) {
            const size_t place = text.find(R"("interface":")") + 13;
            const bool isGone = text.find(R"("managed":false,"reason":"finalised")") != std::string::npos;
            names += (isGone ? " -" : " ") + text.substr(place, 4);
        }
        return names;
    }
    Ostrel_InterfaceObj* Find(std::string_view ifname) {
        Ostrel_InterfaceObj* iface = nullptr;
        EXPECT_EQ(Ostrel_InterfaceFindByName(ifname, &daemon.system.interfaceList, &iface), kNoErr);
        return iface;
    }
};

constexpr char kAll[] = R"({"subscribe":true})";
constexpr char kEth0[] = R"({"interface":"eth0","subscribe":true})";

TEST(BusNews, AStateGoesToWhomItConcernsOnce) {
    NewsLan lan;
    const Ostrel_Audience& audience = lan.daemon.system.audience;
    EXPECT_EQ(lan.Ask("interfaceState", kEth0, ":1.1"), R"({"returnValue":true,"subscribed":true,"interfaceList":[]})");
    (void)lan.Ask("interfaceState", kAll, ":1.2");
    (void)lan.Ask("interfaceState", kEth0, ":1.2");
    EXPECT_EQ(audience.states, 3U);
    EXPECT_EQ(lan.world.Call("/client", "leaseInformation", kAll, ":1.3"),
              R"({"returnValue":true,"subscribed":true,"interfaceList":[]})");

    ASSERT_TRUE(lan.daemon.Initialize("eth0"));
    ASSERT_TRUE(lan.daemon.Initialize("usb0", {{"ipv4LinkLocal", true}}));
    EXPECT_FALSE(lan.daemon.Initialize("eth0")) << "there is one already";
    lan.world.RunFor(1ms);
    EXPECT_EQ(lan.TakeNames(":1.1"), " eth0");
    EXPECT_EQ(lan.TakeNames(":1.2"), " eth0 usb0") << "enrolled twice, and told once";

    for (int i = 0; i < 3; ++i) Ostrel_InterfacePictureChanged(lan.Find("eth0"));
    Ostrel_InterfacePictureTurns(lan.Find("eth0"));
    Ostrel_InterfacePictureChanged(lan.Find("eth0"));
    lan.world.RunFor(1ms);
    EXPECT_EQ(lan.Take(":1.1").size(), 2U);
    lan.daemon.Finalize("usb0");
    Ostrel_InterfacePictureChanged(lan.Find("eth0"));
    lan.daemon.Finalize("eth0");
    EXPECT_EQ(lan.TakeNames(":1.1"), " eth0 -eth0");
    EXPECT_EQ(lan.TakeNames(":1.2"), " eth0 eth0 -usb0 eth0 -eth0");
    EXPECT_TRUE(lan.Take(":1.3").empty());

    EXPECT_EQ(lan.Ask("interfaceState", R"({"interface":"usb0","subscribe":false})", ":1.2"),
              R"({"returnValue":true,"interfaceList":[]})");
    EXPECT_EQ(audience.states, 1U) << "whatever they were about";
    lan.world.LeaveBus(":1.1");
    EXPECT_EQ(audience.states, 0U);
    ASSERT_TRUE(lan.daemon.Initialize("eth0"));
    EXPECT_FALSE(lan.Find("eth0")->pictureIsStale) << "nobody listens";
}

TEST(BusNews, WhatCannotBeUsedEnrolsNobodyAndIsTold) {
    NewsLan lan;
    ASSERT_TRUE(lan.daemon.Initialize("eth0"));
    const char* names[] = {"5", "null", "[]", R"("")", R"("seventeen-letters")", R"("eth0\u0000")"};
    for (const char* method : {"interfaceState", "trace", "leaseEvents"}) {
        for (const char* name : names) {
            const std::string request = R"({"interface":)" + std::string(name) + R"(,"subscribe":true})";
            const std::string reply = lan.Ask(method, request, ":1.1");
            EXPECT_TRUE(reply.starts_with(R"({"returnValue":false,"problem":"\"interface\": )")) << method << reply;
        }
        for (const char* request : {"[]", "", R"("eth0")"})
            EXPECT_EQ(lan.Ask(method, request, ":1.1"), R"({"returnValue":false})") << method;
        EXPECT_TRUE(
            lan.Ask(method, R"({"interFace":7,"subscribe":"true"})", ":1.1").starts_with(R"({"returnValue":true)"))
            << method;
        lan.world.failReplies = true;
        EXPECT_EQ(lan.Ask(method, kAll, ":1.1"), "");
        lan.world.failReplies = false;
    }
    const Ostrel_Audience& audience = lan.daemon.system.audience;
    EXPECT_EQ(audience.states + audience.trace + audience.leaseEvents, 0U);
}

// How many events a subscriber got, was told that it has missed, and whether they came in order with the right counts.
struct Account {
    uint64_t got = 0;
    uint64_t missed = 0;

    void Add(const Texts& texts) {
        for (const std::string& text : texts) {
            const size_t missedPlace = text.find(R"("event":"missed","count":)");
            const size_t expires = text.find(R"("expires":)");
            if (missedPlace != std::string::npos) {
                missed += std::stoul(text.substr(missedPlace + 25));
            } else if (text.find(R"("event":)") != std::string::npos) {
                EXPECT_EQ(std::stoul(text.substr(expires + 10)), first + got + missed) << "not in its place";
                ++got;
            }
        }
    }
    uint64_t first;  // what the first one expires at
};

TEST(BusNews, AFloodOfEventsDelaysNoStateAndIsCounted) {
    NewsLan lan;
    ASSERT_TRUE(lan.daemon.Initialize("eth0"));
    for (const char* caller : {":1.1", ":1.2", ":1.3"}) {
        EXPECT_EQ(lan.Ask("leaseEvents", kEth0, caller), R"({"returnValue":true,"subscribed":true})");
        (void)lan.Ask("interfaceState", kEth0, caller);
    }
    (void)lan.Ask("leaseEvents", R"({"interface":"usb0","subscribe":true})", ":1.4");
    Ostrel_InterfaceObj* eth0 = lan.Find("eth0");
    const auto wall = static_cast<uint64_t>(lan.world.wallStart);
    uint32_t told = 0;
    const auto tell = [&](uint32_t count, Duration pause = 20ms) {
        for (uint32_t i = 0; i < count; ++i) {
            const std::vector<uint8_t> name(100, 0xFF);
            Ostrel_VoroServicePublishLeaseEvent(eth0, {Ostrel_LeaseEventKind::Granted,
                                                       0x0100A8C0,
                                                       {2, 0, 0, 0, 0, 9},
                                                       name,
                                                       true,
                                                       lan.world.monotonicStart + told++});
            if (i % 50 == 0) lan.world.RunFor(pause);
        }
    };
    Account reader{.first = wall};
    Account slow{.first = wall};
    lan.world.StopReading(":1.2");
    lan.world.StopReading(":1.3");
    tell(2000);
    reader.Add(lan.Take(":1.1"));
    EXPECT_EQ(reader.got, 2000U);
    const size_t unread = lan.world.UnreadBytes(":1.2");
    EXPECT_LT(unread, 256U * 1024 + 2000);
    EXPECT_GT(unread, 20'000U) << "nothing was tried";

    eth0->leaseIsHeld = true;
    Ostrel_InterfacePictureChanged(eth0);
    lan.world.RunFor(1ms);
    EXPECT_GT(lan.world.UnreadBytes(":1.2"), unread) << "the state was held up by events";
    for (int i = 0; i < 100; ++i) {
        Ostrel_InterfacePictureChanged(eth0);
        Ostrel_InterfacePictureTurns(eth0);
    }
    lan.world.ReadAgain(":1.2");
    lan.world.RunFor(1s);
    tell(200);
    const Texts texts = lan.Take(":1.2");
    slow.Add(texts);
    EXPECT_EQ(slow.got + slow.missed, 2200U) << "each is either told or counted";
    EXPECT_GE(slow.missed, 1800U);
    EXPECT_LT(texts.size(), 128U + 1 + 200 + 40) << "states are coalesced";
    reader.Add(lan.Take(":1.1"));
    EXPECT_EQ(reader.got, 2200U);
    EXPECT_TRUE(lan.Take(":1.4").empty());
    tell(5000, 1ms);
    lan.world.RunFor(1s);
    tell(1);
    reader.Add(lan.Take(":1.1"));
    EXPECT_GE(reader.missed, 4000U) << "the flood costs more than what it is of";
    EXPECT_EQ(reader.got + reader.missed, told);
    const uint64_t missed = reader.missed;

    lan.world.failPosts = true;
    tell(3);
    lan.world.failPosts = false;
    tell(1);
    reader.Add(lan.Take(":1.1"));
    EXPECT_EQ(reader.missed, missed + 3);
    for (const char* caller : {":1.1", ":1.2", ":1.3", ":1.4"}) lan.world.LeaveBus(caller);
    const Ostrel_Audience& audience = lan.daemon.system.audience;
    EXPECT_EQ(audience.states + audience.trace + audience.leaseEvents, 0U);
    lan.world.RunFor(1s);
    EXPECT_EQ(lan.world.PendingTimeouts(), 0U);
}

TEST(BusNews, AFrameIsToldWithWhatBecameOfIt) {
    NewsLan lan;
    ASSERT_TRUE(lan.daemon.Initialize("eth0"));
    (void)lan.Ask("trace", kEth0, ":1.1");
    const Frame frame = WriteARP({.ethernetDestination = kEveryone, .operation = 1, .senderMAC = kOtherMAC});
    const auto publish = [&](const char* ifname) {
        Ostrel_VoroServicePublishFrame(lan.Find(ifname), "arp", Ostrel_Direction::Received, frame,
                                       {Ostrel_VerdictKind::Malformed, nullptr, 51, 3});
    };
    lan.world.RunFor(1500ms);
    publish("eth0");
    const Texts texts = lan.Take(":1.1");
    ASSERT_EQ(texts.size(), 1U);
    for (const char* part : {R"({"returnValue":true,"interface":"eth0","time":1780000001500000,"direction":"in",)",
                             R"("role":"arp","source":"02:00:00:00:00:77","destination":"ff:ff:ff:ff:ff:ff",)",
                             R"("xid":null,"addresses":{)", R"("verdict":"malformed: option 51 has 3 bytes","text":")",
                             R"("frame":"ffffffffffff0200000000770806)"})
        EXPECT_NE(texts[0].find(part), std::string::npos) << part << " " << texts[0];

    for (int i = 0; i < 1000; ++i) {
        publish("eth0");
        if (i % 50 == 0) lan.world.RunFor(1ms);
    }
    EXPECT_EQ(lan.Take(":1.1").size(), 199U);
    lan.world.RunFor(1s);
    publish("eth0");
    EXPECT_TRUE(lan.Take(":1.1").at(0).ends_with(R"("leftOut":801})"));
    ASSERT_TRUE(lan.daemon.Initialize("usb0"));
    publish("usb0");
    EXPECT_TRUE(lan.Take(":1.1").empty());
    EXPECT_EQ(lan.Find("usb0")->traceSample.told, 0U) << "not even decoded";
}

}  // namespace
}  // namespace sim
