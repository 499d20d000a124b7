// The keys that "interfaceInitialize" takes strictly: what each refuses, in the words that a caller reads, and what the
// configuration dump shows of those that it took.

#include <arpa/inet.h>
#include <cstring>

#include "Ostrel/Interface.h"
#include "Ostrel/InterfaceConfig.h"
#include "Ostrel/OstrelJsonUtils.h"

#include "Harness.h"
#include "OstrelVoroBus/ValueKeys.h"

namespace sim {
namespace {

constexpr char kDevice[] = R"("interface":"eth0","ipv4Address":"192.0.2.1","ipv4Subnet":"255.255.255.0",)"
                           R"("ipv4Router":"192.0.2.1","ipv4RangeStart":"192.0.2.100","maxLeases":20)";

struct ValueKeys : testing::Test {
    ValueKeys() { world.AddInterface("eth0", kClientMAC, world.AddSegment()); }

    std::string Initialize(const std::string& mode, const std::string& members) {
        return world.Call("/", "interfaceInitialize",
                          std::string("{") + kDevice + R"(,"mode":")" + mode + "\"," + members + "}");
    }
    std::string Dump() { return world.Call("/", "interfaceConfigDump", "{}"); }

    World world;
    Daemon daemon;
};

// What is shown between quotes in a JSON text.
std::string Quoted(const std::string& text) {
    std::string quoted;
    for (const char c : text) (c == '"' || c == '\\' ? quoted += '\\' : quoted) += c;
    return quoted;
}

std::string Many(size_t count, const std::string& element) {
    std::string list;
    for (size_t i = 0; i < count; ++i) list += (i == 0 ? "" : ",") + element;
    return "[" + list + "]";
}

struct Refusal {
    const char* mode;
    std::string members;
    const char* problem;
};

// One client for each of so many addresses, with a MAC of its own.
std::string ManyFixed(int count) {
    std::string list;
    for (int i = 0; i < count; ++i) {
        char text[96];
        std::snprintf(text, sizeof text, R"(%s{"macAddress":"02:00:00:00:%02x:%02x","ipv4Address":"192.0.%d.%d"})",
                      i == 0 ? "" : ",", i >> 8, i & 0xFF, 1 + (i >> 8), i & 0xFF);
        list += text;
    }
    return "[" + list + "]";
}

std::vector<Refusal> RefusalsOfClients() {
    return {
        {"client", R"("rfc":1)", R"("rfc": true or false is wanted)"},
        {"client", R"("rfc":"true")", R"("rfc": true or false is wanted)"},
        {"client", R"("rfc":true,"probe":250)", R"("probe": is not of this "mode")"},
        {"client", R"("linkLocal":true)", R"("linkLocal": "fallback" is wanted)"},
        {"client", R"("linkLocal":"Fallback")", R"("linkLocal": "fallback" is wanted)"},
        {"client", R"("linkLocal":"fallback","ipv4LinkLocal":false)", R"("linkLocal": contradicts "ipv4LinkLocal")"},
        {"client", R"("hostName":7)", R"("hostName": a text of 1 to 253 bytes is wanted)"},
        {"client", R"("hostName":"")", R"("hostName": a text of 1 to 253 bytes is wanted)"},
        {"client", R"("hostName":"a\u0000b")", R"("hostName": a text of 1 to 253 bytes is wanted)"},
        {"client", R"("hostName":"my camera")",
         R"("hostName": a host name such as camera or camera.lab.example is wanted)"},
        {"client", R"("hostName":"camera.")",
         R"("hostName": a host name such as camera or camera.lab.example is wanted)"},
        {"client", R"("hostName":")" + std::string(64, 'a') + "\"",
         R"("hostName": a host name such as camera or camera.lab.example is wanted)"},
        {"client",
         R"("hostName":")" + std::string(63, 'a') + "." + std::string(63, 'b') + "." + std::string(63, 'c') + "." +
             std::string(59, 'd') + "\"",
         R"("hostName": a name with dots has at most 250 bytes)"},
        {"client", R"("vendorClass":"")", R"("vendorClass": a text of 1 to 255 bytes is wanted)"},
        {"client", R"("vendorClass":")" + std::string(256, 'v') + "\"",
         R"("vendorClass": a text of 1 to 255 bytes is wanted)"},
        {"client", R"("userClass":{})", R"("userClass": a text, or an array of texts, is wanted)"},
        {"client", R"("userClass":[])", R"("userClass": a text, or an array of texts, is wanted)"},
        {"client", R"("userClass":["a",""])", R"("userClass"[1]: a text of 1 to 254 bytes is wanted)"},
        {"client", R"("userClass":["a",")" + std::string(253, 'b') + "\"]",
         R"("userClass"[1]: the classes are longer than an option)"},
        {"client", R"("clientIdentifierHex":"ff")",
         R"("clientIdentifierHex": 2 to 255 pairs of hexadecimal digits are wanted)"},
        {"client", R"("clientIdentifierHex":"01020")",
         R"("clientIdentifierHex": 2 to 255 pairs of hexadecimal digits are wanted)"},
        {"client", R"("clientIdentifierHex":"01:02")",
         R"("clientIdentifierHex": 2 to 255 pairs of hexadecimal digits are wanted)"},
        {"client", R"("clientIdentifierHex":"010g")",
         R"("clientIdentifierHex": 2 to 255 pairs of hexadecimal digits are wanted)"},
        {"client", R"("clientIdentifier":"a","clientIdentifierHex":"0061")",
         R"("clientIdentifierHex": contradicts "clientIdentifier")"},
        {"client", R"("requestOptions":42)", R"("requestOptions": an array of at most 64 elements is wanted)"},
        {"client", R"("requestOptions":)" + Many(65, "42"),
         R"("requestOptions": an array of at most 64 elements is wanted)"},
        {"client", R"("requestOptions":[42,255])", R"("requestOptions"[1]: a whole number from 1 to 254 is wanted)"},
        {"client", R"("requestOptions":["42"])", R"("requestOptions"[0]: a whole number from 1 to 254 is wanted)"},
        {"client", R"("requestOptions":[42,53])", R"("requestOptions"[1]: this code is the protocol's own)"},
        {"client", R"("requestOptions":[42,26,42])", R"("requestOptions"[2]: this code was given already)"},
        {"client", R"("sendOptions":[])", R"("sendOptions": an object is wanted, such as {"60":"6d6f64656d"})"},
        {"client", R"("sendOptions":{"060":"00"})",
         R"("sendOptions".060: the code of an option, 1 to 254, is wanted as the key)"},
        {"client", R"("sendOptions":{"255":"00"})",
         R"("sendOptions".255: the code of an option, 1 to 254, is wanted as the key)"},
        {"client", R"("sendOptions":{"54":"c0000201"})", R"("sendOptions".54: this code is the protocol's own)"},
        {"client", R"("sendOptions":{"224":""})",
         R"("sendOptions".224: 1 to 255 pairs of hexadecimal digits are wanted)"},
        {"client", R"("sendOptions":{"12":"61"},"hostName":"a")", R"("sendOptions".12: this option was given already)"},
        {"client",
         R"("sendOptions":{"224":")" + std::string(510, 'a') + R"(","225":")" + std::string(510, 'a') + R"(","226":")" +
             std::string(506, 'a') + "\"}",
         R"("sendOptions".226: the options of the client are longer than 768 bytes together)"},
        {"client", R"("broadcast":1)", R"("broadcast": true or false is wanted)"},
        {"client", R"("arpCheck":60001)", R"("arpCheck": a whole number from 0 to 60000 is wanted)"},
        {"client", R"("arpCheck":1.5)", R"("arpCheck": a whole number from 0 to 60000 is wanted)"},
    };
}

