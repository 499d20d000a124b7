// The daemon as its callers see it: requests in, replies to the letter out, posts, and what a wrong request must not
// do.

#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>
#include <map>

#include "Ostrel/DHCPClient.h"
#include "Ostrel/DHCPServer.h"
#include "Ostrel/Interface.h"
#include "Ostrel/LinkLocal.h"
#include "Ostrel/Log.h"
#include "Ostrel/Publish.h"
#include "Ostrel/System.h"

#include "DHCPServer/LeaseTable.h"
#include "OstrelVoroBus/Method.h"
#include "Sim.h"
#include "os_memory.h"

namespace {

using namespace std::chrono_literals;

constexpr char kTrue[] = R"({"returnValue":true})";
constexpr char kFalse[] = R"({"returnValue":false})";
constexpr char kFailed[] = R"({"returnValue":false,"errorCode":-1,"errorText":"Failed"})";
constexpr char kFailedList[] = R"({"returnValue":false,"errorCode":-1,"errorText":"Failed","interfaceList":[]})";
constexpr char kFalseList[] = R"({"returnValue":false,"interfaceList":[]})";
constexpr char kEmptyList[] = R"({"returnValue":true,"interfaceList":[]})";

template <typename Element>
os_array<Element> Copy(std::string_view bytes) {
    auto copy = os_zalloc_array<Element>(bytes.size() + 1);
    std::memcpy(copy.get(), bytes.data(), bytes.size());
    return copy;
}

// A request's members, each as JSON text; one of an empty text is left out.
using Members = std::map<std::string, std::string>;

std::string Request(Members members, const Members& changes = {}) {
    for (const auto& [key, value] : changes) members[key] = value;
    std::string text;
    for (const auto& [key, value] : members) {
        if (!value.empty()) text += (text.empty() ? "\"" : ",\"") + key + "\":" + value;
    }
    return "{" + text + "}";
}

const Members kClient{{"interface", R"("eth0")"},           {"mode", R"("client")"},
                      {"ipv4Config", R"("dhcp")"},          {"ipv4Address", R"("192.0.2.10")"},
                      {"ipv4Subnet", R"("255.255.255.0")"}, {"ipv4Router", R"("192.0.2.1")"},
                      {"ipv4RangeStart", R"("0.0.0.0")"}};

const Members kServer{{"interface", R"("usb0")"},
                      {"mode", R"("server")"},
                      {"ipv4Address", R"("192.168.10.1")"},
                      {"ipv4Subnet", R"("255.255.255.0")"},
                      {"ipv4Router", R"("192.168.10.1")"},
                      {"ipv4RangeStart", R"("192.168.10.100")"},
                      {"maxLeases", "20"},
                      {"leaseTime", "7200"}};

struct Bus : testing::Test {
    Bus() {
        sim::World::onFailure = [](const std::string& what) { ADD_FAILURE() << what; };
        sim::Segment& lan = world.AddSegment();
        sim::Segment& link = world.AddSegment();  // of its own: no lease for eth0 from the server's range
        world.AddInterface("eth0", {2, 0, 0, 0, 0, 1}, lan);
        world.AddInterface("usb0", {2, 0, 0, 0, 0, 2}, link);
        world.AddInterface("sixteen-letters!", {2, 0, 0, 0, 0, 3}, lan);
        for (auto& row : gTblSubscribers) row.value = 0;
        EXPECT_EQ(Ostrel_DaemonStart(&system), kNoErr);
    }
    ~Bus() override { EXPECT_EQ(Ostrel_DaemonStop(&system), kNoErr); }

    std::string Root(std::string_view method, std::string_view payload) { return world.Call("/", method, payload); }
    std::string Dump() { return Root("interfaceConfigDump", "{}"); }
    std::string Leases(std::string_view category, std::string_view payload = "{}", std::string_view caller = ":1.1") {
        return world.Call(category, "leaseInformation", payload, caller);
    }
    std::string Act(std::string_view interface, std::string_view action) {
        const Members members{{"interface", std::string(interface)}, {"leaseAction", std::string(action)}};
        return world.Call("/client", "leaseAction", Request(members));
    }
    Ostrel_InterfaceObj* Initialize(const Members& members, const Members& changes = {}) {
        EXPECT_EQ(Root("interfaceInitialize", Request(members, changes)), kTrue);
        Ostrel_InterfaceObj* last = system.interfaceList;
        while (last != nullptr && last->next != nullptr) last = last->next;
        return last;
    }

