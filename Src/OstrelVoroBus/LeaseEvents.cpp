// What happens to the leases of servers, event by event, for the subscribers of "/server" "leaseEvents".

#include <array>
#include <string_view>

#include "Ostrel/Interface.h"
#include "Ostrel/OstrelJsonUtilsOptions.h"
#include "Ostrel/Publish.h"
#include "Ostrel/System.h"

#include "Audience.h"
#include "LeaseFields.h"
#include "Method.h"

using valdo::JValue;

namespace {

constexpr std::array<const char*, kNumLeaseEvents> kNames{"granted", "renewed",  "released", "expired",
                                                          "refused", "declined", "held",     "freed"};

struct Occurrence {
    const char* ifname;
    const Ostrel_LeaseEvent& event;
};

bool Write(void* context, const void* what, std::string* text) {
    auto* sysObj = static_cast<Ostrel_SystemObj*>(context);
    const auto& [ifname, event] = *static_cast<const Occurrence*>(what);
    JValue object = valdo::Object();
    object.put("returnValue", true);
    object.put("interface", ifname);
    object.put("event", Ostrel_LeaseEventName(event.kind));
    Ostrel_VSUtil_PutIPv4(object, "ipv4Address", event.address);
    OstrelJsonUtilsMACPut(object, "macAddress", event.mac);
    object.put("hostName", event.hostName.empty() ? JValue() : JValue(OstrelJsonUtilsTextOf(event.hostName)));
    object.put("expires", event.ends ? JValue(Ostrel_WallClockTimeNear(&sysObj->wallClock, event.end)) : JValue());
    return Ostrel_VSUtil_ToText(object, text);
}

bool WriteMissed(uint64_t count, std::string* text) {
    JValue object = valdo::Object();
    object.put("returnValue", true);
    object.put("event", "missed");
    object.put("count", static_cast<int64_t>(count));
    return Ostrel_VSUtil_ToText(object, text);
}

}  // namespace

const char* Ostrel_LeaseEventName(Ostrel_LeaseEventKind kind) {
    return kNames[static_cast<size_t>(kind)];
}

bool Ostrel_VoroMethod_LeaseEvents(VSHandle* handle, VSMessage* message, void* context) {
    Ostrel_VSUtil_AnswerSubscriber({__func__, nullptr}, handle, message, context);
    return true;
}

void Ostrel_VoroServicePublishLeaseEvent(Ostrel_InterfaceObj* iface, const Ostrel_LeaseEvent& event) {
    const Occurrence occurrence{iface->ifname.data(), event};
    Ostrel_VSUtil_Tell(__func__, iface, {"/server", "leaseEvents"}, {Write, WriteMissed, &occurrence});
}
