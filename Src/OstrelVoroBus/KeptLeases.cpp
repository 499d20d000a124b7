// The leases that a server is given back after a restart: what leaseInformation and its posts have shown. "leases" of
// "interfaceInitialize" has them, or, where they are too many for one request, "/server" "giveLeases" has the rest.
//
// The controlling process is the store, and may keep the objects as they are shown, one by one or with their
// interfaces around them. A lease's times are then its two texts, local times of the wall clock, from which its age and
// what is left of it are counted by the clock as it is now. Where the clock stands before the lease began, as on a
// device that has no clock of its own and has not been told the time yet, the whole lease is left, never more. A
// process that knows better says so in seconds, with "age" and "remaining".
//
// Members that nobody knows are overlooked here: the shown objects may have more some day. And whatever a client has
// called itself, its lease can be read as it was shown.

#include <algorithm>

#include "Ostrel/Check.h"
#include "Ostrel/DHCPServer.h"
#include "Ostrel/Interface.h"

#include "ClientIdentity.h"
#include "Method.h"
#include "TimeTexts.h"
#include "ValueKeys.h"
#include "os_time.h"

namespace {

constexpr size_t kMaxKept = 65536;    // no request holds as many
constexpr size_t kMaxHostName = 765;  // bytes: a client may have sent 255, each shown as U+FFFD

// A text that the object must have.
Ostrel_Status ReadTime(const OstrelJsonField& lease, const char* key, int64_t* seconds) {
    const OstrelJsonField field = OstrelJsonMember(lease, key);
    std::string text;
    if (field.value.asString(text) == valdo::CONV_OK) {
        if (const auto moment = Ostrel_WallTimeOfText(text)) {
            *seconds = *moment;
            return kNoErr;
        }
    }
    return OstrelJsonRefuse(field, "a time such as Mon Nov 16 11:40:22 2026 is wanted");
}

Ostrel_Status ReadTimeTexts(const OstrelJsonField& field, Ostrel_KeptLease* lease) {
    int64_t began = 0;
    int64_t ends = 0;
    Ostrel_Status status = ReadTime(field, "leaseTimeString", &began);
    if (status == kNoErr) status = ReadTime(field, "leaseExpiryString", &ends);
    if (status != kNoErr) return status;
    if (ends < began) return OstrelJsonRefuse(field, "ends before it begins");
    const int64_t now = std::max(os_wall_seconds(), began);
    lease->age = static_cast<uint32_t>(std::min<int64_t>(now - began, INT32_MAX));
    lease->remaining = static_cast<uint32_t>(std::clamp<int64_t>(ends - now, 0, INT32_MAX));
    return kNoErr;
}

Ostrel_Status ReadSeconds(const OstrelJsonField& lease, const char* key, uint32_t* seconds) {
    if (!OstrelJsonHas(lease, key)) return kNoErr;
    int32_t number = 0;
    const Ostrel_Status status = OstrelJsonReadNumber(OstrelJsonMember(lease, key), 0, INT32_MAX, &number);
    if (status == kNoErr) *seconds = static_cast<uint32_t>(number);
    return status;
}

Ostrel_Status ReadTimes(const OstrelJsonField& field, Ostrel_KeptLease* lease) {
    if (!OstrelJsonHas(field, "remaining")) return ReadTimeTexts(field, lease);
    const Ostrel_Status status = ReadSeconds(field, "remaining", &lease->remaining);
    return status == kNoErr ? ReadSeconds(field, "age", &lease->age) : status;
}

Ostrel_Status ReadShownName(const OstrelJsonField& field, Ostrel_KeptLease* lease) {
    if (!OstrelJsonHas(field, "hostName")) return kNoErr;
    std::string name;
    const Ostrel_Status status = OstrelJsonReadText(OstrelJsonMember(field, "hostName"), {0, kMaxHostName}, &name);
    if (status != kNoErr || name.empty()) return status;
    lease->hostName = os_copy_array<char>(name, 1);
    return lease->hostName == nullptr ? kOutOfMemoryErr : kNoErr;
}

// One that has no text before its first zero byte is shown as "".
Ostrel_Status ReadShownIdentifier(const OstrelJsonField& field, Ostrel_ClientKey* client) {
    std::string text;
    const bool isEmpty = !OstrelJsonHas(field, "clientIdentifierHex") &&
                         OstrelJsonMember(field, "clientIdentifier").value.asString(text) == valdo::CONV_OK &&
                         text.empty();
    return isEmpty ? kNoErr : Ostrel_VSUtil_ReadIdentifier(field, client);
}

Ostrel_Status ReadKeptLease(const OstrelJsonField& field, Ostrel_ServerValues* server) {
    if (!field.value.isObject()) return OstrelJsonRefuse(field, "a lease as leaseInformation shows it is wanted");
    Ostrel_KeptLease& lease = server->kept[server->numKept];
    Ostrel_Status status = OstrelJsonReadHostIPv4(OstrelJsonMember(field, "ipv4Address"), &lease.IPv4Address);
    if (status == kNoErr) status = OstrelJsonReadAnyMAC(OstrelJsonMember(field, "mac"), &lease.client.mac);
    if (status == kNoErr) status = ReadShownIdentifier(field, &lease.client);
    if (status == kNoErr) status = ReadTimes(field, &lease);
    if (status == kNoErr) status = ReadShownName(field, &lease);
    if (status == kNoErr) ++server->numKept;
    return status;
}

// Hands each lease to `take`: the elements, or, where an element has leases itself, those, if it is the interface's.
template <typename Take>
Ostrel_Status ForEachLease(const OstrelJsonField& list, const char* ifname, Take take) {
    size_t count = 0;
    Ostrel_Status status = OstrelJsonReadArray(list, kMaxKept, &count);
    for (size_t i = 0; status == kNoErr && i < count; ++i) {
        const OstrelJsonField element = OstrelJsonElement(list, i);
        if (!OstrelJsonHas(element, "leases")) {
            status = take(element);
            continue;
        }
        std::string interface;
        if (element.value["interface"].asString(interface) == valdo::CONV_OK && interface != ifname) continue;
        const OstrelJsonField leases = OstrelJsonMember(element, "leases");
        size_t inner = 0;
        status = OstrelJsonReadArray(leases, kMaxKept, &inner);
        for (size_t j = 0; status == kNoErr && j < inner; ++j) status = take(OstrelJsonElement(leases, j));
    }
    return status;
}

// A part is read whole before the server gets any of it.
Ostrel_Status GiveLeases(Ostrel_Request& request, const Ostrel_SystemObj* sysObj) {
    Ostrel_ServerObj* server = nullptr;
    Ostrel_Status status = Ostrel_VSUtil_FindServer(request, sysObj, &server);
    if (status != kNoErr) return status;
    const OstrelJsonField place = OstrelJsonFieldOf(request.root, "interface", &request.problem);
    if (!server->awaitsLeases) return OstrelJsonRefuse(place, "awaits no leases");
    Ostrel_InterfaceConfig part{};
    part.ifname = server->iface->ifname;
    bool more = false;
    status = OstrelJsonReadBoolean(OstrelJsonFieldOf(request.root, "more", &request.problem), &more);
    if (status == kNoErr)
        status = Ostrel_VSUtil_ReadKeptLeases(OstrelJsonFieldOf(request.root, "leases", &request.problem), &part);
    if (status != kNoErr) return status;
    OSTREL_REQUIRE_NOERR_IN(request.handler, Ostrel_DHCPServerGiveLeases(server, part.server, more));
    return kNoErr;
}

}  // namespace

