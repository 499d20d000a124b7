// Timeouts of the roles on the event loop, each registration, reset and cancellation with its line in the log.
//
// A role that waits for a timeout which doesn't exist waits for ever, and nobody sees it. There is nothing that it
// could do instead: what fails is memory or the kernel's timer. So the process says why and ends with a failure, and
// whoever supervises it starts it anew.
#include "Ostrel/Timeout.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>

#include "Ostrel/Interface.h"
#include "Ostrel/Log.h"
#include "Ostrel/System.h"

#include "os_random.h"

namespace {

const char* NameOf(const char* name) {
    return name == nullptr ? "" : name;
}
const char* KindOf(bool rtc) {
    return rtc ? "RTC" : "";
}

void Register(Ostrel_InterfaceObj* iface, void* role, int32_t seconds, int32_t milliseconds,
              eloop_timeout_handler handler, const char* name, bool rtc) {
    const auto wholeSeconds = static_cast<uint32_t>(std::max(seconds, 0));
    const auto rest = static_cast<uint32_t>(std::max(milliseconds, 0));
    const int result = rtc ? eloop_register_timeout_rtc(wholeSeconds, rest, NameOf(name), handler, role, iface)
                           : eloop_register_timeout(wholeSeconds, rest, handler, role, iface);
    if (result == 0) return;
    DebugPrintF(kDebugLevelError, "[%s] No <%s> %s timeout can be had, terminating.\n", iface->ifname.data(),
                NameOf(name), KindOf(rtc));
    iface->sysObj->failure = kOutOfMemoryErr;
    eloop_terminate();
}

int Cancel(Ostrel_InterfaceObj* iface, void* role, eloop_timeout_handler handler, const char* name, bool rtc) {
    if (rtc) return eloop_cancel_timeout_rtc(NameOf(name), handler, role, iface);
    return eloop_cancel_timeout(handler, role, iface);
}

// The event loop counts a delay in signed seconds and what is left over.
struct LoopDelay {
    int32_t seconds;
    int32_t milliseconds;
};

LoopDelay LoopDelayOf(uint64_t milliseconds) {
    return {static_cast<int32_t>(std::min<uint64_t>(milliseconds / 1000, kEloopMaxSeconds)),
            static_cast<int32_t>(milliseconds % 1000)};
}

}  // namespace

void Ostrel_ArmTimeout(Ostrel_InterfaceObj* iface, void* role, const Ostrel_TimeoutKind& kind, uint64_t milliseconds) {
    const LoopDelay delay = LoopDelayOf(milliseconds);
    Ostrel_SetTimeout(iface, role, delay.seconds, delay.milliseconds, kind.handler, kind.name, kind.rtc);
}

void Ostrel_RearmTimeout(Ostrel_InterfaceObj* iface, void* role, const Ostrel_TimeoutKind& kind,
                         uint64_t milliseconds) {
    const LoopDelay delay = LoopDelayOf(milliseconds);
    Ostrel_ResetTimeout(iface, role, delay.seconds, delay.milliseconds, kind.handler, kind.name, kind.rtc);
}

void Ostrel_DisarmTimeout(Ostrel_InterfaceObj* iface, void* role, const Ostrel_TimeoutKind& kind) {
    Ostrel_CancelTimeout(iface, role, kind.handler, kind.name, kind.rtc);
}

void Ostrel_DisarmTimeouts(Ostrel_InterfaceObj* iface, void* role, std::span<const Ostrel_TimeoutKind> kinds) {
    for (const Ostrel_TimeoutKind& kind : kinds) Ostrel_DisarmTimeout(iface, role, kind);
}

void Ostrel_SetTimeout(Ostrel_InterfaceObj* iface, void* role, int32_t seconds, int32_t milliseconds,
                       eloop_timeout_handler handler, const char* name, bool rtc) {
    Register(iface, role, seconds, milliseconds, handler, name, rtc);
    DebugPrintF(kDebugLevelTrace, "[%s] Register <%s> %s timeout for %d secs, %d msecs.\n", iface->ifname.data(),
                NameOf(name), KindOf(rtc), seconds, milliseconds);
}

void Ostrel_ResetTimeout(Ostrel_InterfaceObj* iface, void* role, int32_t seconds, int32_t milliseconds,
                         eloop_timeout_handler handler, const char* name, bool rtc) {
    const bool removed = Cancel(iface, role, handler, name, rtc) != 0;
    Register(iface, role, seconds, milliseconds, handler, name, rtc);
    DebugPrintF(kDebugLevelTrace, "[%s] Reset <%s> %s timeout for %d secs, %d msecs; was %s removed.\n",
                iface->ifname.data(), NameOf(name), KindOf(rtc), seconds, milliseconds, removed ? "" : "NOT");
}

void Ostrel_CancelTimeout(Ostrel_InterfaceObj* iface, void* role, eloop_timeout_handler handler, const char* name,
                          bool rtc) {
    Cancel(iface, role, handler, name, rtc);
    DebugPrintF(kDebugLevelTrace, "[%s] Cancel <%s> %s timeout.\n", iface->ifname.data(), NameOf(name), KindOf(rtc));
}

void Ostrel_RandomizeTimeout(uint32_t minimum, uint32_t maximum, uint32_t* result) {
    if (maximum > minimum) {
        const auto first = static_cast<uint32_t>(std::rand());
        const auto second = static_cast<uint32_t>(std::rand());
        *result = first * second % (maximum - minimum) + minimum;
    } else {
        *result = minimum;
    }
    DebugPrintF(kDebugLevelTrace, "Randomized min (%d msecs) and max (%d msecs) to %d msecs\n", minimum, maximum,
                *result);
}

uint32_t Ostrel_DrawTimeout(bool isSecret, uint32_t minimum, uint32_t maximum) {
    uint32_t drawn = minimum;
    if (!isSecret) {
        Ostrel_RandomizeTimeout(minimum, maximum, &drawn);
        return drawn;
    }
    std::array<uint8_t, sizeof(uint32_t)> bytes{};
    os_random_bytes(bytes);
    if (maximum > minimum) drawn += std::bit_cast<uint32_t>(bytes) % (maximum - minimum);
    return drawn;
}