// Of a kept lease, with this in place of its times.
std::string Kept(const std::string& rest) {
    return R"("leases":[{"ipv4Address":"192.0.2.100","mac":"02:00:00:00:00:01")" + rest + "}]";
}

std::string Fixed(const std::string& members) {
    return R"("fixed":[{)" + members + "}]";
}

std::vector<Refusal> RefusalsOfServers() {
    const std::string mac = R"("macAddress":"02:00:00:00:00:01",)";
    const std::string began = R"(,"leaseTimeString":"Mon Nov 16 11:40:22 2026","leaseExpiryString":)";
    return {
        {"server", R"("rfc":null)", R"("rfc": true or false is wanted)"},
        {"server", R"("hostName":"a")", R"("hostName": is not of this "mode")"},
        {"server", R"("probe":-1)", R"("probe": a whole number from 0 to 10000 is wanted)"},
        {"server", R"("fixed":{})", R"("fixed": an array of at most 1024 elements is wanted)"},
        {"server", R"("fixed":[7])", R"("fixed"[0]: an object is wanted)"},
        {"server", Fixed(mac + R"("ipv4Adress":"192.0.2.7")"), R"("fixed"[0].ipv4Adress: there is no such key)"},
        {"server", Fixed(R"("ipv4Address":"192.0.2.7")"),
         R"("fixed"[0]: one of "macAddress", "clientIdentifier" and "clientIdentifierHex" is wanted)"},
        {"server", Fixed(mac + R"("clientIdentifier":"a","ipv4Address":"192.0.2.7")"),
         R"("fixed"[0]: one of "macAddress", "clientIdentifier" and "clientIdentifierHex" is wanted)"},
        {"server", Fixed(R"("macAddress":"02:00:00:00:00","ipv4Address":"192.0.2.7")"),
         R"("fixed"[0].macAddress: an Ethernet address such as 02:00:5e:10:00:01 is wanted)"},
        {"server", Fixed(R"("macAddress":"02-00-00-00-00-01","ipv4Address":"192.0.2.7")"),
         R"("fixed"[0].macAddress: an Ethernet address such as 02:00:5e:10:00:01 is wanted)"},
        {"server", Fixed(R"("macAddress":"03:00:00:00:00:01","ipv4Address":"192.0.2.7")"),
         R"("fixed"[0].macAddress: no station can have this address)"},
        {"server", Fixed(mac + R"("ipv4Address":"192.0.2")"),
         R"("fixed"[0].ipv4Address: an IPv4 address such as 192.0.2.1 is wanted)"},
        {"server", Fixed(mac + R"("hostName":"a")"),
         R"("fixed"[0].ipv4Address: an IPv4 address such as 192.0.2.1 is wanted)"},
        {"server", Fixed(mac + R"("ipv4Address":"224.0.0.1")"),
         R"("fixed"[0].ipv4Address: no host can have this address)"},
        {"server", Fixed(mac + R"("ipv4Address":"192.0.3.7")"),
         R"("fixed"[0].ipv4Address: is not in the server's subnet)"},
        {"server", Fixed(mac + R"("ipv4Address":"192.0.2.1")"), R"("fixed"[0].ipv4Address: is the server's own)"},
        {"server", Fixed(mac + R"("ipv4Address":"192.0.2.255")"),
         R"("fixed"[0].ipv4Address: no host can have this address)"},
        {"server", Fixed(mac + R"("ipv4Address":"192.0.2.7","hostName":"a b")"),
         R"("fixed"[0].hostName: a host name such as camera or camera.lab.example is wanted)"},
        {"server",
         R"("fixed":[{"macAddress":"02:00:00:00:00:01","ipv4Address":"192.0.2.7"},)"
         R"({"clientIdentifier":"a","ipv4Address":"192.0.2.7"}])",
         R"("fixed"[1].ipv4Address: was given already)"},
        {"server",
         R"("fixed":[{"clientIdentifier":"a","ipv4Address":"192.0.2.6"},)"
         R"({"clientIdentifierHex":"0061","ipv4Address":"192.0.2.7"}])",
         R"("fixed"[1]: its client was given already)"},
        {"server", R"("options":[{"code":"42","ipv4":["192.0.2.1"]}])",
         R"("options"[0].code: a whole number from 1 to 254 is wanted)"},
        {"server", R"("options":[{"ipv4":["192.0.2.1"]}])",
         R"("options"[0].code: a whole number from 1 to 254 is wanted)"},
        {"server", R"("options":[{"code":51,"hex":"00"}])", R"("options"[0].code: this code is the protocol's own)"},
        {"server", R"("options":[{"code":6,"hex":"00"}])",
         R"("options"[0].code: the server takes this option from its other keys)"},
        {"server", R"("options":[{"code":42}])", R"("options"[0]: one of "ipv4", "text" and "hex" is wanted)"},
        {"server", R"("options":[{"code":42,"hex":"00","text":"a"}])",
         R"("options"[0]: one of "ipv4", "text" and "hex" is wanted)"},
        {"server", R"("options":[{"code":42,"ipv4":[]}])", R"("options"[0].ipv4: at least one address is wanted)"},
        {"server", R"("options":[{"code":42,"ipv4":["a"]}])",
         R"("options"[0].ipv4[0]: an IPv4 address such as 192.0.2.1 is wanted)"},
        {"server", R"("options":[{"code":114,"text":""}])",
         R"("options"[0].text: a text of 1 to 1020 bytes is wanted)"},
        {"server", R"("options":[{"code":43,"hex":"0"}])",
         R"("options"[0].hex: 1 to 1020 pairs of hexadecimal digits are wanted)"},
        {"server", R"("options":[{"code":43,"hex":"00","forced":1}])",
         R"("options"[0].forced: true or false is wanted)"},
        {"server", R"("options":[{"code":43,"hex":"00","force":true}])", R"("options"[0].force: there is no such key)"},
        {"server", R"("options":[{"code":43,"hex":"00"},{"code":43,"hex":"01"}])",
         R"("options"[1].code: this option was given already)"},
        {"server", R"("leases":[7])", R"("leases"[0]: a lease as leaseInformation shows it is wanted)"},
        {"server", R"("leases":[{"interface":"eth0","leases":7}])",
         R"("leases"[0].leases: an array of at most 65536 elements is wanted)"},
        {"server", R"("leases":[{"interface":"eth0","leases":[{"ipv4Address":"192.0.2.100"}]}])",
         R"("leases"[0].leases[0].mac: an Ethernet address such as 02:00:5e:10:00:01 is wanted)"},
        {"server", R"("leases":[{"mac":"02:00:00:00:00:01"}])",
         R"("leases"[0].ipv4Address: an IPv4 address such as 192.0.2.1 is wanted)"},
        {"server", Kept(""), R"("leases"[0].leaseTimeString: a time such as Mon Nov 16 11:40:22 2026 is wanted)"},
        {"server", Kept(began + R"("2026-11-16T12:40:22")"),
         R"("leases"[0].leaseExpiryString: a time such as Mon Nov 16 11:40:22 2026 is wanted)"},
        {"server", Kept(began + R"("Mon Nov 16 11:40:21 2026")"), R"("leases"[0]: ends before it begins)"},
        {"server", Kept(R"(,"remaining":-1)"),
         R"("leases"[0].remaining: a whole number from 0 to 2147483647 is wanted)"},
        {"server", Kept(R"(,"remaining":1,"clientIdentifierHex":"0")"),
         R"("leases"[0].clientIdentifierHex: 2 to 255 pairs of hexadecimal digits are wanted)"},
    };
}

