// Categories, calls and replies.
//
// A call ends here with exactly one answer: the method's, or an error when its request was too long, when the caller
// takes no replies, when the method threw, or when it came back without an answer. A call that gets an error instead of
// its answer leaves nobody enrolled.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "BusService.h"
#include "DebugServices.h"

namespace {

constexpr char kLimitsExceeded[] = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr char kFailed[] = "org.freedesktop.DBus.Error.Failed";

// Runs the method; false when it threw.
bool Run(VSMessage& message) noexcept {
    try {
        // What it returns adds nothing: an unanswered call is seen in the message.
        (void)message.method->function(message.category->handle, &message, message.category->data);
        return true;
    } catch (...) {
        DebugPrintF(kBusErrorLevel, "%s: %s%s: exception\n", __func__, message.category->path, message.name);
        return false;
    }
}

BusRefusal Refusal(const char* error, std::string text) {
    return {.error = error, .text = std::move(text)};
}

BusRefusal Serve(VSMessage& message) {
    VSHandle* handle = message.category->handle;
    if (!BusTakesReplies(handle, message.caller))
        return Refusal(kLimitsExceeded, "This connection does not read the replies to its calls");
    if (strlen(message.payload) > kVSMaxPayload)
        return Refusal(kLimitsExceeded, "The request is longer than " + std::to_string(kVSMaxPayload) + " bytes");
    const bool ran = Run(message);
    if (message.answered) return {};
    BusWithdraw(message);
    if (message.refusal != nullptr) return Refusal(kLimitsExceeded, message.refusal);
    return Refusal(kFailed, std::string(message.name) + (ran ? " gave no answer" : " failed"));
}

}  // namespace

BusCategory* BusFindCategory(const VSHandle* handle, std::string_view path) noexcept {
    const auto& all = handle->categories;
    const auto found = std::find_if(all.begin(), all.end(), [path](auto& category) { return category->path == path; });
    return found == all.end() ? nullptr : found->get();
}

const VSMethod* BusFindMethod(const BusCategory& category, std::string_view name) noexcept {
    const VSMethod* method = category.methods;
    while (method->name != nullptr && name != method->name) ++method;
    return method->name == nullptr ? nullptr : method;
}

BusRefusal BusServeCall(VSMessage& message) noexcept {
    try {
        BusRefusal refusal = Serve(message);
        // Refusals are replies as well: a caller that reads not even those gets no more of them.
        if (refusal.error != nullptr) refusal.silent = !BusNoteRefusal(message);
        return refusal;
    } catch (...) {
        return {.error = kFailed};
    }
}

bool BusFail(VSError* error, int code, const char* what, const char* file, int line, const char* function) noexcept {
    if (error == nullptr) return false;
    const int positive = std::abs(code);
    error->code = positive;
    (void)snprintf(error->message.data(), error->message.size(), "%s: %s", what, strerror(positive));
    error->file = file;
    error->line = line;
    error->function = function;
    return false;
}

void VSErrorInit(VSError* error) noexcept {
    if (error != nullptr) *error = VSError{0, {}, "", 0, ""};
}

void VSErrorFree(VSError* error) noexcept {
    VSErrorInit(error);
}

bool VSRegisterCategory(VSHandle* handle, const char* category, const VSMethod* methods, const VSSignal* signals,
                        const VSProperty*, VSError* error) noexcept {
    if (handle == nullptr || methods == nullptr || category == nullptr || category[0] != '/')
        return BusFail(error, EINVAL, "not a category");
    if (BusFindCategory(handle, category) != nullptr) return BusFail(error, EEXIST, "the category is registered");
    try {
        auto& added = handle->categories.emplace_back(
            std::make_unique<BusCategory>(BusCategory{handle, category, methods, signals, nullptr}));
        const int status = handle->connection->AddObject(*added);
        if (status >= 0) return true;
        handle->categories.pop_back();
        return BusFail(error, status, "the category cannot be registered");
    } catch (...) {
        return BusFail(error, ENOMEM, "no memory for the category");
    }
}

bool VSCategorySetData(VSHandle* handle, const char* category, void* data, VSError* error) noexcept {
    BusCategory* found = handle == nullptr || category == nullptr ? nullptr : BusFindCategory(handle, category);
    if (found == nullptr) return BusFail(error, ENOENT, "no such category");
    found->data = data;
    return true;
}

const char* VSMessageGetPayload(VSMessage* message) noexcept {
    return message->payload;
}

void VSMessageSetRequest(VSMessage* message, const valdo::JValue& request) noexcept {
    message->request = request;
}

const char* VSMessageGetMethod(VSMessage* message) noexcept {
    return message->name;
}

bool VSMessageReply(VSHandle* handle, VSMessage* message, const char* payload, VSError* error) noexcept {
    if (handle == nullptr || message == nullptr || message->call == nullptr || payload == nullptr)
        return BusFail(error, EINVAL, "nothing to answer");
    if (message->answered) return BusFail(error, EALREADY, "the call has been answered");
    const size_t length = strlen(payload);
    message->refusal = BusWhyNotSend(*handle, length);
    if (message->refusal != nullptr) return BusFail(error, EMSGSIZE, message->refusal);
    try {
        const int sent = handle->connection->SendReply(*message, payload);
        if (sent < 0) return BusFail(error, sent, "the reply cannot be sent");
        message->answered = true;
        BusNoteReply(*message, length);
        return true;
    } catch (...) {
        return message->answered || BusFail(error, ENOMEM, "no memory for the reply");
    }
}
