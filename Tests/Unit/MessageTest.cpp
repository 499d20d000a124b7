// Messages against literal bytes: what the checks let through, what an options area yields, what is appended to one.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <numeric>

#include "Ostrel/DHCPShared.h"
#include "Ostrel/Log.h"

#include "Sim.h"
#include "wpabuf.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A frame of `length` bytes whose IPv4 header claims `words` 32-bit words, with the cookie where it then belongs.
Bytes FrameOf(size_t length, uint8_t words, Bytes cookie = {99, 130, 83, 99}) {
    Bytes frame(length);
    if (length > 14) frame[14] = static_cast<uint8_t>(0x40 | words);
    const size_t at = 258 + words * 4U;
    for (size_t i = 0; i < cookie.size() && at + i < length; ++i) frame[at + i] = cookie[i];
    return frame;
}

Ostrel_OptionIndex Indexed(std::span<const uint8_t> area) {
    Ostrel_OptionIndex index;
    Ostrel_BOOTPPacketIndexOptions(area, &index);
    return index;
}

TEST(Preprocess, SaysWhatIsWrong) {
    const struct {
        Bytes frame;
        Ostrel_Status status;
        const char* line;
    } cases[] = {
        {FrameOf(281, 5), kBadSizeErr, "DHCP Packet too small; need 282 bytes, only have 281 bytes"},
        {FrameOf(285, 6), kBadSizeErr, "need 286 bytes, only have 285 bytes"},
        {{}, kBadSizeErr, "only have 0 bytes"},
        {FrameOf(282, 5, {99, 130, 83, 98}), kBadFormatErr,
         "Invalid options cookie; expected 99.130.83.99, got 99.130.83.98"},
    };
    for (const auto& test : cases) {
        const sim::World world;
        Ostrel_PreprocessedPacket packet{};
        EXPECT_EQ(Ostrel_BOOTPPacketPreprocess(test.frame, &packet), test.status);
        EXPECT_TRUE(packet.options == nullptr && world.Logged(test.line)) << test.line;
    }
}

// Every length, every header length: nothing is read outside (the sanitizers watch) and nothing short passes.
TEST(Preprocess, TakesAFrameExactlyWhenItHoldsTheWholeCookie) {
    const sim::World world;
    for (size_t length = 0; length <= 400; ++length) {
        for (uint8_t words = 0; words < 16; ++words) {
            const Bytes frame = FrameOf(length, words);
            const size_t needed = 262 + words * 4U;
            Ostrel_PreprocessedPacket packet{};
            ASSERT_EQ(Ostrel_BOOTPPacketPreprocess(frame, &packet) == kNoErr, length >= needed) << length;
            if (length < needed) continue;
            ASSERT_EQ(packet.options, frame.data() + needed);
            ASSERT_EQ(packet.optionsLength, length - needed);
            ASSERT_EQ(reinterpret_cast<const uint8_t*>(packet.dhcpPkt), packet.cookie - 236);
        }
    }
}

TEST(Options, AreFoundWholeOrNotAtAll) {
    const struct {
        const char* what;
        Bytes options;
        uint8_t code;
        Ostrel_Status status;
        Bytes found;
    } cases[] = {
        {"there", {53, 1, 5, 255}, 53, kNoErr, {53, 1, 5}},
        {"absent before the end option", {53, 1, 5, 255}, 54, kEndingErr, {}},
        {"pads are stepped over", {0, 0, 53, 1, 1}, 53, kNoErr, {53, 1, 1}},
        {"absent, no end option", {0, 0, 53, 1, 1}, 51, kTooShortErr, {}},
        {"behind the end option", {255, 53, 1, 5}, 53, kEndingErr, {}},
        {"the first of two", {12, 1, 'a', 12, 1, 'b', 255}, 12, kNoErr, {12, 1, 'a'}},
        {"runs past the end", {53, 2, 5}, 53, kTooShortErr, {}},
        {"behind one that runs past the end", {12, 9, 53, 1, 5, 255}, 53, kTooShortErr, {}},
        {"no length byte", {53}, 53, kTooShortErr, {}},
        {"empty data", {15, 0, 255}, 15, kNoErr, {15, 0}},
        {"the pad itself", {1, 1, 9, 0, 255}, 0, kNoErr, {0}},
        {"the end itself", {1, 1, 9, 255}, 255, kNoErr, {255}},
        {"nothing", {}, 53, kTooShortErr, {}},
    };
    const sim::World world;
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        std::span<const uint8_t> option;
        EXPECT_EQ(Ostrel_BOOTPPacketFindOption(Indexed(test.options), test.code, &option), test.status);
        EXPECT_EQ(Bytes(option.begin(), option.end()), test.found);
    }
}

// At level chatty a search is written out as far as it goes, a line and a dump for each option; above it nothing is.
TEST(Options, ASearchIsWrittenOutForWhoTurnedItOn) {
    const Bytes area{0, 53, 1, 5, 12, 1, 'a', 255, 54};
    const Ostrel_OptionIndex options = Indexed(area);
    const struct {
        uint8_t code;
        std::vector<std::pair<int, int>> seen;  // code and length
    } searches[] = {{12, {{0, 1}, {53, 3}, {12, 3}}}, {54, {{0, 1}, {53, 3}, {12, 3}, {255, 1}}}, {0, {{0, 1}}}};
    for (const auto& [code, seen] : searches) {
        const sim::World world;
        std::span<const uint8_t> option;
        Ostrel_SetDebugLevel("verbose");
        (void)Ostrel_BOOTPPacketFindOption(options, code, &option);
        EXPECT_TRUE(world.log.empty());
        Ostrel_SetDebugLevel("chatty");
        (void)Ostrel_BOOTPPacketFindOption(options, code, &option);
        Ostrel_SetDebugLevel("info");

        ASSERT_EQ(world.log.size(), 2 * seen.size());
        for (size_t i = 0; i < seen.size(); ++i) {
            const std::string& line = world.log[2 * i].text;
            const auto& [found, length] = seen[i];
            EXPECT_TRUE(line.starts_with("DHCP Find Option <" + std::to_string(code) + "> found <" +
                                         std::to_string(found) + "> at <0x"))
                << line;
            EXPECT_TRUE(line.ends_with(">, length <" + std::to_string(length) + ">")) << line;
        }
    }
}

