// Methods that act on what is managed already: "/" "interfaceFinalize", "/" "setDebugLevel", "/client" and "/server"
// "leaseAction".
//
// Each handler reads its request with a function of its own that returns a status, and answers with that; what fails
// there is reported under the handler's name. Only "interfaceFinalize" gives an error code and text with a failure; the
// others give the bare outcome. The keys beside the usual ones are taken strictly: one that can't be used, or that
// does not go with the word, fails the call before anything is done, and the reply says why.

#include <optional>
#include <string_view>

#include "Ostrel/Check.h"
#include "Ostrel/DHCPClient.h"
#include "Ostrel/DHCPServer.h"
#include "Ostrel/Interface.h"
#include "Ostrel/LinkLocal.h"
#include "Ostrel/Log.h"
#include "Ostrel/System.h"

#include "LeaseTexts.h"
#include "Method.h"

namespace {

// A word as it is compared with others. One with a zero byte inside is none of them, and must not be cut down to one.
const char* WordOf(const std::string& text) {
    return text.find('\0') == std::string::npos ? text.c_str() : "";
}

// Null when the request has no such key.
using Value = std::optional<OstrelJsonField>;

Value FindValue(Ostrel_Request& request, const char* key) {
    if (!request.root.hasKey(key)) return std::nullopt;
    return OstrelJsonFieldOf(request.root, key, &request.problem);
}

Ostrel_Status ReadActionValues(Ostrel_Request& request, std::string_view action, Ostrel_ActionValues* values) {
    const Value address = FindValue(request, "address");
    const Value release = FindValue(request, "release");
    Ostrel_Status status = kNoErr;
    if (address && action != "init") status = OstrelJsonRefuse(*address, "only \"init\" takes it");
    if (release && action != "halt") status = OstrelJsonRefuse(*release, "only \"halt\" takes it");
    if (status == kNoErr && address) status = OstrelJsonReadHostIPv4(*address, &values->address);
    if (status == kNoErr && release) status = OstrelJsonReadBoolean(*release, &values->release);
    return status;
}

Ostrel_Status FinalizeInterface(Ostrel_Request& request, Ostrel_SystemObj* sysObj) {
    Ostrel_InterfaceObj* iface = nullptr;
    OSTREL_REQUIRE_NOERR_IN(request.handler, Ostrel_VSUtil_ResolveInterfaceObj(sysObj, request.root, &iface));
    bool isReleased = false;
    if (const Value release = FindValue(request, "release")) {
        OSTREL_REQUIRE_NOERR_IN(request.handler, OstrelJsonReadBoolean(*release, &isReleased));
    }
    if (isReleased && iface->dhcpClient != nullptr) Ostrel_DHCPClientRelease(iface->dhcpClient);
    Ostrel_LeaseTextsForget(sysObj, iface->dhcpServer);
    Ostrel_InterfaceFinalize(&sysObj->interfaceList, iface);
    return kNoErr;
}

Ostrel_Status SetDebugLevel(const Ostrel_Request& request) {
    std::string level;
    const bool success = GetJsonString(request.root, "debugLevel", &level, false, nullptr);
    OSTREL_REQUIRE_IN(request.handler, success, "success", kGenericErr);
    Ostrel_SetDebugLevel(WordOf(level));
    return kNoErr;
}

// The client is asked first; when it refuses the word the selector is not asked. A server has no lease to act on.
Ostrel_Status ActOnLease(Ostrel_Request& request, Ostrel_SystemObj* sysObj) {
    Ostrel_InterfaceObj* iface = nullptr;
    OSTREL_REQUIRE_NOERR_IN(request.handler, Ostrel_VSUtil_ResolveInterfaceObj(sysObj, request.root, &iface));
    std::string action;
    const bool success = GetJsonString(request.root, "leaseAction", &action, false, nullptr);
    OSTREL_REQUIRE_IN(request.handler, success, "success", kGenericErr);
    Ostrel_ActionValues values{};
    OSTREL_REQUIRE_NOERR_IN(request.handler, ReadActionValues(request, action, &values));

    if ((iface->mode & kOstrelModeDHCPClient) != 0) {
        OSTREL_REQUIRE_NOERR_IN(request.handler, Ostrel_DHCPClientLeaseAction(iface, WordOf(action), values));
    }
    if ((iface->mode & kOstrelModeLinkLocal) != 0) {
        OSTREL_REQUIRE_NOERR_IN(request.handler, Ostrel_LinkLocalAction(iface, WordOf(action)));
    }
    return kNoErr;
}

// Unlike the client's, this action has no caller that a strict reading could surprise.
Ostrel_Status ActOnAddress(Ostrel_Request& request, const Ostrel_SystemObj* sysObj) {
    const OstrelJsonField place = OstrelJsonFieldOf(request.root, "ipv4Address", &request.problem);
    const OstrelJsonField word = OstrelJsonFieldOf(request.root, "leaseAction", &request.problem);
    Ostrel_ServerObj* server = nullptr;
    Ostrel_IPv4 address = kAnyIPv4;
    std::string action;
    Ostrel_Status status = Ostrel_VSUtil_FindServer(request, sysObj, &server);
    if (status == kNoErr) status = OstrelJsonReadHostIPv4(place, &address);
    if (status != kNoErr) return status;
    if (word.value.asString(action) != valdo::CONV_OK || (action != "release" && action != "hold"))
        return OstrelJsonRefuse(word, "\"release\" or \"hold\" is wanted");
    status = Ostrel_DHCPServerLeaseAction(server, address, action.c_str());
    return status == kNoSuchItemErr ? OstrelJsonRefuse(place, "is not the server's to give") : status;
}

}  // namespace

