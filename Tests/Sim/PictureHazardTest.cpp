// Whatever happens on a network and to a device: who only listens to "interfaceState" knows at any moment what one is
// told who asks, has heard of every state that the log tells of, and of every message before the client sends it.

#include <map>
#include <regex>
#include <set>

#include "PictureScene.h"

namespace sim {
namespace {

// A network on which everything happens, a step at a time.
class Hazards {
public:
    Hazards(uint64_t seed, bool rfc) : lan(rfc, "dhcp", seed), isRFC(rfc) {
        lan.wire.faults = {.loss = 50, .duplication = 100, .delay = 200, .maximumDelay = 2s};
    }

    void Step() {
        stepBegan = lan.world.Now();
        const size_t what = Draw(20);
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
            EXPECT_EQ(Comparable(known[name]), Comparable(asked)) << lan.world.Describe();
            for (const char* key : {"nextTry", "renews", "rebinds", "expires"}) {
                const std::string moment = ValueOf(RoleOf(asked, "client"), key);
                if (moment.empty() || moment == "null") continue;
                const Duration due = Duration(1s) * (std::stoll(moment) - lan.world.wallStart);
                EXPECT_GT(due, lan.world.Now() - 1001ms - Slack()) << key << " has passed" << lan.world.Describe();
            }
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
    size_t Draw(size_t below) { return static_cast<size_t>(lan.world.random() % below); }

    // The two clocks of a device that has slept don't change their seconds at the same time, and the times that are
    // shown follow when they are two seconds apart.
    [[nodiscard]] Duration Slack() const { return lan.world.TimeAwake() == lan.world.Now() ? 0s : 2s; }
    [[nodiscard]] std::string Comparable(const std::string& state) const {
        static const std::regex kTime("17[0-9]{8}");
        return Slack() == 0s ? state : std::regex_replace(state, kTime, "TIME");
    }

    static std::string StateIn(const std::string& message) {
        const size_t start = message.find(R"({"interface":)");
        if (start == std::string::npos || message.find(R"("managed":false)") != std::string::npos) return "";
        return message.substr(start, message.find(R"(,"counters":)") - start);
    }

    void Read() {
        CheckPromises();
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

    // A DISCOVER or REQUEST that nobody asked for goes out when the posts have said, to the second.
    void CheckPromises() {
        for (const Post& post : lan.world.posts) {
            Promise promise{post.time, {}};
            for (const char* key : {"nextTry", "renews", "rebinds"}) {
                const std::string moment = ValueOf(RoleOf(post.payload, "client"), key);
                if (!moment.empty() && moment != "null") promise.seconds.push_back(std::stoll(moment));
            }
            promises.push_back(promise);
        }
        for (; framesSeen < lan.wire.sent.size(); ++framesSeen) {
            const SentFrame& frame = lan.wire.sent[framesSeen];
            const std::optional<DHCPMessage> message = ReadDHCP(frame.bytes);
            if (!message || message->destinationPort != 67 || frame.time == stepBegan) continue;
            if (message->Type() == kDiscover || message->Type() == kRequest) {
                EXPECT_TRUE(IsPromised(frame.time)) << DescribeFrame(frame.bytes) << lan.world.Describe();
            }
        }
        promises.erase(promises.begin(), promises.empty() ? promises.end() : promises.end() - 1);
    }

    // By what was told last before that moment, or in it.
    [[nodiscard]] bool IsPromised(Duration time) const {
        for (auto one = promises.rbegin(); one != promises.rend(); ++one) {
            if (one->time > time) continue;
            for (const int64_t second : one->seconds)
                if (const Duration since = time - Duration(1s) * (second - lan.world.wallStart);
                    since >= -Slack() && since < 1001ms + Slack())
                    return true;
            if (one->time < time) return false;
        }
        return false;
    }

    // An address goes out of use for a reason that takes it away.
    void CheckLoss(const std::string& before, const std::string& now) {
        if (now.empty() || ValueOf(before, "held") != "true" || ValueOf(now, "held") == "true") return;
        static const std::set<std::string> kLosses{"expired", "nak",     "conflict",  "action",
                                                   "link",    "removed", "malformed", "ack"};
        EXPECT_TRUE(kLosses.contains(WordOf(now, "reason"))) << before << now;
        ++losses;
    }

    void Configure(size_t what) {
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

    void Act(size_t what) {
        constexpr std::array kWords{"init", "init", "init", "renew", "rebind", "halt"};
        const char* const word = kWords.at(what);
        if (what == 1) return lan.Act(word, {.address = htobe32(ToIPv4(kLease))});
        lan.daemon.LeaseAction(lan.Interface().ifname.data(), word);
    }

    void Disturb(size_t what) {
        if (what == 0) lan.Claim(be32toh(lan.Client().lease.IPv4Address));
        if (what == 1) lan.Contest();
        if (what == 2) lan.world.SetLink(device, Draw(4) != 0);
        if (what == 3) lan.world.FailSends(device, SendFault::Short, static_cast<uint32_t>(Draw(3)));
        if (what == 4) lan.world.FailAllocation(1 + Draw(5));
        if (what == 5 && Draw(2) == 0) TakeOut();
        if (what == 5) Rename();
        if (what == 6) HandOverAnew();
        if (what == 7 && isRFC) Sleep(Duration(static_cast<int64_t>(Draw(100'000'000))));
    }

    void TakeOut() {
        lan.world.RemoveInterface(device);
        lan.world.RunFor(Duration(static_cast<int64_t>(Draw(9'000'000))));
        lan.world.AddInterface(device, {2, 0, 0, 0, 0, static_cast<uint8_t>(Draw(4))}, lan.wire);
    }

    void Sleep(Duration duration) {
        lan.world.Suspend(duration);
        lan.world.RunFor(duration + 1ms);
    }

    void HandOverAnew() {
        lan.daemon.Finalize(lan.Interface().ifname.data());
        lan.world.RunFor(11s);  // a new client knows nothing of the messages of the one before
        lan.world.FailAllocation(0);
        lan.Manage(device, isRFC);
    }

    void Rename() {
        const std::string name = device == "eth0" ? "eth1" : "eth0";
        lan.world.RenameInterface(device, name);
        device = name;
    }

    bool isRFC;
    std::string device = "eth0";
    struct Promise {
        Duration time;
        std::vector<int64_t> seconds;  // of the wall clock
    };
    std::vector<Promise> promises;  // the last one, and those of the step under way
    size_t framesSeen = 0;
    Duration stepBegan{0};
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
