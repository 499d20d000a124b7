// Received bytes as a frame, and as a bare options area: the dissection, the walk and every typed reader.
//
// Nothing that is handed out may reach outside the input, and the walk must hand out every byte once.

#include <cstdlib>

#include "Ostrel/DHCPShared.h"

namespace {

using Bytes = std::span<const uint8_t>;

void Require(bool holds) {
    if (!holds) std::abort();
}

bool IsWithin(Bytes part, Bytes whole) {
    return part.empty() || (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

void Walk(Bytes options) {
    Bytes rest = options;
    Ostrel_Status status = kNoErr;
    while (status == kNoErr) {
        Bytes option;
        Bytes next;
        status = Ostrel_BOOTPPacketFindNextOption(rest, &option, &next);
        if (status == kTooShortErr) return Require(option.empty());
        Require(!option.empty() && option.data() == rest.data() && option.size() + next.size() == rest.size());
        rest = next;
    }
    Require(status == kEndingErr);
}

// What the index says of a code, against a walk from the start.
void CompareWithWalk(const Ostrel_OptionIndex& options, uint8_t code) {
    Bytes found;
    const Ostrel_Status result = Ostrel_BOOTPPacketFindOption(options, code, &found);
    Bytes rest = options.area;
    Ostrel_Status status = kNoErr;
    Bytes option;
    while (status == kNoErr) {
        status = Ostrel_BOOTPPacketFindNextOption(rest, &option, &rest);
        if (!option.empty() && option[0] == code) {
            return Require(result == kNoErr && found.data() == option.data() && found.size() == option.size());
        }
    }
    Require(result == status && found.empty());
}

void ReadAll(const Ostrel_OptionIndex& options, uint8_t code) {
    CompareWithWalk(options, code);
    Bytes option;
    if (Ostrel_BOOTPPacketFindOption(options, code, &option) == kNoErr) {
        Require(IsWithin(option, options.area) && !option.empty() && option[0] == code);
    }
    uint32_t number = 0;
    uint16_t half = 0;
    (void)Ostrel_BOOTPPacketFindOptionAsUint32(options, code, &number);
    (void)Ostrel_BOOTPPacketFindOptionAsUint16(options, code, &half);
    if (code == kOptionPad || code == kOptionEnd) return;

    Bytes data;
    if (Ostrel_BOOTPPacketFindOptionAsString(options, code, &data) != kNoErr) return;
    Require(IsWithin(data, options.area) && data.size() <= kOptionMaxData);
    os_array<Ostrel_IPv4> addresses;
    uint32_t count = 0;
    const Ostrel_Status status = Ostrel_BOOTPPacketProcessOptionAsIPv4Array(data, &addresses, &count);
    Require((status == kNoErr) == (data.size() % 4 == 0));
    Require(status != kNoErr || (addresses != nullptr && count == data.size() / 4));
}

void ReadEverything(Bytes area) {
    Walk(area);
    Ostrel_OptionIndex options;
    Ostrel_BOOTPPacketIndexOptions(area, &options);
    for (const uint8_t code : {kOptionPad, kOptionRouter, kOptionDomainName, kOptionLeaseTime, kOptionMessageType,
                               kOptionMaximumMessageSize, kOptionEnd}) {
        ReadAll(options, code);
    }
    if (!area.empty()) ReadAll(options, area.back());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Bytes input(data, size);
    ReadEverything(input);
    Ostrel_PreprocessedPacket packet{};
    const Ostrel_Status status = Ostrel_BOOTPPacketPreprocess(input, &packet);
    const Bytes options = Ostrel_OptionsOf(packet).area;
    Require(status == kNoErr || options.empty());
    Require(IsWithin(options, input));
    if (status != kNoErr) return 0;
    Require(options.data() + options.size() == input.data() + input.size());
    ReadEverything(options);
    return 0;
}
