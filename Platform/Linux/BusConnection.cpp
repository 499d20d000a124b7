// The service's connection over sd-bus: calls in, replies, posts and questions out.
//
// A category is an object with one interface, on which every method takes one text and returns one. Whoever may call is
// the bus policy's business.
//
// A peer is watched in two steps: first the bus daemon is told to report its name's departure, then it is asked whether
// the name is still there. It answers in that order, so a peer that left at any time is noticed once: by the answer
// when it left before the report was set up, by the report when it left later. Nothing here waits for an answer.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <systemd/sd-bus.h>

#include "Bus.h"
#include "DebugServices.h"

namespace {

constexpr char kBusDaemon[] = "org.freedesktop.DBus";
constexpr char kBusDaemonPath[] = "/org/freedesktop/DBus";

int OnCall(sd_bus_message* call, void* context, sd_bus_error* error);

const sd_bus_vtable kTableStart = SD_BUS_VTABLE_START(0);
const sd_bus_vtable kTableMethod = SD_BUS_METHOD_WITH_NAMES("", "s", SD_BUS_PARAM(request), "s", SD_BUS_PARAM(reply),
                                                            OnCall, SD_BUS_VTABLE_UNPRIVILEGED);
const sd_bus_vtable kTableSignal = SD_BUS_SIGNAL_WITH_NAMES("", "s", SD_BUS_PARAM(update), 0);
const sd_bus_vtable kTableEnd = SD_BUS_VTABLE_END;

// What is asked about a peer; the answers end with the record.
struct Questions : BusPeerLink {
    BusSlot departure;  // reports the name's leaving
    BusSlot presence;   // asks whether it had left before that
    BusSlot ping;
    BusSlot count;
};

Questions& QuestionsOf(BusPeer& peer) {
    if (peer.link == nullptr) peer.link = std::make_unique<Questions>();
    return static_cast<Questions&>(*peer.link);
}

int OnCall(sd_bus_message* call, void* context, sd_bus_error*) {
    const auto* category = static_cast<const BusCategory*>(context);
    const VSMethod* method = BusFindMethod(*category, sd_bus_message_get_member(call));
    const char* payload = nullptr;
    const int read = sd_bus_message_read_basic(call, SD_BUS_TYPE_STRING, &payload);
    if (read < 0) return read;
    if (method == nullptr) return -EBADR;
    const char* caller = sd_bus_message_get_sender(call);
    if (caller == nullptr) return -EBADMSG;
    VSMessage message{.call = call,
                      .method = method,
                      .category = category,
                      .name = method->name,
                      .payload = payload,
                      .caller = caller,
                      .expectsReply = sd_bus_message_get_expect_reply(call) > 0};
    const BusRefusal refusal = BusServeCall(message);
    if (refusal.error == nullptr || refusal.silent) return 1;
    return sd_bus_reply_method_errorf(call, refusal.error, "%s", refusal.text.c_str());
}

std::vector<sd_bus_vtable> BuildTable(const VSMethod* methods, const VSSignal* signals) {
    std::vector<sd_bus_vtable> table{kTableStart};
    for (; methods->name != nullptr; ++methods) {
        table.push_back(kTableMethod);
        table.back().x.method.member = methods->name;
    }
    for (; signals != nullptr && signals->name != nullptr; ++signals) {
        table.push_back(kTableSignal);
        table.back().x.signal.member = signals->name;
    }
    table.push_back(kTableEnd);
    return table;
}

std::string InterfaceOf(const std::string& serviceName, std::string_view path) {
    std::string interface = serviceName;
    if (path != "/") interface.append(".").append(path.substr(1));
    return interface;
}

int OnDeparture(sd_bus_message*, void* context, sd_bus_error*) {
    BusPeerLeft(*static_cast<BusPeer*>(context));
    return 0;
}

int OnWatchSetUp(sd_bus_message* reply, void* context, sd_bus_error*) {
    if (sd_bus_message_is_method_error(reply, nullptr) <= 0) return 0;
    auto* peer = static_cast<BusPeer*>(context);
    DebugPrintF(kBusErrorLevel, "%s: %s cannot be watched: %s\n", __func__, peer->name,
                sd_bus_message_get_error(reply)->message);
    BusDrop(*peer);
    return 0;
}

int OnPresence(sd_bus_message* reply, void* context, sd_bus_error*) {
    int present = 1;
    if (sd_bus_message_read_basic(reply, SD_BUS_TYPE_BOOLEAN, &present) >= 0 && present == 0)
        BusPeerLeft(*static_cast<BusPeer*>(context));
    return 0;
}

// Any answer of the peer's own will do. The bus daemon answers in its place when it has left, or when it does not pass
// the question on.
int OnPong(sd_bus_message* reply, void* context, sd_bus_error*) {
    auto* peer = static_cast<BusPeer*>(context);
    const char* sender = sd_bus_message_get_sender(reply);
    const auto is = [reply](const char* error) { return sd_bus_message_is_method_error(reply, error) > 0; };
    if (sender != nullptr && peer->name == sender)
        BusPingAnswered(*peer);
    else if (is(SD_BUS_ERROR_SERVICE_UNKNOWN) || is(SD_BUS_ERROR_NAME_HAS_NO_OWNER) || is(SD_BUS_ERROR_NO_REPLY))
        BusPeerLeft(*peer);
    else
        BusPingFailed(*peer);
    return 0;
}

// The value of a name in a dictionary of variants; false when there is none of that type.
bool FindNumber(sd_bus_message* reply, std::string_view wanted, uint32_t& number) {
    if (sd_bus_message_enter_container(reply, 'a', "{sv}") < 0) return false;
    while (sd_bus_message_enter_container(reply, 'e', "sv") > 0) {
        const char* name = "";
        if (sd_bus_message_read_basic(reply, SD_BUS_TYPE_STRING, &name) < 0) return false;
        if (wanted == name) return sd_bus_message_read(reply, "v", "u", &number) > 0;
        if (sd_bus_message_skip(reply, "v") < 0 || sd_bus_message_exit_container(reply) < 0) return false;
    }
    return false;
}

int OnCounted(sd_bus_message* reply, void* context, sd_bus_error*) {
    auto* peer = static_cast<BusPeer*>(context);
    uint32_t waiting = 0;
    if (sd_bus_message_is_method_error(reply, SD_BUS_ERROR_NAME_HAS_NO_OWNER) > 0)
        BusPeerLeft(*peer);
    else if (sd_bus_message_is_method_error(reply, nullptr) > 0 || !FindNumber(reply, "OutgoingBytes", waiting))
        BusCannotCount(peer->handle);
    else
        BusCounted(*peer, waiting);
    return 0;
}

}  // namespace

