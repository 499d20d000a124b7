// The options area: indexing it, reading an option by its type, appending options to a message.
//
// An option is a code byte, a length byte and that much data; pad and end are the code byte alone (RFC 2132 section 2).
// The walk never leaves the area it was given, and hands out only options that lie whole within it. Options in
// `file` and `sname` are seen only by the one that collects the parts of options.
#include <algorithm>
#include <cstring>
#include <endian.h>

#include "Ostrel/Check.h"
#include "Ostrel/DHCPShared.h"
#include "Ostrel/Log.h"

#include "wpabuf.h"

namespace {

bool IsBare(uint8_t code) {
    return code == kOptionPad || code == kOptionEnd;
}

// The data of a whole option.
std::span<const uint8_t> DataOf(std::span<const uint8_t> option) {
    return option.size() < kOptionHeader ? std::span<const uint8_t>{} : option.subspan(kOptionHeader);
}

// The walk from the start of the area to the option sought, a line for each option on the way.
void LogSearch(std::span<const uint8_t> area, uint8_t code) {
    std::span<const uint8_t> rest = area;
    Ostrel_Status status = kNoErr;
    while (status == kNoErr) {
        std::span<const uint8_t> found;
        status = Ostrel_BOOTPPacketFindNextOption(rest, &found, &rest);
        if (found.empty()) return;
        DebugPrintF(kDebugLevelChatty, "DHCP Find Option <%d> found <%d> at <%p>, length <%d>\n", code, found[0],
                    found.data(), found.size());
        DebugHexDump(kDebugLevelChatty, found);
        if (found[0] == code) return;
    }
}

template <typename Number>
Number ReadRaw(std::span<const uint8_t> data) {
    Number number;
    std::memcpy(&number, data.data(), sizeof number);
    return number;
}

}  // namespace

Ostrel_Status Ostrel_BOOTPPacketFindNextOption(std::span<const uint8_t> buffer, std::span<const uint8_t>* option,
                                               std::span<const uint8_t>* next) {
    *option = {};
    if (buffer.empty()) return kTooShortErr;

    size_t size = 1;
    const uint8_t code = buffer[0];
    if (!IsBare(code)) {
        if (buffer.size() < kOptionHeader || buffer.size() - kOptionHeader < buffer[1]) return kTooShortErr;
        size = kOptionHeader + buffer[1];
    }
    *option = buffer.first(size);
    *next = buffer.subspan(size);
    return code == kOptionEnd ? kEndingErr : kNoErr;
}

void Ostrel_BOOTPPacketIndexOptions(std::span<const uint8_t> area, Ostrel_OptionIndex* index) {
    index->area = area.first(std::min<size_t>(area.size(), UINT16_MAX));
    index->present.reset();
    index->ending = kNoErr;
    std::span<const uint8_t> rest = index->area;
    while (index->ending == kNoErr) {
        std::span<const uint8_t> option;
        index->ending = Ostrel_BOOTPPacketFindNextOption(rest, &option, &rest);
        if (option.empty() || index->present[option[0]]) continue;
        index->present.set(option[0]);
        index->offsets[option[0]] = static_cast<uint16_t>(option.data() - index->area.data());
    }
}

Ostrel_Status Ostrel_BOOTPPacketFindOption(const Ostrel_OptionIndex& options, uint8_t code,
                                           std::span<const uint8_t>* option) {
    if (DebugIsWritten(kDebugLevelChatty)) LogSearch(options.area, code);
    if (!options.present[code]) return options.ending;
    std::span<const uint8_t> rest;
    (void)Ostrel_BOOTPPacketFindNextOption(options.area.subspan(options.offsets[code]), option, &rest);  // it is whole
    return kNoErr;
}

Ostrel_Status Ostrel_BOOTPPacketFindOptionAsString(const Ostrel_OptionIndex& options, uint8_t code,
                                                   std::span<const uint8_t>* data) {
    std::span<const uint8_t> option;
    const Ostrel_Status status = Ostrel_BOOTPPacketFindOption(options, code, &option);
    if (status != kNoErr) return status;
    *data = DataOf(option);
    return kNoErr;
}