    // All that a refused request must leave alone.
    std::string State() {
        std::string state = Dump() + Leases("/client") + Leases("/server");
        for (const size_t count : {world.PendingTimeouts(), world.OpenSockets(), world.LiveAllocations()})
            state += " " + std::to_string(count);
        for (auto* iface = system.interfaceList; iface != nullptr; iface = iface->next)
            if (iface->dhcpClient != nullptr) state += " " + std::to_string(iface->dhcpClient->state);
        return state + " " + std::to_string(gMaxDebugLevel);
    }

    // The failed checks that the bus area has reported since `from`: status, expression and function of each.
    [[nodiscard]] std::vector<std::string> Reports(size_t from) const {
        std::vector<std::string> reports;
        for (size_t i = from; i < world.log.size(); ++i) {
            std::string text = world.log[i].text;
            const size_t area = text.find("  Src/OstrelVoroBus ");
            if (!world.log[i].systemLog || area == std::string::npos) continue;
            const size_t function = text.rfind(' ');
            reports.push_back(text.substr(0, area) + text.substr(function, text.find('\n') - function));
        }
        return reports;
    }

    sim::World world;
    Ostrel_SystemObj system{};
};

TEST_F(Bus, ARefusedRequestChangesNothing) {
    using Texts = std::vector<std::string>;
    Initialize(kClient, {{"ipv4LinkLocal", "true"}});
    const std::string before = State();
    const struct {
        const char *category, *method, *reply;
    } methods[] = {
        {"/", "interfaceInitialize", kFailed},
        {"/", "interfaceFinalize", kFailed},
        {"/", "setDebugLevel", kFalse},
        {"/", "interfaceConfigDump", kFalseList},
        {"/client", "leaseAction", kFalse},
        {"/client", "leaseInformation", kFailedList},
        {"/server", "leaseInformation", kFailedList},
    };
    const std::string deep = std::string(10'000, '[') + std::string(10'000, ']');
    for (const auto& [category, method, reply] : methods)
        for (const std::string& payload : Texts{"[]", "42", "null", "\"{}\"", "", "{", "{}x", deep})
            EXPECT_EQ(world.Call(category, method, payload), reply) << method << " " << payload.substr(0, 20);
    for (const char* payload : {"\xFF", "{\"interface\":\"\xEF\xBF\xBF\"}"}) {
        EXPECT_EQ(Root("interfaceConfigDump", payload), "");
        EXPECT_EQ(world.callError, "System.Error.EBADMSG") << "the bus refuses it, nothing here sees it";
    }
    EXPECT_TRUE(world.Logged("0 success  Src/OstrelVoroBus"));
    EXPECT_TRUE(world.Logged("Ostrel_VoroMethod_SetDebugLevel: null"));

    const std::pair<const char*, Texts> wrong[] = {
        // Of these names the last is managed already.
        {"interface", {"", "5", R"("seventeen-letters")", R"("usb0\u0000x")", R"("absent0")", R"("eth0")"}},
        {"mode", {"", "[]", R"("Client")"}},
        {"ipv4Config", {R"("DHCP")"}},
        {"ipv4Address", {"", R"("256.0.0.1")"}},
        {"ipv4Subnet", {"", "255"}},
        {"ipv4Router", {"", "{}"}},
        {"ipv4RangeStart", {"", R"("")"}},
    };
    Members members = kClient;
    members["interface"] = R"("usb0")";
    members.insert({{"domainName", R"("d")"}, {"clientIdentifier", R"("c")"}});
    for (const auto& [key, values] : wrong)
        for (const std::string& value : values)
            EXPECT_EQ(Root("interfaceInitialize", Request(members, {{key, value}})), kFailed) << key << value;
    for (const char* action : {R"("Renew")", R"("init ")", R"("init\u0000")", R"("")", "1", "null", ""})
        EXPECT_EQ(Act(R"("eth0")", action), kFalse) << action;
    for (const char* name : {R"("other")", ""}) EXPECT_EQ(Act(name, R"("init")"), kFalse);
    for (const char* level : {"3", "null", ""})
        EXPECT_EQ(Root("setDebugLevel", Request({{"debugLevel", level}})), kFalse) << level;
    for (const char* level : {R"("Error")", R"("error\u0000")", R"("100")"})
        EXPECT_EQ(Root("setDebugLevel", Request({{"debugLevel", level}})), kTrue) << level << " is no level";
    EXPECT_EQ(State(), before);
    EXPECT_EQ(Root("setDebugLevel", R"({"debugLevel":"chatty"})"), kTrue);
    EXPECT_EQ(gMaxDebugLevel, kDebugLevelChatty);
    EXPECT_EQ(Root("setDebugLevel", R"({"debugLevel":"info"})"), kTrue);
}

TEST_F(Bus, AFailedCheckIsReportedUnderTheNameOfItsMethod) {
    Initialize(kClient, {{"ipv4LinkLocal", "true"}});
    const std::string resolve = "-6727  Ostrel_VSUtil_ResolveInterfaceObj";
    const std::string root = "Ostrel_VoroMethod_InterfaceInitialize";
    const struct {
        const char *category, *method;
        std::string payload;
        std::vector<std::string> reports;
    } calls[] = {
        {"/", "interfaceInitialize", "[]", {"0 success " + root}},
        {"/",
         "interfaceInitialize",
         R"({"interface":"seventeen-letters"})",
         {"0 (success && (strIfname.size() < sizeof(cfg.ifname))) " + root}},
        {"/", "interfaceInitialize", Request(kClient, {{"mode", "1"}}), {"0 success " + root}},
        {"/", "interfaceInitialize", Request(kClient, {{"mode", R"("Client")"}}), {"-6727  " + root}},
        {"/", "interfaceInitialize", Request(kClient, {{"ipv4Config", R"("DHCP")"}}), {"-6727  " + root}},
        {"/", "interfaceInitialize", Request(kClient, {{"ipv4Subnet", R"("x")"}}), {"-6705  " + root}},
        {"/", "interfaceInitialize", Request(kClient, {{"ipv4RangeStart", R"("x")"}}), {"-6705  " + root}},
        {"/", "interfaceInitialize", Request(kClient), {"-6730  " + root}},
        {"/", "interfaceFinalize", R"({"interface":"other"})", {resolve, "-6727  Ostrel_VoroMethod_InterfaceFinalize"}},
        {"/", "interfaceFinalize", "{}", {"-6705  Ostrel_VoroMethod_InterfaceFinalize"}},
        {"/", "setDebugLevel", "{}", {"0 success Ostrel_VoroMethod_SetDebugLevel"}},
        {"/", "interfaceConfigDump", "[]", {"0 success Ostrel_VoroMethod_InterfaceConfigDump"}},
        {"/client", "leaseAction", R"({"interface":"other"})", {resolve, "-6727  Ostrel_VoroMethod_ClientLeaseAction"}},
        {"/client", "leaseAction", R"({"interface":"eth0"})", {"0 success Ostrel_VoroMethod_ClientLeaseAction"}},
        {"/client",
         "leaseAction",
         R"({"interface":"eth0","leaseAction":"x"})",
         {"-6705  Ostrel_VoroMethod_ClientLeaseAction"}},
        {"/client", "leaseInformation", "", {"0 success Ostrel_VoroMethod_ClientLeaseInformation"}},
        {"/client", "leaseInformation", R"({"interface":"other"})", {resolve}},
        {"/server", "leaseInformation", "", {"0 success Ostrel_VoroMethod_ServerLeaseInformation"}},
    };
    for (const auto& [category, method, payload, reports] : calls) {
        const size_t before = world.log.size();
        world.Call(category, method, payload);
        EXPECT_EQ(Reports(before), reports) << category << " " << method << " " << payload;
    }
}

TEST_F(Bus, TheDumpShowsWhatARequestConfigured) {
    EXPECT_EQ(Dump(), kEmptyList);
    Initialize(kServer, {{"dnsServers", R"(["192.0.2.1",null,"192.0.2.3","192.0.2.4"])"}, {"domainName", R"("lab")"}});
    Initialize(kClient, {{"ipv4Config", R"("static")"},
                         {"ipv4LinkLocal", "true"},
                         {"dnsServers", R"(["192.0.2.2"])"},
                         {"domainName", R"("lab.example")"},
                         {"clientIdentifier", R"("abc")"}});
    const std::string server = R"({"interface":"usb0","mode":"server","ipv4Address":"192.168.10.1",)"
                               R"("ipv4Subnet":"192.168.10.0","ipv4Router":"192.168.10.1",)"
                               R"("dnsServers":["192.0.2.1","192.0.2.3"],"leaseExpiry":7200,"domainName":"lab",)"
                               R"("ipv4RangeStart":"192.168.10.100","maxLeases":20})";
    const std::string client = R"({"interface":"eth0","mode":"client","ipv4LinkLocal":true,"ipv4Config":"static",)"
                               R"("ipv4Address":"192.0.2.10","ipv4Subnet":"255.255.255.0","ipv4Router":["192.0.2.1"],)"
                               R"("dnsServers":["192.0.2.2"],"domainName":"lab.example","clientIdentifier":"abc"})";
    const std::string start = R"({"returnValue":true,"interfaceList":[)";
    EXPECT_EQ(Dump(), start + server + "," + client + "]}");
    EXPECT_EQ(Root("interfaceConfigDump", R"({"interface":"eth0"})"), start + client + "]}");
    EXPECT_EQ(Root("interfaceConfigDump", R"({"interface":"other"})"), start + server + "," + client + "]}");

    EXPECT_EQ(Root("interfaceFinalize", R"({"interface":"usb0"})"), kTrue);
    EXPECT_EQ(Root("interfaceFinalize", R"({"interface":"usb0"})"), kFailed);
    EXPECT_EQ(Root("interfaceFinalize", R"({"interface":7})"), kFailed);
    EXPECT_EQ(Dump(), start + client + "]}");

    EXPECT_EQ(Root("interfaceFinalize", R"({"interface":"eth0"})"), kTrue);
    const Members unusable{{"ipv4Config", "2"},
                           {"ipv4LinkLocal", R"("true")"},
                           {"dnsServers", R"("192.0.2.1")"},
                           {"domainName", "[]"},
                           {"clientIdentifier", "7"},
                           {"maxLeases", R"("many")"},
                           {"leaseTime", "1e99"},
                           {"interface", R"("sixteen-letters!")"}};
    Initialize(kClient, unusable);  // each counts as absent
    EXPECT_EQ(Dump(), start + R"({"interface":"sixteen-letters!","mode":"client","ipv4LinkLocal":false,)"
                              R"("clientIdentifier":"02:00:00:00:00:03"}]})");
}

TEST_F(Bus, LeaseActionsReachEachRole) {
    Ostrel_InterfaceObj* eth0 = Initialize(kClient, {{"ipv4LinkLocal", "true"}});
    const std::string start = R"({"returnValue":true,"interfaceList":[{"interface":"eth0",)";
    EXPECT_EQ(Leases("/client"), start + R"("ipv4Address":"0.0.0.0"}]})");
    for (const char* action : {R"("init")", R"("renew")", R"("rebind")"}) {
        EXPECT_EQ(Act(R"("eth0")", action), kTrue);
        world.RunFor(2s);
        EXPECT_EQ(eth0->dhcpClient->state, kClientStateSelecting) << action;
        EXPECT_NE(eth0->linkLocal->IPv4Address, kAnyIPv4) << action;
        EXPECT_EQ(Act(R"("eth0")", R"("halt")"), kTrue);
        EXPECT_EQ(eth0->dhcpClient->state, kClientStateInitReboot);
        eth0->linkLocal->IPv4Address = kAnyIPv4;
    }
    eth0->linkLocal->IPv4Address = inet_addr("169.254.7.9");
    EXPECT_EQ(Leases("/client"), start + R"("ipv4Address":"169.254.7.9","ipv4Subnet":"255.255.0.0"}]})");
    Initialize(kServer);
    EXPECT_EQ(Act(R"("usb0")", R"("whatever")"), kTrue) << "a server takes any word";
}

TEST_F(Bus, NoncharactersOfACallerBreakNoReply) {
    Initialize(kServer, {{"domainName", R"("\uffff")"}});
    Initialize(kClient, {{"clientIdentifier", R"("\ufdd0\ud83f\udffe")"}});
    EXPECT_NE(Dump().find("\"domainName\":\"\uFFFD\""), std::string::npos) << Dump();
    EXPECT_NE(Dump().find("\"clientIdentifier\":\"\uFFFD\uFFFD\""), std::string::npos) << Dump();
}

TEST_F(Bus, ACallWithoutAnAnswerEnrolsNobody) {
    Leases("/client", R"({"subscribe":true})");
    world.failReplies = true;
    EXPECT_EQ(Leases("/client", R"({"subscribe":true})"), "");
    EXPECT_EQ(Leases("/server", R"({"subscribe":true})", ":1.2"), "");
    EXPECT_EQ(world.callError, "org.freedesktop.DBus.Error.Failed");
    world.failReplies = false;
    EXPECT_EQ(gTblSubscribers[0].value, 1u);
    EXPECT_TRUE(VSSubscriptionHasSubscribers(system.serviceHandle, "/client", "leaseInformation"));
    EXPECT_FALSE(VSSubscriptionHasSubscribers(system.serviceHandle, "/server", "leaseInformation"));
}

TEST_F(Bus, SubscribersAreCountedTogether) {
    const char* subscribed = R"({"returnValue":true,"subscribed":true,"interfaceList":[]})";
    EXPECT_EQ(Leases("/client", R"({"subscribe":"true"})"), kEmptyList);
    EXPECT_EQ(Leases("/client", R"({"subscribe":true})"), subscribed);
    EXPECT_EQ(Leases("/server", R"({"subscribe":true})"), subscribed);
    EXPECT_TRUE(world.Logged("leaseInformation now has 2 subscribers (added one)."));
    EXPECT_EQ(Leases("/client", R"({"subscribe":false})"), kEmptyList);
    EXPECT_TRUE(world.Logged("leaseInformation now has 1 subscribers (removed one)."));
    EXPECT_EQ(gTblSubscribers[0].value, 1u);
    EXPECT_EQ(Root("setDebugLevel", R"({"subscribe":true})"), R"({"returnValue":false,"subscribed":true})");
    EXPECT_EQ(gTblSubscribers[0].value, 1u) << "a method that posts nothing is not counted";

    gTblSubscribers[0].value = 0;
    world.LeaveBus(":1.1");
    EXPECT_EQ(gTblSubscribers[0].value, 0u) << "never below 0";
    EXPECT_TRUE(world.Logged("-6727   Src/OstrelVoroBus")) << "the subscription that was not counted";

    for (size_t i = 0; i < kVSMaxEnrolled; ++i) Leases("/client", R"({"subscribe":true})");
    EXPECT_EQ(Leases("/client", R"({"subscribe":true})"), kEmptyList) << "a full book";
    EXPECT_EQ(gTblSubscribers[0].value, kVSMaxEnrolled);
}

TEST_F(Bus, ALeaseIsShownWhateverTheServerCalledTheDomain) {
    Ostrel_ClientLease& lease = Initialize(kClient)->dhcpClient->lease;
    world.RunFor(100s);
    lease.IPv4Address = inet_addr("192.0.2.10");
    lease.IPv4SubnetMask = inet_addr("255.255.255.0");
    lease.IPv4Routers = os_zalloc_array<Ostrel_IPv4>(2);
    lease.IPv4Routers[1] = inet_addr("10.0.0.1");
    lease.numIPv4Routers = 2;
    lease.leaseAcquired = world.MonotonicSeconds() - 100;

    std::string replaced;
    for (int i = 0; i < 255; ++i) replaced += "\xEF\xBF\xBD";
    const struct {
        std::string domain, shown;
        uint32_t leaseTime = 3600;
        const char* expiry = "Thu May 28 21:26:40 2026";
    } cases[] = {
        {"", ""},
        {std::string("lab\0\xFF", 5), R"("domainName":"lab",)"},
        {"\"\n\\", R"("domainName":"\"\n\\",)"},
        {"lab.\xEF\xBF\xBF", "\"domainName\":\"lab.\uFFFD\","},
        {std::string(255, '\xFF'), R"("domainName":")" + replaced + R"(",)", kInfiniteLease,
         "Mon Jul  5 02:54:55 2162"},
    };
    for (const auto& c : cases) {
        lease.domainName = Copy<char>(c.domain);
        lease.domainNameLen = static_cast<uint32_t>(c.domain.size());
        lease.leaseTime = c.leaseTime;
        const std::string expected =
            R"({"returnValue":true,"interfaceList":[{"interface":"eth0","ipv4Address":"192.0.2.10",)"
            R"("ipv4Subnet":"255.255.255.0","ipv4Router":["10.0.0.1"],)" +
            c.shown + R"("leaseTimeString":"Thu May 28 20:26:40 2026","leaseExpiryString":")" + c.expiry +
            R"(","leaseTime":)" + std::to_string(c.leaseTime) + "}]}";
        EXPECT_EQ(Leases("/client"), expected);
    }
}

