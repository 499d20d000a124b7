// soak SEEDS HOURS [JOBS] [FIRST]: so many worlds, each with so many hours of turmoil before calm comes, on so many
// processes. Ends with the first failure, cut to what it needs.
// soak --survey SEEDS HOURS [FIRST]: each of them, with the first line of each failure.
// soak --seed SEED HOURS: one of them again, its plan in words, and what becomes of it.

#include "Soak.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace sim;

constexpr int kTries = 600;

// What the processes share.
struct Shared {
    std::atomic<uint64_t> next;
    std::atomic<uint64_t> done, events, frames, harm, deviceHours;
    std::array<std::atomic<uint64_t>, kWhats> faults;
    std::atomic<uint64_t> failed;                   // the seed; 0: none
    std::array<std::atomic<uint64_t>, 64> current;  // of each process
};

void Work(Shared& shared, size_t job, uint64_t end, uint32_t hours) {
    for (uint64_t seed = shared.next++; seed < end && shared.failed == 0; seed = shared.next++) {
        shared.current.at(job) = seed;
        Tally tally;
        if (!RunPlan(MakePlan(seed, hours), &tally).empty()) {
            uint64_t none = 0;
            shared.failed.compare_exchange_strong(none, seed);
            break;
        }
        shared.events += tally.events;
        shared.frames += tally.frames;
        shared.harm += tally.harm;
        shared.deviceHours += static_cast<uint64_t>(tally.deviceDays * 24);
        for (size_t i = 0; i < kWhats; ++i) shared.faults[i] += tally.faults[i];
        ++shared.done;
    }
    shared.current.at(job) = 0;
}

void Progress(const Shared& shared, double seconds) {
    const double years = static_cast<double>(shared.deviceHours) / 24 / 365.25;
    std::printf(
        "%6.0f s  %llu worlds, %.2f device-years (%.1f a minute), %.1f M events, %.1f M frames of ours, %.1f M of "
        "harm\n",
        seconds, static_cast<unsigned long long>(shared.done), years, years / std::max(seconds, 1.0) * 60,
        static_cast<double>(shared.events) / 1e6, static_cast<double>(shared.frames) / 1e6,
        static_cast<double>(shared.harm) / 1e6);
    std::fflush(stdout);
}

int Explain(uint64_t seed, uint32_t hours) {
    const Plan plan = MakePlan(seed, hours);
    const std::string failure = RunApart(plan);
    if (failure.empty()) {
        std::printf("%sseed %llu: nothing fails\n", Describe(plan).c_str(), static_cast<unsigned long long>(seed));
        return 0;
    }
    std::printf("%s\ncut to what it needs:\n", failure.c_str());
    const Plan cut = Shrink(plan, NameOfFailure(failure), kTries);
    std::printf("%s%s\nagain: soak --seed %llu %u\n", Describe(cut).c_str(), RunApart(cut).c_str(),
                static_cast<unsigned long long>(seed), hours);
    return 1;
}

int Survey(uint64_t seeds, uint32_t hours, uint64_t first) {
    uint64_t failures = 0;
    for (uint64_t seed = first; seed < first + seeds; ++seed) {
        const std::string failure = RunApart(MakePlan(seed, hours));
        if (failure.empty()) continue;
        ++failures;
        std::printf("seed %llu: %s\n", static_cast<unsigned long long>(seed),
                    failure.substr(0, failure.find('\n')).c_str());
    }
    std::printf("%llu of %llu fail\n", static_cast<unsigned long long>(failures),
                static_cast<unsigned long long>(seeds));
    return failures == 0 ? 0 : 1;
}

int Soak(uint64_t seeds, uint32_t hours, size_t jobs, uint64_t first) {
    void* const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return 2;
    Shared& shared = *new (memory) Shared{};
    shared.next = first;
    std::vector<pid_t> children;
    for (size_t job = 0; job < jobs; ++job) {
        const pid_t child = fork();
        if (child == 0) {
            Work(shared, job, first + seeds, hours);
            _exit(0);
        }
        children.push_back(child);
    }
    const auto began = std::chrono::steady_clock::now();
    const auto elapsed = [began] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    };
    double told = 0;
    for (size_t left = children.size(); left != 0;) {
        for (size_t job = 0; job < children.size(); ++job) {
            int status = 0;
            if (children[job] == 0 || waitpid(children[job], &status, WNOHANG) != children[job]) continue;
            children[job] = 0;
            --left;
            uint64_t none = 0;
            if (!WIFEXITED(status)) shared.failed.compare_exchange_strong(none, shared.current.at(job));
        }
        usleep(50'000);
        if (elapsed() - told < 10) continue;
        told = elapsed();
        Progress(shared, told);
    }
    Progress(shared, elapsed());
    for (size_t i = 0; i < kWhats; ++i)
        std::printf("%s%s %llu", i == 0 ? "" : ", ", WhatName(static_cast<What>(i)),
                    static_cast<unsigned long long>(shared.faults[i]));
    std::printf("\n");
    if (shared.failed == 0) return 0;
    std::printf("seed %llu fails\n", static_cast<unsigned long long>(shared.failed));
    return Explain(shared.failed, hours);
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const auto number = [&](int place, uint64_t otherwise) {
        return argc > place ? std::strtoull(argv[place], nullptr, 10) : otherwise;
    };
    if (argc > 1 && std::strcmp(argv[1], "--seed") == 0)
        return Explain(number(2, 1), static_cast<uint32_t>(number(3, 24)));
    if (argc > 1 && std::strcmp(argv[1], "--survey") == 0)
        return Survey(number(2, 100), static_cast<uint32_t>(number(3, 2)), number(4, 1));
    return Soak(number(1, 100), static_cast<uint32_t>(number(2, 24)),
                static_cast<size_t>(std::min<uint64_t>(number(3, 1), 64)), number(4, 1));
}
