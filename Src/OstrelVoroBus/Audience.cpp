// Who is subscribed to what: how many enrolled calls each method has, and the methods that are about one interface or
// about all.
//
// Of "leaseInformation" the calls of both categories are counted together, for the log alone. The other counts are
// asked for by whoever would have news, so that nothing is done for nobody. Servers are told when somebody begins to
// listen to what happens to their leases, and when nobody does any more.

#include "Audience.h"

#include <array>
#include <string_view>

#include "Ostrel/Check.h"
#include "Ostrel/DHCPServer.h"
#include "Ostrel/Interface.h"
#include "Ostrel/Log.h"
#include "Ostrel/System.h"

#include "LeaseTexts.h"
#include "Method.h"

namespace {

struct Row {
    std::string_view method;
    uint32_t Ostrel_Audience::*count;
};
constexpr std::array<Row, 3> kAudiences{{
    {"interfaceState", &Ostrel_Audience::states},
    {"trace", &Ostrel_Audience::trace},
    {"leaseEvents", &Ostrel_Audience::leaseEvents},
}};

// After that of lease events has come to be 0, or 1 from 0.
void TellServers(const Ostrel_SystemObj* sysObj) {
    for (const auto* iface = sysObj->interfaceList; iface != nullptr; iface = iface->next)
        if (iface->dhcpServer != nullptr) Ostrel_DHCPServerAudienceChanged(iface->dhcpServer);
}

// Empty when the request names none.
Ostrel_Status ReadName(Ostrel_Request* request, std::string* ifname) {
    if (!request->root.hasKey("interface")) return kNoErr;
    const OstrelJsonField field = OstrelJsonFieldOf(request->root, "interface", &request->problem);
    return OstrelJsonReadText(field, {1, kInterfaceNameSize - 1}, ifname);
}

}  // namespace

uint32_t* Ostrel_VSUtil_AudienceOf(Ostrel_SystemObj* sysObj, const char* method) {
    for (const Row& row : kAudiences)
        if (row.method == method) return &(sysObj->audience.*row.count);
    int32_t index = 0;
    const Ostrel_Status status = OstrelJsonUtilsLookupTableIndexByString(gTblSubscribers, method, &index);
    return status == kNoErr ? &gTblSubscribers[index].value : nullptr;
}

void Ostrel_VSUtil_AnswerSubscriber(const Ostrel_SubscriptionMethod& method, VSHandle* handle, VSMessage* message,
                                    void* context) {
    auto* sysObj = static_cast<Ostrel_SystemObj*>(context);
    Ostrel_Request request{method.handler};
    std::string ifname;
    Ostrel_Status status = Ostrel_VSUtil_ReadRequest(message, context, &request);
    if (status == kNoErr) status = ReadName(&request, &ifname);
    if (status != kNoErr) return Ostrel_VSUtil_SendRefusal(request, handle, message);

    std::string list;
    const bool isWritten = method.write == nullptr || method.write(sysObj, ifname, &list);
    Ostrel_Reply reply{true, 0, nullptr, method.write == nullptr ? nullptr : "interfaceList", nullptr};
    if (isWritten) reply.payload = &list;
    reply.subject = ifname.empty() ? nullptr : ifname.c_str();
    reply.sysObj = sysObj;
    const uint32_t before = sysObj->audience.leaseEvents;
    Ostrel_VSUtil_SendTextReply(reply, handle, message);
    if (before == 0 && sysObj->audience.leaseEvents != 0) TellServers(sysObj);
}

bool Ostrel_VoroMethod_Unsubscribe(VSHandle* /*handle*/, VSMessage* message, void* context) {
    auto* sysObj = static_cast<Ostrel_SystemObj*>(context);
    if (!Ostrel_VSUtil_HasLeaseSubscribers(sysObj, "/server")) Ostrel_LeaseTextsForgetAll(sysObj);
    const char* method = VSMessageGetMethod(message);
    Ostrel_LogPrint(kQxLogDebug, "%s: %s\n", __func__, method);
    uint32_t* count = Ostrel_VSUtil_AudienceOf(sysObj, method);
    if (count == nullptr) {
        OSTREL_REPORT_STATUS(kNoSuchItemErr);
        return true;
    }
    if (*count > 0) --*count;
    Ostrel_LogPrint(kQxLogInfo, "%s now has %d subscribers (removed one).\n", method, *count);
    if (count == &sysObj->audience.leaseEvents && *count == 0) TellServers(sysObj);
    return true;
}
