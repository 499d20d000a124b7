// A DHCPACK becomes a lease.
//
// Lease time and server identifier must be there. By the plain rules the mask must be, too, an option of a wrong length
// fails the whole message, and values are taken as given. By the rfc rules what cannot be read is left out where the
// lease is good without it, and the values must be such that a host can live by them.
#include <array>
#include <bit>
#include <cstring>
#include <endian.h>

#include "Ostrel/Check.h"
#include "Ostrel/Log.h"

#include "DHCPClient/Machine.h"
#include "os_time.h"

namespace {

// The data of an option that is present, without a word in the log.
std::span<const uint8_t> DataOf(const Ostrel_OptionIndex& options, uint8_t code) {
    const size_t at = options.offsets[code];
    return options.area.subspan(at + kOptionHeader, options.area[at + 1]);
}

// A reading under way, and what has kept it from succeeding.
struct Reading {
    const Ostrel_ClientObj* client;
    const Ostrel_OptionIndex& options;
    Ostrel_ClientLease& lease;
    Ostrel_Verdict& fault;
};

// A status that ends the reading, for what is wrong with an option.
Ostrel_Status Blame(const Reading& reading, uint8_t code, Ostrel_Status status) {
    if (status != kNoErr) reading.fault = Ostrel_DHCPClientFaultOf(reading.options, code, status);
    return status;
}

// What becomes of an option that may be absent: one in no usable shape fails the message, or is left out. One that
// there is no memory for fails it always: the next answer has it again.
Ostrel_Status Optional(const Reading& reading, uint8_t code, Ostrel_Status status) {
    const Ostrel_ClientObj* const client = reading.client;
    if (status == kNoErr || status == kEndingErr) return kNoErr;
    if (!client->rules->valuesAreChecked || status == kOutOfMemoryErr) return Blame(reading, code, status);
    if (status == kTooShortErr) return kNoErr;  // absent, from options that have no end
    DebugPrintF(kDebugLevelInfo, "[%s] DHCP Client leaves out option %d, which is in no usable shape.\n",
                client->iface->ifname.data(), code);
    return kNoErr;
}

// Defaults of RFC 2131 section 4.4.5.
void SetDefaultTimes(Ostrel_ClientLease& lease) {
    lease.renewalTime = lease.leaseTime / 2;
    lease.rebindingTime = static_cast<uint32_t>(uint64_t{lease.leaseTime} * 7 / 8);
}

Ostrel_Status ReadTimes(const Reading& reading) {
    const auto& [client, options, lease, fault] = reading;
    Ostrel_Status status = Ostrel_BOOTPPacketFindOptionAsUint32(options, kOptionLeaseTime, &lease.leaseTime);
    if (status != kNoErr) return Blame(reading, kOptionLeaseTime, status);
    SetDefaultTimes(lease);
    status = Ostrel_BOOTPPacketFindOptionAsUint32(options, kOptionRenewalTime, &lease.renewalTime);
    status = Optional(reading, kOptionRenewalTime, status);
    OSTREL_REQUIRE(status == kNoErr, "( ( err == kNoErr ) || ( err == kEndingErr ) )", status);
    status = Ostrel_BOOTPPacketFindOptionAsUint32(options, kOptionRebindingTime, &lease.rebindingTime);
    status = Optional(reading, kOptionRebindingTime, status);
    OSTREL_REQUIRE(status == kNoErr, "( ( err == kNoErr ) || ( err == kEndingErr ) )", status);
    return kNoErr;
}

// The mask of an address's class (RFC 791 section 3.2), for a server that says none.
Ostrel_IPv4 ClassMaskOf(Ostrel_IPv4 address) {
    const uint32_t first = be32toh(address) >> 24;
    return htobe32(first < 128 ? 0xFF000000 : first < 192 ? 0xFFFF0000 : 0xFFFFFF00);
}

Ostrel_Status ReadMask(const Reading& reading) {
    const auto& [client, options, lease, fault] = reading;
    if (client->rules->valuesAreChecked && !options.present[kOptionSubnetMask]) {
        lease.IPv4SubnetMask = ClassMaskOf(lease.IPv4Address);
        return kNoErr;
    }
    const Ostrel_Status status = Ostrel_BOOTPPacketFindOptionAsIPv4(options, kOptionSubnetMask, &lease.IPv4SubnetMask);
    return Blame(reading, kOptionSubnetMask, status);
}

Ostrel_Status ReadAddresses(const Ostrel_OptionIndex& options, uint8_t code, os_array<Ostrel_IPv4>& addresses,
                            int32_t& number) {
    std::span<const uint8_t> data;
    Ostrel_Status status = Ostrel_BOOTPPacketFindOptionAsString(options, code, &data);
    if (status != kNoErr) return status;
    uint32_t count = 0;
    status = Ostrel_BOOTPPacketProcessOptionAsIPv4Array(data, &addresses, &count);
    if (status == kNoErr) number = static_cast<int32_t>(count);
    return status;
}

Ostrel_Status ReadDomainName(const Ostrel_OptionIndex& options, Ostrel_ClientLease& lease) {
    std::span<const uint8_t> name;
    const Ostrel_Status status = Ostrel_BOOTPPacketFindOptionAsString(options, kOptionDomainName, &name);
    if (status != kNoErr) return status;
    lease.domainName = os_copy_array<char>({reinterpret_cast<const char*>(name.data()), name.size()}, 1);
    OSTREL_REQUIRE(lease.domainName != nullptr, "lease->domainName", kOutOfMemoryErr);
    lease.domainNameLen = static_cast<uint32_t>(name.size());
    return kNoErr;
}

// Those that a caller asked for.
Ostrel_Status ReadCallersOptions(const Ostrel_ClientObj* client, const Ostrel_PreprocessedPacket& packet,
                                 Ostrel_ClientLease& lease) {
    if (client->numWantedOptions == 0) return kNoErr;
    const std::span<const uint8_t> codes{client->wantedOptions.get(), client->numWantedOptions};
    return Ostrel_BOOTPPacketCollectOptions(packet, codes, &lease.options);
}

bool IsContiguous(Ostrel_IPv4 mask) {
    const uint32_t bits = be32toh(mask);
    return bits != 0 && std::countl_one(bits) == std::popcount(bits);
}

Ostrel_Status CheckValues(const Reading& reading) {
    const auto& [client, options, lease, fault] = reading;
    if (!client->rules->valuesAreChecked) return kNoErr;
    fault = {.kind = Ostrel_VerdictKind::Malformed, .state = "no host's address"};
    OSTREL_REQUIRE(Ostrel_IsOfHost(lease.IPv4Address), "IsOfHost( lease->IPv4Address )", kBadParamErr);
    fault = {.kind = Ostrel_VerdictKind::Malformed, .state = "is no mask", .option = kOptionSubnetMask};
    OSTREL_REQUIRE(IsContiguous(lease.IPv4SubnetMask), "IsContiguous( lease->IPv4SubnetMask )", kBadParamErr);
    fault = {.kind = Ostrel_VerdictKind::Malformed, .state = "is 0", .option = kOptionLeaseTime};
    OSTREL_REQUIRE(lease.leaseTime != 0, "( lease->leaseTime != 0 )", kBadParamErr);
    const bool isAnotherAddress = client->iface->leaseIsHeld && lease.IPv4Address != client->lease.IPv4Address;
    fault = {.kind = Ostrel_VerdictKind::Malformed, .state = "another address than the one that is held"};
    OSTREL_REQUIRE(!isAnotherAddress, "( lease->IPv4Address == client->lease.IPv4Address )", kBadParamErr);
    fault = {};
    if (lease.renewalTime < lease.rebindingTime && lease.rebindingTime < lease.leaseTime) return kNoErr;
    SetDefaultTimes(lease);
    return kNoErr;
}

Ostrel_Status ReadOptional(const Reading& reading) {
    const auto& [client, options, lease, fault] = reading;
    Ostrel_Status status = ReadAddresses(options, kOptionRouter, lease.IPv4Routers, lease.numIPv4Routers);
    status = Optional(reading, kOptionRouter, status);
    if (status != kNoErr) return status;
    status = ReadAddresses(options, kOptionDomainNameServer, lease.IPv4DNSServers, lease.numIPv4DNSServers);
    status = Optional(reading, kOptionDomainNameServer, status);
    if (status != kNoErr) return status;
    return Optional(reading, kOptionDomainName, ReadDomainName(options, lease));
}

}  // namespace

