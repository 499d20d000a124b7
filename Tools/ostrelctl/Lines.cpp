// --json=lines: an object a line, for programs.
//
// The daemon's own replies have local times without a zone, and a post differs from a reply. Here everything has the
// same keys, in the daemon's words where it has them, and each line says what it is about.
#include "Lines.h"

#include <ctime>

#include "Ostrel/OstrelJsonUtils.h"

#include "Terminal.h"

using valdo::JValue;

namespace ostrelctl {

namespace {

void PutText(JValue& line, const char* key, const std::string& text) {
    if (!text.empty()) line.put(key, std::string_view(text));
}

void PutTimes(JValue& line, const LeaseTimes& times) {
    line.put("began", times.began);
    if (times.ends != kForever) line.put("expires", times.ends);
}

}  // namespace

JValue LineOf(const char* event, const std::string& interface) {
    JValue line = valdo::Object();
    line.put("time", int64_t{std::time(nullptr)});
    line.put("event", event);
    PutText(line, "interface", interface);
    return line;
}

void PutLease(JValue& line, const ClientLease& lease) {
    line.put("role", "client");
    if (lease.address == kAnyIPv4) return;
    OstrelJsonUtilsIPv4Put(line, "ipv4Address", lease.address);
    line.put("prefixLength", uint32_t{PrefixLength(lease.mask)});
    line.put("linkLocal", !lease.times.has_value());
    if (!lease.routers.empty()) OstrelJsonUtilsIPv4ArrayPut(line, "ipv4Router", lease.routers);
    if (!lease.dnsServers.empty()) OstrelJsonUtilsIPv4ArrayPut(line, "dnsServers", lease.dnsServers);
    PutText(line, "domainName", lease.domainName);
    if (lease.times) PutTimes(line, *lease.times);
}

void PutLease(JValue& line, const ServerLease& lease) {
    line.put("role", "server");
    OstrelJsonUtilsIPv4Put(line, "ipv4Address", lease.address);
    PutText(line, "mac", lease.mac);
    PutText(line, "hostName", lease.hostName);
    PutText(line, "clientIdentifier", lease.clientIdentifier);
    PutTimes(line, lease.times);
}

void PrintLine(const JValue& line) {
    std::string text;
    if (valdo::JGenerator::toString(line, valdo::JSchemaFragment("{}"), text)) PrintJson(text);
}

}  // namespace ostrelctl