TEST_F(ValueKeys, ARefusedOneIsToldInWords) {
    std::vector<Refusal> refusals = RefusalsOfClients();
    for (Refusal& refusal : RefusalsOfServers()) refusals.push_back(std::move(refusal));
    for (const auto& [mode, members, problem] : refusals) {
        SCOPED_TRACE(members.substr(0, 200));
        world.log.clear();
        EXPECT_EQ(Initialize(mode, members),
                  R"({"returnValue":false,"errorCode":-1,"errorText":"Failed","problem":")" + Quoted(problem) + "\"}");
        EXPECT_TRUE(world.Logged(problem));
        EXPECT_EQ(daemon.system.interfaceList, nullptr);
    }
}

TEST_F(ValueKeys, TheDumpShowsThemAsTheyWereGiven) {
    const struct {
        const char* mode;
        std::string members;
    } cases[] = {
        {"client", R"("rfc":true)"},
        {"server", R"("rfc":false)"},
        {"client", R"("rfc":true,"linkLocal":"fallback","hostName":"camera_7.lab.example","vendorClass":"o\"d d",)"
                   R"("userClass":["a","b"],"clientIdentifierHex":"FF000102","requestOptions":[1,42,58,60,254],)"
                   R"("sendOptions":{"224":"00","43":"AbcD"},"broadcast":false,"arpCheck":0)"},
        {"server",
         R"("fixed":[{"macAddress":"02:00:00:00:00:AA","ipv4Address":"192.0.2.7","hostName":"a.b"},)"
         R"({"clientIdentifier":"ü","ipv4Address":"192.0.2.100"}],)"
         R"("options":[{"code":42,"ipv4":["192.0.2.1"]},{"code":114,"text":"http://a/","forced":true}],"probe":10000)"},
        {"client", R"("requestOptions":[],"sendOptions":{})"},
        {"server", R"("fixed":[],"options":[])"},
    };
    for (const auto& [mode, members] : cases) {
        SCOPED_TRACE(members);
        EXPECT_EQ(Initialize(mode, members + R"(,"leases2":[])"), R"({"returnValue":true})");
        EXPECT_TRUE(Dump().ends_with("," + members + "}]}")) << Dump();
        EXPECT_TRUE(daemon.Finalize("eth0"));
    }
    EXPECT_EQ(Initialize("server", R"("leases":[],"x":1)"), R"({"returnValue":true})");
    EXPECT_TRUE(Dump().ends_with(R"("maxLeases":20}]})")) << "leases are no configuration";
}

