// What the event loop needs of the device's watcher (os_device.h).
#pragma once

// Tells the watcher, if there is one, when the device has slept since the last look. The loop calls it before it fires
// alarms: the one that woke the device comes behind the news that it slept.
void DeviceWatchTellIfWoken() noexcept;
