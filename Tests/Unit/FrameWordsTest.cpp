// Frames in words: whole ones, ones that break off, options of every form and options that are not of their form.
#include <gtest/gtest.h>

#include "Wire.h"
#include "frame_words.h"

namespace {

// An OFFER up to its cookie; `overload` begins `sname`.
std::vector<uint8_t> Offer(const std::string& options, const std::string& sname = "") {
    auto frame = sim::Bytes(
        "ffffffffffff 020000000001 0800 4500013c 00000000 4011 0000 c0000201 ffffffff"
        "00430044 0128 0000 02010600 1234abcd 00008000 00000000 c0000232 c0000207 00000000"
        "0200000000aa" +
        std::string(20 + 384, '0') + "63825363");
    const auto name = sim::Bytes(sname);
    std::ranges::copy(name, frame.begin() + 86);
    const auto bytes = sim::Bytes(options);
    frame.insert(frame.end(), bytes.begin(), bytes.end());
    return frame;
}

std::string OptionsOf(const frame_words& words) {
    std::string text;
    for (const frame_option& option : words.options)
        text +=
            (*option.name == '\0' ? std::to_string(option.code) : option.name) + std::string("=") + option.text + "|";
    return text;
}

TEST(FrameWords, TellWhatIsWholeAndWhatIsNot) {
    constexpr char kARP[] =
        "ffffffffffff 020000000001 0806 0001 0800 0604 %s 020000000001 c0000201 000000000000 c0000232";
    const auto arp = [&](const char* operation) {
        return sim::Bytes(std::string(kARP).replace(std::string(kARP).find("%s"), 2, operation));
    };
    std::vector<uint8_t> shortARP = arp("0001");
    shortARP.pop_back();
    std::vector<uint8_t> shortMessage = Offer("");
    shortMessage.pop_back();
    std::vector<uint8_t> longHeader = Offer("350102ff");
    longHeader[14] = 0x46;
    longHeader.insert(longHeader.begin() + 34, 4, 0x01);
    constexpr char kOfferLine[] =
        "DHCPOFFER xid 1234abcd 192.0.2.1 -> 255.255.255.255 chaddr 02:00:00:00:00:aa yiaddr 192.0.2.50";
    const struct {
        std::vector<uint8_t> frame;
        std::string type, text;
    } cases[] = {
        {{}, "other", "0 bytes"},
        {std::vector<uint8_t>(13), "other", "13 bytes"},
        {std::vector<uint8_t>(14), "other", "type 0000, 14 bytes, neither whole ARP nor whole DHCP"},
        {arp("0001"), "ARP request", "ARP request from 192.0.2.1 (02:00:00:00:00:01) for 192.0.2.50"},
        {arp("0002"), "ARP reply", "ARP reply from 192.0.2.1 (02:00:00:00:00:01) for 192.0.2.50"},
        {arp("0009"), "ARP operation 9", "ARP operation 9 from 192.0.2.1 (02:00:00:00:00:01) for 192.0.2.50"},
        {shortARP, "other", "type 0806, 41 bytes, neither whole ARP nor whole DHCP"},
        {shortMessage, "other", "type 0800, 281 bytes, neither whole ARP nor whole DHCP"},
        {Offer("350102 3304 00000e10 3604 c0000201 ff"), "DHCPOFFER",
         std::string(kOfferLine) + " server 192.0.2.1 lease 3600 s"},
        {longHeader, "DHCPOFFER", kOfferLine},
        {Offer(""), "DHCP without a type", std::string(kOfferLine).replace(0, 9, "DHCP without a type")},
        {Offer("350109"), "DHCP 9", std::string(kOfferLine).replace(0, 9, "DHCP 9")},
        {Offer("350102 33"), "DHCPOFFER", "type 0800, 286 bytes, neither whole ARP nor whole DHCP"},
        {Offer("350102 3304 000000"), "DHCPOFFER", "type 0800, 290 bytes, neither whole ARP nor whole DHCP"},
    };
    for (const auto& [frame, type, text] : cases) {
        const frame_words words = frame_words_of(frame);
        EXPECT_EQ(words.type, type);
        EXPECT_EQ(words.text, text);
        EXPECT_EQ(words.source.empty(), frame.size() < 14);
    }
    const frame_words words = frame_words_of(Offer("ff"));
    EXPECT_EQ(words.source + " " + words.destination, "02:00:00:00:00:01 ff:ff:ff:ff:ff:ff");
    EXPECT_EQ(words.xid, 0x1234abcdU);
    std::string addresses;
    for (const auto& [name, address] : words.addresses) addresses += name + ("=" + address) + " ";
    EXPECT_EQ(addresses,
              "ipv4Source=192.0.2.1 ipv4Destination=255.255.255.255 yiaddr=192.0.2.50 siaddr=192.0.2.7 "
              "chaddr=02:00:00:00:00:aa ");
}

TEST(FrameWords, HaveEachOptionInItsFormOrInHexadecimal) {
    const std::pair<std::string, std::string> cases[] = {
        {"0104 ffffff00 0308 c0000201 c0000202 0305 c000020301",
         "subnetMask=255.255.255.0|ipv4Router=c0000201c0000202c000020301|"},
        {"3501 05 0000 3304 ffffffff 3a04 00000708 3a00", "messageType=DHCPACK|leaseTime=endless|renewalTime=1800 s|"},
        {"3503 050505 3302 0e10 1a02 05dc 0204 fffff1f0",
         "messageType=050505|leaseTime=0e10|mtu=1500|timeOffset=-3600 s|"},
        {"0c05 63616d0a00 0f00 3c03 615c62 2b02 0104",
         "hostName=cam\\x0a|domainName=|vendorClass=a\\b|vendorOptions=0104|"},
        {"1301 01 1401 00 1f01 07 5000", "ipForwarding=true|sourceRouting=false|routerDiscovery=07|rapidCommit=true|"},
        {"3703 010379 5d04 00000007 5d01 01", "requestOptions=1, 3, 121|clientArchitecture=0000000701|"},
        {"3d07 01 0200000000aa", "clientIdentifier=02:00:00:00:00:aa|"},
        {"3d04 00 636174", "clientIdentifier=cat|"},
        {"3d07 ff 00000001 0a0b", "clientIdentifier=IAID 00000001 DUID 0a0b|"},
        {"3d01 01", "clientIdentifier=01|"},
        {"790d 00 c0000201 18 cb0071 00000000 f901 21",
         "staticRoutes=0.0.0.0/0 via 192.0.2.1, 203.0.113.0/24 via 0.0.0.0|microsoftRoutes=21|"},
        {"7906 21 0a000000 c0", "staticRoutes=210a000000c0|"},
        {"7709 036c616e 026161 c000", "searchDomains=036c616e026161c000|"},  // to where it began itself
        {"770a 036c616e00 026161 c000", "searchDomains=lan, aa.lan|"},
        {"7702 c001", "searchDomains=c001|"},
        {"7702 0561", "searchDomains=0561|"},
        {"5108 05 0000 0363616d 00", "fullName=flags 5, cam|"},
        {"5106 01 0000 63616d 5202 0105", "fullName=flags 1, cam|relayAgent=0105|"},
        {"520c 0104 65746830 0201 ff 0301 7f", "relayAgent=1 eth0, 2 ff, 3 7f|"},
        {"7d02 0a0b e001 00", "125=0a0b|224=00|"},
        {"7703 016100 fe00 7703 016200", "searchDomains=a, b|254=|"},  // in parts
    };
    for (const auto& [options, text] : cases)
        EXPECT_EQ(OptionsOf(frame_words_of(Offer(options + "ff"))), text) << options;
    EXPECT_EQ(OptionsOf(frame_words_of(Offer("3401 02 ff", "0c01 61 ff 0c01 62"))), "overload=2|hostName=a|");
    EXPECT_EQ(OptionsOf(frame_words_of(Offer("0c0161 3304 0000"))), "hostName=a|");
}

}  // namespace
