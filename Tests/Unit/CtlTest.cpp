// What ostrelctl makes of words: those typed, those that strangers sent, and times.
#include <clocale>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>

#include "ostrelctl/Arguments.h"
#include "ostrelctl/Lease.h"
#include "ostrelctl/ServedValues.h"
#include "ostrelctl/Terminal.h"

namespace ostrelctl {

namespace {

// What is read, written again; "no" when it is refused.
std::string AsNetwork(const std::string& text) {
    Network network;
    return ReadNetwork(text, network) ? AddressWithPrefix(network.address, network.mask) : "no";
}

std::string AsRange(const std::string& text) {
    Range range;
    return ReadRange(text, range) ? AddressText(range.first) + " " + AddressText(range.last) : "no";
}

std::string AsSpan(const std::string& text) {
    int64_t seconds = -1;
    return ReadSpan(text, seconds) ? std::to_string(seconds) : "no";
}

// What the daemon is asked for.
std::string AsFixed(const std::string& text) {
    FixedLease fixed;
    if (!ReadFixed(text, fixed)) return "no";
    valdo::JValue request = valdo::Object();
    PutFixed(request, {fixed});
    std::string written;
    EXPECT_TRUE(valdo::JGenerator::toString(request["fixed"], valdo::JSchemaFragment("{}"), written));
    return written;
}

std::string AsOption(const std::string& text) {
    ServedOption option;
    if (!ReadServedOption(text, option)) return "no";
    valdo::JValue request = valdo::Object();
    PutServedOptions(request, {option});
    std::string written;
    EXPECT_TRUE(valdo::JGenerator::toString(request["options"][0], valdo::JSchemaFragment("{}"), written));
    return written;
}

}  // namespace

TEST(Ctl, ReadsTheWordsOfTheCommandLineWholeOrNotAtAll) {
    struct Reading {
        std::string (*as)(const std::string&);
        const char* text;
        const char* expected;
    };
    const Reading readings[] = {
        {AsNetwork, "192.0.2.1/24", "192.0.2.1/24"},
        {AsNetwork, "10.0.0.1/1", "10.0.0.1/1"},
        {AsNetwork, "192.0.2.1", "no"},
        {AsNetwork, "192.0.2.1/0", "no"},
        {AsNetwork, "192.0.2.1/33", "no"},
        {AsNetwork, "192.0.2.1/24x", "no"},
        {AsNetwork, "192.0.2.01/24", "no"},
        {AsNetwork, "192.0.2/24", "no"},
        {AsRange, "192.0.2.9-192.0.2.10", "192.0.2.9 192.0.2.10"},
        {AsRange, "192.0.2.9", "192.0.2.9 0.0.0.0"},
        {AsRange, "192.0.2.9-", "no"},
        {AsRange, "192.0.2.9-10", "no"},
        {AsSpan, "90s", "90"},
        {AsSpan, "12h", "43200"},
        {AsSpan, "4294967295d", "371085174288000"},
        {AsSpan, "4294967296", "no"},
        {AsSpan, "", "no"},
        {AsSpan, "h", "no"},
        {AsSpan, "-1", "no"},
        {AsFixed, "02:00:5e:10:00:01=192.0.2.7,camera",
         R"([{"macAddress":"02:00:5e:10:00:01","ipv4Address":"192.0.2.7","hostName":"camera"}])"},
        {AsFixed, "02:00:5E:10:00:01=192.0.2.7", R"([{"macAddress":"02:00:5E:10:00:01","ipv4Address":"192.0.2.7"}])"},
        {AsFixed, "02:00:5e:10:00:01=192.0.2.7,", "no"},
        {AsFixed, "02:00:5e:10:00=192.0.2.7", "no"},
        {AsFixed, "02:00:5e:10:00:0g=192.0.2.7", "no"},
        {AsFixed, "192.0.2.7=02:00:5e:10:00:01", "no"},
        {AsOption, "ntp=192.0.2.3,192.0.2.4", R"({"code":42,"ipv4":["192.0.2.3","192.0.2.4"]})"},
        {AsOption, "42=192.0.2.3", R"({"code":42,"ipv4":["192.0.2.3"]})"},
        {AsOption, "42=hex:C0000203", R"({"code":42,"hex":"C0000203"})"},
        {AsOption, "ntp=pool.example", "no"},
        {AsOption, "mtu=1400", R"({"code":26,"hex":"0578"})"},
        {AsOption, "mtu=65536", "no"},
        {AsOption, "search=a.bc,d", R"({"code":119,"hex":"016102626300016400"})"},
        {AsOption, "search=a..b", "no"},
        {AsOption, "portal=https://192.0.2.1/", R"({"code":114,"text":"https://192.0.2.1/"})"},
        {AsOption, "tftp=192.0.2.9", R"({"code":66,"text":"192.0.2.9"})"},
        {AsOption, "150=192.0.2.9", R"({"code":150,"ipv4":["192.0.2.9"]})"},
        {AsOption, "224=any text", R"({"code":224,"text":"any text"})"},
        {AsOption, "43=hex:0", "no"},
        {AsOption, "43=", "no"},
        {AsOption, "255=x", "no"},
        {AsOption, "0=x", "no"},
        {AsOption, "nosuch=x", "no"},
    };
    for (const Reading& row : readings) EXPECT_EQ(row.as(row.text), row.expected) << row.text;
}

TEST(Ctl, ShowsNothingOfAStrangersThatMovesTheCursorOrTurnsTheLine) {
    const std::pair<std::string_view, const char*> texts[] = {
        {"camera \u00e9\u4e16\U0001f4f7", "camera \u00e9\u4e16\U0001f4f7"},
        {"\033[2Jx\r\n\t\x7f", "?[2Jx????"},
        {"a\u009b31m", "a?31m"},       // CSI as one character
        {"a\x9b\x31m\xc3", "a?1m?"},   // and as one byte; a character cut short
        {"\xc0\x9b\xff\xf5", "????"},  // written too long; bytes of no character
        {"gepj.\u202egnp.exe\u2066", "gepj.?gnp.exe?"},
        {{"a\0b", 3}, "a?b"},
    };
    for (const auto& [text, shown] : texts) EXPECT_EQ(Printable(text), shown);

    EXPECT_EQ(EscapedJson("{\"a\":\"\u009b2J\x7f\u202e\u061c \u00e9\U0001f4f7\"}"),
              "{\"a\":\"\\u009b2J\\u007f\\u202e\\u061c \u00e9\U0001f4f7\"}");

    ASSERT_NE(setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
    EXPECT_EQ(Columns("\u00e9\u4e16"), 3u);  // the second is wide
    EXPECT_EQ(Shortened("ab\u4e16cd", 5, true), "ab\u4e16\u2026");
    EXPECT_EQ(Shortened("ab\u4e16cd", 4, false), "ab~");
    EXPECT_EQ(Shortened("abc", 3, true), "abc");
    EXPECT_EQ(Shortened("abc", 0, true), "");
    setlocale(LC_CTYPE, "C");
}

TEST(Ctl, CountsTimeInTwoUnitsAndKnowsTheHourThatStandsTwice) {
    const std::pair<int64_t, const char*> spans[] = {
        {0, "0 s"},    {59, "59 s"},          {60, "1 min"},          {3599, "59 min 59 s"},
        {3600, "1 h"}, {25920, "7 h 12 min"}, {86399, "23 h 59 min"}, {90000, "1 d 1 h"},
        {86460, "1 d"}};
    for (const auto& [seconds, text] : spans) EXPECT_EQ(SpanText(seconds), text);

    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    constexpr int64_t kChange = 1792890000;  // 2026-10-25 01:00 UTC: from 03:00 back to 02:00
    const std::string text = "Sun Oct 25 02:30:00 2026";
    EXPECT_EQ(ReadBeginning(text, 3600, kChange - 1700), kChange - 1800);
    EXPECT_EQ(ReadBeginning(text, 3600, kChange + 1900), kChange + 1800);
    for (const int64_t hours : {0, 10, 20})  // not begun, as it should be, ended
        EXPECT_EQ(ReadBeginning("Sun Oct 25 12:00:00 2026", 3600, kChange + hours * 3600), kChange + 36000);
    EXPECT_EQ(ReadBeginning("soon", 3600, kChange), 0);
    EXPECT_EQ(ClockText(kChange + 1800, kChange), "02:30:00");
    EXPECT_EQ(ClockText(kChange + 86400, kChange), "2026-10-26 02:00");
    unsetenv("TZ");
    tzset();
}

}  // namespace ostrelctl
