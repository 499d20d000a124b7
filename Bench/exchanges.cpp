// What the server's own work for a frame costs, without the device: whole exchanges of clients that it knows, by either
// set of rules, with a small table and a large one.
//
//     exchanges [ROUNDS]      by default 30
//
// On the simulated platform, in processor time, of which the shortest of all rounds is told: on a machine that does
// something else as well that is the one which was least disturbed. By the rfc rules the large table has a client
// remembered in each slot, and 1,000 addresses that are kept for others.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <span>
#include <string>
#include <vector>

#include "Ostrel/DHCPServer.h"
#include "Ostrel/Interface.h"
#include "Ostrel/Log.h"
#include "Ostrel/System.h"

#include "Sim.h"
#include "Wire.h"  // of this directory

namespace {

constexpr uint32_t kClients = 50;
constexpr uint32_t kExchanges = 2000;  // a round
constexpr uint32_t kServer = 0x0A000001;
constexpr uint32_t kFirst = 0x0A000002;

double ThreadMicroseconds() {
    timespec now{};
    (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

bench::IPv4 BytesOf(uint32_t address) {
    return {static_cast<uint8_t>(address >> 24), static_cast<uint8_t>(address >> 16),
            static_cast<uint8_t>(address >> 8), static_cast<uint8_t>(address)};
}

bench::Frame Request(uint32_t client) {
    return bench::MakeRequest(
        {bench::kRequest, bench::ClientAddress(client), client, BytesOf(kFirst + client), BytesOf(kServer)});
}

std::string Configuration(bool rfc, uint32_t slots) {
    std::string text = R"({"interface":"usb0","mode":"server","ipv4Address":"10.0.0.1","ipv4Subnet":"255.255.0.0",)"
                       R"("ipv4Router":"10.0.0.1","ipv4RangeStart":"10.0.0.2","leaseTime":600,"maxLeases":)" +
                       std::to_string(slots);
    if (rfc) text += R"(,"rfc":true,"probe":0,"fixed":[)";
    for (uint32_t i = 0; rfc && i < std::min(slots / 10, 1000U); ++i) {
        char element[128];
        (void)std::snprintf(element, sizeof element,
                            R"(%s{"macAddress":"02:ff:00:00:%02x:%02x","ipv4Address":"10.0.%u.%u"})", i == 0 ? "" : ",",
                            i >> 8, i & 255, 240 + i / 250, 1 + i % 250);
        text += element;
    }
    return text + (rfc ? "]}" : "}");
}

class Table {
public:
    Table(bool rfc, uint32_t slots) {
        world.AddInterface("usb0", {2, 0, 0, 0, 0, 1}, wire);
        wire.sentLimit = 0;
        world.keepLog = false;
        if (Ostrel_DaemonStart(&system) != kNoErr) std::abort();
        (void)QxLogGetContext(kServiceName, &gLogCxt);  // with a level, so that debug lines cost nothing
        Ostrel_SetDebugLevel("notice");
        (void)world.Call("/", "interfaceInitialize", Configuration(rfc, slots));
        if (system.interfaceList == nullptr) std::abort();
        for (uint32_t client = 0; rfc && client < slots; ++client) Handle(Request(client));
        world.RunFor(std::chrono::seconds(601));
        for (uint32_t client = 0; client < kClients; ++client) {
            discovers.push_back(bench::MakeRequest({bench::kDiscover, bench::ClientAddress(client), client, {}, {}}));
            requests.push_back(Request(client));
        }
        (void)Round();
    }
    ~Table() { (void)Ostrel_DaemonStop(&system); }
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    // Microseconds an exchange.
    double Round() {
        const double begun = ThreadMicroseconds();
        for (uint32_t i = 0; i < kExchanges; ++i) {
            Handle(discovers[i % kClients]);
            Handle(requests[i % kClients]);
        }
        const double spent = ThreadMicroseconds() - begun;
        world.RunFor(std::chrono::milliseconds(1));  // what was sent goes nowhere
        return spent / kExchanges;
    }

private:
    void Handle(const bench::Frame& frame) {
        Ostrel_BOOTPServerPacketFilterHandler(system.interfaceList, nullptr,
                                              std::span(frame.bytes).first(frame.length));
    }

    sim::World world;
    sim::Segment& wire = world.AddSegment();
    Ostrel_SystemObj system{};
    std::vector<bench::Frame> discovers;
    std::vector<bench::Frame> requests;
};

double Shortest(bool rfc, uint32_t slots, int rounds) {
    Table table(rfc, slots);
    double shortest = table.Round();
    for (int round = 1; round < rounds; ++round) shortest = std::min(shortest, table.Round());
    return shortest;
}

}  // namespace

int main(int argc, char* argv[]) {
    const int rounds = argc > 1 ? std::max(static_cast<int>(std::strtol(argv[1], nullptr, 10)), 1) : 30;
    for (const bool rfc : {false, true}) {
        const double small = Shortest(rfc, 100, rounds);
        const double large = Shortest(rfc, 60'000, rounds);
        std::printf("%-5s 100 slots %.2f us, 60,000 slots %.2f us an exchange, ratio %.2f\n", rfc ? "rfc" : "plain",
                    small, large, large / small);
    }
    return 0;
}
