// The words of reasons and verdicts.
#include "Ostrel/Reason.h"

#include <array>

#include "Ostrel/Verdict.h"

namespace {

constexpr std::array<const char*, kNumReasons> kReasons{"start", "action",  "offer",   "ack",   "checked",  "timeout",
                                                        "t1",    "t2",      "expired", "nak",   "conflict", "malformed",
                                                        "link",  "removed", "wakeup",  "lease", "finalised"};

struct VerdictWords {
    const char* name;
    const char* text;
};
constexpr std::array<VerdictWords, kNumVerdicts> kVerdicts{{
    {"taken", "taken"},
    {"notConcerned", "does not concern us"},
    {"notForUs", "not for us"},
    {"xid", "xid"},
    {"state", "state"},
    {"server", "another server"},
    {"messageType", "message type"},
    {"relay", "of another subnet"},
    {"malformed", "malformed"},
    {"noLease", "no such lease"},
    {"noAddress", "no address is free"},
    {"limited", "left out: too many frames"},
    {"failed", "failed"},
}};

}  // namespace

const char* Ostrel_ReasonWord(Ostrel_Reason reason) {
    return kReasons[static_cast<size_t>(reason)];
}

const char* Ostrel_VerdictName(Ostrel_VerdictKind kind) {
    return kVerdicts[static_cast<size_t>(kind)].name;
}

std::string Ostrel_VerdictText(const Ostrel_Verdict& verdict) {
    std::string text = kVerdicts[static_cast<size_t>(verdict.kind)].text;
    if (verdict.kind == Ostrel_VerdictKind::State && verdict.state != nullptr) text += std::string(" ") + verdict.state;
    if (verdict.kind != Ostrel_VerdictKind::Malformed) return text;
    if (verdict.option == 0) return verdict.state == nullptr ? text : text + ": " + verdict.state;
    text += ": option " + std::to_string(verdict.option) + " ";
    return text + (verdict.state != nullptr ? verdict.state : "has " + std::to_string(verdict.optionLength) + " bytes");
}