TEST_F(Bus, TheServersTableShowsEverySlotInUse) {
    Ostrel_ServerObj* server = Initialize(kServer)->dhcpServer;
    Initialize(kClient);
    const std::string entry = R"({"interface":"usb0","leases":[)";
    EXPECT_EQ(Leases("/server"), R"({"returnValue":true,"interfaceList":[)" + entry + "]}]}");

    const struct {
        uint32_t state;
        std::optional<std::string> identifier, hostName;  // the identifier with its type byte
        const char *mac, *shown;
    } slots[] = {
        {kLeaseStateOffered, {}, {}, "02:aa:00:00:00:00", ""},
        {kLeaseStateActive, std::string("\0abc", 4), "cam", "02:aa:00:00:00:01",
         R"(,"hostName":"cam","clientIdentifier":"abc")"},
        {kLeaseStateActive, "\1\2\x11\x22\x33\x44\x55", "", "02:11:22:33:44:55", R"(,"hostName":"")"},
        {kLeaseStateActive, "\1\2\x11", {}, "02:aa:00:00:00:03", ""},
        {kLeaseStateActive, "", std::string("a\0b", 3), "02:aa:00:00:00:04",
         R"(,"hostName":"a","clientIdentifier":"")"},
    };
    world.RunFor(10s);
    std::string leases;
    for (size_t i = 0; i < std::size(slots); ++i) {
        const auto& [state, identifier, hostName, mac, shown] = slots[i];
        Ostrel_LeaseInformation& slot = server->leases[i * 2];
        Ostrel_DHCPServer_LeaseClaim(server, &slot, {2, 0xAA, 0, 0, 0, static_cast<uint8_t>(i)});
        Ostrel_DHCPServer_LeaseOffer(server, &slot, world.MonotonicSeconds() - 10);
        if (state == kLeaseStateActive) Ostrel_DHCPServer_LeaseActivate(server, &slot, slot.srcMAC, 0, {});
        if (identifier) slot.clientIdentifier = Copy<uint8_t>(*identifier);
        slot.clientIdentifierLength = static_cast<uint32_t>(identifier.value_or("").size());
        if (hostName) slot.hostName = Copy<uint8_t>(*hostName);
        slot.hostNameLength = static_cast<uint32_t>(hostName.value_or("").size());
        leases += (i == 0 ? "" : ",") + (R"({"ipv4Address":"192.168.10.)" + std::to_string(100 + i * 2)) +
                  R"(","mac":")" + mac + R"(","leaseTimeString":"Thu May 28 20:26:40 2026","leaseExpiryString":)" +
                  R"("Thu May 28 22:26:40 2026","leaseTime":7200)" + shown + "}";
    }
    EXPECT_EQ(Leases("/server", R"({"interface":"eth0"})"),
              R"({"returnValue":true,"interfaceList":[)" + entry + leases + "]}]}");

    Leases("/server", R"({"subscribe":true})");
    EXPECT_EQ(Ostrel_VoroServicePublishServerLeaseInformation(&system, server), kNoErr);
    ASSERT_EQ(world.posts.size(), 1u);
    EXPECT_EQ(world.posts[0].payload, R"({"returnValue":true,"leases":[)" + entry + leases + "]}]}");
}

