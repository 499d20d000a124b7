// Log formats: every conversion with the argument it is for, the argument it is not for, and none.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "FormatArgument.h"

namespace {

template <typename... Arguments>
std::string Formatted(const char* format, const Arguments&... arguments) {
    const std::array<FormatArgument, sizeof...(Arguments)> list{FormatArgument(arguments)...};
    std::array<char, 256> text;
    const size_t length = FormatText(text, format, list);
    EXPECT_EQ(text[length], '\0');
    return {text.data(), length};
}

constexpr std::array<uint8_t, 6> kMAC{0x02, 0x00, 0x5E, 0x10, 0xFF, 0x0A};
void Function(int) {}

TEST(FormatText, PrintsWhatFitsMarksTheRestAndCannotBeForged) {
    const uint32_t address = htonl(0xC0000201);
    const char* const none = nullptr;
    const std::array<uint8_t, 4> four{};
    const std::pair<std::string, std::string> cases[] = {
        {Formatted("%d|%5d|%-5d|%05d|%d", -7, 42, 42, -42, INT32_MIN), "-7|   42|42   |-0042|-2147483648"},
        {Formatted("%d %u %lu", uint32_t{4294967295}, -1, UINT64_MAX), "4294967295 -1 18446744073709551615"},
        {Formatted("0x%04x %X %x", 0x80, 0xBEEF, -16), "0x0080 BEEF -10"},
        {Formatted("<%s|%8s|%-3s|%.3s|%s>", "eth0", "ab", std::string("c"), std::string_view("abcdef"), none),
         "<eth0|      ab|c  |abc|(null)>"},
        {Formatted("%c%c 100%%", 'o', 'k'), "ok 100%"},
        {Formatted("%.4a is at %.6a, %a, %18a", &address, kMAC, &kMAC, kMAC),
         "192.0.2.1 is at 02:00:5e:10:ff:0a, 02:00:5e:10:ff:0a,  02:00:5e:10:ff:0a"},
        {Formatted("%.4a", std::span<const uint8_t>(kMAC)), "2.0.94.16"},
        {Formatted("%p", reinterpret_cast<const void*>(uintptr_t{0xABC})), "0xabc"},
        {Formatted("%p", &Function).substr(0, 2), "0x"},
        // What doesn't fit is not read.
        {Formatted("%s %d %p %n %f %", 1, "x", 2, 3, 4), "%! %! %! %! %! %!"},
        {Formatted("%.6a %.4a %.5a %a", four, "abcd", kMAC, static_cast<const void*>(&kMAC)), "%! %! %! %!"},
        {Formatted("%.4a", static_cast<const uint32_t*>(nullptr)), "%!"},
        {Formatted("%d and %s"), "%! and %!"},
        {Formatted("%99999999999999999999d", 1), std::string(255, ' ')},
        // Text from the network.
        {Formatted("<%s>\n", "a\n<3>root: \x1b[2J\x7f"), "<a\\x0a<3>root: \\x1b[2J\\x7f>\n"},
        {Formatted("%8s|%-8s|%c", "\t", "\t", '\r'), "    \\x09|\\x09    |\\x0d"},
        {Formatted("%s|%s", std::string_view("a\0b", 3), "gr\xc3\xbcn %d"), "a\\x00b|gr\xc3\xbcn %d"},
        {Formatted("%s",
                   "b\xc2\x9b"
                   "32m \xc2\x80\xc2\xa0"),
         "b\\xc2\\x9b"
         "32m \\xc2\\x80\xc2\xa0"},  // C1
        {Formatted("%s",
                   "\x9b"
                   "31m \xe9t\xe9 \xc3"),
         "\\x9b"
         "31m \\xe9t\\xe9 \\xc3"},                                     // no UTF-8
        {Formatted("%s", "\xe0\x80\x9b\xed\xa0\x80\xf4\x90\x80\x80"),  // nor this
         "\\xe0\\x80\\x9b\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80"},
        {Formatted("%s", "\xd8\x9c\xe2\x80\xae\xe2\x81\xa6\xe2\x82\xac\xf0\x9f\x98\x80"),  // directions
         "\\xd8\\x9c\\xe2\\x80\\xae\\xe2\\x81\\xa6\xe2\x82\xac\xf0\x9f\x98\x80"},
        {Formatted("%5s|%-9s|%.1s", "\xc3\xbc", "\xc2\x85", "\xc3\xbc"), "   \xc3\xbc|\\xc2\\x85 |\\xc3"},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(text, expected);
}

TEST(FormatText, CutsToItsRoom) {
    std::array<char, 5> room{'#', '#', '#', '#', '#'};
    const std::array<FormatArgument, 1> list{FormatArgument("abcdef")};
    EXPECT_EQ(FormatText(room, "<%s>", list), 4u);
    EXPECT_STREQ(room.data(), "<abc");
    EXPECT_EQ(FormatText(std::span(room).first(1), "<%s>", list), 0u);
    EXPECT_EQ(room[0], '\0');
    EXPECT_EQ(FormatText({}, "<%s>", list), 0u);
}

}  // namespace
