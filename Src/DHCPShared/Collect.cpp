// The options of a message that a caller asked for, whole.
//
// An option may come in parts, because one option holds 255 bytes, and its parts may stand in three places: the options
// field, and, where option 52 (overload) says so, the `file` and `sname` fields, in this order (RFC 3396 section 5).
// The areas are walked twice: once to count each option's bytes, once to copy them, so nothing is larger than the frame
// that it came in.
#include <algorithm>
#include <array>

#include "Ostrel/Check.h"
#include "Ostrel/DHCPShared.h"

namespace {

// Values of option 52 (RFC 2132 section 9.3), which are bits.
constexpr uint8_t kOverloadFile = 1;
constexpr uint8_t kOverloadSname = 2;

using Areas = std::array<std::span<const uint8_t>, 3>;

// Where the options of a message stand, in the order in which their parts are joined. Unused places are empty.
Areas AreasOf(const Ostrel_PreprocessedPacket& packet) {
    Areas areas{};
    const Ostrel_OptionIndex& options = Ostrel_OptionsOf(packet);
    areas[0] = options.area;
    uint8_t overload = 0;
    if (!options.present[kOptionOverload]) return areas;
    if (Ostrel_BOOTPPacketFindOptionAsUint8(options, kOptionOverload, &overload) != kNoErr) return areas;
    if ((overload & kOverloadFile) != 0) areas[1] = packet.dhcpPkt->file;
    if ((overload & kOverloadSname) != 0) areas[2] = packet.dhcpPkt->sname;
    return areas;
}

// Hands every option of the areas to `visit`, code and data.
template <typename Visit>
void Walk(const Areas& areas, Visit visit) {
    for (std::span<const uint8_t> rest : areas) {
        Ostrel_Status status = kNoErr;
        while (status == kNoErr) {
            std::span<const uint8_t> option;
            status = Ostrel_BOOTPPacketFindNextOption(rest, &option, &rest);
            if (option.size() >= kOptionHeader) visit(option[0], option.subspan(kOptionHeader));
        }
    }
}

// What the areas hold of each code.
struct Census {
    std::bitset<256> present;
    std::array<uint32_t, 256> bytes;
};

Census Count(const Areas& areas) {
    Census census{};
    Walk(areas, [&census](uint8_t code, std::span<const uint8_t> data) {
        census.present.set(code);
        census.bytes[code] += static_cast<uint32_t>(data.size());
    });
    return census;
}

// The codes wanted that the areas have, each once.
std::bitset<256> Found(const Census& census, std::span<const uint8_t> codes) {
    std::bitset<256> wanted;
    for (const uint8_t code : codes) wanted.set(code);
    return wanted & census.present;
}

// A list with room for every option found, in the order of `codes`, and nothing in it yet.
Ostrel_Status MakeRoom(const Census& census, std::span<const uint8_t> codes, Ostrel_OptionList* list) {
    std::bitset<256> missing = Found(census, codes);
    list->values = os_new_records<Ostrel_OptionValue>(missing.count());
    OSTREL_REQUIRE(list->values != nullptr, "list->values", kOutOfMemoryErr);
    for (const uint8_t code : codes) {
        if (!missing[code]) continue;
        missing.reset(code);
        Ostrel_OptionValue& value = list->values[list->count++];
        value.code = code;
        value.data = os_zalloc_array<uint8_t>(census.bytes[code]);
        OSTREL_REQUIRE(value.data != nullptr, "value.data", kOutOfMemoryErr);
    }
    return kNoErr;
}

}  // namespace

Ostrel_Status Ostrel_BOOTPPacketCollectOptions(const Ostrel_PreprocessedPacket& packet, std::span<const uint8_t> codes,
                                               Ostrel_OptionList* list) {
    const Areas areas = AreasOf(packet);
    Ostrel_OptionList collected{};
    const Ostrel_Status status = MakeRoom(Count(areas), codes, &collected);
    if (status != kNoErr) return status;

    std::array<Ostrel_OptionValue*, 256> values{};
    for (uint32_t i = 0; i < collected.count; ++i) values[collected.values[i].code] = &collected.values[i];
    Walk(areas, [&values](uint8_t code, std::span<const uint8_t> data) {
        Ostrel_OptionValue* value = values[code];
        if (value == nullptr) return;
        std::copy(data.begin(), data.end(), value->data.get() + value->length);
        value->length += static_cast<uint32_t>(data.size());
    });
    *list = std::move(collected);
    return kNoErr;
}
