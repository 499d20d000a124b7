// What a server is to hand out beside the usual, as words of the command line: addresses for certain stations, options.
#pragma once

#include <string>
#include <vector>

#include "Ostrel/Address.h"

#include "valdo.h"

namespace ostrelctl {

// "02:00:5e:10:00:01=192.0.2.7", with ",camera" behind it if the station is to be called so.
struct FixedLease {
    std::string mac;
    Ostrel_IPv4 address = kAnyIPv4;
    std::string hostName;
};

// "ntp=192.0.2.3", "66=boot.lab.example", "43=hex:0104c0000201". Exactly one way to say it is filled in.
struct ServedOption {
    uint32_t code = 0;
    std::vector<Ostrel_IPv4> addresses;
    std::string text, hex;
};

// False, with the output untouched, unless the whole text is one.
[[nodiscard]] bool ReadFixed(const std::string& text, FixedLease& fixed);
[[nodiscard]] bool ReadServedOption(const std::string& text, ServedOption& option);

// What stands for a code, for those who wrote another word.
[[nodiscard]] std::string OptionWords();

// The keys "fixed" and "options"; nothing for none.
void PutFixed(valdo::JValue& request, const std::vector<FixedLease>& fixed);
void PutServedOptions(valdo::JValue& request, const std::vector<ServedOption>& options);

}  // namespace ostrelctl
