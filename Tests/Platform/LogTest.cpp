// Both logs down to the bytes they leave: in a file with a limit, at a log daemon that listens, hangs or goes away, and
// on standard error.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <glib.h>
#include <gtest/gtest.h>
#include <optional>
#include <regex>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "DebugServices.h"
#include "QxLog.h"
#include "SystemLog.h"

namespace {

// Lines of a log file, each without its time.
std::vector<std::string> Lines(const std::filesystem::path& path) {
    const std::regex time(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )");
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line); lines.push_back(line.substr(std::min(line.size(), size_t{24}))))
        EXPECT_TRUE(std::regex_match(line.substr(0, 24), time)) << line;
    return lines;
}

class LogTest : public testing::Test {
protected:
    const std::filesystem::path directory = testing::TempDir() + "logs-" + std::to_string(getpid());
    const std::filesystem::path log = directory / "log";
    const std::string path = directory / "socket";  // of the log daemon; nobody listens until a test does

    void SetUp() override {
        std::filesystem::create_directory(directory);
        SystemLogSetPath(path.c_str());
        DebugSetProperty(kDebugPropertyMinimumLevel, 0);
        DebugSetProperty(kDebugPropertyLongestLine, 65535);
    }
    void TearDown() override {
        DebugFinalize();
        SystemLogSetPath(kSystemLogPath);
        std::filesystem::remove_all(directory);
    }
};

using DebugFile = LogTest;
using SystemLog = LogTest;