Ostrel_Status Ostrel_VSUtil_ReadLeasesFollow(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg) {
    return OstrelJsonReadBoolean(field, &cfg->server.leasesFollow);
}

bool Ostrel_VoroMethod_GiveLeases(VSHandle* handle, VSMessage* message, void* context) {
    Ostrel_Request request{__func__};
    Ostrel_Status status = Ostrel_VSUtil_ReadRequest(message, context, &request);
    if (status == kNoErr) status = GiveLeases(request, static_cast<const Ostrel_SystemObj*>(context));
    Ostrel_VSUtil_SendPlainReply(request, handle, message, status);
    return true;
}

Ostrel_Status Ostrel_VSUtil_ReadKeptLeases(const OstrelJsonField& field, Ostrel_InterfaceConfig* cfg) {
    const char* ifname = cfg->ifname.data();
    Ostrel_ServerValues* server = &cfg->server;
    size_t count = 0;
    Ostrel_Status status = ForEachLease(field, ifname, [&count](const OstrelJsonField&) {
        ++count;
        return kNoErr;
    });
    if (status != kNoErr) return status;
    server->kept = os_new_records<Ostrel_KeptLease>(count);
    if (server->kept == nullptr) return kOutOfMemoryErr;
    return ForEachLease(field, ifname, [server](const OstrelJsonField& lease) { return ReadKeptLease(lease, server); });
}
