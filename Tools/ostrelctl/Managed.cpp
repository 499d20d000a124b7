// The interfaces that the daemon manages, and how: its configuration dump, read into records.
//
// A method of the daemon that shows something shows every interface when the one it was asked for is not managed, so
// whoever names an interface has to look whether the answer is about it. And since a refusal comes without a reason,
// the reason is looked for here: nearly always the interface is managed already, or is not managed.
#include "Managed.h"

#include <endian.h>

#include "Device.h"
#include "Fields.h"
#include "Terminal.h"

using valdo::JValue;

namespace ostrelctl {

namespace {

Ostrel_IPv4 LastOfRange(Ostrel_IPv4 first, int64_t count) {
    return htobe32(be32toh(first) + static_cast<uint32_t>(count - 1));
}

Managed ReadOne(const JValue& object) {
    Managed read;
    read.interface = TextOf(object, "interface");
    read.server = TextOf(object, "mode") == "server";
    read.rfc = TruthOf(object, "rfc");
    read.address = AddressOf(object, "ipv4Address");
    read.routers = AddressesOf(object, "ipv4Router");
    read.dnsServers = AddressesOf(object, "dnsServers");
    read.domainName = TextOf(object, "domainName");
    if (read.server) {
        read.network = AddressOf(object, "ipv4Subnet");
        read.maxLeases = NumberOf(object, "maxLeases");
        read.leaseSeconds = SecondsOf(object, "leaseExpiry");
        read.rangeFirst = AddressOf(object, "ipv4RangeStart");
        read.rangeLast = LastOfRange(read.rangeFirst, read.maxLeases);
    } else {
        const std::string addressing = TextOf(object, "ipv4Config");
        read.addressing = addressing.empty() ? "dhcp" : addressing;
        read.linkLocal = TruthOf(object, "ipv4LinkLocal");
        read.linkLocalIsFallback = TextOf(object, "linkLocal") == "fallback";
        read.mask = AddressOf(object, "ipv4Subnet");
        read.clientIdentifier = TextOf(object, "clientIdentifier");
    }
    return read;
}

const Managed* Find(const std::vector<Managed>& interfaces, const std::string& name) {
    for (const Managed& interface : interfaces)
        if (interface.interface == name) return &interface;
    return nullptr;
}

ExitStatus ComplainOfReason(const Answer& answer) {
    return Refuse(kExitRefused, "the daemon refused: " + Printable(ProblemOf(answer)), "");
}

ExitStatus ComplainOfNoReason() {
    return Refuse(kExitRefused, "the daemon refused",
                  "its log says why: 'journalctl -u ostreld' or /var/log/ostrel.log");
}

}  // namespace

ExitStatus ComplainOfUnmanaged(const std::string& name, bool isToBe) {
    const std::string shown = Printable(name);
    if (StateOfLink(name) == LinkState::Absent)
        return Refuse(kExitRefused, '\'' + shown + "' is not managed, and there is no such interface",
                      "'ostrelctl status' shows what is managed, 'ip link' what there is");
    if (!isToBe) return Refuse(kExitRefused, '\'' + shown + "' is not managed", "so there is nothing to release");
    return Refuse(kExitRefused, '\'' + shown + "' is not managed",
                  "'ostrelctl client " + shown + "' or 'ostrelctl server " + shown + " ...' hands it over");
}

std::vector<Managed> ReadManaged(const JValue& root) {
    std::vector<Managed> interfaces;
    const JValue list = root["interfaceList"];
    for (size_t i = 0; i < list.arraySize(); ++i) {
        Managed read = ReadOne(list[i]);
        if (!read.interface.empty()) interfaces.push_back(std::move(read));
    }
    return interfaces;
}

const char* RulesText(const Managed& interface) {
    return interface.rfc ? "rfc" : "plain";
}

std::string RoleText(const Managed& interface) {
    if (interface.server) return "server";
    const std::string reserve = interface.linkLocal ? ", else link-local" : "";
    if (interface.addressing == "static") return "client, static address" + reserve;
    if (interface.addressing == "dhcpManualAddress") return "client by DHCP, with an address until then" + reserve;
    return "client by DHCP" + reserve;
}

ExitStatus AskManaged(const Session& session, const std::string& name, std::vector<Managed>& interfaces) {
    Answer answer;
    const ExitStatus asked = AskOrComplain(session, kInterfaceConfigDump, RequestFor(name),
                                           "the daemon does not show what it manages", "", answer);
    if (asked != kExitDone) return asked;
    interfaces = ReadManaged(answer.reply);
    if (name.empty() || Find(interfaces, name) != nullptr) return kExitDone;
    interfaces.clear();
    return ComplainOfUnmanaged(name, true);
}

bool IsManagedByRFC(const Session& session, const std::string& name) {
    const std::vector<Managed> interfaces =
        ReadManaged(AskQuietly(session, kInterfaceConfigDump, RequestFor(name)).reply);
    const Managed* const managed = Find(interfaces, name);
    return managed != nullptr && managed->rfc;
}

std::string ProblemOf(const Answer& answer) {
    return TextOf(answer.reply, "problem");
}

ExitStatus HandOver(const Session& session, const std::string& name, const JValue& request) {
    return ExplainHandOver(session, name, Ask(session, kInterfaceInitialize, request));
}

ExitStatus ExplainHandOver(const Session& session, const std::string& name, const Answer& answer) {
    if (answer.status == kExitDone) return kExitDone;
    if (!answer.problem.empty()) return Refuse(answer.status, answer.problem, answer.next);
    if (!ProblemOf(answer).empty()) return ComplainOfReason(answer);
    const Answer dump = AskQuietly(session, kInterfaceConfigDump, RequestFor(name));
    const std::vector<Managed> interfaces = ReadManaged(dump.reply);
    const Managed* const managed = Find(interfaces, name);
    if (managed == nullptr) return ComplainOfNoReason();
    return Refuse(kExitRefused, '\'' + name + "' is managed already: " + RoleText(*managed),
                  "'ostrelctl release " + name + "' first, if it is to be something else");
}

ExitStatus ActOn(const Session& session, const std::string& name, const Method& method, const JValue& request) {
    const Answer answer = Ask(session, method, request);
    if (answer.status == kExitDone) return kExitDone;
    if (!answer.problem.empty()) return Refuse(answer.status, answer.problem, answer.next);
    if (!ProblemOf(answer).empty()) return ComplainOfReason(answer);
    const Answer dump = AskQuietly(session, kInterfaceConfigDump, RequestFor(name));
    const bool known = dump.status == kExitDone && Find(ReadManaged(dump.reply), name) == nullptr;
    return known ? ComplainOfUnmanaged(name, &method != &kInterfaceFinalize) : ComplainOfNoReason();
}

}  // namespace ostrelctl