// A log daemon that reads when it is asked to.
class LogDaemon {
public:
    explicit LogDaemon(const std::string& path) : fd(socket(AF_UNIX, SOCK_DGRAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        unlink(path.c_str());
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    ~LogDaemon() { close(fd); }
    // The next line; empty when there is none.
    std::string Next() const {
        std::string text(1 << 20, '\0');
        text.resize(static_cast<size_t>(std::max<ssize_t>(0, recv(fd, text.data(), text.size(), MSG_DONTWAIT))));
        return text;
    }

private:
    int fd;
};

TEST_F(DebugFile, WritesLinesOfTheThresholdAndAbove) {
    DebugInitialize(kDebugBackEndFile, 1, log.c_str());
    DebugSetProperty(kDebugPropertyMinimumLevel, 1000);
    DebugPrintF(999, "dropped\n");
    DebugPrintF(1000, "two\nlines of %s\n", "eth0\nforged");
    DebugPrintF(8000, "no newline");
    DebugSetProperty(kDebugPropertyLongestLine, 4);
    DebugPrintF(8000, "cut here\n\nand here\n");
    DebugSetProperty(kDebugPropertyLongestLine, 65535);
    DebugPrintAssert(-6728, nullptr, nullptr, "Src/DHCPClient", 12, "Read");
    DebugPrintAssert(0, "ifaceRef", "why", "Src/Ostrel", 3, "main");
    std::array<uint8_t, 18> bytes{'A', 0x00, 0x7F, 0xFF, '|'};
    DebugHexDump(1000, bytes);
    DebugHexDump(999, bytes);
    DebugSetProperty(kDebugPropertyMinimumLevel, 6001);
    DebugPrintAssert(0, "dropped", nullptr, "", 0, "");
    DebugFinalize();
    DebugPrintF(8000, "dropped\n");
    const std::vector<std::string> expected{"two",
                                            "lines of eth0\\x0aforged",
                                            "no newline",
                                            "cut ",
                                            "",
                                            "and ",
                                            "### Assert: err -6728 <> Src/DHCPClient:12 Read()",
                                            "### Assert: err 0 <ifaceRef> Src/Ostrel:3 main() why",
                                            "0000  41 00 7f ff 7c 00 00 00 00 00 00 00 00 00 00 00  |A...|...........|",
                                            "0010  00 00                                            |..|"};
    EXPECT_EQ(Lines(log), expected);
}

// Standard streams are redirected in a process of their own.
TEST_F(DebugFile, StartsAfreshAtItsLimitAndStandardErrorFollows) {
    const auto child = [&] {
        DebugInitialize(kDebugBackEndFile, 1, log.c_str());
        DebugRedirectStandardStreams(log.c_str());
        for (int i = 0; i < 1500; ++i) DebugPrintF(1000, "%4d %s\n", i, std::string(995, 'x'));
        std::fputs("2026-01-01 00:00:00.000 1500 from standard error\n", stderr);
        std::fputs("2026-01-01 00:00:00.000 1501 from standard output\n", stdout);
        DebugPrintF(1000, "1502 last\n");
        _exit(0);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
    EXPECT_LE(std::filesystem::file_size(log), 1u << 20);
    std::vector<std::string> lines = Lines(log.string() + ".1");
    EXPECT_GT(lines.size(), 1000u);
    std::ranges::copy(Lines(log), std::back_inserter(lines));
    ASSERT_EQ(lines.size(), 1503u) << "no line is lost, none stands twice";
    for (size_t i = 0; i < lines.size(); ++i) ASSERT_EQ(std::stoul(lines[i]), i);
}

TEST_F(DebugFile, FallsBackToStandardErrorWhichStaysBoundedToo) {
    const auto child = [&] {
        DebugRedirectStandardStreams((directory / "missing" / "log").c_str());
        DebugRedirectStandardStreams(log.c_str());
        DebugInitialize(kDebugBackEndFile, 1, (directory / "missing" / "log").c_str());
        DebugPrintF(1000, "no file\n");
        DebugInitialize(kDebugBackEndSystemLog, "org.ostrel.dhcp");
        for (int i = 0; i < 11 * 1024; ++i) DebugPrintF(1000, "%s\n", std::string(1000, 'y'));
        _exit(0);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
    EXPECT_LE(std::filesystem::file_size(log), 10u << 20);
    EXPECT_EQ(Lines(log.string() + ".1").at(0), "no file");
}

TEST_F(SystemLog, CarriesSeverityTimeAndName) {
    const LogDaemon daemon(path);
    DebugInitialize(kDebugBackEndSystemLog, "org.ostrel.dhcp");
    const std::vector<std::pair<int32_t, int>> levels{{100, 7},  {999, 7},  {1000, 6}, {3000, 5},  {5000, 4},
                                                      {6000, 3}, {8000, 3}, {9000, 2}, {10000, 1}, {12000, 0}};
    for (const auto& [level, severity] : levels) {
        DebugPrintF(level, "level %d\n", level);
        const std::regex expected("<" + std::to_string(24 + severity) +
                                  R"(>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d org\.ostrel\.dhcp\[)" +
                                  std::to_string(getpid()) + R"(\]: level )" + std::to_string(level));
        const std::string text = daemon.Next();
        EXPECT_TRUE(std::regex_match(text, expected)) << level << ": " << text;
    }
}

TEST_F(SystemLog, ContextsAreNamedOnceAndTakeTheirLevelFromTheEnvironment) {
    const LogDaemon daemon(path);
    QxLogContext *plain = nullptr, *chatty = nullptr, *again = nullptr;
    ASSERT_EQ(QxLogGetContext("plain", &plain), 0);
    setenv("OSTREL_LOG_LEVEL", "7", 1);
    ASSERT_EQ(QxLogGetContext("chatty", &chatty) + QxLogGetContext("plain", &again), 0);
    EXPECT_EQ(plain, again);
    EXPECT_EQ(QxLogGetLevel(plain), 6);
    QxLogPrint(chatty, kQxLogDebug, "%d %s\n", -6700, "text");
    EXPECT_NE(daemon.Next().find(" chatty["), std::string::npos);
    QxLogPrint(nullptr, kQxLogDebug, "default\n");
    EXPECT_TRUE(daemon.Next().starts_with("<31>"));
}

// What the log daemon gets while the loop runs and it reads, up to a line with that end.
std::vector<std::string> ReadUpTo(const LogDaemon& daemon, std::string_view last) {
    std::vector<std::string> texts;
    for (int quiet = 0; quiet < 1000 && (texts.empty() || !texts.back().ends_with(last)); ++quiet) {
        while (g_main_context_iteration(nullptr, FALSE) != FALSE) continue;
        for (std::string text = daemon.Next(); !text.empty(); text = daemon.Next()) {
            texts.push_back(text.substr(text.find("]: ") + 3));
            quiet = 0;
        }
        if (quiet > 0) usleep(1000);
    }
    return texts;
}

// The kernel's queue takes some ten lines; a lease at the level that needs no option writes some hundreds at once.
TEST_F(SystemLog, ABurstWaitsForTheLoopInOrder) {
    const LogDaemon daemon(path);
    std::vector<std::string> expected;
    for (int i = 0; i < 300; ++i) {
        expected.push_back("line " + std::to_string(i) + std::string(100, '.'));
        SystemLogWrite("name", 6, expected.back());
    }
    EXPECT_EQ(ReadUpTo(daemon, expected.back()), expected);
    EXPECT_FALSE(g_main_context_pending(nullptr)) << "nothing waits, so nothing is watched";
    SystemLogWrite("name", 6, "at once");
    EXPECT_TRUE(daemon.Next().ends_with(": at once"));
}

TEST_F(SystemLog, ADaemonThatHangsOrLeavesCostsLinesAndNoTime) {
    const auto child = [&] {
        DebugRedirectStandardStreams(log.c_str());
        auto daemon = std::make_optional<LogDaemon>(path);
        constexpr size_t kWritten = 5000;
        for (size_t i = 0; i < kWritten; ++i) SystemLogWrite("name", 6, "line");
        std::vector<std::string> texts = ReadUpTo(*daemon, "lines lost");
        if (texts.size() < 500 || texts.back() != std::to_string(kWritten - (texts.size() - 1)) + " lines lost")
            _exit(1);
        SystemLogWrite("name", 6, "after");
        if (!daemon->Next().ends_with("]: after")) _exit(2);
        SystemLogWrite("name", 6, std::string(500'000, 'z'));  // too long for the socket, so cut
        if (!daemon->Next().ends_with("zzz")) _exit(3);
        for (int i = 0; i < 50; ++i) SystemLogWrite("name", 6, "waiting");
        daemon.reset();
        SystemLogWrite("name", 6, "while it is away");
        daemon.emplace(path);
        for (int tries = 0; tries < 500; ++tries, usleep(10'000)) {
            SystemLogWrite("name", 6, "again");
            if (!daemon->Next().empty()) _exit(0);
        }
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
    const std::vector<std::string> lines = Lines(log);
    EXPECT_GE(std::ranges::count(lines, "waiting"), 30) << "what waited for it is not lost";
    EXPECT_EQ(std::ranges::count(lines, "while it is away"), 1);
}

TEST_F(SystemLog, WhatWaitsAtTheEndIsWrittenWithinMoments) {
    const auto child = [&] {
        DebugRedirectStandardStreams(log.c_str());
        const LogDaemon daemon(path);
        for (int i = 0; i < 50; ++i) SystemLogWrite("name", 6, "last words");
        SystemLogClose();
        size_t taken = 0;
        while (daemon.Next().ends_with("last words")) ++taken;
        _exit(static_cast<int>(taken));
    };
    const auto taken = [](int status) { return WIFEXITED(status) && WEXITSTATUS(status) > 0; };
    EXPECT_EXIT(child(), taken, "");
    EXPECT_GE(Lines(log).size(), 30U) << "it didn't read, so they stand in the file";
}

}  // namespace
