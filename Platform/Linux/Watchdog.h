// A sign of life for the service manager.
#pragma once

// Tells the service manager from now on that the loop goes round, as often as it asked for (WatchdogSec=). Without a
// service manager that asks, does nothing.
void WatchdogStart() noexcept;
void WatchdogStop() noexcept;
