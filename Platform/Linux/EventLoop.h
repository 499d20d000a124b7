// What the parts of the Linux platform need of the event loop beyond eloop.h.
#pragma once

#include <glib-unix.h>

// Watches `fd` for the condition, by default input, and for errors from the default main context, the loop's. The
// caller owns the source: it ends the watch with EventLoopUnwatch, before it closes `fd`; the loop may be gone by then,
// or not be there yet.
[[nodiscard]] GSource* EventLoopWatch(int fd, GUnixFDSourceFunc callback, void* data,
                                      GIOCondition condition = G_IO_IN) noexcept;

// Tells the loop that the source's callback never runs it. To be called before the source is attached.
void EventLoopRunsFlat(GSource* source) noexcept;

// Ends a watch and clears the pointer. Null is ignored.
void EventLoopUnwatch(GSource*& source) noexcept;

// True from eloop_terminate on. A callback that handles several events looks here between two of them, so that nothing
// runs after the one that ended the loop.
[[nodiscard]] bool EventLoopIsEnding() noexcept;
