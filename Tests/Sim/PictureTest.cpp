// What a subscriber to "interfaceState" learns from posts alone: each state of each role in order, with a true reason,
// when an address may be used, and when the client sends next. It knows at any moment what one is told who asks.

#include <endian.h>
#include <map>
#include <regex>
#include <set>

#include "Ostrel/DHCPClient.h"
#include "Ostrel/Interface.h"
#include "Ostrel/LinkLocal.h"

#include "Harness.h"

namespace sim {
namespace {

constexpr char kListener[] = ":1.9";
constexpr char kLease[] = "192.0.2.10";

// The value of a member of an object in JSON, as it stands there; "" where there is none.
std::string ValueOf(const std::string& text, const std::string& key) {
    std::smatch match;
    return std::regex_search(text, match, std::regex("\"" + key + R"(":("[^"]*"|[^,}]*))")) ? match[1].str() : "";
}
// Likewise, of a text without its quotes.
std::string WordOf(const std::string& text, const std::string& key) {
    const std::string value = ValueOf(text, key);
    return value.starts_with('"') ? value.substr(1, value.size() - 2) : value;
}
// An object within one, without what it has of others.
std::string RoleOf(const std::string& text, const std::string& role) {
    const size_t start = text.find("\"" + role + "\":{\"state\"");
    return start == std::string::npos ? "" : text.substr(start, text.find('}', start) - start);
}

// eth0 with a client and a selector that both idle, a server, and a subscriber that only listens.
struct PictureLan {
    explicit PictureLan(bool rfc, std::string_view config = "dhcp", uint64_t seed = 1) : world(seed) {
        world.AddInterface("eth0", kClientMAC, wire);
        (void)world.Call("/", "interfaceState", R"({"subscribe":true})", kListener);
        EXPECT_TRUE(daemon.Initialize("eth0", {{"rfc", rfc},
                                               {"ipv4Config", config},
                                               {"ipv4Address", "192.0.2.7"},
                                               {"ipv4Subnet", "255.255.255.0"},
                                               {"ipv4LinkLocal", true}}));
        world.RunFor(1ms);
    }
    Ostrel_InterfaceObj& Interface() { return *daemon.system.interfaceList; }
    Ostrel_ClientObj& Client() { return *Interface().dhcpClient; }
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

// A network on which everything happens, a step at a time.
class Hazards {
public:
    Hazards(uint64_t seed, bool rfc) : lan(rfc, "dhcp", seed) {
        lan.wire.faults = {.loss = 50, .duplication = 100, .delay = 200, .maximumDelay = 2s};
    }

    void Step() {
        const uint64_t what = Draw(18);
        if (what < 6) Configure(Draw(8));
        if (what >= 6 && what < 12) Act(what - 6);
        if (what >= 12) Disturb(what - 12);
        lan.world.RunFor(Duration(static_cast<int64_t>(Draw(Draw(4) == 0 ? 60'000'000 : 2'000'000))));
        Read();
    }

    // What it knows of either name is what one is told who asks for it.
    void Compare() {
        for (const char* name : {"eth0", "eth1"}) {
            const std::string request = R"({"interface":")" + std::string(name) + R"("})";
            const std::string asked = StateIn(lan.world.Call("/", "interfaceState", request));
            EXPECT_EQ(known[name], asked) << lan.world.Describe();
        }
    }

    // The states that the log tells of are those of the posts, each once.
    void CompareWithLog() {
        std::vector<std::string> logged{"INIT-REBOOT"};
        for (const LogLine& line : lan.world.log) {
            const size_t place = line.text.find("DHCP Client state transition ");
            if (place == std::string::npos) continue;
            const size_t to = line.text.find("> ", place) + 2;
            const std::string state = line.text.substr(to, line.text.rfind('.') - to);
            if (state != logged.back()) logged.push_back(state);
        }
        EXPECT_EQ(states, logged) << lan.world.Describe();
    }

    PictureLan lan;
    std::map<std::string, std::string> known;  // by the name of the interface: its state, from posts alone
    std::vector<std::string> states{"INIT-REBOOT"};
    size_t losses = 0;

private:
    uint64_t Draw(uint64_t below) { return lan.world.random() % below; }

