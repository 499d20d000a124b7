// What happened, in words.
//
// Three ways lead here, two states of an interface, a post of a server's and a line of the log, and one leads out, so
// that the past and the present read the same.
#include "Happening.h"

#include <algorithm>
#include <array>
#include <span>

#include "Ostrel/OstrelJsonUtils.h"

#include "Changes.h"
#include "Fields.h"
#include "Lease.h"
#include "Terminal.h"

using valdo::JValue;

namespace ostrelctl {

namespace {

struct Words {
    std::string_view word;
    const char* text;
};

std::string TextFor(std::span<const Words> table, std::string_view word) {
    const auto found = std::ranges::find(table, word, &Words::word);
    return found == table.end() ? std::string(word) : found->text;
}

// --- Words ---

constexpr std::array<Words, 17> kReasonWords{{{"start", ""},
                                              {"action", "as told"},
                                              {"offer", ""},
                                              {"ack", ""},
                                              {"checked", ""},
                                              {"timeout", "nobody answered"},
                                              {"t1", "half of the lease is over"},
                                              {"t2", "its server does not answer"},
                                              {"expired", "the lease has expired"},
                                              {"nak", "refused (NAK)"},
                                              {"conflict", "another host has the address"},
                                              {"malformed", "an ACK that cannot be read"},
                                              {"link", "the link"},
                                              {"removed", "the interface was taken out"},
                                              {"wakeup", "the device was asleep"},
                                              {"lease", "the client's lease"},
                                              {"finalised", "released"}}};

// In these, "@" is the address and "$" the server's.
constexpr std::array<Words, 9> kClientStates{{{"INIT", "pauses before it asks"},
                                              {"SELECTING", "asks who offers an address"},
                                              {"REQUESTING", "is offered @ by $, and asks for it"},
                                              {"REBOOTING", "asks for @ again"},
                                              {"BOUND", "is granted @ by $"},
                                              {"RENEWING", "asks $ to extend the lease of @"},
                                              {"REBINDING", "asks any server to extend the lease of @"},
                                              {"INIT-REBOOT", "is halted"},
                                              {"STATIC", "has @ as configured"}}};
constexpr std::array<Words, 6> kLinkLocalStates{{{"IDLE", "selects no link-local address"},
                                                 {"INIT", "pauses before it picks a link-local address"},
                                                 {"PROBE", "looks whether somebody has @"},
                                                 {"ANNOUNCE", "announces @"},
                                                 {"HELD", "has @"},
                                                 {"DEFEND", "defends @"}}};
constexpr std::array<Words, 4> kLinkStates{
    {{"up", "link up"}, {"down", "link down"}, {"gone", "interface gone"}, {"", "link no longer watched"}}};

// What is said of a lease after who has it.
constexpr std::array<Words, 9> kLeaseEvents{{{"granted", "leased"},
                                             {"renewed", "renewed"},
                                             {"released", "released"},
                                             {"expired", "expired"},
                                             {"refused", "refused"},
                                             {"declined", "declined, as another host has it"},
                                             {"held", "held back, as this host has it"},
                                             {"freed", "free again"},
                                             {"ended", "ended"}}};
constexpr size_t kGranted = 0, kRenewed = 1;  // places in it

std::string Filled(const std::string& words, const Happening& happening) {
    std::string filled;
    for (const char c : words) {
        if (c == '@')
            filled += happening.address == kAnyIPv4 ? "an address" : AddressText(happening.address);
        else if (c == '$')
            filled += happening.server == kAnyIPv4 ? "its server" : AddressText(happening.server);
        else
            filled += c;
    }
    return filled;
}

// A reason that stands before what the client does about it.
std::string Cause(const Happening& happening) {
    std::string words = ReasonWords(happening.reason);
    if (happening.reason == "nak" && happening.server != kAnyIPv4) words += " by " + AddressText(happening.server);
    if (happening.reason == "action") words.clear();
    return words.empty() ? words : words + ": ";
}

std::string StateWords(const Happening& happening) {
    const bool isClient = happening.role == "client";
    const bool isIdle = happening.state == "INIT-REBOOT" && happening.reason == "start";
    const std::span<const Words> table = isClient ? std::span<const Words>(kClientStates) : kLinkLocalStates;
    if (isIdle) return "client waits for 'init'";
    const std::string who = isClient ? "client " : "";
    return Cause(happening) + who + Filled(TextFor(table, happening.state), happening);
}

std::string LeaseWords(const Happening& happening) {
    const std::string address = happening.address == kAnyIPv4 ? "-" : AddressText(happening.address);
    std::string words = address + (happening.mac.empty() ? "" : ' ' + happening.mac);
    if (!happening.hostName.empty()) words += ' ' + Printable(happening.hostName);
    const bool begins =
        happening.event == kLeaseEvents[kGranted].word || happening.event == kLeaseEvents[kRenewed].word;
    words += ", " + TextFor(kLeaseEvents, happening.event);
    if (begins && happening.expires) words += ' ' + UntilText(*happening.expires);
    if (begins && !happening.expires && happening.reason.empty()) words += ' ' + UntilText(kForever);
    return happening.reason.empty() ? words : words + ": " + Printable(happening.reason);
}

// --- From states ---

template <typename Role>
void CompareAddress(const std::optional<Role>& before, const Role& now, const Happening& about,
                    std::vector<Happening>& all) {
    const bool isSame = before && before->held && now.held && before->address == now.address;
    if (isSame) return;
    Happening happening = about;
    if (before && before->held) {
        happening.event = "lost";
        happening.address = before->address;
        all.push_back(happening);
    }
    happening.event = "held";
    happening.address = now.address;
    if (now.held) all.push_back(happening);
}

template <typename Role>
bool IsAnotherState(const std::optional<Role>& before, const Role& now) {
    return !before || before->state != now.state || before->since != now.since;
}

void CompareClients(const std::optional<ClientState>& before, const ClientState& now, Happening about,
                    std::vector<Happening>& all) {
    about.role = "client";
    about.reason = now.reason;
    about.address = now.address;
    about.server = now.server;
    if (now.conflict && (!before || before->conflict != now.conflict)) {
        Happening conflict = about;
        conflict.event = "conflict";
        conflict.address = now.conflict->address;
        conflict.mac = now.conflict->mac;
        all.push_back(conflict);
    }
    Happening state = about;
    state.event = "state";
    state.state = now.state;
    if (IsAnotherState(before, now)) all.push_back(state);
    CompareAddress(before, now, about, all);
}

void CompareLinkLocals(const std::optional<LinkLocalState>& before, const LinkLocalState& now, Happening about,
                       std::vector<Happening>& all) {
    about.role = "linkLocal";
    about.reason = now.reason;
    about.address = now.address;
    Happening state = about;
    state.event = "state";
    state.state = now.state;
    if (IsAnotherState(before, now)) all.push_back(state);
    CompareAddress(before, now, about, all);
}

// --- From the log ---

// What stands between two texts, and the line from behind the second on; false, with both as they were, without them.
bool Take(std::string_view& line, std::string_view before, std::string_view behind, std::string_view& taken) {
    if (!line.starts_with(before)) return false;
    const size_t end = behind.empty() ? line.size() : line.find(behind, before.size());
    if (end == std::string_view::npos) return false;
    taken = line.substr(before.size(), end - before.size());
    line.remove_prefix(end + behind.size());
    return true;
}

Ostrel_IPv4 AddressIn(std::string_view text) {
    Ostrel_IPv4 address = kAnyIPv4;
    (void)OstrelJsonUtilsIPv4FromText(std::string(text), &address);
    return address;
}

std::string Bounded(std::string_view text) {
    return Printable(text.substr(0, 300));
}

// "holds ADDRESS", "gives up ADDRESS, REASON", "conflict, MAC has ADDRESS", "STATE, REASON[, ADDRESS][ of SERVER]".
std::optional<Happening> ReadRoleLine(std::string_view line, Happening happening) {
    std::string_view first, second;
    if (Take(line, "holds ", "", first)) {
        happening.event = "held";
        happening.address = AddressIn(first);
    } else if (Take(line, "gives up ", ", ", first)) {
        happening.event = "lost";
        happening.address = AddressIn(first);
        happening.reason = Bounded(line);
    } else if (Take(line, "conflict, ", " has ", first)) {
        happening.event = "conflict";
        happening.mac = Bounded(first);
        happening.address = AddressIn(line);
    } else if (Take(line, "", ", ", first)) {
        happening.event = "state";
        happening.state = Bounded(first);
        const size_t of = line.find(" of ");
        if (of != std::string_view::npos) happening.server = AddressIn(line.substr(of + 4));
        line = line.substr(0, of);
        if (Take(line, "", ", ", second)) happening.address = AddressIn(line);
        happening.reason = Bounded(second.empty() ? line : second);
    } else {
        return std::nullopt;
    }
    return happening;
}

// "ADDRESS granted to MAC until TIME, host name NAME", "ADDRESS of MAC until TIME has ended: REASON, host name NAME".
std::optional<Happening> ReadLeaseLine(std::string_view line, Happening happening) {
    std::string_view address, mac, time;
    happening.role = "server";
    const bool begins = Take(line, "", " granted to ", address);
    if (!begins && !Take(line, "", " of ", address)) return std::nullopt;
    if (!Take(line, "", " until ", mac)) return std::nullopt;
    const size_t name = line.find(", host name ");
    if (name != std::string_view::npos) happening.hostName = Bounded(line.substr(name + 12));
    line = line.substr(0, name);
    if (!begins && !Take(line, "", " has ended: ", time)) return std::nullopt;
    happening.address = AddressIn(address);
    happening.mac = Bounded(mac);
    const bool isEvent = std::ranges::find(kLeaseEvents, line, &Words::word) != kLeaseEvents.end();
    happening.event = begins ? "granted" : isEvent ? std::string(line) : "ended";
    happening.reason = begins ? "until " + Bounded(line) : isEvent ? "" : Bounded(line);
    return happening;
}

// "ADDRESS is held for 600 s: REASON, MAC"
std::optional<Happening> ReadHeldLine(std::string_view line, Happening happening) {
    std::string_view address;
    if (!Take(line, "", " is held ", address)) return std::nullopt;
    const size_t mac = line.rfind(", ");
    happening.role = "server";
    happening.event = "held";
    happening.address = AddressIn(address);
    if (mac != std::string_view::npos) happening.mac = Bounded(line.substr(mac + 2));
    return happening;
}

std::optional<Happening> ReadLinkLine(std::string_view line, Happening happening) {
    constexpr std::array<Words, 4> kLines{{{"The link is there.", "up"},
                                           {"The link is lost.", "down"},
                                           {"The interface was taken out.", "gone"},
                                           {"The interface is gone.", "gone"}}};
    const auto found = std::ranges::find(kLines, line, &Words::word);
    if (found == kLines.end()) return std::nullopt;
    happening.event = "link";
    happening.state = found->text;
    return happening;
}

std::optional<Happening> ReadManagedLine(std::string_view line) {
    constexpr std::string_view kMark = " interface list, for interface ";
    const size_t mark = line.find(kMark);
    const bool begins = line.starts_with("Adding ");
    if (mark == std::string_view::npos || (!begins && !line.starts_with("Remove "))) return std::nullopt;
    line.remove_prefix(mark + kMark.size());
    return Happening{.interface = Bounded(line.substr(0, line.find(' '))), .event = begins ? "managed" : "unmanaged"};
}

}  // namespace

std::vector<Happening> HappeningsBetween(const std::optional<InterfaceState>& before, const InterfaceState& now) {
    std::vector<Happening> all;
    Happening about{.interface = now.interface};
    if (now.managed != (before && before->managed)) {
        about.event = now.managed ? "managed" : "unmanaged";
        all.push_back(about);
    }
    if (now.managed && before && before->managed && before->link != now.link) {
        about.event = "link";
        about.state = now.link;
        all.push_back(about);
    }
    about = {.interface = now.interface};
    if (now.client) CompareClients(before ? before->client : std::nullopt, *now.client, about, all);
    if (now.linkLocal) CompareLinkLocals(before ? before->linkLocal : std::nullopt, *now.linkLocal, about, all);
    return all;
}

std::optional<Happening> ReadLeaseEvent(const JValue& root) {
    int64_t missed = 0;
    if (TextOf(root, "event") == "missed" && root["count"].asNumber(missed) == valdo::CONV_OK)
        return Happening{.interface = "-", .event = "missed", .reason = std::to_string(missed)};
    Happening happening{.interface = Printable(TextOf(root, "interface")),
                        .role = "server",
                        .event = Printable(TextOf(root, "event")),
                        .mac = Printable(TextOf(root, "macAddress")),
                        .hostName = TextOf(root, "hostName")};
    if (happening.event.empty() || happening.interface.empty()) return std::nullopt;
    int64_t expires = 0;
    if (root["ipv4Address"].isString()) happening.address = AddressOf(root, "ipv4Address");
    if (root["expires"].asNumber(expires) == valdo::CONV_OK) happening.expires = expires;
    return happening;
}

std::optional<Happening> ReadLogLine(std::string_view line) {
    std::string_view name, role;
    if (!Take(line, "[", "] ", name)) return ReadManagedLine(line);
    Happening happening{.interface = Bounded(name)};
    for (const char* const known : {"client", "linkLocal"}) {
        if (!Take(line, std::string(known) + ' ', "", role)) continue;
        happening.role = known;
        return ReadRoleLine(role, happening);
    }
    if (Take(line, "Lease ", "", role)) return ReadLeaseLine(role, happening);
    if (Take(line, "Address ", "", role)) return ReadHeldLine(role, happening);
    return ReadLinkLine(line, happening);
}

std::string ReasonWords(const std::string& reason) {
    return TextFor(kReasonWords, reason);
}

char SignOf(const Happening& happening) {
    const std::string& event = happening.event;
    const auto isOneOf = [&event](std::initializer_list<const char*> words) {
        return std::ranges::find(words, event) != words.end();
    };
    if (event == "link") return happening.state == "up" ? '+' : '-';
    if (happening.role == "server" && event == "held") return '!';
    if (isOneOf({"held", "granted", "managed", "daemon-back"})) return '+';
    if (isOneOf({"lost", "released", "expired", "ended", "unmanaged", "daemon-gone"})) return '-';
    const bool isSetback = event == "state" && (happening.reason == "nak" || happening.reason == "malformed");
    return isSetback || isOneOf({"conflict", "refused", "declined", "missed"}) ? '!' : ' ';
}

std::string WordsOf(const Happening& happening) {
    const std::string& event = happening.event;
    const bool isLinkLocal = happening.role == "linkLocal";
    const std::string address = (isLinkLocal ? "link-local address " : "address ") + AddressText(happening.address);
    if (happening.role == "server") return LeaseWords(happening);
    if (event == "missed") return happening.reason + " events missed: this did not keep up";
    if (event == "daemon-back") return "daemon back";
    if (event == "daemon-gone") return "daemon gone";
    if (event == "managed") return "managed from now on";
    if (event == "unmanaged") return "not managed any more";
    if (event == "link") return TextFor(kLinkStates, happening.state);
    if (event == "held") return address + " in use";
    if (event == "conflict") return happening.mac + " has " + AddressText(happening.address);
    if (event == "state") return StateWords(happening);
    const std::string reason = ReasonWords(happening.reason);
    return address + " no longer in use" + (reason.empty() ? "" : ": " + reason);
}

void PutHappening(JValue& line, const Happening& happening) {
    const auto putText = [&line](const char* key, const std::string& text) {
        if (!text.empty()) line.put(key, std::string_view(text));
    };
    putText("role", happening.role);
    putText("state", happening.state);
    putText("reason", happening.reason);
    if (happening.address != kAnyIPv4) OstrelJsonUtilsIPv4Put(line, "ipv4Address", happening.address);
    if (happening.server != kAnyIPv4) OstrelJsonUtilsIPv4Put(line, "server", happening.server);
    putText("mac", happening.mac);
    putText("hostName", happening.hostName);
    if (happening.expires) line.put("expires", *happening.expires);
}

}  // namespace ostrelctl
