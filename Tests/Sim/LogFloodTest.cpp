// What strangers can write into the logs by sending frames: a little, and nothing that hides what else happens.

#include <charconv>
#include <map>

#include "Ostrel/Log.h"

#include "ServerScene.h"

namespace sim {
namespace {

constexpr std::string_view kReport = " lines like this left out: ";

struct Told {
    size_t written = 0;
    size_t leftOut = 0;
    size_t reports = 0;
};

// What the log at info and above has of each line.
std::map<std::string, Told> ReadLog(const World& world) {
    std::map<std::string, Told> told;
    for (const LogLine& line : world.log) {
        if (line.systemLog ? line.level > kQxLogInfo : line.level < kDebugLevelInfo) continue;
        const size_t report = line.text.find(kReport);
        if (report == std::string::npos) {
            ++told[line.text].written;
            continue;
        }
        Told& kind = told[line.text.substr(report + kReport.size())];
        size_t number = 0;
        std::from_chars(line.text.data(), line.text.data() + report, number);
        kind.leftOut += number;
        ++kind.reports;
    }
    return told;
}

// For thirty seconds, that many times a second: a frame that is no DHCP message, and a REQUEST that has to be refused.
// What the log has of it after some seconds of quiet.
std::map<std::string, Told> LogOfAFlood(size_t framesASecond) {
    ServerLan lan;
    Guest stranger(lan.wire, 66);
    Frame foreign = WriteDHCP(MessageFrom(stranger.mac, kDiscover));
    foreign[foreign.size() - 8] = 0;  // of the options cookie, which stands before option 53 and the end
    const Frame refused = WriteDHCP(MessageFrom(stranger.mac, kRequest, "", "10.1.2.3"));
    lan.world.log.clear();
    for (size_t i = 0; i < 30 * framesASecond; ++i) {
        stranger.segment.Send(stranger, foreign);
        stranger.segment.Send(stranger, refused);
        lan.world.RunFor(Duration(1s) / framesASecond);
    }
    lan.world.RunFor(5s);
    return ReadLog(lan.world);
}

TEST(LogFlood, StrangersWriteLittleAndNothingIsLeftOutUncounted) {
    for (const size_t framesASecond : {15, 30, 1000}) {
        SCOPED_TRACE(framesASecond);
        size_t limited = 0;
        for (const auto& [line, told] : LogOfAFlood(framesASecond)) {
            EXPECT_LE(told.written, 200 + 20 * 31) << line;
            EXPECT_LE(told.reports, 31U) << line;
            EXPECT_EQ((told.written + told.leftOut) % (30 * framesASecond), 0U) << line;
            if (told.reports > 0) ++limited;
        }
        const size_t places = framesASecond < 20 ? 0 : 4;  // three lines of the one frame, one of the other
        EXPECT_EQ(limited, places);
    }
}

TEST(LogFlood, WhatCallersCauseAndWhatSomebodyTurnedOnIsAllWritten) {
    ServerLan lan;
    Guest stranger(lan.wire, 66);
    Ostrel_SetDebugLevel("trace");
    lan.world.log.clear();
    for (int i = 0; i < 1000; ++i) {
        (void)stranger.Discover();
        (void)lan.world.Call("/", "interfaceFinalize", "[]");
    }
    int discovers = 0, failures = 0;
    for (const LogLine& line : lan.world.log) {
        if (line.text.find("RX msg type DHCPDISCOVER") != std::string::npos) ++discovers;
        if (line.systemLog && line.level == kQxLogError) ++failures;
    }
    EXPECT_EQ(discovers, 1000);
    EXPECT_GE(failures, 1000);
}

}  // namespace
}  // namespace sim
