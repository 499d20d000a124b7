// REQUESTs for the addresses of a server's range, in turns, whatever it answers.
//
//     requests -a FIRST -c CLIENTS -t SECONDS [-r RATE] IFACE
//
// The Nth client of dhcpload asks for the Nth address from FIRST on, so where dhcpload filled the range one by one,
// every request is granted. Without RATE they go out as fast as one core can send. Prints how many a second it were.
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

#include "Wire.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    uint32_t first = 0;  // in host order
    uint32_t clients = 0;
    uint32_t seconds = 0;
    uint32_t rate = 0;  // a second; 0: no limit
    const char* ifname = nullptr;
};

bool ParseOptions(int argc, char* argv[], Options& options) {
    for (int letter = getopt(argc, argv, "a:c:t:r:"); letter != -1; letter = getopt(argc, argv, "a:c:t:r:")) {
        in_addr address{};
        const auto number = static_cast<uint32_t>(std::strtoul(optarg == nullptr ? "" : optarg, nullptr, 10));
        if (letter == 'a' && inet_aton(optarg, &address) != 0) options.first = ntohl(address.s_addr);
        if (letter == 'c') options.clients = number;
        if (letter == 't') options.seconds = number;
        if (letter == 'r') options.rate = number;
        if (letter == '?') return false;
    }
    if (optind + 1 != argc) return false;
    options.ifname = argv[optind];
    return options.first != 0 && options.clients != 0 && options.seconds != 0;
}

std::vector<bench::Frame> MakeFrames(const Options& options) {
    std::vector<bench::Frame> frames;
    for (uint32_t client = 0; client < options.clients; ++client) {
        const uint32_t address = htonl(options.first + client);
        bench::IPv4 requested;
        std::memcpy(requested.data(), &address, sizeof address);
        frames.push_back(
            bench::MakeRequest({bench::kRequest, bench::ClientAddress(client), 0x20000000 + client, requested, {}}));
    }
    return frames;
}

}  // namespace

int main(int argc, char* argv[]) {
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        (void)std::fprintf(stderr, "usage: requests -a FIRST -c CLIENTS -t SECONDS [-r RATE] IFACE\n");
        return 2;
    }
    bench::MAC mac{};
    const int fd = bench::OpenSocket(options.ifname, 68, mac);
    if (fd < 0) {
        std::perror(options.ifname);
        return 1;
    }
    const std::vector<bench::Frame> frames = MakeFrames(options);
    const Clock::time_point begun = Clock::now();
    const Clock::time_point end = begun + std::chrono::seconds(options.seconds);
    uint64_t sent = 0;
    for (; Clock::now() < end; ++sent) {
        if (options.rate != 0)
            std::this_thread::sleep_until(begun + std::chrono::nanoseconds(sent * 1'000'000'000 / options.rate));
        const bench::Frame& frame = frames[sent % frames.size()];
        (void)send(fd, frame.bytes.data(), frame.length, 0);  // a full queue is part of it
    }
    std::printf("%.0f a second\n",
                static_cast<double>(sent) / std::chrono::duration<double>(Clock::now() - begun).count());
    return 0;
}
