// Names of hosts in requests (RFC 1123 section 2.1).
//
// No host should have an underscore in its name, but many do, and servers take it.

#include "HostNames.h"

#include <algorithm>

namespace {

constexpr size_t kMaxLabel = 63;  // RFC 1035 section 2.3.4
constexpr size_t kMaxName = 253;  // as text; 255 bytes on the wire

bool IsOfName(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

bool IsLabel(std::string_view label) {
    return !label.empty() && label.size() <= kMaxLabel && std::all_of(label.begin(), label.end(), IsOfName) &&
           label.front() != '-' && label.back() != '-';
}

bool IsHostName(std::string_view name) {
    while (true) {
        const size_t dot = name.find('.');
        if (!IsLabel(name.substr(0, dot))) return false;
        if (dot == std::string_view::npos) return true;
        name.remove_prefix(dot + 1);
    }
}

}  // namespace

Ostrel_Status Ostrel_VSUtil_ReadHostName(const OstrelJsonField& field, std::string* name) {
    std::string read;
    const Ostrel_Status status = OstrelJsonReadText(field, {1, kMaxName}, &read);
    if (status != kNoErr) return status;
    if (!IsHostName(read)) return OstrelJsonRefuse(field, "a host name such as camera or camera.lab.example is wanted");
    *name = std::move(read);
    return kNoErr;
}
