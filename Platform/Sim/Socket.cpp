// Interfaces of the simulated device and the link-layer sockets on them.
//
// What a socket hears is what Platform/Include/l2_packet.h promises: nothing before its program is installed, no VLAN
// but 0, nothing that the interface itself sent. Equal programs are kept once, and each is run once for a frame on the
// wire however many sockets have it installed: two hundred clients on one segment share three programs.

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "FilterInterpreter.h"
#include "Internals.h"
#include "LogLimit.h"
#include "os_memory.h"

namespace sim {
namespace {

constexpr size_t kHeader = 14;       // bytes of an Ethernet header
constexpr size_t kTag = 4;           // bytes of a VLAN tag, behind the addresses
constexpr size_t kAddresses = 12;    // bytes of both addresses
constexpr uint8_t kVLANMask = 0x0F;  // of the first byte of a tag's identifier

size_t InternProgram(std::span<const l2_filter_instruction> program) {
    auto& programs = World::Get().Internals().programs;
    const auto isSame = [program](const std::vector<l2_filter_instruction>& known) {
        return known.size() == program.size() && std::memcmp(known.data(), program.data(), program.size_bytes()) == 0;
    };
    const auto found = std::find_if(programs.begin(), programs.end(), isSame);
    const auto index = static_cast<size_t>(found - programs.begin());
    if (found == programs.end()) programs.emplace_back(program.begin(), program.end());
    return index;
}

// The bytes of the frame that the program passes.
size_t Judge(size_t program, std::span<const uint8_t> frame) {
    World::State& state = World::Get().Internals();
    const bool isOnWire = state.frameOnWire != nullptr && state.frameOnWire->data() == frame.data();
    if (isOnWire && program < state.verdicts.size() && state.verdicts[program] >= 0) {
        return static_cast<size_t>(state.verdicts[program]);
    }
    const size_t passed = std::min<size_t>(RunFilter(state.programs[program], frame), frame.size());
    if (isOnWire && program < state.verdicts.size()) state.verdicts[program] = static_cast<int64_t>(passed);
    return passed;
}

}  // namespace

void Interface::Receive(std::span<const uint8_t> frame) {
    if (!up || !plugged || World::Get().Internals().device.asleep || frame.size() > kL2MaxFrame) return;
    MAC destination{};
    std::copy_n(frame.begin(), std::min(frame.size(), destination.size()), destination.begin());
    if (frame.size() >= kHeader && !IsBehind(destination)) return;
    if (frame.size() < kHeader + kTag || frame[kAddresses] != 0x81 || frame[kAddresses + 1] != 0x00) {
        return Deliver(frame);
    }
    if ((frame[kHeader] & kVLANMask) != 0 || frame[kHeader + 1] != 0) return;
    Frame untagged(frame.begin(), frame.end());
    untagged.erase(untagged.begin() + kAddresses, untagged.begin() + kAddresses + kTag);
    Deliver(untagged);
}

void Interface::Deliver(std::span<const uint8_t> frame) {
    static constexpr std::array<uint8_t, kAddresses> kNoAddresses{};
    const uint8_t* const source = (frame.size() < kAddresses ? kNoAddresses.data() : frame.data()) + kAddresses / 2;
    const LogFrameScope aFrameIsHandled;
    ++deliveries;
    const size_t count = sockets.size();  // one that is opened meanwhile hears the next frame
    for (size_t i = 0; i < count; ++i) {
        l2_packet_data* const socket = sockets[i];
        if (socket == nullptr || socket->program == 0) continue;
        const size_t passed = Judge(socket->program - 1, frame);
        if (passed == 0) continue;
        socket->receiving = true;
        socket->callback(socket->context, source, frame.first(passed));
        if (sockets[i] == socket) socket->receiving = false;
    }
    if (--deliveries == 0) std::erase(sockets, nullptr);
}

bool Interface::IsBehind(const MAC& destination) const {
    const bool isGroup = (destination[0] & 1) != 0;
    return isGroup || destination == mac;
}

int Interface::Send(std::span<const uint8_t> frame) {
    if (frame.size() > mtu + kHeader) ++World::Get().framesTooLong;
    if (!up) return -ENETDOWN;
    if (frame.size() < kHeader) return -EINVAL;
    if (frame.size() > mtu + kHeader) return -EMSGSIZE;
    if (Refuses(DeviceCall::Send)) return -ENOBUFS;
    if (faultySends != 0) {
        --faultySends;
        if (fault == SendFault::Error) return -ENOBUFS;
        if (fault == SendFault::Short) return static_cast<int>(frame.size()) - 1;
    }
    if (!plugged) return static_cast<int>(frame.size());  // the kernel takes it, and drops it
    if (World::onEverySend) World::onEverySend(*this, frame);
    if (World::Get().onSend) World::Get().onSend(frame);
    segment.Send(*this, frame);
    return static_cast<int>(frame.size());
}

void Interface::Close(const l2_packet_data* socket) {
    std::replace(sockets.begin(), sockets.end(), const_cast<l2_packet_data*>(socket),
                 static_cast<l2_packet_data*>(nullptr));
    if (deliveries == 0) std::erase(sockets, nullptr);
}

Interface* World::State::FindInterface(std::string_view ifname) const {
    for (const std::unique_ptr<Interface>& interface : interfaces) {
        if (interface->name == ifname) return interface.get();
    }
    return nullptr;
}

}  // namespace sim

