// A server that is handed over with the leases that it had before.
//
// A request has room for some hundred leases. The first of them go with the request that hands the server over, so that
// a daemon which knows of no more than that has those at least; the rest follow, part by part, and the server is silent
// until it has the last.
#include "GivenLeases.h"

#include "KeptFile.h"
#include "Managed.h"
#include "Terminal.h"

using valdo::JValue;

namespace ostrelctl {

namespace {

constexpr size_t kPartSize = 60'000;  // bytes of 65,536, the rest for what else the request says

// A table that is given part by part.
struct Table {
    const JValue& leases;
    size_t given = 0;  // of them

    [[nodiscard]] size_t Left() const { return leases.arraySize() - given; }
};

// As many as a request has room for. One that alone is too long is left out.
JValue NextPart(Table& table) {
    JValue part = valdo::Array();
    std::string text;
    for (size_t length = 0; table.Left() > 0; ++table.given) {
        const JValue lease = table.leases[table.given];
        if (!ToText(lease, text) || text.size() > kPartSize) continue;
        length += text.size() + 1;
        if (length > kPartSize) break;
        part.append(lease);
    }
    return part;
}

std::string CountText(size_t count) {
    return std::to_string(count) + (count == 1 ? " lease" : " leases");
}

// Those of a part that can't be read are not given back: their clients are asked with ARP before others get the
// addresses.
void ComplainOfPart(const std::string& interface, size_t count, const std::string& problem) {
    Complain("warning: " + CountText(count) + " of '" + interface + "' cannot be given back: " + Printable(problem),
             "");
}

ExitStatus GiveRest(const Session& session, const std::string& interface, Table& table) {
    while (table.Left() > 0) {
        const size_t before = table.given;
        JValue request = RequestFor(interface);
        request.put("leases", NextPart(table));
        request.put("more", table.Left() > 0);
        Answer answer = AskQuietly(session, kGiveLeases, request);
        if (answer.status == kExitDone) continue;
        if (answer.isOfOldDaemon) {
            ComplainOfPart(interface, table.Left() + table.given - before,
                           "the daemon takes no more than a request holds");
            return kExitDone;
        }
        if (ProblemOf(answer).empty()) return Refuse(answer.status, answer.problem, answer.next);
        ComplainOfPart(interface, table.given - before, ProblemOf(answer));
        if (table.Left() > 0) continue;
        request.put("leases", valdo::Array());  // the last part was this one
        answer = AskQuietly(session, kGiveLeases, request);
        if (answer.status != kExitDone) return Refuse(answer.status, answer.problem, answer.next);
    }
    return kExitDone;
}

}  // namespace

ExitStatus HandOverServer(const Session& session, const std::string& interface, JValue request, const JValue& leases) {
    if (leases.arraySize() == 0) return HandOver(session, interface, request);
    Table table{.leases = leases};
    request.put("leases", NextPart(table));
    if (table.Left() > 0) request.put("leasesFollow", true);
    Answer answer = Ask(session, kInterfaceInitialize, request);
    if (ProblemOf(answer).starts_with("\"leases\"")) {
        ComplainOfPart(interface, table.given, ProblemOf(answer));
        request.put("leases", valdo::Array());
        answer = Ask(session, kInterfaceInitialize, request);
    }
    const ExitStatus status = ExplainHandOver(session, interface, answer);
    return status == kExitDone ? GiveRest(session, interface, table) : status;
}

}  // namespace ostrelctl