Ostrel_Status Ostrel_VSUtil_FindServer(Ostrel_Request& request, const Ostrel_SystemObj* sysObj,
                                       Ostrel_ServerObj** server) {
    const OstrelJsonField field = OstrelJsonFieldOf(request.root, "interface", &request.problem);
    std::string name;
    const Ostrel_Status status = OstrelJsonReadText(field, {1, kInterfaceNameSize - 1}, &name);
    if (status != kNoErr) return status;
    const Ostrel_InterfaceObj* iface = Ostrel_VSUtil_FindInterface(sysObj, name);
    if (iface == nullptr || iface->dhcpServer == nullptr) return OstrelJsonRefuse(field, "runs no server");
    *server = iface->dhcpServer;
    return kNoErr;
}

bool Ostrel_VoroMethod_InterfaceFinalize(VSHandle* handle, VSMessage* message, void* context) {
    auto* sysObj = static_cast<Ostrel_SystemObj*>(context);
    Ostrel_Request request{__func__};
    Ostrel_Status status = Ostrel_VSUtil_ReadRequest(message, context, &request);
    if (status == kNoErr) status = FinalizeInterface(request, sysObj);
    Ostrel_VSUtil_SendStatusReply(request, handle, message, status);
    return true;
}

bool Ostrel_VoroMethod_SetDebugLevel(VSHandle* handle, VSMessage* message, void* context) {
    Ostrel_Request request{__func__};
    Ostrel_Status status = Ostrel_VSUtil_ReadRequest(message, context, &request);
    if (status == kNoErr) status = SetDebugLevel(request);
    Ostrel_VSUtil_SendPlainReply(request, handle, message, status);
    return true;
}

bool Ostrel_VoroMethod_ClientLeaseAction(VSHandle* handle, VSMessage* message, void* context) {
    auto* sysObj = static_cast<Ostrel_SystemObj*>(context);
    Ostrel_Request request{__func__};
    Ostrel_Status status = Ostrel_VSUtil_ReadRequest(message, context, &request);
    if (status == kNoErr) status = ActOnLease(request, sysObj);
    Ostrel_VSUtil_SendPlainReply(request, handle, message, status);
    return true;
}

bool Ostrel_VoroMethod_ServerLeaseAction(VSHandle* handle, VSMessage* message, void* context) {
    Ostrel_Request request{__func__};
    Ostrel_Status status = Ostrel_VSUtil_ReadRequest(message, context, &request);
    if (status == kNoErr) status = ActOnAddress(request, static_cast<const Ostrel_SystemObj*>(context));
    Ostrel_VSUtil_SendPlainReply(request, handle, message, status);
    return true;
}
