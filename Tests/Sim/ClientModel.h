// The DHCP client's plain rules a second time, as slowly and plainly as they can be told; ClientPlay.h plays the
// client and this at one table.
#pragma once

#include "ClientBooks.h"
#include "ClientMessage.h"

namespace sim::model {

class ClientModel : ClientMessage {
public:
    ClientModel(DeviceModel& onDevice, const ClientConfig& withConfig) : ClientMessage(onDevice), config(withConfig) {
        isStatic = config.config == "static";
        isManual = config.config == "dhcpManualAddress";
        if (isStatic || isManual) lease.address = ToIPv4(config.address);
        if (isStatic) {
            lease.mask = ToIPv4(config.mask);
            lease.routers = {ToIPv4(config.router)};
            for (const std::string& server : config.dnsServers) {
                if (ToIPv4(server) == 0) break;
                lease.dnsServers.push_back(ToIPv4(server));
            }
            lease.domain = config.domainName;
        }
        identifier = {1, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
        if (config.identifier) {
            identifier = {0};
            Append(identifier, {config.identifier->begin(), config.identifier->end()});
        }
        if (isStatic)
            Set("arping", 0, [this] { TimeoutBound(); });
        else
            EnterInitReboot();
    }

    // Whether there is such a word. `address` is asked for first by "init"; `release` has "halt" give the lease back.
    bool Act(const std::string& word, IPv4 address = 0, bool release = false) {
        if (word == "halt") {
            if (release) Release();
            EnterInitReboot();
        } else if (word == "init" || word == "renew" || word == "rebind") {
            EnterInit();
            wished = address;
            if (wished != 0 && !isStatic) EnterRebooting();
        } else {
            return device.Say(1000, "[eth0] DHCP Client unknown action request <", word, ">."), false;
        }
        return true;
    }

    void Receive(const Frame& frame) {
        constexpr char kHandler[] = "Ostrel_BOOTPClientPacketFilterHandler";
        Report(Read(frame), kHandler);
        const Option type = FindOption(options, 53);
        if (type.status != kNoErr) return Report(type.status, kHandler);
        if (type.data.empty()) return Report(kBadSizeErr, kHandler);
        device.Say(800, "[eth0] DHCP Client RX msg type ", TypeName(type.data[0]), ".");
        if (type.data[0] == 2) ProcessOffer();
        if (type.data[0] == 5) Report(ProcessAck(), kHandler);
        if (type.data[0] == 6 && IsForUs()) EnterInit();
    }

    void Hear(const ARPFrame& arp) {
        if (arp.operation != 2 || lease.address == 0 || arp.sender != lease.address || arp.senderMAC == kClientMAC)
            return;
        Cancel("arping");
        device.Say(1000, "[eth0] DHCP Client RX'd ARP REPLY from ", MACText(arp.senderMAC), " for lease offer of ",
                   ToText(arp.sender), ".");
        if (SendMessage(lease.serverMAC, lease.address, lease.serverAddress, 4, lease.address, 0, 0) != kNoErr)
            device.ReportCheck("", kArea, kSendFailedErr);
        EnterInit();
    }

    // As the bus tells it.
    [[nodiscard]] std::string LeaseText() {
        if (lease.address == 0) {
            const IPv4 shown = selected == nullptr ? 0 : *selected;
            return Join(R"({"interface":"eth0","ipv4Address":")", ToText(shown), "\"",
                        shown != 0 ? R"(,"ipv4Subnet":"255.255.0.0")" : "", "}");
        }
        const uint32_t age = device.Seconds() - lease.acquired;
        const int64_t start = device.WallOffset() + int64_t{device.Seconds()} - int64_t{age};
        return Join(R"({"interface":"eth0","ipv4Address":")", ToText(lease.address), R"(","ipv4Subnet":")",
                    ToText(lease.mask), "\"", AddressesText("ipv4Router", lease.routers),
                    AddressesText("dnsServers", lease.dnsServers),
                    lease.domain.empty() ? "" : Join(R"(,"domainName":")", lease.domain.c_str(), "\""),
                    R"(,"leaseTimeString":")", TimeText(start), R"(","leaseExpiryString":")",
                    TimeText(start + lease.time), R"(","leaseTime":)", lease.time, "}");
    }

    ClientBooks books;
    const IPv4* selected = nullptr;  // the selector's address
    std::vector<uint64_t> asked;     // moments of DISCOVERs and DECLINEs

