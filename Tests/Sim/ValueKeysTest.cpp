// The keys that "interfaceInitialize" takes strictly: what each refuses, in the words that a caller reads, and what the
// configuration dump shows of those that it took.

#include <arpa/inet.h>

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

constexpr char kDone[] = R"({"returnValue":true})";

// The reply that refuses a call; `code` stands before the problem.
std::string Refused(const std::string& problem, const std::string& code = "") {
    std::string quoted;
    for (const char c : problem) (c == '"' || c == '\\' ? quoted += '\\' : quoted) += c;
    return R"({"returnValue":false,)" + code + R"("problem":")" + quoted + "\"}";
}
constexpr char kFailed[] = R"("errorCode":-1,"errorText":"Failed",)";

std::string Many(size_t count, const std::string& element) {
    std::string list;
    for (size_t i = 0; i < count; ++i) list += (i == 0 ? "" : ",") + element;
    return "[" + list + "]";
}
std::string Text(size_t length) {
    return "\"" + std::string(length, 'a') + "\"";
}

// What is said of values of a key. Other members may follow a value.
struct Refusal {
    const char* key;
    const char* place;  // within the value
    const char* problem;
    std::vector<std::string> values;
};

constexpr char kBoolean[] = "true or false is wanted";
constexpr char kOfOtherMode[] = R"(is not of this "mode")";
constexpr char kHostName[] = "a host name such as camera or camera.lab.example is wanted";
constexpr char kIdentifier[] = "2 to 255 pairs of hexadecimal digits are wanted";
constexpr char kCode[] = "a whole number from 1 to 254 is wanted";
constexpr char kOwnCode[] = "this code is the protocol's own";
constexpr char kAddress[] = "an IPv4 address such as 192.0.2.1 is wanted";
constexpr char kMAC[] = "an Ethernet address such as 02:00:5e:10:00:01 is wanted";
constexpr char kTime[] = "a time such as Mon Nov 16 11:40:22 2026 is wanted";

std::vector<Refusal> RefusalsOfClients() {
    const std::string label = std::string(63, 'a') + ".";
    const std::string longName = "\"" + label + label + label + std::string(59, 'a') + "\"";
    const std::string tooLong = R"({"224":)" + Text(510) + R"(,"225":)" + Text(510) + R"(,"226":)" + Text(506) + "}";
    const char* const tooMuch = "the options of the client are longer than 768 bytes together";
    return {
        {"rfc", "", kBoolean, {"1", R"("true")"}},
        {"probe", "", kOfOtherMode, {R"(250,"rfc":true)"}},
        {"linkLocal", "", R"("fallback" is wanted)", {"true", R"("Fallback")"}},
        {"linkLocal", "", R"(contradicts "ipv4LinkLocal")", {R"("fallback","ipv4LinkLocal":false)"}},
        {"hostName", "", "a text of 1 to 253 bytes is wanted", {"7", R"("")", R"("a\u0000b")"}},
        {"hostName", "", kHostName, {R"("my camera")", R"("camera.")", Text(64)}},
        {"hostName", "", "a name with dots has at most 250 bytes", {longName}},
        {"vendorClass", "", "a text of 1 to 255 bytes is wanted", {R"("")", Text(256)}},
        {"userClass", "", "a text, or an array of texts, is wanted", {"{}", "[]"}},
        {"userClass", "", "a text of 1 to 255 bytes is wanted", {R"("")"}},
        {"userClass", "[1]", "a text of 1 to 254 bytes is wanted", {R"(["a",""])"}},
        {"userClass", "[1]", "the classes are longer than an option", {R"(["a",)" + Text(253) + "]"}},
        {"clientIdentifierHex", "", kIdentifier, {R"("ff")", R"("01020")", R"("01:02")", R"("010g")"}},
        {"clientIdentifierHex", "", R"(contradicts "clientIdentifier")", {R"("0061","clientIdentifier":"a")"}},
        {"requestOptions", "", "an array of at most 64 elements is wanted", {"42", Many(65, "42")}},
        {"requestOptions", "[0]", kCode, {R"(["42"])", "[255]"}},
        {"requestOptions", "[1]", kOwnCode, {"[42,53]"}},
        {"requestOptions", "[2]", "this code was given already", {"[42,26,42]"}},
        {"sendOptions", "", R"(an object is wanted, such as {"60":"6d6f64656d"})", {"[]"}},
        {"sendOptions", ".060", "the code of an option, 1 to 254, is wanted as the key", {R"({"060":"00"})"}},
        {"sendOptions", ".255", "the code of an option, 1 to 254, is wanted as the key", {R"({"255":"00"})"}},
        {"sendOptions", ".54", kOwnCode, {R"({"54":"c0000201"})"}},
        {"sendOptions", ".224", "1 to 255 pairs of hexadecimal digits are wanted", {R"({"224":""})"}},
        {"sendOptions", ".12", "this option was given already", {R"({"12":"61"},"hostName":"a")"}},
        {"sendOptions", ".226", tooMuch, {tooLong}},
        {"broadcast", "", kBoolean, {"1"}},
        {"arpCheck", "", "a whole number from 0 to 60000 is wanted", {"60001", "1.5"}},
    };
}

