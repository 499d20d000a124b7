// Delta debugging: parts of a plan are left out, ever smaller ones, as long as it still fails in the same way.

#include <algorithm>
#include <array>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

#include "Soak.h"

namespace sim {

std::string RunPlan(const Plan& plan, Tally* tally) {
    std::string failure;
    Scenario::failureOfEnd.clear();
    {
        Scenario scenario(plan);
        failure = scenario.Run();
        if (tally != nullptr) *tally = scenario.tally;
    }
    return failure.empty() ? Scenario::failureOfEnd : failure;
}

std::string NameOfFailure(const std::string& failure) {
    return failure.substr(0, failure.find(':'));
}

std::string RunApart(const Plan& plan) {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) return "Crash: no pipe";
    const pid_t child = fork();
    if (child == 0) {
        alarm(600);
        const std::string failure = RunPlan(plan);
        const ssize_t written = write(ends[1], failure.data(), failure.size());
        _exit(written == static_cast<ssize_t>(failure.size()) ? 0 : 1);
    }
    close(ends[1]);
    std::string failure;
    std::array<char, 4096> buffer{};
    for (ssize_t got = 0; (got = read(ends[0], buffer.data(), buffer.size())) > 0;)
        failure.append(buffer.data(), static_cast<size_t>(got));
    close(ends[0]);
    int status = 0;
    (void)waitpid(child, &status, 0);
    if (WIFSIGNALED(status)) return std::string("Crash: ") + strsignal(WTERMSIG(status));
    return failure;
}

Plan Shrink(Plan plan, const std::string& name, int tries) {
    size_t chunk = PartsOf(plan) / 2;
    while (chunk != 0 && tries > 0) {
        bool hasShrunk = false;
        for (size_t start = 0; start < PartsOf(plan) && tries > 0;) {
            std::vector<bool> keeps(PartsOf(plan), true);
            for (size_t part = start; part < std::min(start + chunk, keeps.size()); ++part) keeps[part] = false;
            const Plan cut = Cut(plan, keeps);
            --tries;
            if (NameOfFailure(RunApart(cut)) == name) {
                hasShrunk = true;
                const bool isShorter = PartsOf(cut) < PartsOf(plan);
                plan = cut;
                if (!isShorter) start += chunk;
            } else {
                start += chunk;
            }
        }
        if (!hasShrunk || chunk > 1) chunk /= 2;
        if (!hasShrunk && chunk == 0) break;
    }
    return plan;
}

}  // namespace sim
