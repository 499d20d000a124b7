// Where the device's DNS servers are written down.
#pragma once

#include <string>
#include <systemd/sd-bus.h>
#include <vector>

#include "Ostrel/Address.h"

namespace ostrelctl {

struct DnsSettings {
    std::vector<Ostrel_IPv4> servers;
    std::vector<std::string> search;  // domains that are searched for names without a dot

    bool operator==(const DnsSettings&) const = default;
};

enum class DnsKeeper { Nobody, Resolved, Resolvconf, File };

// Where neither of the two programs is, this file is written from now on, with what all interfaces have; empty: none.
void KeepDnsInFile(const std::string& file);

// The texts with something between them.
[[nodiscard]] std::string Joined(const std::vector<std::string>& texts, const char* between);

// Who keeps them: systemd-resolved when it runs, else a resolvconf program in PATH, else the file.
[[nodiscard]] DnsKeeper FindDnsKeeper(sd_bus* bus);

// "systemd-resolved", "resolvconf", the file.
[[nodiscard]] const char* NameOf(DnsKeeper keeper);

// Hands the keeper the settings of an interface, in place of earlier ones, or takes them back. Returns what went wrong
// in words; empty: nothing.
[[nodiscard]] std::string WriteDns(sd_bus* bus, DnsKeeper keeper, const std::string& interface,
                                   const DnsSettings& settings);
[[nodiscard]] std::string RemoveDns(sd_bus* bus, DnsKeeper keeper, const std::string& interface);

// The command that would do the same, for people to read.
[[nodiscard]] std::string WriteDnsCommand(DnsKeeper keeper, const std::string& interface, const DnsSettings& settings);
[[nodiscard]] std::string RemoveDnsCommand(DnsKeeper keeper, const std::string& interface);

// Labels of 1 to 63 letters, digits, '-' and '_', none beginning with '-', with dots between; 253 bytes at most
// (RFC 1035 section 2.3.4). A stranger wrote it, and programs that read files split and expand.
[[nodiscard]] bool IsDomainName(std::string_view name);

}  // namespace ostrelctl
