// The least a DHCP server can do: receive one frame, send one frame, constant work. What remains of a real server's
// time against this one's is the server's own.
//
//     responder IFACE      answers until SIGTERM; address 10.0.0.1, and to each client 10.x.y.z from its own address
#include <cstdio>
#include <cstring>
#include <sys/socket.h>

#include "Wire.h"

int main(int argc, char* argv[]) {
    if (argc != 2) {
        (void)std::fprintf(stderr, "usage: responder IFACE\n");
        return 2;
    }
    bench::MAC mac{};
    const int fd = bench::OpenSocket(argv[1], 67, mac);
    if (fd < 0) {
        std::perror(argv[1]);
        return 1;
    }
    (void)std::fprintf(stderr, "ready\n");
    std::array<uint8_t, 2048> buffer;
    for (;;) {
        const ssize_t length = recv(fd, buffer.data(), buffer.size(), 0);
        if (length < 0) return 1;
        bench::Message message;
        if (!bench::Parse(std::span<const uint8_t>(buffer).first(static_cast<size_t>(length)), message)) continue;
        message.type = message.type == bench::kDiscover ? bench::kOffer : bench::kAck;
        message.server = {10, 0, 0, 1};
        message.address = {10, message.client[3], message.client[4], message.client[5]};
        const bench::Frame reply = bench::MakeReply(message, mac, 3600);
        if (send(fd, reply.bytes.data(), reply.length, 0) < 0) std::perror("send");
    }
}
