// Who a client is, as requests say it: its Ethernet address, or its identifier (option 61), as text or byte for byte.
//
// A text stands for the identifier of type 0, which is how the daemon's own client sends a "clientIdentifier".

#include "ClientIdentity.h"

#include <algorithm>

#include "Ostrel/DHCPShared.h"

namespace {

Ostrel_Status ReadIdentifierText(const OstrelJsonField& field, Ostrel_ClientKey* client) {
    std::string text;
    const Ostrel_Status status = OstrelJsonReadText(field, {1, kMaxIdentifierText}, &text);
    if (status != kNoErr) return status;
    client->identifier = os_zalloc_array<uint8_t>(text.size() + 1);
    if (client->identifier == nullptr) return kOutOfMemoryErr;
    client->identifier[0] = kIdentifierTypeText;
    std::copy(text.begin(), text.end(), client->identifier.get() + 1);
    client->identifierLength = static_cast<uint32_t>(text.size() + 1);
    return kNoErr;
}

std::span<const uint8_t> IdentifierOf(const Ostrel_ClientKey& client) {
    return {client.identifier.get(), client.identifierLength};
}

}  // namespace

Ostrel_Status Ostrel_VSUtil_ReadIdentifier(const OstrelJsonField& field, Ostrel_ClientKey* client) {
    const OstrelJsonField hex = OstrelJsonMember(field, "clientIdentifierHex");
    const OstrelJsonField text = OstrelJsonMember(field, "clientIdentifier");
    if (OstrelJsonHas(field, "clientIdentifierHex"))
        return OstrelJsonReadHex(hex, {2, kOptionMaxData}, &client->identifier, &client->identifierLength);
    return OstrelJsonHas(field, "clientIdentifier") ? ReadIdentifierText(text, client) : kNoErr;
}

Ostrel_Status Ostrel_VSUtil_ReadOneClient(const OstrelJsonField& field, Ostrel_ClientKey* client) {
    const bool hasMAC = OstrelJsonHas(field, "macAddress");
    const int ways = hasMAC + OstrelJsonHas(field, "clientIdentifier") + OstrelJsonHas(field, "clientIdentifierHex");
    if (ways != 1)
        return OstrelJsonRefuse(field,
                                "one of \"macAddress\", \"clientIdentifier\" and \"clientIdentifierHex\" is wanted");
    return hasMAC ? OstrelJsonReadMAC(OstrelJsonMember(field, "macAddress"), &client->mac)
                  : Ostrel_VSUtil_ReadIdentifier(field, client);
}

bool Ostrel_VSUtil_IsSameClient(const Ostrel_ClientKey& one, const Ostrel_ClientKey& other) {
    return one.mac == other.mac && std::ranges::equal(IdentifierOf(one), IdentifierOf(other));
}
