// Load for a DHCP server: thousands of clients, each with an Ethernet address of its own, do whole exchanges.
//
//     dhcpload [-c CLIENTS] [-s FIRST] [-n EXCHANGES] [-w WINDOW] [-t SECONDS] [-r] IFACE
//
// An exchange is DISCOVER, OFFER, REQUEST, ACK. WINDOW of them are under way at any time; a message without an answer
// is sent again after a second, up to three times. Clients take turns, beginning with number FIRST, so with more
// exchanges than clients they come back for their lease. With -r every client first does one, which is not counted; an
// exchange is then the REQUEST of a renewal and its ACK. Prints exchanges a second, of the first and the last tenth as
// well, and the percentiles of the waits. Fails when an address is acknowledged to a second client, when a client is
// refused, or when SECONDS pass before all is done.
#include <algorithm>
#include <bit>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <getopt.h>
#include <poll.h>
#include <sys/socket.h>
#include <unordered_map>
#include <vector>

#include "Wire.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPatience = std::chrono::seconds(1);
constexpr uint32_t kTries = 4;
constexpr size_t kBatch = 64;  // frames a system call

struct Options {
    uint32_t clients = 1000;
    uint32_t first = 0;  // client to begin with
    uint32_t exchanges = 10000;
    uint32_t window = 32;
    uint32_t seconds = 60;
    bool renew = false;
    const char* ifname = nullptr;
};

struct Client {
    bench::Message waiting{};  // the request under way; type 0: none
    Clock::time_point sent{};  // when it was first sent
    uint32_t tries = 0;
    bench::IPv4 address{};  // of its lease; zero: none
    bench::IPv4 server{};
    bench::MAC serverMAC{};
};

struct Timer {
    Clock::time_point due;
    uint32_t client;
    uint32_t xid;
    uint8_t type;
};

class Load {
public:
    Load(const Options& given, int socket) : options(given), fd(socket), clients(given.clients), next(given.first) {}

    // True when every exchange was done.
    bool Run() {
        renews = false;
        if (options.renew && !RunUntil(options.clients)) return false;
        renews = options.renew;
        started = done = 0;
        ends.clear();
        offerWaits.clear();
        ackWaits.clear();
        return RunUntil(options.exchanges);
    }

    // False when a server did what none may do.
    bool Report() {
        std::printf("exchanges %u of %u in %.3f s: %.0f a second\n", done, options.exchanges, elapsed, done / elapsed);
        Tenths();
        Percentiles("DISCOVER to OFFER", offerWaits);
        Percentiles("REQUEST to ACK   ", ackWaits);
        std::printf("sent again %u, given up %u, refused %u, acknowledged twice %u\n", again, givenUp, refused,
                    doubled);
        return givenUp == 0 && refused == 0 && doubled == 0;
    }

private:
    bool RunUntil(uint32_t exchanges) {
        begun = Clock::now();
        const Clock::time_point end = begun + std::chrono::seconds(options.seconds);
        while (done < exchanges && Clock::now() < end) {
            Fill(exchanges);
            Flush();
            Receive();
            SendAgain();
        }
        elapsed = std::chrono::duration<double>(Clock::now() - begun).count();
        return done == exchanges;
    }

    void Fill(uint32_t exchanges) {
        while (started < exchanges && underWay < options.window) {
            const uint32_t index = next++ % options.clients;
            Client& client = clients[index];
            if (client.waiting.type != 0) continue;
            ++started;
            ++underWay;
            const uint8_t type = renews ? bench::kRequest : bench::kDiscover;
            Begin(index, {type, bench::ClientAddress(index), ++xid, client.address, client.server});
        }
    }

    void Begin(uint32_t index, const bench::Message& message) {
        Client& client = clients[index];
        client.waiting = message;
        client.sent = Clock::now();
        client.tries = 1;
        Send(message);
        timers.push_back({client.sent + kPatience, index, message.xid, message.type});
    }

    void Send(const bench::Message& message) {
        if (numKept == kBatch) Flush();
        const Client& client = clients[IndexOf(message.client)];
        bench::Frame& frame = kept[numKept++];
        frame = renews ? bench::MakeRenewal(message, client.serverMAC) : bench::MakeRequest(message);
    }

