// In which order the trace tells frames: what was received, then what was sent because of it.
#include <utility>

#include "Ostrel/Publish.h"

#include "wpabuf.h"

void Ostrel_TraceReceiving(Ostrel_InterfaceObj* iface, const char* role, std::span<const uint8_t> frame) {
    if (Ostrel_TraceIsWanted(iface)) iface->frameUnderWay = {role, frame};
}

void Ostrel_TraceReceived(Ostrel_InterfaceObj* iface, const Ostrel_Verdict& verdict) {
    const Ostrel_FrameUnderWay frame = std::exchange(iface->frameUnderWay, {});
    if (frame.bytes.empty()) return;
    Ostrel_VoroServicePublishFrame(iface, frame.role, Ostrel_Direction::Received, frame.bytes, verdict);
}

void Ostrel_TraceSent(Ostrel_InterfaceObj* iface, const char* role, const Ostrel_Verdict& verdict) {
    if (!Ostrel_TraceIsWanted(iface)) return;
    Ostrel_TraceReceived(iface, {});
    Ostrel_VoroServicePublishFrame(iface, role, Ostrel_Direction::Sent, wpabuf_bytes(iface->txFrame), verdict);
}
