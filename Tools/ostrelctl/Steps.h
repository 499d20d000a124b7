// From what an interface has to what it should have: the steps of apply.
#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "Bus.h"
#include "Holding.h"
#include "Netlink.h"
#include "Resolver.h"

namespace ostrelctl {

// What a lease gives an interface. Without an address all else is empty.
struct Setting {
    Ostrel_IPv4 address = kAnyIPv4;
    unsigned prefixLength = 0;
    bool linkLocal = false;
    TimePoint ends = kNever;
    std::vector<LeaseRoute> routes;
    uint32_t mtu = 0;  // 0: as it is
    DnsSettings dns;
    std::string unused;  // what else there is, in words
};

struct Applier {
    // What to work on, and how.
    std::string interface {};
    uint32_t metric = 0;
    bool dryRun = false;  // the steps are printed as commands, and not done
    bool quiet = false;   // the steps are not printed
    NetlinkSocket netlink{};
    sd_bus* bus = nullptr;

    // What has come of it: `has` is what was applied, and is ours to change.
    Setting has{};
    bool addressIsForeign = false;  // it was there already, without end
    uint32_t mtuBefore = 0;         // what the interface had before ours; 0: it has not got ours
    DnsKeeper dnsKeeper = DnsKeeper::Nobody;
    unsigned dnsIndex = 0;    // the interface's number when the DNS servers were written
    bool dnsFailed = false;   // they could not be written; the next renewal tries again
    bool saidNobody = false;  // that nobody keeps them
    bool failed = false;      // something of the last round
    bool forbidden = false;   // the kernel has refused for want of rights
    std::string steps{};      // done in this round
    std::string lastSteps{};  // done in the last one

    // Complaints of this round and the last: what stays wrong is said once.
    std::set<std::string> complaints{}, lastComplaints{};
};

// Makes the interface have what is wanted, an empty setting for nothing, and puts back of it what somebody else has
// taken away. What fails is complained about, and tried again the next time.
void Bring(Applier& applier, const Setting& wanted);

void ComplainOnce(Applier& applier, const std::string& problem, const std::string& next);

}  // namespace ostrelctl
