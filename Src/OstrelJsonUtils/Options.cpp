// DHCP options of a lease as JSON: every one in hexadecimal, those of the table in words as well.
//
// What an option holds is what a server cared to send. Each decoder takes the whole data and gives a value for it, or
// null when anything about it is not as its RFC has it; half an option is never shown. Texts end at their first zero
// byte, and are mended when they are serialised, as all foreign text is.
//
// Domain names come compressed (RFC 3397): a name may go on inside an earlier one. A pointer is followed only to
// where the reading has already been, each time further to the front, so it ends; names and their number are bounded.

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "Ostrel/DHCPShared.h"
#include "Ostrel/OstrelJsonUtils.h"
#include "Ostrel/OstrelJsonUtilsOptions.h"

using valdo::JValue;

namespace {

using Data = std::span<const uint8_t>;

constexpr uint8_t kOptionStaticRoutes = 121;  // RFC 3442
constexpr int32_t kMinMTU = 68;               // RFC 2132 section 5.1
constexpr size_t kMaxDomainName = 254;        // characters and dots, RFC 1035 section 2.3.4
constexpr size_t kMaxDomains = 64;            // of one option
constexpr uint8_t kPointerBits = 0xC0;        // RFC 1035 section 4.1.4

Ostrel_IPv4 AddressAt(Data data, size_t place) {
    Ostrel_IPv4 address = kAnyIPv4;
    std::memcpy(&address, data.data() + place, sizeof address);
    return address;
}

JValue DecodeText(Data data) {
    const std::string_view text = OstrelJsonUtilsTextOf(data);
    return text.empty() ? JValue() : JValue(text);
}

JValue DecodeAddresses(Data data) {
    if (data.empty() || data.size() % sizeof(Ostrel_IPv4) != 0) return {};
    JValue addresses = valdo::Array();
    for (size_t i = 0; i < data.size(); i += sizeof(Ostrel_IPv4))
        addresses.append(OstrelJsonUtilsIPv4ToText(AddressAt(data, i)).data());
    return addresses;
}

JValue DecodeMTU(Data data) {
    if (data.size() != 2) return {};
    const int32_t mtu = data[0] << 8 | data[1];
    return mtu < kMinMTU ? JValue() : JValue(mtu);
}

// One route: the width of the destination's mask, as many of its bytes as that needs, the router. Bits of the
// destination outside of its mask are zeroed (RFC 3442).
JValue DecodeRoute(Data* rest) {
    const uint8_t width = (*rest)[0];
    const size_t significant = (width + 7U) / 8;
    if (width > 32 || rest->size() < 1 + significant + sizeof(Ostrel_IPv4)) return {};
    std::array<uint8_t, 4> destination{};
    std::copy_n(rest->begin() + 1, significant, destination.begin());
    if (width % 8 != 0) destination[significant - 1] &= static_cast<uint8_t>(0xFF00 >> width % 8);

    std::array<char, 24> text{};
    (void)std::snprintf(text.data(), text.size(), "%s/%d", OstrelJsonUtilsIPv4ToText(AddressAt(destination, 0)).data(),
                        width);
    JValue route = valdo::Object();
    route.put("destination", text.data());
    OstrelJsonUtilsIPv4Put(route, "router", AddressAt(*rest, 1 + significant));
    *rest = rest->subspan(1 + significant + sizeof(Ostrel_IPv4));
    return route;
}

JValue DecodeRoutes(Data data) {
    if (data.empty()) return {};
    JValue routes = valdo::Array();
    while (!data.empty()) {
        JValue route = DecodeRoute(&data);
        if (route.isNull()) return {};
        routes.append(std::move(route));
    }
    return routes;
}

// A label in a text that has dots between labels and is taken apart at spaces.
bool IsLabel(Data label) {
    return std::ranges::all_of(label, [](uint8_t c) { return c > ' ' && c != '.' && c != 0x7F; });
}

struct Name {
    std::array<char, kMaxDomainName> text;
    size_t length;

