// Frames by offset: Ethernet at 0, IPv4 at 14, UDP at 34, the BOOTP message at 42, its options at 282.
#include "Wire.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace bench {
namespace {

constexpr size_t kIP = 14;
constexpr size_t kUDP = 34;
constexpr size_t kBOOTP = 42;
constexpr size_t kOptions = kBOOTP + 240;
constexpr uint32_t kARP = 0x0806;
constexpr MAC kBroadcast{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
constexpr int kBufferBytes = 8 * 1024 * 1024;

void Put16(Frame& frame, size_t at, size_t value) {
    frame.bytes[at] = static_cast<uint8_t>(value >> 8);
    frame.bytes[at + 1] = static_cast<uint8_t>(value);
}

template <size_t Size>
void Put(Frame& frame, size_t at, const std::array<uint8_t, Size>& bytes) {
    std::copy(bytes.begin(), bytes.end(), frame.bytes.begin() + static_cast<std::ptrdiff_t>(at));
}

void AppendOption(Frame& frame, uint8_t code, std::span<const uint8_t> data) {
    frame.bytes[frame.length++] = code;
    frame.bytes[frame.length++] = static_cast<uint8_t>(data.size());
    std::copy(data.begin(), data.end(), frame.bytes.begin() + static_cast<std::ptrdiff_t>(frame.length));
    frame.length += data.size();
}

uint64_t Sum(std::span<const uint8_t> data) {
    uint64_t sum = 0;
    for (size_t i = 0; i < data.size(); ++i) sum += static_cast<uint64_t>(data[i]) << (i % 2 == 0 ? 8 : 0);
    return sum;
}

uint16_t Fold(uint64_t sum) {
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

Frame Begin(const Message& message, uint8_t op, const MAC& source, const MAC& destination) {
    Frame frame{};
    Put(frame, 0, destination);
    Put(frame, 6, source);
    Put16(frame, 12, 0x0800);
    frame.bytes[kBOOTP] = op;
    frame.bytes[kBOOTP + 1] = 1;
    frame.bytes[kBOOTP + 2] = 6;
    std::memcpy(&frame.bytes[kBOOTP + 4], &message.xid, sizeof message.xid);
    Put(frame, kBOOTP + 28, message.client);
    Put(frame, kBOOTP + 236, IPv4{99, 130, 83, 99});
    frame.length = kOptions;
    AppendOption(frame, 53, {&message.type, 1});
    return frame;
}

void Finish(Frame& frame, const IPv4& source, const IPv4& destination, uint16_t sourcePort, uint16_t destinationPort) {
    frame.bytes[frame.length++] = 255;
    const size_t udpLength = frame.length - kUDP;
    frame.bytes[kIP] = 0x45;
    Put16(frame, kIP + 2, udpLength + 20);
    frame.bytes[kIP + 8] = 64;
    frame.bytes[kIP + 9] = 17;
    Put(frame, kIP + 12, source);
    Put(frame, kIP + 16, destination);
    const std::span<const uint8_t> bytes = frame.bytes;
    Put16(frame, kIP + 10, Fold(Sum(bytes.subspan(kIP, 20))));
    Put16(frame, kUDP, sourcePort);
    Put16(frame, kUDP + 2, destinationPort);
    Put16(frame, kUDP + 4, udpLength);
    Put16(frame, kUDP + 6, Fold(Sum(bytes.subspan(kIP + 12, 8 + udpLength)) + 17 + udpLength));
}

}  // namespace

MAC ClientAddress(uint32_t client) {
    const uint32_t n = client + 1;
    return {0x02, 0xC0, 0x00, static_cast<uint8_t>(n >> 16), static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)};
}

std::optional<Frame> AnswerARP(std::span<const uint8_t> frame, const MAC& mac, const IPv4& address) {
    if (frame.size() < 42 || frame[12] != kARP >> 8 || frame[13] != (kARP & 255) || frame[21] != 1) return std::nullopt;
    if (!std::equal(address.begin(), address.end(), &frame[38])) return std::nullopt;
    Frame reply{};
    reply.length = 42;
    std::copy_n(&frame[6], 6, &reply.bytes[0]);
    std::copy_n(&frame[12], 10, &reply.bytes[12]);
    reply.bytes[21] = 2;
    Put(reply, 6, mac);
    Put(reply, 22, mac);
    Put(reply, 28, address);
    std::copy_n(&frame[22], 10, &reply.bytes[32]);
    return reply;
}

Frame MakeRequest(const Message& message) {
    constexpr std::array<uint8_t, 4> kWanted{1, 3, 6, 15};
    Frame frame = Begin(message, 1, message.client, kBroadcast);
    AppendOption(frame, 55, kWanted);
    if (message.type == kRequest) {
        AppendOption(frame, 50, message.address);
        AppendOption(frame, 54, message.server);
    }
    Finish(frame, IPv4{}, IPv4{255, 255, 255, 255}, 68, 67);
    return frame;
}

Frame MakeRenewal(const Message& message, const MAC& serverMAC) {
    constexpr std::array<uint8_t, 4> kWanted{1, 3, 6, 15};
    Frame frame = Begin(message, 1, message.client, serverMAC);
    Put(frame, kBOOTP + 12, message.address);
    AppendOption(frame, 55, kWanted);
    Finish(frame, message.address, message.server, 68, 67);
    return frame;
}

Frame MakeReply(const Message& message, const MAC& serverMAC, uint32_t leaseSeconds) {
    Frame frame = Begin(message, 2, serverMAC, message.client);
    Put(frame, kBOOTP + 16, message.address);
    const uint32_t lease = htonl(leaseSeconds);
    AppendOption(frame, 54, message.server);
    AppendOption(frame, 51, {reinterpret_cast<const uint8_t*>(&lease), sizeof lease});
    AppendOption(frame, 1, IPv4{255, 0, 0, 0});
    Finish(frame, message.server, message.address, 67, 68);
    return frame;
}

bool Parse(std::span<const uint8_t> frame, Message& message) {
    if (frame.size() <= kOptions || frame[kIP] != 0x45 || frame[kIP + 9] != 17) return false;
    message = {};
    std::memcpy(&message.xid, &frame[kBOOTP + 4], sizeof message.xid);
    std::copy_n(&frame[kBOOTP + 16], message.address.size(), message.address.begin());
    std::copy_n(&frame[kBOOTP + 28], message.client.size(), message.client.begin());
    std::span<const uint8_t> rest = frame.subspan(kOptions);
    while (!rest.empty() && rest[0] != 255) {
        if (rest[0] == 0) {
            rest = rest.subspan(1);
            continue;
        }
        if (rest.size() < 2 || rest.size() - 2 < rest[1]) return false;
        const std::span<const uint8_t> data = rest.subspan(2, rest[1]);
        if (rest[0] == 53 && data.size() == 1) message.type = data[0];
        if (rest[0] == 54 && data.size() == 4) std::copy(data.begin(), data.end(), message.server.begin());
        if (rest[0] == 50 && data.size() == 4) std::copy(data.begin(), data.end(), message.address.begin());
        rest = rest.subspan(2 + data.size());
    }
    return message.type != 0;
}

int OpenSocket(const char* ifname, uint16_t port, MAC& mac, bool withARP) {
    constexpr uint32_t kNoType = 0x10000;
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 12),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, withARP ? kARP : kNoType, 5, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0x0800, 0, 5),
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 23),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 17, 0, 3),
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 36),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, port, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, 0xFFFFFFFF),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    const sock_fprog program{std::size(code), code};
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    const int on = 1;
    ifreq request{};
    std::strncpy(request.ifr_name, ifname, IFNAMSIZ - 1);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(0x0003);
    address.sll_ifindex = static_cast<int>(if_nametoindex(ifname));
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kBufferBytes, sizeof kBufferBytes);  // a larger buffer if we may
    const bool open = setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) == 0 &&
                      setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on) == 0 &&
                      ioctl(fd, SIOCGIFHWADDR, &request) == 0 && address.sll_ifindex != 0 &&
                      bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    if (!open) {
        close(fd);
        return -1;
    }
    std::memcpy(mac.data(), request.ifr_hwaddr.sa_data, mac.size());
    return fd;
}

}  // namespace bench
