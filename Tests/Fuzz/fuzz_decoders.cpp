// The data of one option of a lease, as a server may have sent it: the first byte is its code, the rest its data.
//
// Every decoder of that code gives null or a value that can be written and read again, and of a bounded size. The same
// bytes go through the collecting of options as well, as a message of which they are all that follows the cookie, and
// through the words for frames, as that message and as a frame of their own.

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "Ostrel/DHCPShared.h"
#include "Ostrel/OstrelJsonUtils.h"
#include "Ostrel/OstrelJsonUtilsOptions.h"

#include "frame_words.h"

namespace {

using Bytes = std::span<const uint8_t>;

constexpr size_t kMaxDomainBytes = 64 * 6 * 260;  // a character is six bytes at most

void Require(bool holds) {
    if (!holds) std::abort();
}

void RequireReadable(const valdo::JValue& value) {
    std::string text;
    const valdo::JSchemaFragment anything("{}");
    Require(valdo::JGenerator::toString(value, anything, text));
    valdo::JDomParser parser;
    Require(parser.parse(text, anything));
}

void Decode(uint8_t code, Bytes data) {
    for (const OstrelJsonOption* known = gOstrelJsonOptions; known->key != nullptr; ++known) {
        if (known->code != code) continue;
        const valdo::JValue value = known->decode(data);
        RequireReadable(value);
        std::string text;
        (void)valdo::JGenerator::toString(value, valdo::JSchemaFragment("{}"), text);
        Require(text.size() <= std::max(kMaxDomainBytes, 64 * data.size()) + 8);
    }
}

// Words are of a bounded size, and nothing in them moves a terminal's cursor.
void RequireWords(Bytes frame) {
    const frame_words words = frame_words_of(frame);
    size_t size = words.text.size();
    for (const frame_option& option : words.options) {
        size += option.text.size();
        Require(std::ranges::none_of(option.text, [](char c) { return c >= 0 && c < ' '; }));
    }
    Require(!words.type.empty() && !words.text.empty() && size <= 16384 + 16 * frame.size());
}

void Collect(Bytes data) {
    std::vector<uint8_t> frame(282);
    frame[12] = 0x08;
    frame[14] = 0x45;
    frame[23] = 17;
    std::ranges::copy(kOptionsCookie, frame.end() - 4);
    frame.insert(frame.end(), data.begin(), data.end());
    std::copy_n(data.begin(), std::min<size_t>(data.size(), 192), frame.begin() + 86);  // sname and file
    RequireWords(frame);
    Ostrel_PreprocessedPacket packet{};
    Require(Ostrel_BOOTPPacketPreprocess(frame, &packet) == kNoErr);
    const std::vector<uint8_t> codes{1, 12, 26, 42, 100, 101, 114, 119, 121, 42};
    Ostrel_OptionList list{};
    Require(Ostrel_BOOTPPacketCollectOptions(packet, codes, &list) == kNoErr);
    size_t bytes = 0;
    for (uint32_t i = 0; i < list.count; ++i) bytes += list.values[i].length;
    Require(bytes <= frame.size() && list.count < codes.size());
    valdo::JValue object = valdo::Object();
    OstrelJsonUtilsOptionsPut(object, list);
    RequireReadable(object);
    Require(OstrelJsonUtilsHaveRoutes(list) == object.hasKey("staticRoutes"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    Decode(data[0], Bytes(data, size).subspan(1));
    Collect(Bytes(data, size).subspan(1));
    RequireWords(Bytes(data, size));
    return 0;
}
