// Local times at the head of log lines.
//
// The text of a second is kept until the next one: a daemon at its chattiest writes thousands of lines a second, and
// breaking a time down into a calendar costs more than the rest of a line.
#include "LogTime.h"

#include <array>
#include <ctime>

namespace {

struct SecondText {
    const char* format;
    time_t second = -1;
    std::array<char, 32> text{};
    size_t length = 0;
};

SecondText fileTime{.format = "%Y-%m-%d %H:%M:%S."};
SecondText systemLogTime{.format = "%b %e %H:%M:%S"};

void BringUpTo(SecondText& kept, time_t second) noexcept {
    if (kept.second == second) return;
    tm local{};
    if (localtime_r(&second, &local) == nullptr) return;
    kept.second = second;
    kept.length = std::strftime(kept.text.data(), kept.text.size(), kept.format, &local);
}

}  // namespace

std::string_view LogTimeForFile() noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    BringUpTo(fileTime, now.tv_sec);
    const long milliseconds = now.tv_nsec / 1'000'000;
    char* const tail = fileTime.text.data() + fileTime.length;
    tail[0] = static_cast<char>('0' + milliseconds / 100);
    tail[1] = static_cast<char>('0' + milliseconds / 10 % 10);
    tail[2] = static_cast<char>('0' + milliseconds % 10);
    tail[3] = ' ';
    return {fileTime.text.data(), fileTime.length + 4};
}

std::string_view LogTimeForSystemLog() noexcept {
    BringUpTo(systemLogTime, std::time(nullptr));
    return {systemLogTime.text.data(), systemLogTime.length};
}
