// A client by the rfc rules. How many frames it may send is looked at in each of its scenes.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "Ostrel/DHCPClient.h"
#include "Ostrel/Interface.h"

#include "Harness.h"

namespace sim {

// The most frames that eth0 has sent in any time of that length.
inline size_t MostWithin(const Lan& lan, Duration window) {
    std::vector<Duration> moments;
    for (const SentFrame& frame : lan.wire.sent) {
        if (frame.sender == &lan.eth0) moments.push_back(frame.time);
    }
    size_t most = 0;
    for (size_t first = 0, next = 0; next < moments.size(); ++next) {
        while (moments[next] - moments[first] > window) ++first;
        most = std::max(most, next - first + 1);
    }
    return most;
}

// At its end: no more than 4 frames in any second, and 30 in any minute.
class RateWatch {
public:
    explicit RateWatch(const Lan& scene) : lan(scene) {}
    ~RateWatch() {
        EXPECT_LE(MostWithin(lan, 1s), 4U) << lan.world.Describe();
        EXPECT_LE(MostWithin(lan, 60s), 30U) << lan.world.Describe();
    }
    RateWatch(const RateWatch&) = delete;
    RateWatch& operator=(const RateWatch&) = delete;

private:
    const Lan& lan;
};

// A client by the rfc rules.
class RFCLan : public Lan {
public:
    explicit RFCLan(uint64_t seed = 1) : Lan(seed, {{"rfc", true}}), rates(*this) {}

    Ostrel_InterfaceObj& Interface() { return *daemon.system.interfaceList; }
    Ostrel_ClientObj& Client() { return *Interface().dhcpClient; }
    std::string State() { return Ostrel_ClientStateString(Client().state); }
    bool Act(const char* word, Ostrel_ActionValues values = {}) {
        return Ostrel_DHCPClientLeaseAction(&Interface(), word, values) == kNoErr;
    }
    bool IsHeld() { return Interface().leaseIsHeld; }
    // The seconds between messages of a kind.
    [[nodiscard]] std::vector<double> Gaps(MessageType type) const {
        std::vector<double> gaps;
        const std::vector<DHCPMessage> sent = Sent(type);
        for (size_t i = 1; i < sent.size(); ++i) {
            gaps.push_back(std::chrono::duration<double>(sent[i].time - sent[i - 1].time).count());
        }
        return gaps;
    }

private:
    RateWatch rates;
};

// The same, bound.
class BoundRFCLan : public RFCLan {
public:
    explicit BoundRFCLan(ServerScript script = {}, uint64_t seed = 1) : RFCLan(seed), server(wire, std::move(script)) {
        Init();
        RunFor(4s);  // announcements included
        EXPECT_EQ(world.posts.size(), 1U);
        EXPECT_TRUE(IsHeld());
    }
    ScriptedServer server;
};

}  // namespace sim