TEST_F(Bus, AFailingBusIsReportedAndSurvived) {
    Ostrel_ServerObj* server = Initialize(kServer)->dhcpServer;
    world.failPosts = true;
    EXPECT_EQ(Ostrel_VoroServicePublishServerLeaseInformation(&system, server), kNoErr) << "nobody listens";
    Ostrel_ClientObj* client = Initialize(kClient)->dhcpClient;
    Leases("/server", R"({"subscribe":true})");
    Leases("/client", R"({"subscribe":true})");
    const size_t before = world.log.size();
    EXPECT_EQ(Ostrel_VoroServicePublishServerLeaseInformation(&system, server), kGenericErr);
    EXPECT_EQ(Ostrel_VoroServicePublishClientLeaseInformation(&system, client), kGenericErr);
    EXPECT_EQ(Reports(before), (std::vector<std::string>{"0 success Ostrel_VoroServicePublishServerLeaseInformation",
                                                         "0 success Ostrel_VoroServicePublishClientLeaseInformation"}));
    EXPECT_TRUE(world.Logged("### VoroBus error "));

    world.failReplies = true;
    EXPECT_EQ(Root("interfaceFinalize", R"({"interface":"usb0"})"), "");
    EXPECT_EQ(Root("interfaceFinalize", R"({"interface":"eth0"})"), "");
    world.failReplies = false;
    EXPECT_EQ(Dump(), kEmptyList);
}

}  // namespace
