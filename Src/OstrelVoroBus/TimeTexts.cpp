// The times of leases, as they are shown, read back.
//
// A text has exactly 24 characters, each in its place: name of the day, name of the month, day padded with a space,
// time of day, year. What it says is local time, and only the device knows its zone, which may change with the season.
// So the text is first read as if it were UTC, and then moved until the device shows the moment in just these words.

#include "TimeTexts.h"

#include <algorithm>
#include <array>

#include "os_time.h"

namespace {

constexpr size_t kTextLength = 24;
constexpr std::string_view kDays = "SunMonTueWedThuFriSat";
constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
constexpr int64_t kSecondsPerDay = 86400;
constexpr int kFits = 3;  // a zone that differs at the first guess is another one at most once more

// Which of the names of three letters it is, from 0 on.
std::optional<int64_t> IndexOf(std::string_view names, std::string_view name) {
    for (size_t i = 0; i < names.size(); i += name.size())
        if (names.substr(i, name.size()) == name) return static_cast<int64_t>(i / name.size());
    return std::nullopt;
}

// Digits alone, the first of which may be a space.
std::optional<int64_t> NumberOf(std::string_view digits) {
    if (digits.front() == ' ') digits.remove_prefix(1);
    int64_t number = 0;
    for (const char digit : digits) {
        if (digit < '0' || digit > '9') return std::nullopt;
        number = number * 10 + (digit - '0');
    }
    return number;
}

// Days from 1970-01-01 to that day of the Gregorian calendar; `month` from 0. Years are counted from March, so that
// the leap day is the last one.
int64_t DaysOf(int64_t year, int64_t month, int64_t day) {
    const int64_t marchYear = month < 2 ? year - 1 : year;
    const int64_t marchMonth = (month + 10) % 12;
    const int64_t yearDays = (153 * marchMonth + 2) / 5 + day - 1;
    return 365 * marchYear + marchYear / 4 - marchYear / 100 + marchYear / 400 + yearDays - 719468;
}

// The text as if it were UTC.
std::optional<int64_t> SecondsOf(std::string_view text) {
    if (text.size() != kTextLength) return std::nullopt;
    for (const size_t place : std::array<size_t, 4>{3, 7, 10, 19})
        if (text[place] != ' ') return std::nullopt;
    if (text[13] != ':' || text[16] != ':' || !IndexOf(kDays, text.substr(0, 3))) return std::nullopt;
    const auto month = IndexOf(kMonths, text.substr(4, 3));
    const auto day = NumberOf(text.substr(8, 2));
    const auto hour = NumberOf(text.substr(11, 2));
    const auto minute = NumberOf(text.substr(14, 2));
    const auto second = NumberOf(text.substr(17, 2));
    const auto year = NumberOf(text.substr(20, 4));
    if (!month || !day || !hour || !minute || !second || !year) return std::nullopt;
    if (*year < 1900 || *day < 1 || *day > 31 || *hour > 23 || *minute > 59 || *second > 59) return std::nullopt;
    return DaysOf(*year, *month, *day) * kSecondsPerDay + (*hour * 60 + *minute) * 60 + *second;
}

// How far local time is ahead of UTC at a moment.
std::optional<int64_t> ZoneAt(int64_t moment) {
    std::array<char, 64> shown{};
    if (!os_local_time_text(moment, shown)) return std::nullopt;
    const auto local = SecondsOf(std::string_view(shown.data()).substr(0, kTextLength));
    if (!local) return std::nullopt;
    return *local - moment;
}

}  // namespace

std::optional<int64_t> Ostrel_WallTimeOfText(std::string_view text) {
    const auto local = SecondsOf(text);
    if (!local) return std::nullopt;
    int64_t moment = *local;
    for (int i = 0; i < kFits; ++i) {
        const auto zone = ZoneAt(moment);
        if (!zone) return std::nullopt;
        if (moment + *zone == *local) return moment;
        moment = *local - *zone;
    }
    return moment;
}
