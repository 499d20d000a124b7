// Frames as they are sent and received, with what became of them, for the subscribers of "/" "trace".
//
// Nothing is decoded while nobody subscribes. Of a flood only kMaxFrames a second and interface are told, with the
// number left out, so that a trace costs the daemon no more than a busy network does.

#include <array>
#include <cstdio>
#include <string>

#include "Ostrel/Interface.h"
#include "Ostrel/Publish.h"

#include "Audience.h"
#include "Method.h"
#include "frame_words.h"
#include "os_time.h"

using valdo::JValue;

namespace {

constexpr char kMethod[] = "trace";
constexpr uint32_t kMaxFrames = 200;  // a second and interface

struct TracedFrame {
    const Ostrel_InterfaceObj* iface;
    const char* role;
    Ostrel_Direction direction;
    std::span<const uint8_t> frame;
    const Ostrel_Verdict& verdict;
};

// False when the interface has told enough for this second.
bool TakePlace(Ostrel_TraceSample* sample) {
    const uint64_t second = os_monotonic_milliseconds() / 1000;
    if (sample->second != second) {
        sample->second = second;
        sample->told = 0;
    }
    if (sample->told < kMaxFrames) return ++sample->told > 0;
    ++sample->leftOut;
    return false;
}

JValue XidOf(const frame_words& words) {
    if (!words.xid) return {};
    std::array<char, 9> digits{};
    (void)snprintf(digits.data(), digits.size(), "%08x", *words.xid);
    return digits.data();
}

JValue AddressesOf(const frame_words& words) {
    JValue object = valdo::Object();
    for (const auto& [name, address] : words.addresses) object.put(name, address);
    return object;
}

JValue OptionsOf(const frame_words& words) {
    JValue object = valdo::Object();
    for (const frame_option& option : words.options)
        object.put(*option.name == '\0' ? std::to_string(option.code) : option.name, option.text);
    return object;
}

bool Write(void* /*context*/, const void* what, std::string* text) {
    const auto& traced = *static_cast<const TracedFrame*>(what);
    const frame_words words = frame_words_of(traced.frame);
    JValue object = valdo::Object();
    object.put("returnValue", true);
    object.put("interface", traced.iface->ifname.data());
    object.put("time", os_wall_microseconds());
    object.put("direction", traced.direction == Ostrel_Direction::Received ? "in" : "out");
    object.put("role", traced.role);
    object.put("source", words.source);
    object.put("destination", words.destination);
    object.put("type", words.type);
    object.put("xid", XidOf(words));
    object.put("addresses", AddressesOf(words));
    object.put("options", OptionsOf(words));
    object.put("verdict", Ostrel_VerdictText(traced.verdict));
    object.put("text", words.text);
    OstrelJsonUtilsHexPut(object, "frame", traced.frame);
    if (traced.iface->traceSample.leftOut != 0) object.put("leftOut", traced.iface->traceSample.leftOut);
    return Ostrel_VSUtil_ToText(object, text);
}

bool WriteMissed(uint64_t count, std::string* text) {
    JValue object = valdo::Object();
    object.put("returnValue", true);
    object.put("missed", static_cast<int64_t>(count));
    return Ostrel_VSUtil_ToText(object, text);
}

}  // namespace

bool Ostrel_VoroMethod_Trace(VSHandle* handle, VSMessage* message, void* context) {
    Ostrel_VSUtil_AnswerSubscriber({__func__, nullptr}, handle, message, context);
    return true;
}

void Ostrel_VoroServicePublishFrame(Ostrel_InterfaceObj* iface, const char* role, Ostrel_Direction direction,
                                    std::span<const uint8_t> frame, const Ostrel_Verdict& verdict) {
    const VSHandle* handle = iface->sysObj->serviceHandle;
    if (handle == nullptr || !VSSubscriptionHasSubscribers(handle, "/", kMethod, iface->ifname.data())) return;
    if (!TakePlace(&iface->traceSample)) return;
    const TracedFrame traced{iface, role, direction, frame, verdict};
    Ostrel_VSUtil_Tell(__func__, iface, {"/", kMethod}, {Write, WriteMissed, &traced});
    iface->traceSample.leftOut = 0;
}