Ostrel_Status Ostrel_BOOTPPacketFindOptionAsIPv4(const Ostrel_OptionIndex& options, uint8_t code,
                                                 Ostrel_IPv4* address) {
    std::span<const uint8_t> data;
    const Ostrel_Status status = Ostrel_BOOTPPacketFindOptionAsString(options, code, &data);
    if (status != kNoErr) return status;
    OSTREL_REQUIRE(data.size() == sizeof(uint32_t), "( optionBuf[1] == sizeof( uint32_t ) )", kBadSizeErr);
    *address = ReadRaw<uint32_t>(data);
    return kNoErr;
}

Ostrel_Status Ostrel_BOOTPPacketFindOptionAsUint32(const Ostrel_OptionIndex& options, uint8_t code, uint32_t* value) {
    std::span<const uint8_t> data;
    const Ostrel_Status status = Ostrel_BOOTPPacketFindOptionAsString(options, code, &data);
    if (status != kNoErr) return status;
    OSTREL_REQUIRE(data.size() == sizeof(uint32_t), "( optionBuf[1] == sizeof( uint32_t ) )", kBadSizeErr);
    *value = be32toh(ReadRaw<uint32_t>(data));
    return kNoErr;
}

Ostrel_Status Ostrel_BOOTPPacketFindOptionAsUint16(const Ostrel_OptionIndex& options, uint8_t code, uint16_t* value) {
    std::span<const uint8_t> data;
    const Ostrel_Status status = Ostrel_BOOTPPacketFindOptionAsString(options, code, &data);
    if (status != kNoErr) return status;
    OSTREL_REQUIRE(data.size() == sizeof(uint16_t), "( optionBuf[1] == sizeof( uint16_t ) )", kBadSizeErr);
    *value = be16toh(ReadRaw<uint16_t>(data));
    return kNoErr;
}

Ostrel_Status Ostrel_BOOTPPacketFindOptionAsUint8(const Ostrel_OptionIndex& options, uint8_t code, uint8_t* value) {
    std::span<const uint8_t> data;
    const Ostrel_Status status = Ostrel_BOOTPPacketFindOptionAsString(options, code, &data);
    if (status != kNoErr) return status;
    OSTREL_REQUIRE(data.size() == sizeof(uint8_t), "( optionBuf[1] == sizeof( uint8_t ) )", kBadSizeErr);
    *value = data[0];
    return kNoErr;
}

Ostrel_Status Ostrel_BOOTPPacketFindMessageType(const Ostrel_OptionIndex& options, uint8_t* messageType) {
    std::span<const uint8_t> data;
    const Ostrel_Status status = Ostrel_BOOTPPacketFindOptionAsString(options, kOptionMessageType, &data);
    if (status != kNoErr) return status;
    if (data.empty()) return kBadSizeErr;
    *messageType = data[0];
    return kNoErr;
}

Ostrel_Status Ostrel_BOOTPPacketProcessOptionAsIPv4Array(std::span<const uint8_t> data,
                                                         os_array<Ostrel_IPv4>* addresses, uint32_t* count) {
    OSTREL_REQUIRE(data.size() % sizeof(uint32_t) == 0, "( ( inLen % sizeof( uint32_t ) ) == 0 )", kBadSizeErr);
    os_array<Ostrel_IPv4> copy = os_zalloc_array<Ostrel_IPv4>(data.size() / sizeof(uint32_t));
    OSTREL_REQUIRE(copy != nullptr, "out32", kOutOfMemoryErr);
    if (!data.empty()) std::memcpy(copy.get(), data.data(), data.size());
    *addresses = std::move(copy);
    *count = static_cast<uint32_t>(data.size() / sizeof(uint32_t));
    return kNoErr;
}

Ostrel_Status Ostrel_BOOTPPacketAppendOption(wpabuf* buffer, uint8_t code, std::span<const uint8_t> data) {
    const std::span<uint8_t> room = wpabuf_put(buffer, IsBare(code) ? 1 : kOptionHeader + data.size());
    if (room.empty()) return kTooLongErr;
    room[0] = code;
    if (IsBare(code)) return kNoErr;
    room[1] = static_cast<uint8_t>(data.size());
    std::copy(data.begin(), data.end(), room.begin() + kOptionHeader);
    return kNoErr;
}