TEST(Options, TypedReadersInsistOnTheirLength) {
    const sim::World world;
    const Bytes area{51, 4, 0, 0,  0x1C, 0x20, 57, 2, 5, 0xDC, 54, 4, 192, 0, 2,  1,
                     53, 1, 5, 58, 2,    1,    2,  1, 5, 1,    2,  3, 4,   5, 255};
    const Ostrel_OptionIndex options = Indexed(area);
    uint32_t number = 7;
    uint16_t half = 0;
    uint8_t byte = 0;
    Ostrel_IPv4 address = 0;
    const auto read32 = [&](uint8_t code) { return Ostrel_BOOTPPacketFindOptionAsUint32(options, code, &number); };
    const auto read16 = [&](uint8_t code) { return Ostrel_BOOTPPacketFindOptionAsUint16(options, code, &half); };
    const auto read8 = [&](uint8_t code) { return Ostrel_BOOTPPacketFindOptionAsUint8(options, code, &byte); };
    const auto readIPv4 = [&](uint8_t code) { return Ostrel_BOOTPPacketFindOptionAsIPv4(options, code, &address); };
    EXPECT_TRUE(read32(51) == kNoErr && read32(58) == kBadSizeErr && read32(59) == kEndingErr && number == 7200);
    EXPECT_TRUE(read16(57) == kNoErr && read16(53) == kBadSizeErr && half == 1500);
    EXPECT_TRUE(read8(53) == kNoErr && read8(57) == kBadSizeErr && byte == 5);
    EXPECT_TRUE(readIPv4(54) == kNoErr && readIPv4(1) == kBadSizeErr && address == inet_addr("192.0.2.1"));
    EXPECT_EQ(Ostrel_BOOTPPacketFindMessageType(Indexed(Bytes{53, 0, 255}), &byte), kBadSizeErr);
    EXPECT_TRUE(world.Logged("( optionBuf[1] == sizeof( uint16_t ) )"));
}

TEST(Options, AddressArraysAreMultiplesOfFour) {
    sim::World world;
    const struct {
        size_t length, failAllocation;
        Ostrel_Status status;
        uint32_t count;
    } cases[] = {{0, 0, kNoErr, 0}, {252, 0, kNoErr, 63}, {6, 0, kBadSizeErr, 9}, {8, 1, kOutOfMemoryErr, 9}};
    for (const auto& test : cases) {
        Bytes data(test.length);
        std::iota(data.begin(), data.end(), uint8_t{1});
        os_array<Ostrel_IPv4> addresses;
        uint32_t count = 9;
        world.FailAllocation(test.failAllocation);
        EXPECT_EQ(Ostrel_BOOTPPacketProcessOptionAsIPv4Array(data, &addresses, &count), test.status);
        EXPECT_EQ(count, test.count);
        if (test.status != kNoErr) continue;
        ASSERT_NE(addresses, nullptr);
        EXPECT_TRUE(std::equal(data.begin(), data.end(), reinterpret_cast<const uint8_t*>(addresses.get())));
    }
}

TEST(Options, AppendWritesAWholeOptionOrNothing) {
    const sim::World world;
    wpabuf* const buffer = wpabuf_alloc(10);
    EXPECT_EQ(Ostrel_BOOTPPacketAppendOption(buffer, 53, Bytes{5}), kNoErr);
    EXPECT_EQ(Ostrel_BOOTPPacketAppendOption(buffer, 0, Bytes{1, 2}), kNoErr);
    EXPECT_EQ(Ostrel_BOOTPPacketAppendOption(buffer, 15, {}), kNoErr);
    EXPECT_EQ(Ostrel_BOOTPPacketAppendOption(buffer, 54, Bytes{1, 2, 3, 4}), kTooLongErr);
    EXPECT_EQ(Ostrel_BOOTPPacketAppendOption(buffer, 255, {}), kNoErr);
    const std::span<const uint8_t> bytes = wpabuf_bytes(buffer);
    EXPECT_EQ(Bytes(bytes.begin(), bytes.end()), (Bytes{53, 1, 5, 0, 15, 0, 255}));
    wpabuf_free(buffer);
}

// Against the sum as RFC 1071 writes it down, 16 bits at a time.
TEST(Checksum, IsThatOfItsWordsInNetworkOrder) {
    Bytes data;
    for (uint32_t length = 0; length < 600; ++length) {
        uint32_t expected = 0xFEDC;
        for (size_t i = 0; i < data.size(); i += 2) {
            expected += static_cast<uint32_t>(data[i]) << 8 | (i + 1 < data.size() ? data[i + 1] : 0U);
            expected = (expected & 0xFFFF) + (expected >> 16);
        }
        ASSERT_EQ(Ostrel_Checksum(data, 0xFEDC), expected) << length;
        data.push_back(static_cast<uint8_t>(length < 300 ? 0xFF : length * 151 >> 3));
    }
    EXPECT_EQ(Ostrel_Checksum(Bytes(8, 0), 0), 0u) << "only nothing adds up to 0";
    EXPECT_EQ(Ostrel_Checksum(Bytes(8, 0xFF), 0), 0xFFFFu);
}

}  // namespace
