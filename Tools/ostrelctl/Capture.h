// Frames in a file that tshark and others read: the classic capture format.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>

#include "Exit.h"

namespace ostrelctl {

struct FileClose {
    void operator()(FILE* file) const { (void)fclose(file); }
};
using CaptureFile = std::unique_ptr<FILE, FileClose>;

// Opens the file anew, or standard output for "-", and writes its head. Complains on failure.
[[nodiscard]] ExitStatus OpenCapture(const std::string& name, CaptureFile& file);

// Appends an Ethernet frame, seen at a time of microseconds since 1970, so that whoever reads the file at the same time
// gets it whole. False when it could not be written.
[[nodiscard]] bool WriteFrame(FILE* file, int64_t time, std::span<const uint8_t> frame);

}  // namespace ostrelctl
