// Categories, calls and replies.
//
// A category is an object with one interface, on which every method takes one text and returns one. Whoever may call is
// the bus policy's business. A call ends here with exactly one answer: the method's, or an error when its request was
// too long, when it threw, or when it came back without an answer.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <systemd/sd-bus.h>

#include "Bus.h"
#include "DebugServices.h"
#include "VoroBus.h"

namespace {

int OnCall(sd_bus_message* call, void* context, sd_bus_error* error);

const sd_bus_vtable kTableStart = SD_BUS_VTABLE_START(0);
const sd_bus_vtable kTableMethod = SD_BUS_METHOD_WITH_NAMES("", "s", SD_BUS_PARAM(request), "s", SD_BUS_PARAM(reply),
                                                            OnCall, SD_BUS_VTABLE_UNPRIVILEGED);
const sd_bus_vtable kTableSignal = SD_BUS_SIGNAL_WITH_NAMES("", "s", SD_BUS_PARAM(update), 0);
const sd_bus_vtable kTableEnd = SD_BUS_VTABLE_END;

const VSMethod* FindMethod(const BusCategory& category, const char* name) {
    const VSMethod* method = category.methods;
    while (method->name != nullptr && strcmp(method->name, name) != 0) ++method;
    return method->name == nullptr ? nullptr : method;
}

// Runs the method; false when it threw.
bool Run(VSMessage& message) {
    try {
        // What it returns adds nothing: an unanswered call is seen in the message.
        (void)message.method->function(message.category->handle, &message, message.category->data);
        return true;
    } catch (...) {
        DebugPrintF(kBusErrorLevel, "%s: %s%s: exception\n", __func__, message.category->path, message.name);
        return false;
    }
}

int OnCall(sd_bus_message* call, void* context, sd_bus_error*) {
    const auto* category = static_cast<const BusCategory*>(context);
    const VSMethod* method = FindMethod(*category, sd_bus_message_get_member(call));
    const char* payload = nullptr;
    const int read = sd_bus_message_read_basic(call, SD_BUS_TYPE_STRING, &payload);
    if (read < 0) return read;
    if (method == nullptr) return -EBADR;
    if (strlen(payload) > kVSMaxPayload)
        return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_LIMITS_EXCEEDED, "The request is longer than %zu bytes",
                                          kVSMaxPayload);

    VSMessage message{call, method, category, method->name, payload, false};
    const bool ran = Run(message);
    if (message.answered) return 1;
    return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_FAILED, ran ? "%s gave no answer" : "%s failed", method->name);
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

}  // namespace

BusCategory* BusFindCategory(const VSHandle* handle, std::string_view path) noexcept {
    const auto& all = handle->categories;
    const auto found = std::find_if(all.begin(), all.end(), [path](auto& category) { return category->path == path; });
    return found == all.end() ? nullptr : found->get();
}

bool VSRegisterCategory(VSHandle* handle, const char* category, const VSMethod* methods, const VSSignal* signals,
                        const VSProperty*, VSError* error) noexcept {
    if (handle == nullptr || methods == nullptr || category == nullptr || category[0] != '/')
        return BusFail(error, EINVAL, "not a category");
    try {
        auto created = std::make_unique<BusCategory>();
        created->handle = handle;
        created->path = category;
        created->interface = InterfaceOf(handle->serviceName, category);
        created->methods = methods;
        created->vtable = BuildTable(methods, signals);
        handle->categories.reserve(handle->categories.size() + 1);
        sd_bus_slot* slot = nullptr;
        const int added = sd_bus_add_object_vtable(handle->bus.get(), &slot, category, created->interface.c_str(),
                                                   created->vtable.data(), created.get());
        if (added < 0) return BusFail(error, added, "the category cannot be registered");
        created->object.reset(slot);
        handle->categories.push_back(std::move(created));
        return true;
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

const char* VSMessageGetMethod(VSMessage* message) noexcept {
    return message->name;
}

bool VSMessageReply(VSHandle*, VSMessage* message, const char* payload, VSError* error) noexcept {
    if (message == nullptr || message->call == nullptr || payload == nullptr)
        return BusFail(error, EINVAL, "nothing to answer");
    if (message->answered) return BusFail(error, EALREADY, "the call has been answered");
    if (strlen(payload) > kBusMaxText) return BusFail(error, EMSGSIZE, "the reply is too long for the bus");
    sd_bus_message* created = nullptr;
    int status = sd_bus_message_new_method_return(message->call, &created);
    if (status < 0) return BusFail(error, status, "the reply cannot be made");
    const BusMessage reply(created);
    status = sd_bus_message_append_basic(created, SD_BUS_TYPE_STRING, payload);
    if (status < 0) return BusFail(error, status, "the reply cannot be written");
    status = sd_bus_send(nullptr, created, nullptr);
    if (status < 0) return BusFail(error, status, "the reply cannot be sent");
    message->answered = true;
    return true;
}