// Of a kept lease, with this in place of its times.
std::string Kept(const std::string& rest) {
    return R"([{"ipv4Address":"192.0.2.100","mac":"02:00:00:00:00:01")" + rest + "}]";
}
// Of an address that is kept for a client: of one by its Ethernet address, and what the list holds beside.
std::string Fixed(const std::string& members, const std::string& others = "") {
    return R"([{"macAddress":"02:00:00:00:00:01",)" + members + "}" + others + "]";
}
std::string FixedTo(const std::string& address) {
    return Fixed(R"("ipv4Address":")" + address + "\"");
}
std::string FixedFor(const std::string& mac) {
    return R"([{"macAddress":")" + mac + R"(","ipv4Address":"192.0.2.7"}])";
}

std::vector<Refusal> RefusalsOfServers() {
    const std::string began = R"(,"leaseTimeString":"Mon Nov 16 11:40:22 2026","leaseExpiryString":)";
    const char* const oneClient = R"(one of "macAddress", "clientIdentifier" and "clientIdentifierHex" is wanted)";
    const char* const oneWay = R"(one of "ipv4", "text" and "hex" is wanted)";
    const char* const noHost = "no host can have this address";
    const std::string text = R"(,{"clientIdentifier":"a","ipv4Address":"192.0.2.7"})";
    const std::string same = R"(,{"clientIdentifierHex":"0061","ipv4Address":"192.0.2.8"})";
    return {
        {"rfc", "", kBoolean, {"null"}},
        {"hostName", "", kOfOtherMode, {R"("a")"}},
        {"leasesFollow", "", kBoolean, {"1"}},
        {"probe", "", "a whole number from 0 to 10000 is wanted", {"-1", "10001"}},
        {"fixed", "", "an array of at most 1024 elements is wanted", {"{}", Many(1025, "7")}},
        {"fixed", "[0]", "an object is wanted", {Many(1024, "7")}},
        {"fixed", "[0].ipv4Adress", "there is no such key", {Fixed(R"("ipv4Adress":"192.0.2.7")")}},
        {"fixed", "[0]", oneClient, {R"([{"ipv4Address":"192.0.2.7"}])", Fixed(R"("clientIdentifier":"a")")}},
        {"fixed", "[0].macAddress", kMAC, {FixedFor("02:00:00:00:00"), FixedFor("02-00-00-00-00-01")}},
        {"fixed", "[0].macAddress", "no station can have this address", {FixedFor("03:00:00:00:00:01")}},
        {"fixed", "[0].ipv4Address", kAddress, {FixedTo("192.0.2"), Fixed(R"("hostName":"a")")}},
        {"fixed", "[0].ipv4Address", noHost, {FixedTo("224.0.0.1"), FixedTo("192.0.2.255")}},
        {"fixed", "[0].ipv4Address", "is not in the server's subnet", {FixedTo("192.0.3.7")}},
        {"fixed", "[0].ipv4Address", "is the server's own", {FixedTo("192.0.2.1")}},
        {"fixed", "[0].hostName", kHostName, {Fixed(R"("ipv4Address":"192.0.2.7","hostName":"a b")")}},
        {"fixed", "[1].ipv4Address", "was given already", {Fixed(R"("ipv4Address":"192.0.2.7")", text)}},
        {"fixed", "[2]", "its client was given already", {Fixed(R"("ipv4Address":"192.0.2.6")", text + same)}},
        {"options", "[0].code", kCode, {R"([{"code":"42","ipv4":["192.0.2.1"]}])", R"([{"ipv4":["192.0.2.1"]}])"}},
        {"options", "[0].code", kOwnCode, {R"([{"code":51,"hex":"00"}])"}},
        {"options", "[0].code", "the server takes this option from its other keys", {R"([{"code":6,"hex":"00"}])"}},
        {"options", "[0]", oneWay, {R"([{"code":42}])", R"([{"code":42,"hex":"00","text":"a"}])"}},
        {"options", "[0].ipv4", "at least one address is wanted", {R"([{"code":42,"ipv4":[]}])"}},
        {"options", "[0].ipv4[0]", kAddress, {R"([{"code":42,"ipv4":["a"]}])"}},
        {"options", "[0].text", "a text of 1 to 1020 bytes is wanted", {R"([{"code":114,"text":""}])"}},
        {"options", "[0].hex", "1 to 1020 pairs of hexadecimal digits are wanted", {R"([{"code":43,"hex":"0"}])"}},
        {"options", "[0].forced", kBoolean, {R"([{"code":43,"hex":"00","forced":1}])"}},
        {"options", "[0].force", "there is no such key", {R"([{"code":43,"hex":"00","force":true}])"}},
        {"options", "[1].code", "this option was given already", {Many(2, R"({"code":43,"hex":"00"})")}},
        {"leases", "[0]", "a lease as leaseInformation shows it is wanted", {"[7]"}},
        {"leases", "[0].leases", "an array of at most 65536 elements is wanted", {R"([{"leases":7}])"}},
        {"leases", "[0].leases[0].mac", kMAC, {R"([{"leases":[{"ipv4Address":"192.0.2.100"}]}])"}},
        {"leases", "[0].ipv4Address", kAddress, {R"([{"mac":"02:00:00:00:00:01"}])"}},
        {"leases", "[0].leaseTimeString", kTime, {Kept("")}},
        {"leases", "[0].leaseExpiryString", kTime, {Kept(began + R"("2026-11-16T12:40:22")")}},
        {"leases", "[0]", "ends before it begins", {Kept(began + R"("Mon Nov 16 11:40:21 2026")")}},
        {"leases", "[0].remaining", "a whole number from 0 to 2147483647 is wanted", {Kept(R"(,"remaining":-1)")}},
        {"leases", "[0].clientIdentifierHex", kIdentifier, {Kept(R"(,"remaining":1,"clientIdentifierHex":"0")")}},
    };
}