// What the roles get, read straight into the record.
struct Read {
    Read(uint32_t mode, const std::string& members) {
        std::strcpy(cfg.ifname.data(), "eth0");
        cfg.mode = mode;
        cfg.IPv4Address = inet_addr("192.0.0.1");
        cfg.IPv4SubnetMask = inet_addr("255.255.0.0");
        valdo::JValue request;
        EXPECT_TRUE(CheckJsonRoot(("{" + members + "}").c_str(), "{}", &request)) << members;
        EXPECT_EQ(Ostrel_VSUtil_ReadValueKeys(request, &cfg, &problem), kNoErr) << problem.data();
    }
    Ostrel_InterfaceConfig cfg{};
    OstrelJsonProblem problem{};
};

using Bytes = std::vector<uint8_t>;
using Options = std::vector<std::pair<int, Bytes>>;

Options OptionsOf(const Ostrel_OptionList& list) {
    Options options;
    for (uint32_t i = 0; i < list.count; ++i) {
        const uint8_t* data = list.values[i].data.get();
        options.push_back(
            {list.values[i].code + (list.values[i].forced ? 1000 : 0), Bytes(data, data + list.values[i].length)});
    }
    return options;
}

Bytes IdentifierOf(const Ostrel_ClientKey& client) {
    return {client.identifier.get(), client.identifier.get() + client.identifierLength};
}

