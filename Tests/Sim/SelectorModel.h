// The link-local selector's plain rules a second time, as plainly as they can be told; ClientPlay.h plays the
// selector and this at one table.
#pragma once

#include "ClientBooks.h"
#include "DeviceModel.h"

namespace sim::model {

class SelectorModel {
public:
    explicit SelectorModel(DeviceModel& onDevice) : device(onDevice) {}

    bool Act(const std::string& word) {
        const bool starts = word == "init" || word == "renew" || word == "rebind";
        if (!starts && word != "halt")
            return device.Say(1000, "[eth0] Link Local unknown action request <", word, ">."), false;
        CancelAll();
        if (starts) device.Set(kInit, 0, [this] { TimeoutInit(); });
        return true;
    }

    void Hear(const ARPFrame& arp) {
        if (arp.senderMAC == kClientMAC || books.address == 0 || arp.sender != books.address) return;
        device.Say(1000, "##### [eth0] IPv4 Link Local Conflict");
        device.Say(1000, "     IPv4 Link Local Address : ", ToText(books.address));
        device.Say(1000, "     Conflicting MAC Address : ", MACText(arp.senderMAC));
        device.Say(1000, "##### ");
        ++books.conflicts;
        CancelAll();
        DrawInterval();
        device.Set(kInit, books.interval, [this] { TimeoutInit(); });
    }

    SelectorBooks books;

private:
    static constexpr char kInit[] = "[Link Local] INIT ";
    static constexpr char kProbe[] = "[Link Local] PROBE ";
    static constexpr char kAnnounce[] = "[Link Local] ANNOUNCE ";

    void Enter(int32_t state) {
        constexpr const char* kNames[] = {"UNKNOWN", "INIT", "PROBE", "ANNOUNCE", "DEFEND"};
        device.Say(1000, "[eth0 (", device.Seconds(), ")] Link Local state transition ", kNames[books.state], " -> ",
                   kNames[state], ".");
        books.state = state;
    }

    void TimeoutInit() {
        Enter(1);
        books.probes = books.announcements = 0;
        const uint32_t seed = kClientMAC[3] * 65536U + kClientMAC[4] * 256U + kClientMAC[5];
        const uint32_t mix = seed ^ device.Seconds() ^ device.generator.Draw();
        const uint32_t a = mix / 256 % 256 % 254 + 1;
        const uint32_t b = mix % 256 % 254 + 1;
        books.address = 169U << 24 | 254U << 16 | a << 8 | b;
        device.Say(1000, "[eth0] Link Local MAC <", MACText(kClientMAC), ">, generated IPv4 <", ToText(books.address),
                   ">");
        Probe("Init");
    }

    void TimeoutProbe() {
        Enter(2);
        if (books.probes > 2) return device.Set(kAnnounce, 2000, [this] { TimeoutAnnounce(); });
        Probe("Probe");
    }

    void Probe(const std::string& step) {
        if (!Send(0)) return Report({"ProbeAddress", "StateTransition_" + step, "Timeout_" + step});
        device.Say(800, "[eth0] IPv4 Link Local; TX'd ", ++books.probes, " PROBEs");
        DrawInterval();
        device.Set(kProbe, books.interval, [this] { TimeoutProbe(); });
    }

    void TimeoutAnnounce() {
        Enter(3);
        if (books.announcements > 1) {
            device.Say(1000, "##### [eth0] IPv4 Link Local Address ");
            return device.Say(1000, "     IPv4   Address     : ", ToText(books.address));
        }
        if (!Send(books.address)) return Report({"AnnounceAddress", "StateTransition_Announce", "Timeout_Announce"});
        device.Say(800, "[eth0] IPv4 Link Local; TX'd ", ++books.announcements, " ANNOUNCEs");
        device.Set(kAnnounce, 2000, [this] { TimeoutAnnounce(); });
    }

    void CancelAll() {
        for (const char* const name : {kInit, kProbe, kAnnounce}) device.Cancel(name);
    }

    void DrawInterval() { books.interval = books.conflicts <= 9 ? device.Randomize(0, 1000) : 60'000; }

    bool Send(IPv4 sender) { return device.Send(ARPRequest(sender, books.address)); }

    void Report(const std::vector<std::string>& functions) {
        device.ReportCheck("( err >= wpabuf_len( iface->txFrame ) )", "Src/ARPShared");
        for (const std::string& function : functions)
            device.ReportStep(kSendFailedErr, "Src/LinkLocal", "Ostrel_LinkLocal" + function);
    }

    DeviceModel& device;
};

}  // namespace sim::model