using sim::World;

l2_packet_data* l2_packet_init(const char* ifname, const uint8_t*, uint16_t, l2_packet_callback callback, void* context,
                               int l2Header) noexcept {
    World& world = World::Get();
    if (l2Header != 1) return nullptr;
    sim::Interface* const interface = world.Internals().FindInterface(ifname);
    if (interface == nullptr || !world.rawSocketsAllowed || sim::Refuses(sim::DeviceCall::OpenSocket)) return nullptr;
    auto* const socket = os_new<l2_packet_data>();
    if (socket == nullptr) return nullptr;
    *socket = {interface, callback, context, 0, interface->mac, interface->mtu, false};
    interface->sockets.push_back(socket);
    ++world.Internals().openSockets;
    return socket;
}

int l2_packet_install_filter(l2_packet_data* l2, std::span<const l2_filter_instruction> program) noexcept {
    if (l2 == nullptr || program.size() > kL2MaxProgram || !sim::IsFilterValid(program) ||
        sim::Refuses(sim::DeviceCall::Filter))
        return -1;
    l2->program = sim::InternProgram(program) + 1;
    return 0;
}

int l2_packet_get_own_addr(const l2_packet_data* l2, std::array<uint8_t, 6>& address) noexcept {
    if (l2 == nullptr) return -1;
    address = l2->address;
    return 0;
}

uint32_t l2_packet_get_mtu(const l2_packet_data* l2) noexcept {
    return l2 == nullptr ? 0 : l2->mtu;
}

int l2_packet_send(l2_packet_data* l2, const uint8_t* destination, uint16_t protocol,
                   std::span<const uint8_t> frame) noexcept {
    if (l2 == nullptr || destination != nullptr || protocol != 0) return -EINVAL;
    if (l2->receiving && frame.size() > kL2MaxFrame) return -EMSGSIZE;
    const int sent = l2->interface == nullptr ? -ENXIO : l2->interface->Send(frame);
    // From its own callback it is only sent later, and what fails then is lost.
    return sent < 0 && l2->receiving ? static_cast<int>(frame.size()) : sent;
}

void l2_packet_deinit(l2_packet_data* l2) noexcept {
    if (l2 == nullptr) return;
    if (l2->interface != nullptr) l2->interface->Close(l2);
    --World::Get().Internals().openSockets;
    os_delete(l2);
}