Ostrel_IPv4 Ostrel_DHCPClientRefuserOf(const Ostrel_PreprocessedPacket& packet) {
    Ostrel_IPv4 server = packet.ipHdr->src;
    const Ostrel_OptionIndex& options = Ostrel_OptionsOf(packet);
    if (!options.present[kOptionServerIdentifier]) return server;
    const std::span<const uint8_t> data = DataOf(options, kOptionServerIdentifier);
    if (data.size() == sizeof server) std::memcpy(&server, data.data(), sizeof server);
    return server;
}

Ostrel_Verdict Ostrel_DHCPClientFaultOf(const Ostrel_OptionIndex& options, uint8_t code, Ostrel_Status status) {
    if (status == kOutOfMemoryErr) return {.kind = Ostrel_VerdictKind::Failed};
    if (!options.present[code]) return {.kind = Ostrel_VerdictKind::Malformed, .state = "is missing", .option = code};
    const auto length = static_cast<uint32_t>(DataOf(options, code).size());
    return {.kind = Ostrel_VerdictKind::Malformed, .option = code, .optionLength = length};
}

Ostrel_Status Ostrel_DHCPClientReadLease(const Ostrel_ClientObj* client, const Ostrel_PreprocessedPacket& packet,
                                         Ostrel_ClientLease& lease, Ostrel_Verdict& fault) {
    const Ostrel_OptionIndex& options = Ostrel_OptionsOf(packet);
    const Reading reading{client, options, lease, fault};
    lease.leaseAcquired = os_monotonic_seconds();
    lease.serverMAC = packet.ethHdr->src;
    lease.serverIPv4Address = packet.ipHdr->src;
    lease.IPv4Address = packet.dhcpPkt->yiaddr;

    Ostrel_Status status = ReadTimes(reading);
    if (status != kNoErr) return status;
    status = Ostrel_BOOTPPacketFindOptionAsIPv4(options, kOptionServerIdentifier, &lease.serverIdentifier);
    if (status != kNoErr) return Blame(reading, kOptionServerIdentifier, status);
    status = ReadMask(reading);
    if (status != kNoErr) return status;
    status = CheckValues(reading);
    if (status != kNoErr) return status;
    status = ReadOptional(reading);
    if (status != kNoErr) return status;
    status = ReadCallersOptions(client, packet, lease);
    fault = {.kind = status == kNoErr ? Ostrel_VerdictKind::Taken : Ostrel_VerdictKind::Failed};
    if (status != kNoErr) return status;

    // Unsigned whatever their order.
    lease.renewRetryTime = lease.rebindingTime - lease.renewalTime;
    lease.rebindRetryTime = lease.leaseTime - lease.rebindingTime;
    return kNoErr;
}