SdBusConnection& BusOf(const VSHandle* handle) noexcept {
    return static_cast<SdBusConnection&>(*handle->connection);
}

int SdBusConnection::AddObject(const BusCategory& category) {
    auto object = std::make_unique<BusObject>();
    object->interface = InterfaceOf(serviceName, category.path);
    object->vtable = BuildTable(category.methods, category.signals);
    objects.reserve(objects.size() + 1);
    sd_bus_slot* slot = nullptr;
    const int added = sd_bus_add_object_vtable(bus.get(), &slot, category.path.c_str(), object->interface.c_str(),
                                               object->vtable.data(), const_cast<BusCategory*>(&category));
    if (added < 0) return added;
    object->slot.reset(slot);
    objects.push_back(std::move(object));
    return 0;
}

int SdBusConnection::SendReply(VSMessage& message, const char* text) {
    sd_bus_message* created = nullptr;
    int status = sd_bus_message_new_method_return(static_cast<sd_bus_message*>(message.call), &created);
    if (status < 0) return status;
    const BusMessage reply(created);
    status = sd_bus_message_append_basic(created, SD_BUS_TYPE_STRING, text);
    return status < 0 ? status : Send(created, strlen(text));
}

int SdBusConnection::SendPost(const BusNews& news, const BusPeer& peer) {
    sd_bus_message* created = nullptr;
    const std::string interface = InterfaceOf(serviceName, news.category->path);
    const std::string signal = std::string(news.method) + "Update";
    int status =
        sd_bus_message_new_signal(bus.get(), &created, news.category->path.c_str(), interface.c_str(), signal.c_str());
    if (status < 0) return status;
    const BusMessage update(created);
    status = sd_bus_message_set_destination(created, peer.name.c_str());
    if (status < 0) return status;
    char* text = nullptr;  // it has been found fit once for all who get it
    status = sd_bus_message_append_string_space(created, news.text.size(), &text);
    if (status < 0) return status;
    std::copy(news.text.begin(), news.text.end(), text);
    return Send(created, news.text.size());
}

int SdBusConnection::Ping(BusPeer& peer) {
    sd_bus_message* created = nullptr;
    int status = sd_bus_message_new_method_call(bus.get(), &created, peer.name.c_str(), "/",
                                                "org.freedesktop.DBus.Peer", "Ping");
    if (status < 0) return status;
    const BusMessage ping(created);
    sd_bus_slot* slot = nullptr;
    status = sd_bus_call_async(bus.get(), &slot, created, OnPong, &peer, UINT64_MAX);
    if (status >= 0) QuestionsOf(peer).ping.reset(slot);
    return status;
}

// An optional part of the bus daemon, which the daemon's policy file opens to us.
int SdBusConnection::Count(BusPeer& peer) {
    sd_bus_slot* slot = nullptr;
    const int status =
        sd_bus_call_method_async(bus.get(), &slot, kBusDaemon, kBusDaemonPath, "org.freedesktop.DBus.Debug.Stats",
                                 "GetConnectionStats", OnCounted, &peer, "s", peer.name.c_str());
    if (status >= 0) QuestionsOf(peer).count.reset(slot);
    return status;
}

int SdBusConnection::Watch(BusPeer& peer) {
    const std::string departures =
        "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',interface='org.freedesktop.DBus',"
        "member='NameOwnerChanged',arg2='',arg0='" +
        peer.name + "'";
    Questions& questions = QuestionsOf(peer);
    sd_bus_slot* slot = nullptr;
    const int status = sd_bus_add_match_async(bus.get(), &slot, departures.c_str(), OnDeparture, OnWatchSetUp, &peer);
    if (status < 0) return status;
    questions.departure.reset(slot);
    return LookFor(peer);
}

int SdBusConnection::LookFor(BusPeer& peer) {
    sd_bus_slot* slot = nullptr;
    const int status = sd_bus_call_method_async(bus.get(), &slot, kBusDaemon, kBusDaemonPath, kBusDaemon,
                                                "NameHasOwner", OnPresence, &peer, "s", peer.name.c_str());
    if (status >= 0) QuestionsOf(peer).presence.reset(slot);
    return status;
}

int SdBusConnection::Send(sd_bus_message* message, size_t size) {
    const int sent = sd_bus_send(bus.get(), message, nullptr);
    if (sent < 0) return sent;
    waiting.push_back(size);
    waitingBytes += size;
    (void)WaitingBytes();
    return 0;
}

// sd-bus tells how many messages wait. More of ours than that don't, and the oldest go first.
size_t SdBusConnection::WaitingBytes() {
    uint64_t messages = 0;
    if (sd_bus_get_n_queued_write(bus.get(), &messages) < 0) messages = 0;
    while (waiting.size() > messages) {
        waitingBytes -= waiting.front();
        waiting.pop_front();
    }
    return waitingBytes;
}
