// Lease tables as text, put together from what was there before.
//
// A post shows every slot in use, of which the REQUEST behind it has changed one or two, and the text of a slot costs
// more than all else of a post: two times of day, and a document. So the text of the last table stays, with the length
// of each slot's part, and the next table copies the parts of the slots that have not changed since. That is what a
// slot's `changed` is for; it is cleared here and nowhere else.
//
// What a part says beside its slot are times of the wall clock in the local zone. When either has moved, nothing is
// copied. Nothing is kept while nobody is subscribed, nor of a table that no message can hold; a free slot costs
// nothing.

#include "LeaseTexts.h"

#include <array>
#include <string_view>
#include <utility>
#include <vector>

#include "Ostrel/Check.h"
#include "Ostrel/DHCPServer.h"
#include "Ostrel/Interface.h"
#include "Ostrel/Log.h"
#include "Ostrel/System.h"

#include "LeaseFields.h"
#include "Method.h"
#include "os_memory.h"
#include "os_time.h"

namespace {

constexpr size_t kLongestKept = size_t{32} * 1024 * 1024;  // bytes; no message holds more
constexpr int64_t kHalfYear = int64_t{183} * 86400;        // seconds

// What the texts say that is not in the slots.
struct Basis {
    int64_t wallOffset;
    std::array<std::array<char, 64>, 2> zone;  // the local times of two moments half a year apart

    bool operator==(const Basis&) const = default;
};

struct Part {
    uint32_t slot;
    uint32_t length;  // of its text, without a comma
};

}  // namespace

// The table of one server as it was made last.
struct Ostrel_LeaseTexts {
    Ostrel_LeaseTexts* next;
    const Ostrel_ServerObj* server;
    Basis basis;
    std::string text;  // the parts, with commas between
    std::vector<Part> parts;
};

namespace {

Basis BasisNow(Ostrel_SystemObj* sysObj) {
    Basis basis{.wallOffset = Ostrel_WallClockOffset(&sysObj->wallClock), .zone = {}};
    int64_t moment = os_wall_seconds() / kHalfYear * kHalfYear;
    for (auto& text : basis.zone) {
        os_local_time_text(moment, text);
        moment += kHalfYear;
    }
    return basis;
}

// The parts of a table, which are asked for in the order of their slots.
class Parts {
public:
    explicit Parts(const Ostrel_LeaseTexts* read) : table(read) {}

