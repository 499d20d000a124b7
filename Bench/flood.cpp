// Frames without end, as fast as one processor can send them: what a hostile or broken host does to a link.
//
//     flood -t SECONDS [-a ADDRESS -m MAC] IFACE
//
// In turns: a DISCOVER of a random Ethernet address; ARP requests and answers of other hosts about other addresses, to
// all; an OFFER and a DHCPACK to another client, to all; and, with -a and -m, a renewal from a random Ethernet address
// to the server that has them, for an address that isn't its own. Prints how many a second it were.
#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <iterator>
#include <netinet/ether.h>
#include <random>
#include <sys/socket.h>
#include <vector>

#include "Wire.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t kFrames = 4096;  // different ones
constexpr size_t kBatch = 64;     // a system call
constexpr bench::MAC kEverybody{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

struct Options {
    uint32_t seconds = 0;
    bench::IPv4 server{};
    bench::MAC serverMAC{};
    bool hasServer = false;
    const char* ifname = nullptr;
};

bool ReadMAC(const char* text, bench::MAC& mac) {
    ether_addr address{};
    if (ether_aton_r(text, &address) == nullptr) return false;
    std::copy(std::begin(address.ether_addr_octet), std::end(address.ether_addr_octet), mac.begin());
    return true;
}

bool ParseOptions(int argc, char* argv[], Options& options) {
    for (int letter = getopt(argc, argv, "t:a:m:"); letter != -1; letter = getopt(argc, argv, "t:a:m:")) {
        if (letter == 't') options.seconds = static_cast<uint32_t>(std::strtoul(optarg, nullptr, 10));
        if (letter == 'a' && inet_pton(AF_INET, optarg, options.server.data()) != 1) return false;
        if (letter == 'm') options.hasServer = true;
        if (letter == '?' || (letter == 'm' && !ReadMAC(optarg, options.serverMAC))) return false;
    }
    if (optind + 1 != argc) return false;
    options.ifname = argv[optind];
    return options.seconds != 0;
}

class Maker {
public:
    explicit Maker(const Options& given) : options(given) {}

    bench::Frame Next(size_t number) {
        const bench::Message message{.type = bench::kDiscover,
                                     .client = Station(),
                                     .xid = static_cast<uint32_t>(random()),
                                     .address = Address(),
                                     .server = Address()};
        switch (number % (options.hasServer ? 6 : 5)) {
            case 0:
                return bench::MakeRequest(message);
            case 1:
                return ARP(1);
            case 2:
                return ARP(2);
            case 3:
                return ToAll(message, bench::kOffer);
            case 4:
                return ToAll(message, bench::kAck);
            default:
                return Renewal(message);
        }
    }

private:
    bench::MAC Station() {
        const uint64_t number = random();
        bench::MAC mac{0x02};
        std::memcpy(&mac[1], &number, mac.size() - 1);
        return mac;
    }

    bench::IPv4 Address() {  // of nobody here
        const uint64_t number = random();
        return {172, 16, static_cast<uint8_t>(number), static_cast<uint8_t>(number >> 8)};
    }

    bench::Frame ToAll(bench::Message message, uint8_t type) {
        message.type = type;
        bench::Frame frame = bench::MakeReply(message, Station(), 3600);
        std::copy(kEverybody.begin(), kEverybody.end(), frame.bytes.begin());
        return frame;
    }

    bench::Frame Renewal(bench::Message message) {
        message.type = bench::kRequest;
        message.server = options.server;
        return bench::MakeRenewal(message, options.serverMAC);
    }

    bench::Frame ARP(uint8_t operation) {
        constexpr std::array<uint8_t, 10> kHeader{0x08, 0x06, 0, 1, 0x08, 0, 6, 4, 0, 0};
        bench::Frame frame{};
        frame.length = 42;
        const bench::MAC sender = Station();
        const bench::IPv4 addresses[] = {Address(), Address()};
        std::copy(kEverybody.begin(), kEverybody.end(), frame.bytes.begin());
        std::copy(sender.begin(), sender.end(), &frame.bytes[6]);
        std::copy(kHeader.begin(), kHeader.end(), &frame.bytes[12]);
        frame.bytes[21] = operation;
        std::copy(sender.begin(), sender.end(), &frame.bytes[22]);
        std::copy(addresses[0].begin(), addresses[0].end(), &frame.bytes[28]);
        std::copy(addresses[1].begin(), addresses[1].end(), &frame.bytes[38]);
        return frame;
    }

    const Options options;
    std::mt19937_64 random{1};
};

// How many were sent; what is not taken is lost.
size_t SendBatch(int fd, std::vector<bench::Frame>& frames, size_t first) {
    std::array<iovec, kBatch> vectors;
    std::array<mmsghdr, kBatch> messages{};
    for (size_t i = 0; i < kBatch; ++i) {
        bench::Frame& frame = frames[(first + i) % frames.size()];
        vectors[i] = {frame.bytes.data(), frame.length};
        messages[i].msg_hdr.msg_iov = &vectors[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int sent = sendmmsg(fd, messages.data(), kBatch, 0);
    return sent > 0 ? static_cast<size_t>(sent) : 0;
}

}  // namespace

int main(int argc, char* argv[]) {
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        (void)std::fprintf(stderr, "usage: flood -t SECONDS [-a ADDRESS -m MAC] IFACE\n");
        return 2;
    }
    bench::MAC mac{};
    const int fd = bench::OpenSocket(options.ifname, 1, mac);
    if (fd < 0) {
        std::perror(options.ifname);
        return 1;
    }
    Maker maker(options);
    std::vector<bench::Frame> frames;
    for (size_t i = 0; i < kFrames; ++i) frames.push_back(maker.Next(i));
    const Clock::time_point begun = Clock::now();
    const Clock::time_point end = begun + std::chrono::seconds(options.seconds);
    size_t sent = 0;
    for (size_t first = 0; Clock::now() < end; first += kBatch) sent += SendBatch(fd, frames, first);
    std::printf("%.0f a second\n",
                static_cast<double>(sent) / std::chrono::duration<double>(Clock::now() - begun).count());
    return 0;
}