private:
    enum : uint32_t { Init = 1, Rebooting, Selecting, Rebinding, Requesting, Renewing, Bound, InitReboot };

    // Steps.

    void Enter(uint32_t state) {
        device.Say(1000, "[eth0 (", device.Seconds(), ")] DHCP Client state transition ", StateName(books.state),
                   " -> ", StateName(state), ".");
        books.state = state;
    }

    void EnterInit() {
        Enter(Init);
        CancelAll();
        ResetLease();
        books.offers.clear();
        const uint32_t delay = device.Randomize(books.delayMin * 1000, books.delayMax * 1000) / 1000;
        Set("init", delay, [this] { TimeoutInit(); });
    }

    void EnterInitReboot() {
        Enter(InitReboot);
        CancelAll();
        ResetLease();
        books.offers.clear();
    }

    void TimeoutInit() {
        Begin("Init");
        DrawXid();
        if (isStatic) return Set("arping", 0, [this] { TimeoutBound(); });
        Enter(Selecting);
        const Ostrel_Status status = SendMessage(kEveryone, 0, kEveryoneIPv4, 1, 0, 0, 0);
        if (status != kNoErr) return Report(status, "Ostrel_DHCPClientStateTransition_Selecting");
        Set("selecting", 3, [this] { TimeoutSelecting(); });
    }

    void DrawXid() {
        for (size_t i = 0; i < 4; ++i)
            reinterpret_cast<uint8_t*>(&books.xid)[i] = static_cast<uint8_t>(device.generator.Draw());
    }

    void TimeoutSelecting() {
        Begin("Selecting");
        if (books.offers.empty()) {
            if (books.delayMax <= 299) books.delayMin = books.delayMax *= 2;
            return EnterInit();
        }
        Enter(Requesting);
        requests = 0;
        Request();
    }

    // Once, and again after 4, 8, 16 and 32 s.
    void Request() {
        const auto [server, address] = books.offers.front();
        const Ostrel_Status status = SendMessage(kEveryone, 0, kEveryoneIPv4, 3, 0, address, server);
        if (status != kNoErr) return Report(status, "Ostrel_DHCPClientStateTransition_Requesting");
        constexpr uint64_t kWaits[] = {4, 8, 16, 32, 4};
        Set("requesting", kWaits[requests++], [this] {
            Begin("Requesting");
            if (requests == 5) return EnterInit();
            Request();
        });
    }

    // The wish is asked for, and nobody waited for longer than 4 s.
    void EnterRebooting() {
        Enter(Rebooting);
        CancelAll(false);
        Set("rebooting", 0, [this] {
            Begin("Rebooting");
            DrawXid();
            const Ostrel_Status status = SendMessage(kEveryone, 0, kEveryoneIPv4, 3, 0, wished, 0);
            if (status != kNoErr) return Report(status, "Ostrel_DHCPClientTimeout_Rebooting");
            Set("rebooting", 4, [this] {
                Begin("Rebooting");
                EnterInit();
            });
        });
    }

    void Release() {
        if (lease.server == 0) return;
        ++books.xid;
        Report(SendMessage(lease.serverMAC, lease.address, lease.server, 7, lease.address, 0, lease.server),
               "Ostrel_DHCPClientRelease");
    }

    void EnterBound() {
        Enter(Bound);
        CancelAll();
        books.offers.clear();
    }

    void TimeoutBound() {
        Begin("Bound");
        const auto say = [this](const auto&... parts) { device.Say(1000, parts...); };
        say("##### [eth0] Accept Lease from IPv4 ", ToText(lease.serverAddress), " on MAC ", MACText(lease.serverMAC));
        say("     IPv4   Address     : ", ToText(lease.address));
        say("     IPv4   Subnet      : ", ToText(lease.mask));
        say("     IPv4   Server      : ", ToText(lease.server));
        for (size_t i = 0; i < lease.routers.size(); ++i)
            say("     IPv4   Router [", i, "] : ", ToText(lease.routers[i]));
        for (size_t i = 0; i < lease.dnsServers.size(); ++i)
            say("     DNS    Server [", i, "] : ", ToText(lease.dnsServers[i]));
        if (!lease.domain.empty()) say("     Domain Name        : ", lease.domain.c_str());
        say("     Lease  Acquired    : ", lease.acquired);
        say("     Lease  Expiry      : ", lease.time);
        say("     Lease  Renewal     : ", lease.t1);
        say("     Lease  Rebinding   : ", lease.t2);
        say("##### ");
        const std::string told = Join(R"({"returnValue":true,"interfaceList":[)", LeaseText(), "]}");
        if (device.failPosts)
            Report(kGenericErr, "Ostrel_DHCPClientTimeout_Bound");
        else
            device.posts.emplace_back(device.now, told);
        if (isStatic || lease.time == UINT32_MAX) return;
        Set("renewing", lease.t1, [this] { TimeoutRenewing(); });
        Set("rebinding", lease.t2, [this] { TimeoutRebinding(); });
        device.Set(
            Name("expiry"), lease.time * 1000ULL, [this] { TimeoutExpiry(); }, true);
    }

    void TimeoutRenewing() {
        Begin("Renewing");
        Enter(Renewing);
        ++books.xid;
        const Ostrel_Status status =
            SendMessage(lease.serverMAC, lease.address, lease.serverAddress, 3, 0, lease.address, 0);
        if (status != kNoErr) return ReportTwice(status, "Renewing");
        Set("renewing", RetryTime(lease.renewRetry), [this] { TimeoutRenewing(); });
    }

    void TimeoutRebinding() {
        Begin("Rebinding");
        Enter(Rebinding);
        Cancel("renewing");
        ++books.xid;
        const Ostrel_Status status = SendMessage(kEveryone, 0, kEveryoneIPv4, 3, 0, lease.address, 0);
        if (status != kNoErr) return ReportTwice(status, "Rebinding");
        Set("rebinding", RetryTime(lease.rebindRetry), [this] { TimeoutRebinding(); });
    }

    void TimeoutExpiry() {
        Begin("Expiry");
        EnterInit();
    }

    static uint32_t RetryTime(uint32_t& remaining) {
        const uint32_t half = remaining / 2;
        if (half <= 60) return 60;
        remaining -= half;
        return half;
    }

    void CancelAll(bool expiryToo = true) {
        for (const char* const name : {"init", "selecting", "renewing", "rebinding"}) Cancel(name);
        if (expiryToo) device.Cancel(Name("expiry"), true);
        Cancel("arping");
        Cancel("requesting");
        Cancel("rebooting");
    }

    void ResetLease() {
        if (!isStatic) lease = {.address = isManual ? lease.address : 0};
    }

    // Messages that come.

    void ProcessOffer() {
        if (!IsForUs()) return;
        constexpr char kHere[] = "Ostrel_DHCPClientProcessOffer";
        if (xid != books.xid)
            return device.ReportCheck("( preprocessPkt->dhcpPkt->xid == client->transactionID )", kArea);
        if (books.state != Selecting) return;
        IPv4 server = 0;
        if (const Ostrel_Status status = ReadNumber(54, server); status != kNoErr) return Report(status, kHere);
        const auto known =
            std::find_if(books.offers.begin(), books.offers.end(), [=](auto& one) { return one.first == server; });
        if (known != books.offers.end()) {
            known->second = yiaddr;
        } else {
            if (!device.Allocate()) {
                device.ReportCheck("leaseOffer", kArea);
                return Report(kOutOfMemoryErr, kHere);
            }
            books.offers.emplace_back(server, yiaddr);
        }
        device.Reset(Name("selecting"), 0, [this] { TimeoutSelecting(); });
    }

    Ostrel_Status ProcessAck() {
        if (!IsForUs() || xid != books.xid ||
            (books.state != Requesting && books.state != Renewing && books.state != Rebinding &&
             books.state != Rebooting))
            return kNoErr;
        ResetLease();
        const IPv4 before = lease.address;
        const Ostrel_Status status = ReadLease();
        if (status != kNoErr) {
            Report(status, "Ostrel_DHCPClientProcessAck");
            // Nothing half-read stays; who asked anew goes on asking, who extended a lease has lost it.
            lease = {.address = before};
            if (books.state == Renewing || books.state == Rebinding) EnterInit();
            return status;
        }
        lease.renewRetry = lease.t2 - lease.t1;
        lease.rebindRetry = lease.time - lease.t2;
        EnterBound();
        const Frame probe = ARPRequest(0, lease.address);
        if (!device.Send(probe)) {
            ReportShortSend("Src/ARPShared");
            Report(kSendFailedErr, "Ostrel_DHCPClientStateTransition_Bound");
            return kSendFailedErr;
        }
        Set("arping", 2, [this] { TimeoutBound(); });
        return kNoErr;
    }

    Ostrel_Status ReadLease() {
        lease.acquired = device.Seconds();
        lease.serverMAC = from;
        lease.serverAddress = source;
        lease.address = yiaddr;
        if (const Ostrel_Status status = ReadNumber(51, lease.time); status != kNoErr) return status;
        lease.t1 = lease.time / 2;
        lease.t2 = static_cast<uint32_t>(uint64_t{lease.time} * 7 / 8);
        for (const auto& [code, time] : {std::pair{58, &lease.t1}, {59, &lease.t2}}) {
            const Ostrel_Status status = ReadNumber(static_cast<uint8_t>(code), *time);
            if (status == kNoErr || status == kEndingErr) continue;
            device.ReportCheck("( ( err == kNoErr ) || ( err == kEndingErr ) )", kArea);
            return status;
        }
        if (const Ostrel_Status status = ReadNumber(54, lease.server); status != kNoErr) return status;
        if (const Ostrel_Status status = ReadNumber(1, lease.mask); status != kNoErr) return status;
        if (const Ostrel_Status status = ReadAddresses(3, lease.routers); status != kNoErr) return status;
        if (const Ostrel_Status status = ReadAddresses(6, lease.dnsServers); status != kNoErr) return status;
        const Option domain = FindOption(options, 15);
        if (domain.status != kNoErr) return domain.status == kEndingErr ? kNoErr : domain.status;
        if (!device.Allocate()) {
            device.ReportCheck("lease->domainName", kArea);
            return kOutOfMemoryErr;
        }
        lease.domain.assign(domain.data.begin(), domain.data.end());
        return kNoErr;
    }

    // Messages that go.

    Ostrel_Status SendMessage(const MAC& to, IPv4 sourceAddress, IPv4 destination, uint8_t type, IPv4 ciaddr,
                              IPv4 requested, IPv4 server) {
        if (type == 1 || type == 4) asked.push_back(device.now);
        const auto* const id = reinterpret_cast<const uint8_t*>(&books.xid);
        Bytes message = {1, 1, 6, 0};
        for (const Bytes& part :
             {Bytes(id, id + 4), Bytes(4), OfNumber(ciaddr, 4), Bytes(12), Bytes(kClientMAC.begin(), kClientMAC.end()),
              Bytes(10 + 64 + 128), Bytes{99, 130, 83, 99, 53, 1, type}})
            Append(message, part);
        if (type != 4 && type != 7) Append(message, {55, 6, 1, 28, 2, 3, 6, 15, 57, 2, 0x05, 0xDC});
        Append(message, {61, static_cast<uint8_t>(identifier.size())});
        Append(message, identifier);
        for (const auto& [code, value] : {std::pair{50, requested}, {54, server}}) {
            if (value == 0) continue;
            Append(message, {static_cast<uint8_t>(code), 4});
            Append(message, OfNumber(value, 4));
        }
        message.push_back(255);
        if (device.Send(FramedUDP(message, to, sourceAddress, 68, destination, 67))) return kNoErr;
        ReportShortSend("Src/DHCPShared");
        Report(kSendFailedErr, "Ostrel_DHCPClientSend_BOOTPRequest");
        return kSendFailedErr;
    }

    // Small words.

    static constexpr char kArea[] = "Src/DHCPClient";

    static std::string Name(const std::string& suffix) { return "org.ostrel.dhcp.client." + suffix; }
    void Set(const std::string& suffix, uint64_t seconds, const std::function<void()>& handler) {
        device.Set(Name(suffix), seconds * 1000, handler);
    }
    void Cancel(const std::string& suffix) { device.Cancel(Name(suffix)); }
    void Begin(const std::string& timeout) { device.Say(800, "Ostrel_DHCPClientTimeout_", timeout, "()"); }
    void Report(Ostrel_Status status, const std::string& function) {
        if (status != kNoErr) device.ReportStep(status, kArea, function);
    }
    void ReportTwice(Ostrel_Status status, const std::string& step) {
        Report(status, "Ostrel_DHCPClientStateTransition_" + step);
        Report(status, "Ostrel_DHCPClientTimeout_" + step);
    }
    void ReportShortSend(const std::string& area) {
        device.ReportCheck("( err >= wpabuf_len( iface->txFrame ) )", area);
    }

    const ClientConfig config;
    ModelLease& lease = books.lease;
    bool isStatic = false;
    bool isManual = false;
    Bytes identifier;
    size_t requests = 0;
    IPv4 wished = 0;  // asked for first
};

}  // namespace sim::model