    // Empty when there is none of that slot.
    std::string_view Find(uint32_t slot) {
        if (table == nullptr) return {};
        while (next < table->parts.size() && table->parts[next].slot < slot) begin += table->parts[next++].length + 1;
        if (next == table->parts.size() || table->parts[next].slot != slot) return {};
        return std::string_view(table->text).substr(begin, table->parts[next].length);
    }

private:
    const Ostrel_LeaseTexts* table;
    size_t next = 0;
    size_t begin = 0;
};

bool MakePart(Ostrel_SystemObj* sysObj, Ostrel_ServerObj* server, Ostrel_LeaseInformation* slot, std::string* text) {
    valdo::JValue object = valdo::Object();
    return Ostrel_VoroServiceCreateServerLeaseInformationObject(sysObj, server, slot, object) == kNoErr &&
           Ostrel_VSUtil_ToText(object, text);
}

// Makes the table as it is now; what has not changed is copied from the one before, which may be null. False when
// memory is out, if it does not throw.
bool MakeTable(Ostrel_SystemObj* sysObj, Ostrel_ServerObj* server, const Ostrel_LeaseTexts* before,
               Ostrel_LeaseTexts* table) {
    if (before != nullptr) table->text.reserve(before->text.size() + before->text.size() / 16);
    if (before != nullptr) table->parts.reserve(before->parts.size() + 1);
    Parts known(before);
    std::string made;
    for (auto* slot = Ostrel_DHCPServer_LeaseNextUsed(server, nullptr); slot != nullptr;
         slot = Ostrel_DHCPServer_LeaseNextUsed(server, slot)) {
        const auto number = static_cast<uint32_t>(slot - server->leases.get());
        std::string_view part = slot->changed ? std::string_view{} : known.Find(number);
        if (part.empty()) {
            if (!MakePart(sysObj, server, slot, &made)) return false;
            slot->changed = false;
            part = made;
        } else {
            Ostrel_VSUtil_LogServerTime(server->leaseTime);
        }
        if (!table->parts.empty()) table->text += ',';
        table->text += part;
        table->parts.push_back({number, static_cast<uint32_t>(part.size())});
    }
    return true;
}

// Takes what is kept of a server off the list; null when nothing is.
os_owner<Ostrel_LeaseTexts> Take(Ostrel_SystemObj* sysObj, const Ostrel_ServerObj* server) {
    Ostrel_LeaseTexts** place = &sysObj->leaseTexts;
    while (*place != nullptr && (*place)->server != server) place = &(*place)->next;
    os_owner<Ostrel_LeaseTexts> taken(*place);
    if (taken != nullptr) *place = taken->next;
    return taken;
}

// Keeps a table for the next call, when one is to be expected. Without memory for it nothing is kept.
void Keep(Ostrel_SystemObj* sysObj, Ostrel_LeaseTexts&& table) {
    if (!Ostrel_VSUtil_HasLeaseSubscribers(sysObj, "/server") || table.text.size() > kLongestKept) return;
    auto* kept = os_new<Ostrel_LeaseTexts>();
    if (kept == nullptr) return;
    *kept = std::move(table);
    kept->next = sysObj->leaseTexts;
    sysObj->leaseTexts = kept;
}

// Whatever fails, what was kept is gone: slots that were shown since no longer say that they have changed.
bool AppendLeases(Ostrel_SystemObj* sysObj, Ostrel_ServerObj* server, std::string* text) {
    os_owner<Ostrel_LeaseTexts> before = Take(sysObj, server);
    Ostrel_LeaseTexts table{.next = nullptr, .server = server, .basis = BasisNow(sysObj), .text = {}, .parts = {}};
    if (before != nullptr && before->basis != table.basis) before.reset();
    if (!MakeTable(sysObj, server, before.get(), &table)) return false;
    before.reset();
    *text += table.text;
    Keep(sysObj, std::move(table));
    return true;
}

bool AppendEntry(Ostrel_SystemObj* sysObj, const Ostrel_InterfaceObj* iface, std::string* text) {
    valdo::JValue entry = valdo::Object();
    entry.put("interface", iface->ifname.data());
    std::string begin;
    if (!Ostrel_VSUtil_ToText(entry, &begin)) return false;
    begin.pop_back();  // the brace
    *text += begin + R"(,"leases":[)";
    if (!AppendLeases(sysObj, iface->dhcpServer, text)) return false;
    *text += "]}";
    return true;
}

}  // namespace

bool Ostrel_LeaseTextsWrite(Ostrel_SystemObj* sysObj, const Ostrel_ServerObj* server, std::string* text) {
    try {
        text->assign("[");
        for (auto* iface = sysObj->interfaceList; iface != nullptr; iface = iface->next) {
            if (iface->dhcpServer == nullptr || (server != nullptr && iface->dhcpServer != server)) continue;
            if (text->size() > 1) *text += ',';
            if (!AppendEntry(sysObj, iface, text)) return false;
        }
        *text += ']';
        return true;
    } catch (...) {  // memory is out
        return false;
    }
}

void Ostrel_LeaseTextsForget(Ostrel_SystemObj* sysObj, const Ostrel_ServerObj* server) {
    Take(sysObj, server).reset();
}

void Ostrel_LeaseTextsForgetAll(Ostrel_SystemObj* sysObj) {
    while (sysObj->leaseTexts != nullptr) Take(sysObj, sysObj->leaseTexts->server).reset();
}