    static std::string StateIn(const std::string& message) {
        const size_t start = message.find(R"({"interface":)");
        if (start == std::string::npos || message.find(R"("managed":false)") != std::string::npos) return "";
        return message.substr(start, message.find(R"(,"counters":)") - start);
    }

    void Read() {
        for (const Post& post : lan.world.posts) {
            const std::string state = StateIn(post.payload);
            std::string& before = known[WordOf(post.payload, "interface")];
            CheckLoss(RoleOf(before, "client"), RoleOf(state, "client"));
            before = state;
            const std::string word = WordOf(RoleOf(state, "client"), "state");
            if (!word.empty() && word != states.back()) states.push_back(word);
        }
        lan.world.posts.clear();
    }

    // An address goes out of use for a reason that takes it away.
    void CheckLoss(const std::string& before, const std::string& now) {
        if (now.empty() || ValueOf(before, "held") != "true" || ValueOf(now, "held") == "true") return;
        static const std::set<std::string> kLosses{"expired", "nak",     "conflict",  "action",
                                                   "link",    "removed", "malformed", "ack"};
        EXPECT_TRUE(kLosses.contains(WordOf(now, "reason"))) << before << now;
        ++losses;
    }

    void Configure(uint64_t what) {
        ServerScript& script = lan.server.script;
        script.silent = what == 0;
        script.silentToRequest = what == 1;
        script.leaseTime = static_cast<uint32_t>(3 + Draw(300));
        script.tamper = nullptr;
        if (what == 2) lan.Answer(kNak);
        if (what == 3)
            script.tamper = [odd = Draw(3)](DHCPMessage& answer) {
                if (odd == 0 && answer.Type() == kAck) answer.options.resize(1);
                if (odd == 1) answer.yiaddr += 1;
            };
    }

    void Act(uint64_t what) {
        constexpr std::array kWords{"init", "init", "init", "renew", "rebind", "halt"};
        const char* const word = kWords.at(what);
        if (what == 1) return lan.Act(word, {.address = htobe32(ToIPv4(kLease))});
        lan.daemon.LeaseAction(lan.Interface().ifname.data(), word);
    }

    void Disturb(uint64_t what) {
        if (what == 0) lan.Claim(be32toh(lan.Client().lease.IPv4Address));
        if (what == 1) lan.Contest();
        if (what == 2) lan.world.SetLink(device, Draw(4) != 0);
        if (what == 3) lan.world.FailSends(device, SendFault::Short, static_cast<uint32_t>(Draw(3)));
        if (what == 4) lan.world.FailAllocation(1 + Draw(5));
        if (what == 5 && Draw(2) == 0) TakeOut();
        if (what == 5) Rename();
    }

    void TakeOut() {
        lan.world.RemoveInterface(device);
        lan.world.RunFor(Duration(static_cast<int64_t>(Draw(9'000'000))));
        lan.world.AddInterface(device, {2, 0, 0, 0, 0, static_cast<uint8_t>(Draw(4))}, lan.wire);
    }

    void Rename() {
        const std::string name = device == "eth0" ? "eth1" : "eth0";
        lan.world.RenameInterface(device, name);
        device = name;
    }

    std::string device = "eth0";
};

TEST(Picture, WhoOnlyListensKnowsWhatOneIsToldWhoAsks) {
    size_t losses = 0;
    for (uint64_t seed = 1; seed <= 20; ++seed) {
        for (const bool rfc : {false, true}) {
            SCOPED_TRACE(testing::Message() << "seed " << seed << (rfc ? " rfc" : " plain"));
            Hazards hazards(seed, rfc);
            for (int step = 0; step < 200 && !testing::Test::HasFailure(); ++step) {
                hazards.Step();
                hazards.Compare();
            }
            hazards.CompareWithLog();
            losses += hazards.losses;
        }
    }
    EXPECT_GT(losses, 200U) << "nothing was tried";
}

}  // namespace
}  // namespace sim