    // What is sent goes out together, so that the load costs less than what it measures.
    void Flush() {
        std::array<iovec, kBatch> vectors;
        std::array<mmsghdr, kBatch> messages{};
        for (size_t i = 0; i < numKept; ++i) {
            vectors[i] = {kept[i].bytes.data(), kept[i].length};
            messages[i].msg_hdr.msg_iov = &vectors[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        for (size_t first = 0; first < numKept;) {
            const int sent = sendmmsg(fd, &messages[first], static_cast<unsigned>(numKept - first), 0);
            if (sent < 0 && errno != ENOBUFS) std::perror("send");
            first += sent > 0 ? static_cast<size_t>(sent) : 1;  // what is lost is sent again in time
        }
        numKept = 0;
    }

    void Receive() {
        static std::array<std::array<uint8_t, 2048>, kBatch> buffers;
        std::array<iovec, kBatch> vectors;
        std::array<mmsghdr, kBatch> messages{};
        for (size_t i = 0; i < kBatch; ++i) {
            vectors[i] = {buffers[i].data(), buffers[i].size()};
            messages[i].msg_hdr.msg_iov = &vectors[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        int count = recvmmsg(fd, messages.data(), kBatch, MSG_DONTWAIT, nullptr);
        if (count <= 0) {
            pollfd ready{fd, POLLIN, 0};
            (void)poll(&ready, 1, 100);
            count = recvmmsg(fd, messages.data(), kBatch, MSG_DONTWAIT, nullptr);
        }
        for (int i = 0; i < count; ++i) {
            const auto at = static_cast<size_t>(i);
            Take(std::span<const uint8_t>(buffers[at]).first(messages[at].msg_len));
        }
    }

    void Take(std::span<const uint8_t> frame) {
        bench::Message reply;
        if (!bench::Parse(frame, reply)) return AnswerARP(frame);
        const uint32_t index = IndexOf(reply.client);
        if (index >= clients.size() || reply.client != bench::ClientAddress(index)) return;
        Client& client = clients[index];
        if (client.waiting.xid != reply.xid) return;
        if (client.waiting.type == bench::kDiscover && reply.type == bench::kOffer) {
            offerWaits.push_back(Waited(client));
            Begin(index, {bench::kRequest, reply.client, reply.xid, reply.address, reply.server});
        } else if (client.waiting.type == bench::kRequest && reply.type == bench::kAck) {
            ackWaits.push_back(Waited(client));
            CheckOwner(index, reply.address);
            client.address = reply.address;
            client.server = reply.server;
            std::copy_n(&frame[6], client.serverMAC.size(), client.serverMAC.begin());
            End(client);
        } else if (client.waiting.type == bench::kRequest && reply.type == bench::kNak) {
            ++refused;
            End(client);
        }
    }

    // A server that sends through the kernel has to find the Ethernet address of a client with a lease.
    void AnswerARP(std::span<const uint8_t> frame) {
        if (frame.size() < 42) return;
        bench::IPv4 wanted{};
        std::copy_n(&frame[38], wanted.size(), wanted.begin());
        const auto place = owners.find(std::bit_cast<uint32_t>(wanted));
        if (place == owners.end()) return;
        const auto reply = bench::AnswerARP(frame, bench::ClientAddress(place->second), wanted);
        if (reply && send(fd, reply->bytes.data(), reply->length, 0) < 0) std::perror("send");
    }

    static uint32_t IndexOf(const bench::MAC& mac) { return (mac[3] << 16 | mac[4] << 8 | mac[5]) - 1U; }

    // Leases are taken to outlive the run.
    void CheckOwner(uint32_t index, const bench::IPv4& address) {
        uint32_t key = 0;
        std::memcpy(&key, address.data(), sizeof key);
        const auto [place, fresh] = owners.try_emplace(key, index);
        if (fresh || place->second == index) return;
        ++doubled;
        (void)std::fprintf(stderr, "%u.%u.%u.%u acknowledged to client %u and to client %u\n", address[0], address[1],
                           address[2], address[3], place->second, index);
    }

    void SendAgain() {
        const Clock::time_point now = Clock::now();
        while (!timers.empty() && timers.front().due <= now) {
            const Timer timer = timers.front();
            timers.pop_front();
            Client& client = clients[timer.client];
            if (client.waiting.xid != timer.xid || client.waiting.type != timer.type) continue;
            if (client.tries++ == kTries) {
                ++givenUp;
                End(client);
                continue;
            }
            ++again;
            Send(client.waiting);
            timers.push_back({now + kPatience, timer.client, timer.xid, timer.type});
        }
    }

    void End(Client& client) {
        ends.push_back(Clock::now());
        ++done;
        client.waiting.type = 0;
        --underWay;
    }

    static double Waited(const Client& client) {
        return std::chrono::duration<double, std::micro>(Clock::now() - client.sent).count();
    }

    // Exchanges a second in the first tenth of all, and in the last.
    void Tenths() const {
        const size_t tenth = ends.size() / 10;
        if (tenth == 0) return;
        const auto rate = [tenth](auto from, auto to) {
            return static_cast<double>(tenth) / std::chrono::duration<double>(to - from).count();
        };
        std::printf("first tenth %.0f, last tenth %.0f a second\n", rate(begun, ends[tenth - 1]),
                    rate(ends[ends.size() - tenth - 1], ends.back()));
    }

    static void Percentiles(const char* what, std::vector<double>& waits) {
        if (waits.empty()) return;
        std::sort(waits.begin(), waits.end());
        const auto at = [&waits](double share) {
            return waits[static_cast<size_t>(share * static_cast<double>(waits.size() - 1))];
        };
        std::printf("%s  median %.1f us, 90 %% %.1f us, 99 %% %.1f us, worst %.1f us\n", what, at(0.5), at(0.9),
                    at(0.99), at(1.0));
    }

    const Options options;
    const int fd;
    std::vector<Client> clients;
    std::array<bench::Frame, kBatch> kept{};  // to be sent
    size_t numKept = 0;
    bool renews = false;
    std::deque<Timer> timers;  // in the order of their ends: all wait equally long
    std::unordered_map<uint32_t, uint32_t> owners;
    Clock::time_point begun{};
    std::vector<Clock::time_point> ends;  // of exchanges
    std::vector<double> offerWaits;
    std::vector<double> ackWaits;
    uint32_t next, started = 0, underWay = 0, done = 0, xid = 0x10000000;
    uint32_t again = 0, givenUp = 0, refused = 0, doubled = 0;
    double elapsed = 0;
};

bool ReadNumber(const char* text, uint32_t& number) {
    char* end = nullptr;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (end == text || *end != '\0' || value == 0 || value > 10'000'000) return false;
    number = static_cast<uint32_t>(value);
    return true;
}

bool ParseOptions(int argc, char* argv[], Options& options) {
    constexpr const char* kLetters = "c:s:n:w:t:r";
    for (int letter = getopt(argc, argv, kLetters); letter != -1; letter = getopt(argc, argv, kLetters)) {
        bool good = letter == 'r';
        options.renew |= good;
        if (letter == 'c') good = ReadNumber(optarg, options.clients);
        if (letter == 's') good = ReadNumber(optarg, options.first);
        if (letter == 'n') good = ReadNumber(optarg, options.exchanges);
        if (letter == 'w') good = ReadNumber(optarg, options.window);
        if (letter == 't') good = ReadNumber(optarg, options.seconds);
        if (!good) return false;
    }
    if (optind + 1 != argc || options.window > options.clients) return false;
    options.ifname = argv[optind];
    return true;
}

}  // namespace

int main(int argc, char* argv[]) {
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        (void)std::fprintf(
            stderr,
            "usage: dhcpload [-c CLIENTS] [-s FIRST] [-n EXCHANGES] [-w WINDOW] [-t SECONDS] [-r] IFACE\n"
            "       the window is at most the number of clients\n");
        return 2;
    }
    bench::MAC mac{};
    const int fd = bench::OpenSocket(options.ifname, 68, mac, true);
    if (fd < 0) {
        std::perror(options.ifname);
        return 1;
    }
    Load load(options, fd);
    const bool complete = load.Run();
    const bool fair = load.Report();
    return complete && fair ? 0 : 1;
}
