// What a subscriber to "interfaceState" learns from posts alone: each state of each role in order, with a true reason,
// when an address may be used, and when the client sends next; and what becomes of each frame that the client gets.

#include <numeric>

#include "PictureScene.h"

namespace sim {
namespace {

struct Situation {
    bool rfc;
    void (*play)(PictureLan& lan);
    const char* client;
    const char* linkLocal = nullptr;
};

void Play(const Situation& situation, std::string_view config = "dhcp") {
    PictureLan lan(situation.rfc, config);
    situation.play(lan);
    lan.world.RunFor(1ms);
    if (situation.client != nullptr) {
        EXPECT_EQ(lan.Told("client"), situation.client) << lan.world.Describe();
    }
    if (situation.linkLocal != nullptr) {
        EXPECT_EQ(lan.Told("linkLocal"), situation.linkLocal) << lan.world.Describe();
    }
}

TEST(Picture, EachStateOfAClientIsToldWithItsReason) {
    const Situation situations[] = {
        {false, [](PictureLan& lan) { lan.Act("init"), lan.world.RunFor(3s); },
         "INIT-REBOOT start; INIT action; SELECTING action; REQUESTING offer; BOUND ack; BOUND ack held"},
        {false, [](PictureLan& lan) { lan.server.script.silent = true, lan.Act("init"), lan.world.RunFor(6s); },
         "INIT-REBOOT start; INIT action; SELECTING action; INIT timeout; SELECTING timeout"},
        {true, [](PictureLan& lan) { lan.server.script.silent = true, lan.Act("init"), lan.world.RunFor(20s); },
         "INIT-REBOOT start; INIT action; SELECTING action"},
        {true,
         [](PictureLan& lan) { lan.server.script.silentToRequest = true, lan.Act("init"), lan.world.RunFor(80s); },
         "INIT-REBOOT start; INIT action; SELECTING action; REQUESTING offer; INIT timeout; SELECTING timeout; "
         "REQUESTING offer"},
        {true, [](PictureLan& lan) { lan.Answer(kNak), lan.Act("init"), lan.world.RunFor(900ms); },
         "INIT-REBOOT start; INIT action; SELECTING action; REQUESTING offer; INIT nak"},
        {true, [](PictureLan& lan) { lan.Act("init"), lan.world.RunFor(200ms), lan.Claim(ToIPv4(kLease)); },
         "INIT-REBOOT start; INIT action; SELECTING action; REQUESTING offer; BOUND ack; INIT conflict"},
        {false, [](PictureLan& lan) { lan.Bind(), lan.Claim(ToIPv4(kLease)); },
         "INIT conflict; SELECTING conflict; REQUESTING offer; BOUND ack"},
        {true, [](PictureLan& lan) { lan.Bind(), lan.Claim(ToIPv4(kLease)), lan.Claim(ToIPv4(kLease)); },
         "BOUND ack held; INIT conflict"},
        {true, [](PictureLan& lan) { lan.Bind(600), lan.server.script.silent = true, lan.world.RunFor(598s); },
         "RENEWING t1 held; REBINDING t2 held; INIT expired; SELECTING expired"},
        {false, [](PictureLan& lan) { lan.Bind(), lan.Act("halt"); }, "INIT-REBOOT action"},
        {true, [](PictureLan& lan) { lan.Bind(), lan.Act("renew"), lan.world.RunFor(1s); },
         "RENEWING action held; BOUND ack held"},
        {true, [](PictureLan& lan) { lan.Bind(600), lan.Answer(kNak), lan.RunUntil("INIT nak"); },
         "RENEWING t1 held; INIT nak"},
        {false,
         [](PictureLan& lan) {
             lan.Bind(600);
             lan.server.script.tamper = [](DHCPMessage& answer) { answer.yiaddr = ToIPv4("192.0.2.99"); };
             lan.world.RunFor(302s);
         },
         "RENEWING t1 held; RENEWING ack; BOUND ack; BOUND ack held"},
        {false,
         [](PictureLan& lan) {
             lan.Bind(600);
             lan.server.script.tamper = [](DHCPMessage& answer) { answer.options.resize(1); };
             lan.world.RunFor(300s);
         },
         "RENEWING t1 held; INIT malformed; SELECTING malformed; INIT timeout"},
        {true, [](PictureLan& lan) { lan.Bind(), lan.world.SetLink("eth0", false); }, "BOUND link"},
        {true, [](PictureLan& lan) { lan.Bind(), lan.world.RemoveInterface("eth0"); }, "BOUND removed"},
        {true, [](PictureLan& lan) { lan.Bind(), lan.Unplug(), lan.world.RunFor(3s); },
         "BOUND link; REBOOTING link; BOUND ack; BOUND ack held"},
        {true,
         [](PictureLan& lan) { lan.Bind(), lan.server.script.silent = true, lan.Unplug(), lan.world.RunFor(99s); },
         "BOUND link; REBOOTING link; REBINDING timeout held"},
        {true, [](PictureLan& lan) { lan.Bind(), lan.Answer(kNak), lan.Unplug(), lan.world.RunFor(900ms); },
         "BOUND link; REBOOTING link; INIT nak"},
        {true, [](PictureLan& lan) { lan.Bind(600), lan.Unplug(600s), lan.world.RunFor(100ms); },
         "BOUND link; INIT expired; INIT link"},
        {true, [](PictureLan& lan) { lan.Bind(), lan.world.Suspend(60s), lan.world.RunFor(62s); },
         "BOUND ack held; REBOOTING wakeup held; BOUND ack held"},
        {true, [](PictureLan& lan) { lan.Act("init", {.address = htobe32(ToIPv4(kLease))}), lan.world.RunFor(900ms); },
         "INIT-REBOOT start; INIT action; REBOOTING action; BOUND ack; BOUND ack held"},
    };
    for (const Situation& situation : situations) Play(situation);
    Play({true,
          [](PictureLan& lan) {
              lan.world.RunFor(1ms), lan.Unplug(), lan.world.RunFor(1s), lan.Act("init"), lan.world.RunFor(1s);
              lan.Claim(ToIPv4("192.0.2.7"));
              const size_t posts = lan.world.posts.size();
              for (int i = 0; i < 100; ++i) lan.Claim(ToIPv4("192.0.2.7"));
              EXPECT_EQ(lan.world.posts.size(), posts) << "a stranger's flood is no news";
          },
          "STATIC start; STATIC start held; STATIC action held"},
         "static");
}

TEST(Picture, EachStateOfASelectorIsToldWithItsReason) {
    const Situation situations[] = {
        {true, [](PictureLan& lan) { lan.Select("init"), lan.world.RunFor(20s); }, nullptr,
         "IDLE start; INIT action; PROBE timeout; ANNOUNCE checked held; HELD checked held"},
        {false, [](PictureLan& lan) { lan.Select("init"), lan.world.RunFor(20s); }, nullptr,
         "IDLE start; INIT action; PROBE timeout; ANNOUNCE checked held; HELD checked held"},
        {true, [](PictureLan& lan) { lan.SelectAndHold(), lan.Contest(), lan.world.RunFor(10s); }, nullptr,
         "DEFEND conflict held; HELD timeout held"},
        {true, [](PictureLan& lan) { lan.SelectAndHold(), lan.Contest(), lan.Contest(), lan.world.RunFor(1s); },
         nullptr, "DEFEND conflict held; INIT conflict; PROBE timeout"},
        {false, [](PictureLan& lan) { lan.SelectAndHold(), lan.Contest(); }, nullptr, "INIT conflict"},
        {false, [](PictureLan& lan) { lan.SelectAndHold(), lan.Select("halt"); }, nullptr, "IDLE action"},
        {true, [](PictureLan& lan) { lan.SelectAndHold(), lan.Unplug(), lan.world.RunFor(1500ms); }, nullptr,
         "HELD link; INIT link; PROBE timeout"},
    };
    for (const Situation& situation : situations) Play(situation);
}

TEST(Picture, TheLastWaitForAnAnswerEndsWithoutATry) {
    PictureLan lan(false);
    lan.server.script.silentToRequest = true;
    lan.Act("init");
    lan.world.RunFor(63s);
    std::vector<std::string> waits;
    for (const Post& post : lan.world.posts) {
        const std::string client = RoleOf(post.payload, "client");
        if (WordOf(client, "state") != "REQUESTING") continue;
        const std::string next = ValueOf(client, "nextTry");
        waits.push_back(next == "null" ? next
                                       : std::to_string(std::stoll(next) - std::stoll(ValueOf(client, "since"))));
    }
    EXPECT_EQ(waits, (std::vector<std::string>{"4", "12", "28", "60", "null"}));
}

TEST(Picture, ALeaseThatIsHeldHasAnEndInEachPost) {
    for (const bool rfc : {false, true}) {
        PictureLan lan(rfc);
        lan.Bind(600);
        lan.world.RunFor(700s);
        int bound = 0;
        for (const Post& post : lan.world.posts) {
            const std::string text = RoleOf(post.payload, "client");
            EXPECT_NE(ValueOf(text, "expires"), "null") << text;
            bound += WordOf(text, "state") == "BOUND" ? 1 : 0;
        }
        EXPECT_EQ(bound, rfc ? 2 : 4) << "by the plain rules each of two renewals is checked first";
    }
}

TEST(Picture, ADeviceThatSleepsDoesNotPutOffTheEndOfItsLease) {
    PictureLan sleeper(true);
    sleeper.Bind();
    const std::string expires = ValueOf(sleeper.Asked(), "expires");
    sleeper.server.script.silent = true;
    sleeper.world.Suspend(600s);
    sleeper.world.RunFor(605s);
    EXPECT_EQ(ValueOf(sleeper.Asked(), "expires"), expires) << "its alarm goes on while the device sleeps";
    EXPECT_EQ(WordOf(sleeper.Asked(), "state"), "REBOOTING");
}

// A frame in answer to a REQUEST, changed, and what the trace says of it, which is also counted.
TEST(Picture, EachFrameThatTheClientGetsHasOneVerdict) {
    const struct {
        void (*tamper)(DHCPMessage& answer);
        const char* verdict;
    } cases[] = {
        {[](DHCPMessage&) {}, "taken"},
        {[](DHCPMessage& ack) { ++ack.xid; }, "xid"},
        {[](DHCPMessage& ack) { ++ack.chaddr[5]; }, "not for us"},
        {[](DHCPMessage& ack) { ack.options[0].second = {kInform}; }, "message type"},
        {[](DHCPMessage& ack) { ack.options[0].second = {kOffer}; }, "state REQUESTING"},
        {[](DHCPMessage& ack) { ack.options[0].second = {}; }, "malformed: option 53 has 0 bytes"},
        {[](DHCPMessage& ack) { ack.options.clear(); }, "malformed: option 53 is missing"},
        {[](DHCPMessage& ack) {
             OptionOf(ack, 54) = {192, 0, 2, 66};
         },
         "another server"},
        {[](DHCPMessage& ack) {
             OptionOf(ack, 51) = {1, 2, 3};
         },
         "malformed: option 51 has 3 bytes"},
        {[](DHCPMessage& ack) {
             OptionOf(ack, 51) = {0, 0, 0, 0};
         },
         "malformed: option 51 is 0"},
        {[](DHCPMessage& ack) { std::erase_if(ack.options, [](auto& one) { return one.first == 51; }); },
         "malformed: option 51 is missing"},
        {[](DHCPMessage& ack) {
             OptionOf(ack, 1) = {255, 0, 255, 0};
         },
         "malformed: option 1 is no mask"},
        {[](DHCPMessage& ack) { ack.yiaddr = 0; }, "malformed: no host's address"},
    };
    for (const auto& one : cases) {
        PictureLan lan(true);
        (void)lan.world.Call("/", "trace", R"({"subscribe":true})", ":1.8");
        lan.server.script.tamper = [&one](DHCPMessage& answer) {
            if (answer.Type() == kAck) one.tamper(answer);
        };
        lan.Act("init");
        lan.world.RunFor(1500ms);
        std::vector<std::string> verdicts;
        for (const Post& post : lan.world.posts)
            if (post.subscriber == ":1.8" && WordOf(post.payload, "direction") == "in")
                verdicts.push_back(WordOf(post.payload, "verdict"));
        EXPECT_EQ(verdicts, (std::vector<std::string>{"taken", one.verdict})) << lan.world.Describe();
        const Ostrel_ClientCounters& counters = lan.Client().counters;
        const uint64_t dropped = std::accumulate(counters.dropped.begin(), counters.dropped.end(), uint64_t{0});
        const uint64_t notSent = counters.dropped[static_cast<size_t>(Ostrel_VerdictKind::Limited)];
        EXPECT_EQ(counters.offerReceived + counters.ackReceived + dropped - notSent, 2U) << one.verdict;
    }
}

}  // namespace
}  // namespace sim
