// Enrolled callers and posts.
//
// A caller is enrolled under category and method as often as it asked, up to kVSMaxEnrolled calls in all. It is watched
// from its first enrolment: first the bus daemon is told to report the name's departure, then it is asked whether the
// name is still there. It answers in that order, so a caller that left at any time is noticed once: by the answer when
// it left before the report was set up, by the report when it left later. Neither question is waited for.
//
// However an enrolment ends, it is taken off the books first; then the cancel function runs for each of its calls.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <numeric>
#include <string>
#include <systemd/sd-bus.h>

#include "Bus.h"
#include "DebugServices.h"
#include "SubscriptionWish.h"
#include "VoroBus.h"

namespace {

// What may wait to be written when a post is made. More waits only when the bus daemon has stopped reading.
constexpr size_t kMaxWaitingBytes = size_t{16} * 1024 * 1024;

bool IsUnder(const BusEnrolment& enrolment, const BusCategory* category, const char* method) {
    return enrolment.category == category && strcmp(enrolment.method, method) == 0;
}

bool IsEnrolled(const BusSubscriber& subscriber, const BusCategory* category, const char* method) {
    return std::any_of(subscriber.enrolments.begin(), subscriber.enrolments.end(),
                       [=](auto& enrolment) { return IsUnder(enrolment, category, method); });
}

size_t CountCalls(const BusSubscriber& subscriber) {
    return std::accumulate(subscriber.enrolments.begin(), subscriber.enrolments.end(), size_t{0},
                           [](size_t sum, auto& enrolment) { return sum + enrolment.count; });
}

auto FindSubscriber(VSHandle* handle, std::string_view name) {
    return std::find_if(handle->subscribers.begin(), handle->subscribers.end(),
                        [name](auto& subscriber) { return subscriber->name == name; });
}

// Tells the daemon that the calls of an enrolment, which is off the books, have ended.
void ReportCancelled(VSHandle* handle, const BusEnrolment& enrolment) {
    if (handle->cancelFunction == nullptr) return;
    for (size_t i = 0; i < enrolment.count; ++i) {
        VSMessage message{nullptr, nullptr, enrolment.category, enrolment.method, "", false};
        try {
            (void)handle->cancelFunction(handle, &message, handle->cancelContext);
        } catch (...) {
            DebugPrintF(kBusErrorLevel, "%s: %s: exception\n", __func__, enrolment.method);
        }
    }
}

// The subscriber has left the bus, or cannot be watched. It is gone when this returns.
void Drop(BusSubscriber* subscriber) {
    VSHandle* handle = subscriber->handle;
    const auto place = FindSubscriber(handle, subscriber->name);
    const std::unique_ptr<BusSubscriber> dropped = std::move(*place);
    handle->subscribers.erase(place);
    for (const BusEnrolment& enrolment : dropped->enrolments) ReportCancelled(handle, enrolment);
}

int OnDeparture(sd_bus_message*, void* context, sd_bus_error*) {
    Drop(static_cast<BusSubscriber*>(context));
    return 0;
}

int OnWatchSetUp(sd_bus_message* reply, void* context, sd_bus_error*) {
    if (sd_bus_message_is_method_error(reply, nullptr) <= 0) return 0;
    auto* subscriber = static_cast<BusSubscriber*>(context);
    DebugPrintF(kBusErrorLevel, "%s: %s cannot be watched: %s\n", __func__, subscriber->name,
                sd_bus_message_get_error(reply)->message);
    Drop(subscriber);
    return 0;
}

int OnPresence(sd_bus_message* reply, void* context, sd_bus_error*) {
    int present = 1;
    if (sd_bus_message_read_basic(reply, SD_BUS_TYPE_BOOLEAN, &present) >= 0 && present == 0)
        Drop(static_cast<BusSubscriber*>(context));
    return 0;
}

int Watch(sd_bus* bus, BusSubscriber& subscriber) {
    const std::string departures =
        "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',interface='org.freedesktop.DBus',"
        "member='NameOwnerChanged',arg2='',arg0='" +
        subscriber.name + "'";
    sd_bus_slot* slot = nullptr;
    int status = sd_bus_add_match_async(bus, &slot, departures.c_str(), OnDeparture, OnWatchSetUp, &subscriber);
    if (status < 0) return status;
    subscriber.departure.reset(slot);
    status =
        sd_bus_call_method_async(bus, &slot, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                 "NameHasOwner", OnPresence, &subscriber, "s", subscriber.name.c_str());
    if (status >= 0) subscriber.presence.reset(slot);
    return status;
}

// The caller's record, made and watched at its first enrolment. Null with the reason in `status`.
BusSubscriber* FindOrAddSubscriber(VSHandle* handle, const char* caller, int& status) {
    const auto found = FindSubscriber(handle, caller);
    if (found != handle->subscribers.end()) return found->get();
    auto created = std::make_unique<BusSubscriber>();
    created->handle = handle;
    created->name = caller;
    handle->subscribers.reserve(handle->subscribers.size() + 1);
    status = Watch(handle->bus.get(), *created);
    if (status < 0) return nullptr;
    handle->subscribers.push_back(std::move(created));
    return handle->subscribers.back().get();
}

// 1 when the call was enrolled, 0 when the caller has enough, or a negative errno value.
int Enrol(VSHandle* handle, const VSMessage& message, const char* caller) {
    int status = 0;
    BusSubscriber* subscriber = FindOrAddSubscriber(handle, caller, status);
    if (subscriber == nullptr) return status;
    if (CountCalls(*subscriber) >= kVSMaxEnrolled) return 0;
    auto& enrolments = subscriber->enrolments;
    const auto place = std::find_if(enrolments.begin(), enrolments.end(), [&](auto& enrolment) {
        return IsUnder(enrolment, message.category, message.name);
    });
    if (place != enrolments.end()) {
        ++place->count;
    } else {
        enrolments.push_back({message.category, message.name, 1});
    }
    return 1;
}

// Ends the caller's enrolled calls under the message's method. A caller with none left is no longer watched.
void Cancel(VSHandle* handle, const VSMessage& message, const char* caller) {
    const auto place = FindSubscriber(handle, caller);
    if (place == handle->subscribers.end()) return;
    auto& enrolments = (*place)->enrolments;
    const auto ended = std::find_if(enrolments.begin(), enrolments.end(), [&](auto& enrolment) {
        return IsUnder(enrolment, message.category, message.name);
    });
    if (ended == enrolments.end()) return;
    const BusEnrolment cancelled = *ended;
    enrolments.erase(ended);
    if (enrolments.empty()) handle->subscribers.erase(place);
    ReportCancelled(handle, cancelled);
}

// Whether a post may join what waits to be written. Bounds the memory that a bus daemon which hangs can cost.
bool HasRoom(VSHandle* handle) {
    uint64_t waiting = 0;
    if (sd_bus_get_n_queued_write(handle->bus.get(), &waiting) >= 0 && waiting == 0) handle->postedBytes = 0;
    return handle->postedBytes <= kMaxWaitingBytes;
}

int SendUpdate(VSHandle* handle, const BusCategory& category, const std::string& signal, const char* payload,
               const std::string& subscriber) {
    sd_bus_message* created = nullptr;
    int status = sd_bus_message_new_signal(handle->bus.get(), &created, category.path.c_str(),
                                           category.interface.c_str(), signal.c_str());
    if (status < 0) return status;
    const BusMessage update(created);
    status = sd_bus_message_append_basic(created, SD_BUS_TYPE_STRING, payload);
    if (status < 0) return status;
    return sd_bus_send_to(handle->bus.get(), created, subscriber.c_str(), nullptr);
}

// Sends to every subscriber, whatever happened to the others; the first failure, or 0.
int SendUpdates(VSHandle* handle, const BusCategory& category, const char* method, const char* payload) {
    const std::string signal = std::string(method) + "Update";
    const size_t size = strlen(payload);
    int result = 0;
    for (const auto& subscriber : handle->subscribers) {
        if (!IsEnrolled(*subscriber, &category, method)) continue;
        const int sent = SendUpdate(handle, category, signal, payload, subscriber->name);
        handle->postedBytes += size;
        if (sent < 0 && result == 0) result = sent;
    }
    return result;
}

}  // namespace

