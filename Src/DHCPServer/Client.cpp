// Reading who a message is from, and the key that the index knows a client by.
//
// The key is a hash of the identity: SipHash-2-4, of which nobody can tell without the table's secret which identities
// meet in one key. By chance two do once in 2^64 pairs, so that identities need not be kept and compared.
#include "DHCPServer/Client.h"

#include <algorithm>
#include <bit>

#include "DHCPServer/LeaseIndex.h"

namespace {

constexpr size_t kShortestIdentifier = 2;  // bytes (RFC 2132 section 9.14)

struct SipState {
    uint64_t v0, v1, v2, v3;
};

void Round(SipState& s) {
    s.v0 += s.v1;
    s.v1 = std::rotl(s.v1, 13) ^ s.v0;
    s.v0 = std::rotl(s.v0, 32);
    s.v2 += s.v3;
    s.v3 = std::rotl(s.v3, 16) ^ s.v2;
    s.v0 += s.v3;
    s.v3 = std::rotl(s.v3, 21) ^ s.v0;
    s.v2 += s.v1;
    s.v1 = std::rotl(s.v1, 17) ^ s.v2;
    s.v2 = std::rotl(s.v2, 32);
}

void Absorb(SipState& s, uint64_t word) {
    s.v3 ^= word;
    Round(s);
    Round(s);
    s.v0 ^= word;
}

// As its authors have it: eight bytes a word, the lowest first, the length in the highest byte of the last.
uint64_t SipHash(const Ostrel_ClientHashKey& key, std::span<const uint8_t> bytes) {
    SipState s{key[0] ^ 0x736F6D6570736575, key[1] ^ 0x646F72616E646F6D, key[0] ^ 0x6C7967656E657261,
               key[1] ^ 0x7465646279746573};
    uint64_t word = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        word |= uint64_t{bytes[i]} << 8 * (i % 8);
        if (i % 8 != 7) continue;
        Absorb(s, word);
        word = 0;
    }
    Absorb(s, word | uint64_t{bytes.size()} << 56);
    s.v2 ^= 0xFF;
    for (int i = 0; i < 4; ++i) Round(s);
    return s.v0 ^ s.v1 ^ s.v2 ^ s.v3;
}

Ostrel_MAC FirstOf(const std::array<uint8_t, 16>& chaddr) {
    Ostrel_MAC address;
    std::copy_n(chaddr.begin(), address.size(), address.begin());
    return address;
}

// Hardware type and address in the form of an identifier.
uint64_t KeyOfHardware(const Ostrel_ServerObj* server, const Ostrel_BOOTPMessage& message) {
    std::array<uint8_t, 1 + sizeof message.chaddr> bytes{message.htype};
    const size_t length = std::min<size_t>(message.hlen, message.chaddr.size());
    std::copy_n(message.chaddr.begin(), length, bytes.begin() + 1);
    return Ostrel_DHCPServerKeyOf(server, std::span(bytes).first(1 + length));
}

}  // namespace

uint64_t Ostrel_DHCPServerKeyOf(const Ostrel_ServerObj* server, std::span<const uint8_t> identifier) {
    return std::max<uint64_t>(SipHash(server->index->hashKey, identifier), 1);
}

uint64_t Ostrel_DHCPServerKeyOfAddress(const Ostrel_ServerObj* server, const Ostrel_MAC& address) {
    if (!server->rules->knowsByIdentifier) return Ostrel_LeaseIndexKeyOfMAC(address);
    std::array<uint8_t, 1 + sizeof address> bytes{kIdentifierTypeEthernet};
    std::copy(address.begin(), address.end(), bytes.begin() + 1);
    return Ostrel_DHCPServerKeyOf(server, bytes);
}

Ostrel_ServerClient Ostrel_DHCPServerClientOf(const Ostrel_ServerObj* server, const Ostrel_PreprocessedPacket& packet) {
    const bool byIdentifier = server->rules->knowsByIdentifier;
    Ostrel_ServerClient client{.station = packet.ethHdr->src, .key = 0, .identifier = {}};
    if (byIdentifier || server->numFixed != 0)
        (void)Ostrel_BOOTPPacketFindOptionAsString(Ostrel_OptionsOf(packet), kOptionClientIdentifier,
                                                   &client.identifier);
    if (client.identifier.size() < kShortestIdentifier) client.identifier = {};
    if (!byIdentifier) {
        client.key = Ostrel_LeaseIndexKeyOfMAC(client.station);
        return client;
    }
    client.station = FirstOf(packet.dhcpPkt->chaddr);
    client.key = client.identifier.empty() ? KeyOfHardware(server, *packet.dhcpPkt)
                                           : Ostrel_DHCPServerKeyOf(server, client.identifier);
    return client;
}

const Ostrel_FixedClient* Ostrel_DHCPServerFixedOf(const Ostrel_ServerObj* server, const Ostrel_ServerClient& client) {
    if (server->numFixed == 0) return nullptr;
    const std::span<const Ostrel_FixedClient> fixed(server->fixed.get(), server->numFixed);
    const auto find = [fixed](uint64_t key) {
        const auto place = std::ranges::lower_bound(fixed, key, {}, &Ostrel_FixedClient::key);
        return place != fixed.end() && place->key == key ? &*place : nullptr;
    };
    const Ostrel_FixedClient* found = nullptr;
    if (!client.identifier.empty()) found = find(Ostrel_DHCPServerKeyOf(server, client.identifier));
    return found != nullptr ? found : find(Ostrel_DHCPServerKeyOfAddress(server, client.station));
}
