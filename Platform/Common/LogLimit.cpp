// Buckets of the places that write while a frame is handled, in a small table: it needs no memory, and a line that is
// left out costs a look at it. A timer opens a bucket again; without a loop, or without memory for the timer, the next
// line does.
#include "LogLimit.h"

#include <algorithm>
#include <array>

#include "LogBackEnd.h"
#include "eloop.h"
#include "os_time.h"

namespace {

constexpr int32_t kDebugLevelInfo = 1000;  // the lowest level of debug output that is limited
constexpr uint32_t kShutSeconds = 1;       // a second's worth of lines comes at once then
constexpr uint32_t kTimerIsMissing = 2;    // seconds after which a bucket's timer won't come any more
constexpr size_t kPlaces = 64;             // more than the places that a frame reaches; the last is for any others
constexpr size_t kSampleLength = 160;      // bytes

struct Bucket {
    LogSite site{};
    LogTarget target{};
    uint32_t lines = 0;    // that may still be written
    uint32_t since = 0;    // monotonic seconds when it was filled or shut
    uint32_t leftOut = 0;  // lines, while it is shut
    size_t sampleLength = 0;
    std::array<char, kSampleLength> sample{};
};

std::array<Bucket, kPlaces> buckets;
size_t used = 0;
Bucket* judged = nullptr;  // by the last call of LogJudge
int framesUnderWay = 0;

bool IsLimited(const LogTarget& target) noexcept {
    if (framesUnderWay == 0) return false;
    return target.systemLog ? target.level <= kQxLogInfo : target.level >= kDebugLevelInfo;
}

void Write(const LogTarget& target, std::string_view line) noexcept {
    if (target.systemLog) return QxLogBackEndWrite(target.context, target.level, line);
    DebugBackEndWrite(target.level, line);
}

void Open(Bucket& bucket) noexcept {
    const std::array<FormatArgument, 2> arguments{
        FormatArgument(bucket.leftOut), FormatArgument(std::string_view(bucket.sample.data(), bucket.sampleLength))};
    std::array<char, kSampleLength * 4 + 64> report;  // an escape has four characters
    const size_t length = FormatText(report, "%u lines like this left out: %s", arguments);
    Write(bucket.target, {report.data(), length});
    bucket.lines = kLogLinesASecond;
    bucket.since = os_monotonic_seconds();
    bucket.leftOut = 0;
}

void OnTimer(void* bucket, void*) noexcept {
    auto* const shut = static_cast<Bucket*>(bucket);
    if (shut->leftOut > 0) Open(*shut);
}

void Shut(Bucket& bucket, uint32_t now) noexcept {
    bucket.since = now;
    bucket.sampleLength = 0;
    if (eloop_register_timeout(kShutSeconds, 0, OnTimer, &bucket, nullptr) != 0) return;  // the next line opens it
}

void Fill(Bucket& bucket, uint32_t now) noexcept {
    const uint64_t gained = uint64_t{now - bucket.since} * kLogLinesASecond;
    bucket.lines = static_cast<uint32_t>(std::min<uint64_t>(kLogBurst, bucket.lines + gained));
    bucket.since = now;
}

Bucket& BucketOf(const LogSite& site, uint32_t now) noexcept {
    const auto end = buckets.begin() + static_cast<std::ptrdiff_t>(used);
    const auto known = std::find_if(buckets.begin(), end, [&](const Bucket& one) { return one.site == site; });
    if (known != end) return *known;
    if (used == kPlaces) return buckets.back();
    Bucket& added = buckets[used++];
    added = {.site = site, .lines = kLogBurst, .since = now};
    return added;
}

}  // namespace

LogFrameScope::LogFrameScope() noexcept {
    ++framesUnderWay;
}

LogFrameScope::~LogFrameScope() {
    --framesUnderWay;
}

LogVerdict LogJudge(const LogSite& site, const LogTarget& target) noexcept {
    if (!IsLimited(target)) return LogVerdict::Write;
    const uint32_t now = os_monotonic_seconds();
    Bucket& bucket = BucketOf(site, now);
    bucket.target = target;
    judged = &bucket;
    if (bucket.leftOut > 0 && now - bucket.since >= kTimerIsMissing) Open(bucket);
    if (bucket.leftOut == 0) Fill(bucket, now);
    if (bucket.leftOut == 0 && bucket.lines > 0) {
        --bucket.lines;
        return LogVerdict::Write;
    }
    if (bucket.leftOut++ > 0) return LogVerdict::LeaveOut;
    Shut(bucket, now);
    return LogVerdict::LeaveOutFirst;
}

void LogKeepSample(std::string_view text) noexcept {
    if (judged == nullptr) return;
    text = text.substr(0, std::min(text.find('\n'), kSampleLength));
    std::copy(text.begin(), text.end(), judged->sample.begin());
    judged->sampleLength = text.size();
}

void LogLimitReset() noexcept {
    for (Bucket& bucket : buckets) bucket = {};
    used = 0;
    judged = nullptr;
}