    // False when it gets too long.
    bool Add(Data label) {
        const size_t dot = length == 0 ? 0 : 1;
        if (label.size() + dot > text.size() - length) return false;
        if (dot != 0) text[length++] = '.';
        std::copy(label.begin(), label.end(), text.begin() + static_cast<std::ptrdiff_t>(length));
        length += label.size();
        return true;
    }
};

// What the labels at `*place` say up to the root or a pointer; `*place` is then behind it, and `pointer` where it goes
// on, or npos. False when something is wrong.
bool ReadLabels(Data data, size_t* place, Name* name, size_t* pointer) {
    *pointer = std::string::npos;
    while (*place < data.size()) {
        const uint8_t length = data[(*place)++];
        if (length == 0) return true;
        if ((length & kPointerBits) == kPointerBits) {
            if (*place == data.size()) return false;
            *pointer = static_cast<size_t>(length & ~kPointerBits) << 8 | data[(*place)++];
            return true;
        }
        if ((length & kPointerBits) != 0 || data.size() - *place < length) return false;
        const Data label = data.subspan(*place, length);
        if (!IsLabel(label) || !name->Add(label)) return false;
        *place += length;
    }
    return false;
}

// The name at `*place`, which is then behind it.
bool ReadName(Data data, size_t* place, Name* name) {
    size_t from = *place;
    size_t pointer = 0;
    if (!ReadLabels(data, place, name, &pointer)) return false;
    while (pointer != std::string::npos) {
        if (pointer >= from) return false;
        size_t part = from = pointer;
        if (!ReadLabels(data, &part, name, &pointer)) return false;
    }
    return name->length != 0;
}

JValue DecodeDomains(Data data) {
    JValue domains = valdo::Array();
    size_t place = 0;
    while (place < data.size()) {
        Name name{};
        if (domains.arraySize() == kMaxDomains || !ReadName(data, &place, &name)) return {};
        domains.append(std::string_view(name.text.data(), name.length));
    }
    return data.empty() ? JValue() : domains;
}

Data DataOf(const Ostrel_OptionValue& option) {
    return {option.data.get(), option.length};
}

void PutDecoded(const OstrelJsonOption& known, const Ostrel_OptionList& options, JValue& object) {
    const Ostrel_OptionValue* option = Ostrel_FindOptionValue(options, known.code);
    if (option == nullptr || object.hasKey(known.key)) return;
    JValue value = known.decode(DataOf(*option));
    if (!value.isNull()) object.put(known.key, std::move(value));
}

}  // namespace

std::string_view OstrelJsonUtilsTextOf(std::span<const uint8_t> bytes) {
    const auto length = std::find(bytes.begin(), bytes.end(), uint8_t{0}) - bytes.begin();
    return {reinterpret_cast<const char*>(bytes.data()), static_cast<size_t>(length)};
}

const OstrelJsonOption gOstrelJsonOptions[] = {
    {42, "ntpServers", DecodeAddresses},    // RFC 2132 section 8.3
    {119, "searchDomains", DecodeDomains},  // RFC 3397
    {kOptionStaticRoutes, "staticRoutes", DecodeRoutes},
    {26, "mtu", DecodeMTU},  // RFC 2132 section 5.1
    {kOptionHostName, "hostName", DecodeText},
    {114, "captivePortal", DecodeText},  // RFC 8910: a URI
    {101, "timeZone", DecodeText},       // RFC 4833: a name of the zone database
    {100, "timeZone", DecodeText},       // likewise: the form of POSIX
    {0, nullptr, nullptr},
};

void OstrelJsonUtilsOptionsPut(JValue& object, const Ostrel_OptionList& options) {
    JValue bytes = valdo::Object();
    for (uint32_t i = 0; i < options.count; ++i)
        OstrelJsonUtilsHexPut(bytes, std::to_string(options.values[i].code), DataOf(options.values[i]));
    object.put("options", std::move(bytes));
    for (const OstrelJsonOption* known = gOstrelJsonOptions; known->key != nullptr; ++known)
        PutDecoded(*known, options, object);
}

bool OstrelJsonUtilsHaveRoutes(const Ostrel_OptionList& options) {
    const Ostrel_OptionValue* option = Ostrel_FindOptionValue(options, kOptionStaticRoutes);
    return option != nullptr && !DecodeRoutes(DataOf(*option)).isNull();
}