TEST_F(ValueKeys, WhatAClientSaysGoesAsOptions) {
    const struct {
        const char* members;
        Options sent;
    } cases[] = {
        {R"("hostName":"ab")", {{12, {'a', 'b'}}}},
        {R"("hostName":"ab.c")", {{81, {5, 0, 0, 2, 'a', 'b', 1, 'c', 0}}}},
        {R"("vendorClass":"v","userClass":"u")", {{60, {'v'}}, {77, {'u'}}}},
        {R"("userClass":["u","vw"])", {{77, {1, 'u', 2, 'v', 'w'}}}},
        {R"("sendOptions":{"224":"00fF","12":"61"})", {{224, {0, 255}}, {12, {'a'}}}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(OptionsOf(Read(kOstrelModeDHCPClient, c.members).cfg.client.sent), c.sent) << c.members;

    const Read read(kOstrelModeDHCPClient,
                    R"("rfc":true,"linkLocal":"fallback","clientIdentifierHex":"ff0102","requestOptions":[42,121],)"
                    R"("broadcast":true,"arpCheck":9000)");
    const Ostrel_ClientValues& client = read.cfg.client;
    EXPECT_TRUE(read.cfg.rfc == true && read.cfg.linkLocalFallback && client.broadcast && client.arpCheck == 9000);
    EXPECT_EQ(read.cfg.mode, kOstrelModeDHCPClient | kOstrelModeLinkLocal);
    EXPECT_EQ(Bytes(client.requested.get(), client.requested.get() + client.numRequested), (Bytes{42, 121}));
    EXPECT_EQ(client.clientIdentifierLength, 3u);
    EXPECT_EQ(client.clientIdentifier[0], 0xFF);
}

TEST_F(ValueKeys, AServerGetsItsFixedLeasesAndOptions) {
    const Read read(kOstrelModeDHCPServer,
                    R"("fixed":[{"macAddress":"02:00:00:00:00:aB","ipv4Address":"192.0.2.7","hostName":"a"},)"
                    R"({"clientIdentifier":"xy","ipv4Address":"192.0.2.8"}],"probe":0,"options":[)"
                    R"({"code":42,"ipv4":["192.0.2.1","0.0.0.0"]},{"code":114,"text":"u","forced":true},)"
                    R"({"code":43,"hex":"0aFF","forced":false}])");
    const Ostrel_ServerValues& server = read.cfg.server;
    ASSERT_EQ(server.numFixed, 2u);
    EXPECT_EQ(server.fixed[0].client.mac, (Ostrel_MAC{2, 0, 0, 0, 0, 0xAB}));
    EXPECT_EQ(server.fixed[0].client.identifierLength, 0u);
    EXPECT_STREQ(server.fixed[0].hostName.get(), "a");
    EXPECT_EQ(server.fixed[1].IPv4Address, inet_addr("192.0.2.8"));
    EXPECT_EQ(IdentifierOf(server.fixed[1].client), (Bytes{0, 'x', 'y'}));
    EXPECT_EQ(server.fixed[1].hostName, nullptr);
    EXPECT_EQ(server.probe, 0u);
    EXPECT_EQ(OptionsOf(server.options),
              (Options{{42, {192, 0, 2, 1, 0, 0, 0, 0}}, {1114, {'u'}}, {43, {0x0A, 0xFF}}}));

    EXPECT_EQ(Read(kOstrelModeDHCPServer, R"("fixed":)" + ManyFixed(1024)).cfg.server.numFixed, 1024u);
}

// Of a lease from 11:40:22 to 12:40:22 what is left is counted by the clock as it is.
TEST_F(ValueKeys, AKeptLeaseIsReadAsItWasShown) {
    const std::string shown = R"("ipv4Address":"192.0.2.100","mac":"02:00:00:00:00:01",)"
                              R"("leaseTimeString":"Mon Nov 16 11:40:22 2026",)"
                              R"("leaseExpiryString":"Mon Nov 16 12:40:22 2026","leaseTime":3600)";
    const auto lease = [&](const std::string& more) { return R"("leases":[{)" + shown + more + "}]"; };
    constexpr int64_t kBegan = 1794829222;
    const struct {
        const char* what;
        int64_t wall;  // of the device, UTC
        int32_t zone;  // seconds
        std::string members;
        uint32_t count, age, remaining;
    } cases[] = {
        {"a quarter over", kBegan + 900, 0, lease(""), 1, 900, 2700},
        {"in another zone", kBegan + 900 - 7200, 7200, lease(""), 1, 900, 2700},
        {"over", kBegan + 3601, 0, lease(""), 1, 3601, 0},
        {"before the clock was set", 0, 0, lease(""), 1, 0, 3600},
        {"in seconds", 0, 0, lease(R"(,"age":7,"remaining":9)"), 1, 7, 9},
        {"as posted", kBegan, 0, R"("leases":[{"interface":"eth0",)" + lease("") + "}]", 1, 0, 3600},
        {"another interface's", kBegan, 0, R"("leases":[{"interface":"eth1",)" + lease("") + "}]", 0, 0, 0},
        {"in two lists", kBegan, 0, lease("").substr(0, lease("").size() - 1) + R"(,{"leases":[{)" + shown + "}]}]", 2,
         0, 3600},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        world.wallStart = c.wall;
        world.zoneSeconds = c.zone;
        const Read read(kOstrelModeDHCPServer, c.members);
        ASSERT_EQ(read.cfg.server.numKept, c.count);
        for (uint32_t i = 0; i < c.count; ++i) {
            const Ostrel_KeptLease& kept = read.cfg.server.kept[i];
            EXPECT_TRUE(kept.age == c.age && kept.remaining == c.remaining) << kept.age << " " << kept.remaining;
        }
    }
    world.zoneSeconds = 0;
    const Read named(kOstrelModeDHCPServer, lease(R"(,"hostName":"�a","clientIdentifier":"x","state":[])"));
    EXPECT_STREQ(named.cfg.server.kept[0].hostName.get(), "�a");
    EXPECT_EQ(IdentifierOf(named.cfg.server.kept[0].client), (Bytes{0, 'x'}));
    const Read exact(kOstrelModeDHCPServer, lease(R"(,"clientIdentifier":"x","clientIdentifierHex":"ff00")"));
    EXPECT_EQ(IdentifierOf(exact.cfg.server.kept[0].client), (Bytes{0xFF, 0}));
    EXPECT_EQ(exact.cfg.server.kept[0].client.mac, (Ostrel_MAC{2, 0, 0, 0, 0, 1}));
}

TEST_F(ValueKeys, NothingIsLeftWhenMemoryIsOut) {
    const char* requests[][2] = {
        {"client", R"("hostName":"a","requestOptions":[42],"clientIdentifierHex":"0102")"},
        {"server", R"("fixed":[{"macAddress":"02:00:00:00:00:01","ipv4Address":"192.0.2.7","hostName":"a"}],)"
                   R"("leases":[{"ipv4Address":"192.0.2.100","mac":"02:00:00:00:00:01","remaining":60}],)"
                   R"("options":[{"code":42,"ipv4":["192.0.2.1"]}])"},
    };
    for (const auto& [mode, members] : requests) {
        for (size_t allocation = 1;; ++allocation) {
            ASSERT_LT(allocation, 200u);
            world.FailAllocation(allocation);
            const bool succeeds = Initialize(mode, members) == R"({"returnValue":true})";
            world.FailAllocation(0);
            if (succeeds) break;
            EXPECT_EQ(daemon.system.interfaceList, nullptr);
        }
        EXPECT_TRUE(daemon.Finalize("eth0"));
    }
}

// Of the other methods.
TEST_F(ValueKeys, AnActionsValuesGoWithTheirWords) {
    EXPECT_EQ(Initialize("client", R"("rfc":true)"), R"({"returnValue":true})");
    const struct {
        const char *category, *method, *members, *problem;
    } cases[] = {
        {"/client", "leaseAction", R"("leaseAction":"renew","address":"192.0.2.7")",
         R"("address": only "init" takes it)"},
        {"/client", "leaseAction", R"("leaseAction":"init","address":"0.0.0.0")",
         R"("address": no host can have this address)"},
        {"/client", "leaseAction", R"("leaseAction":"init","address":7)",
         R"("address": an IPv4 address such as 192.0.2.1 is wanted)"},
        {"/client", "leaseAction", R"("leaseAction":"init","release":false)", R"("release": only "halt" takes it)"},
        {"/client", "leaseAction", R"("leaseAction":"halt","release":1)", R"("release": true or false is wanted)"},
        {"/", "interfaceFinalize", R"("release":"true")", R"("release": true or false is wanted)"},
    };
    for (const auto& c : cases) {
        const std::string code = c.category[1] == '\0' ? R"("errorCode":-1,"errorText":"Failed",)" : "";
        EXPECT_EQ(world.Call(c.category, c.method, std::string(R"({"interface":"eth0",)") + c.members + "}"),
                  R"({"returnValue":false,)" + code + R"("problem":")" + Quoted(c.problem) + "\"}");
        EXPECT_TRUE(world.Logged(c.problem));
        EXPECT_NE(daemon.system.interfaceList, nullptr);
    }
    for (const char* members :
         {R"("leaseAction":"init","address":"192.0.2.7")", R"("leaseAction":"halt","release":true)"})
        EXPECT_EQ(world.Call("/client", "leaseAction", std::string(R"({"interface":"eth0",)") + members + "}"),
                  R"({"returnValue":true})");
    EXPECT_EQ(world.Call("/", "interfaceFinalize", R"({"interface":"eth0","release":true})"),
              R"({"returnValue":true})");
}

}  // namespace
}  // namespace sim
