// The service's bus connection on the device, over sd-bus:
//   VoroBus.cpp           connecting, taking the name, leaving
//   BusSource.cpp         the connection as a source of the event loop
//   BusConnection.cpp     calls in, replies, posts and questions out
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <systemd/sd-bus.h>
#include <vector>

#include "BusService.h"

struct _GSource;
struct _GMainContext;

struct BusDeleter {
    void operator()(sd_bus* bus) const noexcept {
        sd_bus_close(bus);
        sd_bus_unref(bus);
    }
    void operator()(sd_bus_slot* slot) const noexcept { sd_bus_slot_unref(slot); }
    void operator()(sd_bus_message* message) const noexcept { sd_bus_message_unref(message); }
};
using BusPointer = std::unique_ptr<sd_bus, BusDeleter>;
using BusSlot = std::unique_ptr<sd_bus_slot, BusDeleter>;
using BusMessage = std::unique_ptr<sd_bus_message, BusDeleter>;

// A category as sd-bus sees it: an object with one interface.
struct BusObject {
    std::string interface;
    std::vector<sd_bus_vtable> vtable;
    BusSlot slot;
};

class SdBusConnection : public BusConnection {
public:
    SdBusConnection(BusPointer opened, const char* name) : bus(std::move(opened)), serviceName(name) {}
    int AddObject(const BusCategory& category) override;
    int SendReply(VSMessage& message, const char* text) override;
    int SendPost(const BusNews& news, const BusPeer& peer) override;
    int Ping(BusPeer& peer) override;
    int Count(BusPeer& peer) override;
    int Watch(BusPeer& peer) override;
    int LookFor(BusPeer& peer) override;
    [[nodiscard]] size_t WaitingBytes() override;

    BusPointer bus;
    const std::string serviceName;
    std::vector<std::unique_ptr<BusObject>> objects;
    _GSource* source = nullptr;  // owned; null when not attached
    bool nameTaken = false;
    bool lost = false;

private:
    int Send(sd_bus_message* message, size_t size);
    std::deque<size_t> waiting;  // sizes of the last messages sent, the newest last
    size_t waitingBytes = 0;     // their sum
};

[[nodiscard]] SdBusConnection& BusOf(const VSHandle* handle) noexcept;

// A source of that context which handles the connection's traffic; owned by the caller.
[[nodiscard]] _GSource* BusSourceAttach(VSHandle* handle, _GMainContext* context) noexcept;
void BusSourceDestroy(_GSource* source) noexcept;
