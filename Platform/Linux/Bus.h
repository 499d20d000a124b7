// The bus connection's records, shared by the files that implement VoroBus.h over sd-bus:
//   VoroBus.cpp           connecting, taking the name, leaving
//   BusSource.cpp         the connection as a source of the event loop
//   BusCall.cpp           categories, calls and replies
//   BusSubscription.cpp   enrolled callers and posts
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <systemd/sd-bus.h>
#include <vector>

#include "VoroBus.h"

struct _GSource;
struct _GMainContext;

struct BusDeleter {
    void operator()(sd_bus* bus) const noexcept { sd_bus_close_unref(bus); }
    void operator()(sd_bus_slot* slot) const noexcept { sd_bus_slot_unref(slot); }
    void operator()(sd_bus_message* message) const noexcept { sd_bus_message_unref(message); }
};
using BusPointer = std::unique_ptr<sd_bus, BusDeleter>;
using BusSlot = std::unique_ptr<sd_bus_slot, BusDeleter>;
using BusMessage = std::unique_ptr<sd_bus_message, BusDeleter>;

constexpr int32_t kBusErrorLevel = 8000;

// The longest text sent. The bus daemon's own limit is 32 MiB a message; exceeding it costs the connection.
constexpr size_t kBusMaxText = size_t{32} * 1024 * 1024 - 4096;

struct BusCategory {
    VSHandle* handle;
    std::string path;
    std::string interface;
    const VSMethod* methods;  // not owned
    void* data;               // handed to the methods
    std::vector<sd_bus_vtable> vtable;
    BusSlot object;
};

// The enrolled calls of one caller under one method.
struct BusEnrolment {
    const BusCategory* category;
    const char* method;  // from the category's table
    size_t count;        // at least 1
};

struct BusSubscriber {
    VSHandle* handle;
    std::string name;  // unique on the bus, never used again
    std::vector<BusEnrolment> enrolments;
    BusSlot departure;  // reports the name's leaving
    BusSlot presence;   // asks whether it had left before that
};

struct VSHandle {
    BusPointer bus;
    std::string serviceName;
    _GSource* source = nullptr;  // owned; null when not attached
    bool nameTaken = false;
    bool lost = false;
    std::vector<std::unique_ptr<BusCategory>> categories;
    std::vector<std::unique_ptr<BusSubscriber>> subscribers;  // in the order of their first enrolment
    VSMethodFunction cancelFunction = nullptr;
    void* cancelContext = nullptr;
    size_t postedBytes = 0;  // since nothing waited to be written
};

struct VSMessage {
    sd_bus_message* call;    // null in a cancel function
    const VSMethod* method;  // null in a cancel function
    const BusCategory* category;
    const char* name;     // of the method
    const char* payload;  // "" in a cancel function
    bool answered;
};

// Fills `error` and returns false. `code` is an errno value of either sign.
bool BusFail(VSError* error, int code, const char* what, const char* file = __builtin_FILE(),
             int line = __builtin_LINE(), const char* function = __builtin_FUNCTION()) noexcept;

[[nodiscard]] BusCategory* BusFindCategory(const VSHandle* handle, std::string_view path) noexcept;

// A source of that context which handles the connection's traffic; owned by the caller.
[[nodiscard]] _GSource* BusSourceAttach(VSHandle* handle, _GMainContext* context) noexcept;
void BusSourceDestroy(_GSource* source) noexcept;
