// The message bus inside the process: World::Call is a caller, World::posts what subscribers were sent.
//
// It follows the rules of Platform/Include/VoroBus.h, and its callers are names that a test makes up. A method runs
// inside World::Call, between two events, as it would between two passes of the loop.

#include <algorithm>
#include <cerrno>

#include "Internals.h"
#include "SubscriptionWish.h"

namespace {

struct Category {
    std::string name;
    const VSMethod* methods;
    void* data;
};

struct Enrolled {
    std::string caller;
    std::string category;
    std::string method;
};

}  // namespace

struct VSHandle {
    bool attached = false;
    bool lost = false;
    std::vector<Category> categories;
    VSMethodFunction cancel = nullptr;
    void* cancelContext = nullptr;
    std::vector<Enrolled> enrolled;  // in the order of the calls
};

struct VSMessage {
    std::string caller;
    std::string category;
    std::string method;
    std::string payload;
    bool isAnswered = false;
    std::string reply;
};

namespace {

using sim::World;

bool Refuse(VSError* error, int32_t code, std::string_view message, int line, const char* function) {
    error->code = code;
    error->message[message.copy(error->message.data(), error->message.size() - 1)] = '\0';
    error->file = "Platform/Sim/Bus.cpp";
    error->line = line;
    error->function = function;
    return false;
}

Category* FindCategory(VSHandle* handle, std::string_view name) {
    const auto found = std::find_if(handle->categories.begin(), handle->categories.end(),
                                    [name](const Category& category) { return category.name == name; });
    return found == handle->categories.end() ? nullptr : &*found;
}

const VSMethod* FindMethod(const Category* category, std::string_view name) {
    if (category == nullptr) return nullptr;
    for (const VSMethod* method = category->methods; method->name != nullptr; ++method) {
        if (name == method->name) return method;
    }
    return nullptr;
}

// Cancels every enrolled call that `isMeant` picks, oldest first.
template <typename Predicate>
void CancelEnrolled(VSHandle* handle, Predicate isMeant) {
    const auto kept = std::stable_partition(handle->enrolled.begin(), handle->enrolled.end(),
                                            [&](const Enrolled& call) { return !isMeant(call); });
    const std::vector<Enrolled> cancelled(std::make_move_iterator(kept),
                                          std::make_move_iterator(handle->enrolled.end()));
    handle->enrolled.erase(kept, handle->enrolled.end());
    if (handle->cancel == nullptr) return;
    for (const Enrolled& call : cancelled) {
        VSMessage message{call.caller, call.category, call.method, {}, false, {}};
        handle->cancel(handle, &message, handle->cancelContext);
    }
}

bool IsUnder(const Enrolled& call, std::string_view category, std::string_view method) {
    return call.category == category && call.method == method;
}

// False when the caller has enough.
bool Enrol(VSHandle* handle, const VSMessage& message) {
    const auto isHis = [&message](const Enrolled& call) { return call.caller == message.caller; };
    const auto count = std::count_if(handle->enrolled.begin(), handle->enrolled.end(), isHis);
    if (static_cast<size_t>(count) >= kVSMaxEnrolled) return false;
    handle->enrolled.push_back({message.caller, message.category, message.method});
    return true;
}

}  // namespace

namespace sim {

std::string World::Call(std::string_view category, std::string_view method, std::string_view payload,
                        std::string_view caller) {
    const std::string what = std::string(category) + " " + std::string(method);
    state->TraceText("call", what + " " + std::string(payload), tracing);
    callError.clear();
    VSHandle* const handle = state->bus.get();
    if (handle == nullptr || !handle->attached || handle->lost) return Fail("no service on the bus: " + what), "";
    if (state->loop.terminated) return Fail("the loop has ended: " + what), "";
    if (payload.size() > kVSMaxPayload) {
        callError = "org.freedesktop.DBus.Error.LimitsExceeded";
        return "";
    }
    const Category* const found = FindCategory(handle, category);
    const VSMethod* const row = FindMethod(found, method);
    if (row == nullptr) return Fail("no such method: " + what), "";
    VSMessage message{std::string(caller), std::string(category), std::string(method), std::string(payload), false, {}};
    row->function(handle, &message, found->data);
    if (!message.isAnswered && !failReplies) Fail("no answer: " + what);
    return message.reply;
}

void World::LeaveBus(std::string_view caller) {
    if (state->bus == nullptr) return;
    CancelEnrolled(state->bus.get(), [caller](const Enrolled& call) { return call.caller == caller; });
}

void World::LoseBus() {
    if (state->bus == nullptr) return;
    state->bus->lost = true;
    eloop_terminate();
}

}  // namespace sim