bool VSSubscriptionSetCancelFunction(VSHandle* handle, VSMethodFunction function, void* context,
                                     VSError* error) noexcept {
    if (handle == nullptr) return BusFail(error, EINVAL, "the service is not registered");
    handle->cancelFunction = function;
    handle->cancelContext = context;
    return true;
}

bool VSSubscriptionProcess(VSHandle* handle, VSMessage* message, bool* subscribed, VSError* error) noexcept {
    *subscribed = false;
    const char* caller = message->call == nullptr ? nullptr : sd_bus_message_get_sender(message->call);
    if (handle == nullptr || caller == nullptr) return BusFail(error, EINVAL, "no caller to enrol");
    try {
        const SubscriptionWish wish = ReadSubscriptionWish(message->payload);
        if (wish == SubscriptionWish::Cancel) Cancel(handle, *message, caller);
        const int enrolled = wish == SubscriptionWish::Enrol ? Enrol(handle, *message, caller) : 0;
        if (enrolled < 0) return BusFail(error, enrolled, "the caller cannot be watched");
        *subscribed = enrolled > 0;
        return true;
    } catch (...) {
        return BusFail(error, ENOMEM, "no memory for the subscription");
    }
}

bool VSSubscriptionPost(VSHandle* handle, const char* category, const char* method, const char* payload,
                        VSError* error) noexcept {
    if (handle == nullptr || payload == nullptr) return BusFail(error, EINVAL, "nothing to post");
    if (!VSSubscriptionHasSubscribers(handle, category, method)) return true;
    if (strlen(payload) > kBusMaxText) return BusFail(error, EMSGSIZE, "the post is too long for the bus");
    if (!HasRoom(handle)) return BusFail(error, ENOBUFS, "the bus daemon does not read");
    try {
        const int sent = SendUpdates(handle, *BusFindCategory(handle, category), method, payload);
        return sent >= 0 || BusFail(error, sent, "the post cannot be sent");
    } catch (...) {
        return BusFail(error, ENOMEM, "no memory for the post");
    }
}

bool VSSubscriptionHasSubscribers(const VSHandle* handle, const char* category, const char* method) noexcept {
    if (handle == nullptr || category == nullptr || method == nullptr) return false;
    const BusCategory* found = BusFindCategory(handle, category);
    return found != nullptr && std::any_of(handle->subscribers.begin(), handle->subscribers.end(),
                                           [=](auto& one) { return IsEnrolled(*one, found, method); });
}
