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
    for (const char* method : {"interfaceState"}) {
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
    EXPECT_EQ(lan.daemon.system.audience.states, 0U);
    EXPECT_EQ(lan.world.BusAccounts(), 1U);
}

}  // namespace
}  // namespace sim