void VSErrorInit(VSError* error) noexcept {
    *error = {};
}
void VSErrorFree(VSError* error) noexcept {
    *error = {};
}

bool VSRegister(const char* serviceName, VSHandle** handle, VSError* error) noexcept {
    auto& bus = World::Get().Internals().bus;
    if (serviceName == nullptr) return Refuse(error, EINVAL, "no name", __LINE__, __func__);
    bus = std::make_shared<VSHandle>();
    *handle = bus.get();
    return true;
}

bool VSRegisterCategory(VSHandle* handle, const char* category, const VSMethod* methods, const VSSignal*,
                        const VSProperty*, VSError* error) noexcept {
    if (FindCategory(handle, category) != nullptr) return Refuse(error, EEXIST, "known category", __LINE__, __func__);
    handle->categories.push_back({category, methods, nullptr});
    return true;
}

bool VSCategorySetData(VSHandle* handle, const char* category, void* data, VSError* error) noexcept {
    Category* const found = FindCategory(handle, category);
    if (found == nullptr) return Refuse(error, ENOENT, "unknown category", __LINE__, __func__);
    found->data = data;
    return true;
}

bool VSSubscriptionSetCancelFunction(VSHandle* handle, VSMethodFunction function, void* context, VSError*) noexcept {
    handle->cancel = function;
    handle->cancelContext = context;
    return true;
}

bool VSGmainAttach(VSHandle* handle, _GMainLoop* loop, VSError* error) noexcept {
    if (loop == nullptr) return Refuse(error, EINVAL, "no loop", __LINE__, __func__);
    if (World::Get().nameTaken) return Refuse(error, EEXIST, "the name is taken", __LINE__, __func__);
    handle->attached = true;
    return true;
}

const char* VSMessageGetPayload(VSMessage* message) noexcept {
    return message->payload.c_str();
}
const char* VSMessageGetMethod(VSMessage* message) noexcept {
    return message->method.c_str();
}

bool VSMessageReply(VSHandle* handle, VSMessage* message, const char* payload, VSError* error) noexcept {
    if (handle->lost || World::Get().failReplies) return Refuse(error, ENOTCONN, "not sent", __LINE__, __func__);
    if (message->isAnswered) return Refuse(error, EALREADY, "answered before", __LINE__, __func__);
    message->isAnswered = true;
    message->reply = payload;
    return true;
}

bool VSSubscriptionProcess(VSHandle* handle, VSMessage* message, bool* subscribed, VSError*) noexcept {
    *subscribed = false;
    switch (ReadSubscriptionWish(message->payload)) {
        case SubscriptionWish::None:
            break;
        case SubscriptionWish::Enrol:
            *subscribed = Enrol(handle, *message);
            break;
        case SubscriptionWish::Cancel:
            CancelEnrolled(handle, [message](const Enrolled& call) {
                return call.caller == message->caller && IsUnder(call, message->category, message->method);
            });
            break;
    }
    return true;
}

bool VSSubscriptionPost(VSHandle* handle, const char* category, const char* method, const char* payload,
                        VSError* error) noexcept {
    World& world = World::Get();
    if (!VSSubscriptionHasSubscribers(handle, category, method)) return true;
    if (handle->lost || world.failPosts) return Refuse(error, ENOTCONN, "not sent", __LINE__, __func__);
    std::vector<std::string_view> reached;
    for (const Enrolled& call : handle->enrolled) {
        if (!IsUnder(call, category, method)) continue;
        if (std::find(reached.begin(), reached.end(), call.caller) != reached.end()) continue;
        reached.emplace_back(call.caller);
        world.Internals().TraceText("post", call.caller + " " + payload, world.tracing);
        world.posts.push_back({world.Now(), call.caller, category, method, payload});
    }
    return true;
}

bool VSSubscriptionHasSubscribers(const VSHandle* handle, const char* category, const char* method) noexcept {
    return std::any_of(handle->enrolled.begin(), handle->enrolled.end(),
                       [=](const Enrolled& call) { return call.category == category && call.method == method; });
}

bool VSUnregister(VSHandle* handle, VSError* error) noexcept {
    if (handle == nullptr) return Refuse(error, EINVAL, "no handle", __LINE__, __func__);
    const bool wasLost = handle->lost;
    World::Get().Internals().bus.reset();
    return wasLost ? Refuse(error, ENOTCONN, "the connection was lost", __LINE__, __func__) : true;
}
