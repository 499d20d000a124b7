// What goes on with each interface, as JSON: asked for with "/" "interfaceState", or posted when it changes.
//
// Both roads show the same object, made of what is when it is sent. Every key is always there, null where it has
// nothing to say; a role that the interface does not run has none. An interface that is not managed is not in a reply,
// and is posted as such: whoever had it learns that it is gone.

#include <utility>

#include "Ostrel/DHCPClient.h"
#include "Ostrel/DHCPServer.h"
#include "Ostrel/Interface.h"
#include "Ostrel/LinkLocal.h"
#include "Ostrel/Publish.h"
#include "Ostrel/System.h"

#include "Audience.h"
#include "LeaseFields.h"
#include "Method.h"

using valdo::JValue;

namespace {

constexpr char kMethod[] = "interfaceState";

// A moment in milliseconds of the monotonic clock, in whole seconds of the wall clock; null for 0.
void PutMoment(JValue& object, const char* key, Ostrel_SystemObj* sysObj, uint64_t moment) {
    const auto seconds = static_cast<uint32_t>(moment / 1000);
    object.put(key, moment == 0 ? JValue() : JValue(Ostrel_WallClockTimeNear(&sysObj->wallClock, seconds)));
}

const char* LinkWord(const Ostrel_InterfaceLink& link) {
    if (!link.isThere) return "gone";
    return link.isRunning ? "up" : "down";
}

JValue ConflictOf(const Ostrel_ClientStory& story) {
    if (story.conflictAddress == kAnyIPv4) return {};
    JValue object = valdo::Object();
    OstrelJsonUtilsIPv4Put(object, "ipv4Address", story.conflictAddress);
    OstrelJsonUtilsMACPut(object, "macAddress", story.conflictMAC);
    return object;
}

JValue ClientOf(Ostrel_SystemObj* sysObj, const Ostrel_ClientObj& client) {
    const Ostrel_ClientStory& story = client.story;
    JValue object = valdo::Object();
    object.put("state", Ostrel_DHCPClientShownState(&client));
    PutMoment(object, "since", sysObj, story.since);
    object.put("reason", Ostrel_ReasonWord(story.reason));
    Ostrel_VSUtil_PutIPv4(object, "ipv4Address", Ostrel_DHCPClientShownAddress(&client));
    object.put("held", Ostrel_DHCPClientHolds(&client));
    Ostrel_VSUtil_PutIPv4(object, "server", story.server);
    PutMoment(object, "renews", sysObj, story.renews);
    PutMoment(object, "rebinds", sysObj, story.rebinds);
    PutMoment(object, "expires", sysObj, story.expires);
    PutMoment(object, "nextTry", sysObj, story.nextTry);
    object.put("tries", story.tries);
    object.put("refusals", story.refusals);
    object.put("conflict", ConflictOf(story));
    return object;
}

JValue LinkLocalOf(Ostrel_SystemObj* sysObj, const Ostrel_LinkLocalObj& linkLocal) {
    JValue object = valdo::Object();
    object.put("state", Ostrel_LinkLocalShownState(&linkLocal));
    PutMoment(object, "since", sysObj, linkLocal.since);
    object.put("reason", Ostrel_ReasonWord(linkLocal.reason));
    Ostrel_VSUtil_PutIPv4(object, "ipv4Address", Ostrel_LinkLocalChosenAddress(&linkLocal));
    object.put("held", Ostrel_LinkLocalHolds(&linkLocal));
    object.put("conflicts", linkLocal.numConflicts);
    return object;
}

JValue ServerOf(const Ostrel_ServerObj& server) {
    const Ostrel_ServerGauges gauges = Ostrel_DHCPServerGaugesOf(&server);
    JValue object = valdo::Object();
    object.put("state", Ostrel_DHCPServerShownState(&server));
    object.put("active", gauges.active);
    object.put("offered", gauges.offered);
    object.put("held", gauges.held);
    object.put("free", gauges.free);
    return object;
}

template <typename Names, typename Counters>
void PutCounters(JValue& object, const char* key, const Names& names, const Counters& counters) {
    JValue role = valdo::Object();
    for (const auto& name : names) role.put(name.name, static_cast<int64_t>(counters.*name.field));
    JValue dropped = valdo::Object();
    for (uint32_t kind = 1; kind < kNumVerdicts; ++kind)
        dropped.put(Ostrel_VerdictName(static_cast<Ostrel_VerdictKind>(kind)),
                    static_cast<int64_t>(counters.dropped[kind]));
    role.put("dropped", std::move(dropped));
    object.put(key, std::move(role));
}

JValue CountersOf(const Ostrel_InterfaceObj& iface) {
    JValue object = valdo::Object();
    if (iface.dhcpClient != nullptr) PutCounters(object, "client", kClientCounters, iface.dhcpClient->counters);
    if (iface.dhcpServer != nullptr) PutCounters(object, "server", kServerCounters, iface.dhcpServer->counters);
    PutCounters(object, "arp", kARPCounters, iface.counters);
    return object;
}

JValue StateOf(Ostrel_SystemObj* sysObj, const Ostrel_InterfaceObj& iface) {
    JValue object = valdo::Object();
    object.put("interface", iface.ifname.data());
    object.put("managed", true);
    OstrelJsonUtilsMACPut(object, "macAddress", iface.macAddr);
    object.put("link", iface.link.isWatched ? JValue(LinkWord(iface.link)) : JValue());
    object.put("rules", iface.rules == &kRFCRules ? "rfc" : "plain");
    if (iface.dhcpClient != nullptr) object.put("client", ClientOf(sysObj, *iface.dhcpClient));
    if (iface.linkLocal != nullptr) object.put("linkLocal", LinkLocalOf(sysObj, *iface.linkLocal));
    if (iface.dhcpServer != nullptr) object.put("server", ServerOf(*iface.dhcpServer));
    object.put("counters", CountersOf(iface));
    return object;
}

JValue GoneState(const char* ifname) {
    JValue object = valdo::Object();
    object.put("interface", ifname);
    object.put("managed", false);
    object.put("reason", Ostrel_ReasonWord(Ostrel_Reason::Finalised));
    return object;
}

bool WriteList(Ostrel_SystemObj* sysObj, const std::string& ifname, std::string* list) {
    JValue array = valdo::Array();
    for (const auto* iface = sysObj->interfaceList; iface != nullptr; iface = iface->next)
        if (ifname.empty() || ifname == iface->ifname.data()) array.append(StateOf(sysObj, *iface));
    return Ostrel_VSUtil_ToText(array, list);
}

// The post of an interface's state, as it is when it is sent.
bool WriteState(void* context, const char* ifname, std::string* text) {
    auto* sysObj = static_cast<Ostrel_SystemObj*>(context);
    const Ostrel_InterfaceObj* iface = Ostrel_VSUtil_FindInterface(sysObj, ifname);
    JValue array = valdo::Array();
    array.append(iface == nullptr ? GoneState(ifname) : StateOf(sysObj, *iface));
    std::string list;
    return Ostrel_VSUtil_ToText(array, &list) && Ostrel_VSUtil_WritePost("interfaceList", list, text);
}

}  // namespace

bool Ostrel_VoroMethod_InterfaceState(VSHandle* handle, VSMessage* message, void* context) {
    Ostrel_VSUtil_AnswerSubscriber({__func__, WriteList}, handle, message, context);
    return true;
}

void Ostrel_VoroServicePublishInterfaceState(Ostrel_SystemObj* sysObj, const char* ifname) {
    (void)Ostrel_VSUtil_Post(__func__, sysObj, {"/", kMethod}, ifname, WriteState);  // reported there
}
