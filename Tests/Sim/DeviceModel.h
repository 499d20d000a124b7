// The device under the models of the client and the selector: its clocks, its timeouts, its generator, what fails, and
// what came of it all, in words. One list, walked from its start each time.
#pragma once

#include <functional>
#include <string>

#include "ModelParts.h"
#include "eloop.h"

namespace sim::model {

// The C library's generator as an unseeded process has it, beside the process's own.
class Generator {
public:
    Generator() { initstate_r(1, numbers.data(), numbers.size(), &data); }
    uint32_t Draw() {
        int32_t drawn = 0;
        random_r(&data, &drawn);
        return static_cast<uint32_t>(drawn);
    }

private:
    random_data data{};
    std::array<char, 128> numbers{};
};

class DeviceModel {
public:
    // Whatever was due until then happens, and the clock stands there.
    void PassTo(uint64_t until) {
        for (;;) {
            const auto next = Next();
            if (next == timeouts.end() || next->due > until) break;
            const Timeout due = *next;
            timeouts.erase(next);
            now = std::max(now, due.due);
            due.handler();
        }
        now = until;
    }
    // The device sleeps for so long, or until an alarm: plain timeouts and the clock stand still.
    void Sleep(uint64_t duration) {
        uint64_t end = now + duration;
        for (const Timeout& one : timeouts)
            if (one.isAlarm) end = std::min(end, std::max(one.due, now));
        for (Timeout& one : timeouts)
            if (!one.isAlarm) one.due += end - now;
        slept += end - now;
        now = end;
    }
    [[nodiscard]] uint64_t NextDue() const {
        const auto next = const_cast<DeviceModel*>(this)->Next();
        return next == timeouts.end() ? UINT64_MAX : next->due;
    }
    [[nodiscard]] uint32_t Seconds() const { return monotonicStart + static_cast<uint32_t>((now - slept) / 1'000'000); }

    // The wall clock is ahead of the other by so much; less than two seconds are no change.
    int64_t WallOffset() {
        const int64_t offset = wallStart + static_cast<int64_t>(now / 1'000'000) - int64_t{Seconds()};
        if (std::abs(offset - wallOffset) > 1) wallOffset = offset;
        return wallOffset;
    }

    void Set(const std::string& name, uint64_t milliseconds, const std::function<void()>& handler, bool rtc = false) {
        Add(name, milliseconds, handler, rtc);
        Say(800, "[eth0] Register <", name, "> ", rtc ? "RTC" : "", " timeout for ", Shown(milliseconds), ".");
    }
    void Reset(const std::string& name, uint64_t milliseconds, const std::function<void()>& handler) {
        const bool removed = Remove(name);
        Add(name, milliseconds, handler, false);
        Say(800, "[eth0] Reset <", name, ">  timeout for ", Shown(milliseconds), "; was ", removed ? "" : "NOT",
            " removed.");
    }
    void Cancel(const std::string& name, bool rtc = false) {
        Remove(name);
        Say(800, "[eth0] Cancel <", name, "> ", rtc ? "RTC" : "", " timeout.");
    }

    uint32_t Randomize(uint32_t minimum, uint32_t maximum) {
        uint32_t result = minimum;
        if (maximum > minimum) {
            const uint32_t a = generator.Draw();
            result += a * generator.Draw() % (maximum - minimum);
        }
        Say(800, "Randomized min (", minimum, " msecs) and max (", maximum, " msecs) to ", result, " msecs");
        return result;
    }

    // False: it was too short. What the link refuses is as good as sent.
    bool Send(const Frame& frame) {
        if (!isUp) return true;
        const SendFault fault = std::exchange(trouble.send, SendFault::None);
        if (fault == SendFault::None) sent.push_back({now, frame});
        return fault != SendFault::Short;
    }
    bool Allocate() { return trouble.failingAllocation == 0 || --trouble.failingAllocation != 0; }

    template <typename... Parts>
    void Say(int32_t level, const Parts&... parts) {
        if (level < threshold) return;
        Put(log, now);
        Put(log, " ");
        (Put(log, parts), ...);
        log += '\n';
    }
    // A step that failed, and a check in one.
    void ReportStep(Ostrel_Status status, const std::string& area, const std::string& step) {
        Say(6000, "### Assert: err ", status, " <> ", area, " ", step, "()");
    }
    void ReportCheck(const std::string& check, const std::string& area, Ostrel_Status status = kNoErr) {
        Say(6000, "### Assert: err ", status, " <", check, "> ", area);
    }

    uint64_t now = 0;  // microseconds
    uint64_t slept = 0;
    uint32_t monotonicStart = 0;
    int64_t wallStart = 0;
    Generator generator;
    Trouble trouble;
    bool isUp = true;
    bool failPosts = false;
    int32_t threshold = 1000;

    std::string log;  // a line for each, with its moment
    std::vector<std::pair<uint64_t, Frame>> sent;
    std::vector<std::pair<uint64_t, std::string>> posts;

private:
    struct Timeout {
        std::string name;
        uint64_t due;
        std::function<void()> handler;
        bool isAlarm;
    };

    void Add(const std::string& name, uint64_t milliseconds, const std::function<void()>& handler, bool isAlarm) {
        const uint64_t delay = std::min<uint64_t>(milliseconds, kEloopMaxSeconds * 1000ULL) * 1000;
        timeouts.push_back({name, now + delay, handler, isAlarm});
    }
    bool Remove(const std::string& name) {
        return std::erase_if(timeouts, [&](const Timeout& one) { return one.name == name; }) != 0;
    }
    // The first of those that are due first.
    std::vector<Timeout>::iterator Next() {
        return std::min_element(timeouts.begin(), timeouts.end(),
                                [](const Timeout& one, const Timeout& other) { return one.due < other.due; });
    }
    static std::string Shown(uint64_t milliseconds) {
        return Join(std::min<uint64_t>(milliseconds / 1000, kEloopMaxSeconds), " secs, ", milliseconds % 1000,
                    " msecs");
    }

    int64_t wallOffset = 0;
    std::vector<Timeout> timeouts;  // in the order in which they were made
};

}  // namespace sim::model