TEST_F(ValueKeys, ARefusedOneIsToldInWords) {
    for (const char* const mode : {"client", "server"}) {
        for (const auto& [key, place, what, values] : *mode == 'c' ? RefusalsOfClients() : RefusalsOfServers()) {
            const std::string problem = std::string("\"") + key + "\"" + place + ": " + what;
            for (const std::string& value : values) {
                SCOPED_TRACE(problem + " " + value.substr(0, 200));
                world.log.clear();
                EXPECT_EQ(Initialize(mode, std::string("\"") + key + "\":" + value), Refused(problem, kFailed));
                EXPECT_TRUE(world.Logged(problem));
                EXPECT_EQ(daemon.system.interfaceList, nullptr);
            }
        }
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
        EXPECT_EQ(Initialize(mode, members + R"(,"leases2":[])"), kDone);
        EXPECT_TRUE(Dump().ends_with("," + members + "}]}")) << Dump();
        EXPECT_TRUE(daemon.Finalize("eth0"));
    }
    EXPECT_EQ(Initialize("server", R"("leases":[],"x":1)"), kDone);
    EXPECT_TRUE(Dump().ends_with(R"("maxLeases":20}]})")) << "leases are no configuration";
}

// What the roles get, read straight into the record.
struct Read {
    Read(uint32_t mode, const std::string& members) {
        cfg.ifname = {"eth0"};
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

TEST_F(ValueKeys, WhatIsSentGoesAsOptions) {
    const struct {
        uint32_t mode;
        const char* members;
        Options options;
    } cases[] = {
        {kOstrelModeDHCPClient, R"("hostName":"ab")", {{12, {'a', 'b'}}}},
        {kOstrelModeDHCPClient, R"("hostName":"ab.c")", {{81, {5, 0, 0, 2, 'a', 'b', 1, 'c', 0}}}},
        {kOstrelModeDHCPClient, R"("vendorClass":"v","userClass":"u")", {{60, {'v'}}, {77, {'u'}}}},
        {kOstrelModeDHCPClient, R"("userClass":["u","vw"])", {{77, {1, 'u', 2, 'v', 'w'}}}},
        {kOstrelModeDHCPClient, R"("sendOptions":{"224":"00fF","12":"61"})", {{224, {0, 255}}, {12, {'a'}}}},
        {kOstrelModeDHCPServer,
         R"("options":[{"code":42,"ipv4":["192.0.2.1","0.0.0.0"]},{"code":114,"text":"u","forced":true},)"
         R"({"code":43,"hex":"0aFF","forced":false}])",
         {{42, {192, 0, 2, 1, 0, 0, 0, 0}}, {1114, {'u'}}, {43, {0x0A, 0xFF}}}},
    };
    for (const auto& [mode, members, options] : cases) {
        const Read read(mode, members);
        EXPECT_EQ(OptionsOf(mode == kOstrelModeDHCPClient ? read.cfg.client.sent : read.cfg.server.options), options)
            << members;
    }
    const Read client(kOstrelModeDHCPClient, R"("linkLocal":"fallback","arpCheck":9000)");
    EXPECT_TRUE(client.cfg.linkLocalFallback && client.cfg.client.arpCheck == 9000);
    EXPECT_EQ(client.cfg.mode, kOstrelModeDHCPClient | kOstrelModeLinkLocal);
    const Read server(kOstrelModeDHCPServer,
                      R"("fixed":[{"clientIdentifier":"xy","ipv4Address":"192.0.2.8"}],"probe":0)");
    EXPECT_EQ(IdentifierOf(server.cfg.server.fixed[0].client), (Bytes{0, 'x', 'y'}));
    EXPECT_EQ(server.cfg.server.probe, 0u);
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
        uint32_t count;
        std::string members;
        uint32_t age, remaining;
    } cases[] = {
        {"a quarter over", kBegan + 900, 0, 1, lease(""), 900, 2700},
        {"in another zone", kBegan + 900 - 7200, 7200, 1, lease(""), 900, 2700},
        {"over", kBegan + 3601, 0, 1, lease(""), 3601, 0},
        {"before the clock was set", 0, 0, 1, lease(""), 0, 3600},
        {"in seconds", 0, 0, 1, lease(R"(,"age":7,"remaining":9)"), 7, 9},
        {"as posted", kBegan, 0, 1, R"("leases":[{"interface":"eth0",)" + lease("") + "}]", 0, 3600},
        {"another interface's", kBegan, 0, 0, R"("leases":[{"interface":"eth1",)" + lease("") + "}]", 0, 0},
        {"in two lists", kBegan, 0, 2, lease(R"(},{"leases":[{)" + shown + "}]"), 0, 3600},
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

// Of the other methods.
TEST_F(ValueKeys, AnActionsValuesGoWithTheirWords) {
    world.AddInterface("eth1", kOtherMAC, world.AddSegment());
    ASSERT_EQ(Initialize("client", R"("rfc":true)"), kDone);
    ASSERT_TRUE(daemon.Initialize("eth1", {{"mode", "server"},
                                           {"ipv4Address", "192.0.2.1"},
                                           {"ipv4Subnet", "255.255.255.0"},
                                           {"ipv4Router", "192.0.2.1"},
                                           {"ipv4RangeStart", "192.0.2.100"},
                                           {"maxLeases", 5}}));
    const struct {
        const char *category, *method, *members;
        std::string problem;  // "": none
    } cases[] = {
        {"/client", "leaseAction", R"("eth0","leaseAction":"renew","address":"192.0.2.7")",
         R"("address": only "init" takes it)"},
        {"/client", "leaseAction", R"("eth0","leaseAction":"init","address":"0.0.0.0")",
         R"("address": no host can have this address)"},
        {"/client", "leaseAction", R"("eth0","leaseAction":"init","address":7)",
         std::string(R"("address": )") + kAddress},
        {"/client", "leaseAction", R"("eth0","leaseAction":"init","release":false)",
         R"("release": only "halt" takes it)"},
        {"/client", "leaseAction", R"("eth0","leaseAction":"halt","release":1)",
         std::string(R"("release": )") + kBoolean},
        {"/client", "leaseAction", R"("eth0","leaseAction":"init","address":"192.0.2.7")", ""},
        {"/client", "leaseAction", R"("eth0","leaseAction":"halt","release":true)", ""},
        {"/server", "leaseAction", R"(7,"ipv4Address":"192.0.2.100","leaseAction":"hold")",
         R"("interface": a text of 1 to 16 bytes is wanted)"},
        {"/server", "leaseAction", R"("eth0")", R"("interface": runs no server)"},
        {"/server", "leaseAction", R"("eth1","leaseAction":"hold")", std::string(R"("ipv4Address": )") + kAddress},
        {"/server", "leaseAction", R"("eth1","ipv4Address":"192.0.2.99","leaseAction":"hold")",
         R"("ipv4Address": is not the server's to give)"},
        {"/server", "leaseAction", R"("eth1","ipv4Address":"192.0.2.100","leaseAction":"Hold")",
         R"("leaseAction": "release" or "hold" is wanted)"},
        {"/", "interfaceFinalize", R"("eth0","release":"true")", std::string(R"("release": )") + kBoolean},
        {"/", "interfaceFinalize", R"("eth0","release":true)", ""},
    };
    for (const auto& [category, method, members, problem] : cases) {
        SCOPED_TRACE(members);
        ASSERT_NE(daemon.system.interfaceList->next, nullptr);
        EXPECT_EQ(world.Call(category, method, std::string(R"({"interface":)") + members + "}"),
                  problem.empty() ? kDone : Refused(problem, category[1] == '\0' ? kFailed : ""));
        EXPECT_TRUE(world.Logged(problem));
    }
}

}  // namespace
}  // namespace sim
