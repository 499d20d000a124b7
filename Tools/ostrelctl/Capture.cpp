// Frames in a file that tshark and others read: the classic capture format, as libpcap writes it.
#include "Capture.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "Terminal.h"

namespace ostrelctl {

namespace {

constexpr uint32_t kMagic = 0xA1B2C3D4;  // in the byte order of this machine, with times in microseconds
constexpr uint32_t kVersion = 2 | 4 << 16;
constexpr uint32_t kSnapLength = 65535;  // bytes: the longest frame
constexpr uint32_t kEthernet = 1;        // LINKTYPE_ETHERNET
constexpr int64_t kSecond = 1'000'000;   // microseconds

bool IsWritten(FILE* file, std::span<const uint32_t> words, std::span<const uint8_t> bytes) {
    return fwrite(words.data(), sizeof(uint32_t), words.size(), file) == words.size() &&
           (bytes.empty() || fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size()) && fflush(file) == 0;
}

}  // namespace

ExitStatus OpenCapture(const std::string& name, CaptureFile& file) {
    file.reset(name == "-" ? fdopen(dup(STDOUT_FILENO), "wb") : fopen(name.c_str(), "wbe"));
    const std::array<uint32_t, 6> head{kMagic, kVersion, 0, 0, kSnapLength, kEthernet};
    if (file != nullptr && IsWritten(file.get(), head, {})) return kExitDone;
    return Refuse(kExitRefused, '\'' + Printable(name) + "' cannot be written: " + std::strerror(errno), "");
}

bool WriteFrame(FILE* file, int64_t time, std::span<const uint8_t> frame) {
    const auto length = static_cast<uint32_t>(frame.size());
    const std::array<uint32_t, 4> head{static_cast<uint32_t>(time / kSecond), static_cast<uint32_t>(time % kSecond),
                                       length, length};
    return IsWritten(file, head, frame);
}

}  // namespace ostrelctl
