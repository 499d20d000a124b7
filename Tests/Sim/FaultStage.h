// One daemon among scripted neighbours, on a device that refuses a call now and then, and its supervisor, who asks
// again for what was refused and starts the daemon anew when it ends.
//
// What is asked of it in every scenario: a call fails only when the device has refused something, and has then changed
// nothing; an interface is there whole or not at all; a daemon that ends says why; whoever listens knows in the end
// what one is told who asks; and when everything is finalised nothing is left.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "Ostrel/DHCPClient.h"
#include "Ostrel/DHCPServer.h"
#include "Ostrel/Interface.h"
#include "Ostrel/LinkLocal.h"

#include "Harness.h"

namespace sim {

constexpr MAC kGuestMAC{2, 0, 0, 0, 0, 0x31};

// The n-th call of a kind, counted from the scenario's beginning, and maybe some after it.
struct Refusal {
    DeviceCall call;
    size_t nth;
    size_t count = 1;
};

class Stage {
public:
    Stage(bool isRFC, std::span<const Refusal> refusals) : rfc(isRFC) {
        world.AddInterface("eth0", kClientMAC, wire);
        Start();
        for (size_t i = 0; i < kDeviceCalls; ++i) atStart[i] = world.CallsMade(static_cast<DeviceCall>(i));
        for (const Refusal& one : refusals) world.FailCall(one.call, one.nth, one.count);
    }
    ~Stage() {
        if (isRunning) Stop();
    }
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    // The daemon is started anew, on a device and beside neighbours that are as at first.
    void StartAnew() {
        for (size_t i = 0; i < kDeviceCalls; ++i) world.FailCall(static_cast<DeviceCall>(i), 0);
        Stop();
        Unplug(true);
        Rename("eth0");
        server.script = kScript;
        Start();
    }
    void Start() {
        for (int tries = 0; tries < 10 && !isRunning; ++tries) {
            const auto before = Left();
            const size_t refused = world.CallsRefused();
            isRunning = Ostrel_DaemonStart(&system) == kNoErr;
            if (isRunning) break;
            EXPECT_NE(world.CallsRefused(), refused) << "it starts";
            EXPECT_EQ(Left(), before);
            EXPECT_EQ(system.serviceHandle, nullptr);
        }
        EXPECT_TRUE(isRunning);
    }
    // A daemon that has ended by itself says so, and why.
    void Stop() {
        const bool ended = world.Terminated();
        EXPECT_EQ(Ostrel_DaemonStop(&system), ended ? kOutOfMemoryErr : kNoErr);
        EXPECT_TRUE(!ended || world.Logged("timeout can be had, terminating."));
        system = {};
        isRunning = false;
        world.posts.clear();
    }
    [[nodiscard]] bool IsOver() const { return world.Terminated(); }
    [[nodiscard]] size_t CallsMade(DeviceCall call) const {
        return world.CallsMade(call) - atStart[static_cast<size_t>(call)];
    }

    // Calls until it is done, as whoever controls the daemon does.
    void Do(std::string_view category, std::string_view method, const std::string& members,
            std::string_view done = R"({"returnValue":true)", std::string_view caller = ":1.1") {
        for (int tries = 0; tries < 10; ++tries) {
            if (IsOver()) return;
            const size_t refused = world.CallsRefused();
            const auto before = Left();
            const std::string reply = world.Call(category, method, "{" + members + "}", caller);
            CheckInterfaces();
            if (reply.starts_with(done) || IsOver()) return;
            if (world.CallsRefused() == refused && tries == 0) ADD_FAILURE() << method << members << ": " << reply;
            const bool isAct = method.ends_with("Initialize") || method.ends_with("Finalize");
            EXPECT_TRUE(!isAct || reply.empty() || Left() == before) << method << members;
            if (method == "interfaceInitialize" && Find(WordAfter(members, R"("interface":")")) != nullptr) return;
            if (method == "interfaceFinalize" && Find(WordAfter(members, R"("interface":")")) == nullptr) return;
        }
        ADD_FAILURE() << method << members << " is never done" << world.Describe();
    }
    void Manage(const std::string& members, const std::string& ifname = "eth0") {
        const std::string keys = R"("interface":")" + ifname + R"(","rfc":)" + (rfc ? "true" : "false");
        Do("/", "interfaceInitialize", keys + "," + members);
    }
    // What was taken is what was asked for; by the plain rules a text that there was no memory for is left out.
    void CheckTaken(const char* part) {
        std::string dump;
        while (dump.empty() && !IsOver()) dump = world.Call("/", "interfaceConfigDump", "{}");
        EXPECT_TRUE(IsOver() || !rfc || dump.find(part) != std::string::npos) << dump;
    }
    void ManageClient(const std::string& more = "") {
        Manage(R"("mode":"client","ipv4Config":"dhcp",)" + kAddresses + more);
    }
    void Act(const std::string& word, const std::string& more = "") {
        Do("/client", "leaseAction", R"("interface":"eth0","leaseAction":")" + word + "\"" + more);
    }
    void Finalize(const std::string& more = "") { Do("/", "interfaceFinalize", R"("interface":"eth0")" + more); }
    void Subscribe(std::string_view category, std::string_view method, std::string_view caller) {
        Do(category, method, R"("subscribe":true)", R"({"returnValue":true,"subscribed":true)", caller);
    }
    void SubscribeToAll() {
        Subscribe("/", "interfaceState", ":1.9");
        Subscribe("/", "trace", ":1.8");
        Subscribe("/client", "leaseInformation", ":1.7");
        Subscribe("/server", "leaseInformation", ":1.6");
        Subscribe("/server", "leaseEvents", ":1.5");
    }

    // Lets time pass until it is so; it has to be within that time.
    template <typename Condition>
    void Await(const char* what, Duration limit, Condition isSo) {
        const Duration end = world.Now() + limit;
        while (!IsOver() && !isSo()) {
            if (world.Now() >= end) {
                ADD_FAILURE() << what << " within " << limit / 1s << " s" << world.Describe();
                return;
            }
            world.RunFor(250ms);
            CheckInterfaces();
        }
    }
    // The interface is taken out, put back as another one, loses its link, and gets another name.
    void Unplug(bool andPutBack = false) {
        if (!isOut) world.RemoveInterface(device);
        isOut = !andPutBack;
        if (andPutBack) world.AddInterface(device, {2, 0, 0, 0, 0, ++lastMAC}, wire);
    }
    void Rename(const std::string& name) {
        if (name != device) world.RenameInterface(device, name);
        device = name;
    }
    void Pass(Duration duration) { world.RunFor(duration); }

    [[nodiscard]] Ostrel_InterfaceObj* Find(std::string_view ifname) const {
        Ostrel_InterfaceObj* one = system.interfaceList;
        while (one != nullptr && ifname != one->ifname.data()) one = one->next;
        return one;
    }
    [[nodiscard]] Ostrel_InterfaceObj* Interface() const { return system.interfaceList; }
    [[nodiscard]] Ostrel_ClientObj* Client() const {
        return Interface() == nullptr ? nullptr : Interface()->dhcpClient;
    }
    [[nodiscard]] bool IsHeld() const { return Interface() != nullptr && Interface()->leaseIsHeld; }
    [[nodiscard]] bool IsIn(Ostrel_ClientState state) const { return Client() != nullptr && Client()->state == state; }
    [[nodiscard]] bool Selects() const {
        return Interface() != nullptr && Interface()->linkLocal != nullptr &&
               Ostrel_LinkLocalHolds(Interface()->linkLocal) && Interface()->linkLocal->numAnnounces == 2;
    }

    // Whether the client's lease says so, and whether the server's table has the address for that station.
    [[nodiscard]] bool Says(std::string_view part) {
        return world.Call("/client", "leaseInformation", "{}").find(part) != std::string::npos;
    }
    [[nodiscard]] bool Lists(const std::string& address, const MAC& mac) const {
        const Ostrel_ServerObj& books = *Interface()->dhcpServer;
        const auto isIt = [&](const Ostrel_LeaseInformation& slot) {
            return be32toh(slot.IPv4Address) == ToIPv4(address) && slot.state == kLeaseStateActive &&
                   slot.srcMAC == mac;
        };
        return std::any_of(&books.leases[0], &books.leases[books.numSlots], isIt);
    }

    // The end of every scenario: what is known is what is, and nothing is left.
    void Finish() {
        if (IsOver()) return;
        for (size_t i = 0; i < kDeviceCalls; ++i) world.FailCall(static_cast<DeviceCall>(i), 0);
        Pass(1min);  // what was to be told is told again
        if (IsOver()) return;
        for (const auto* iface = Interface(); iface != nullptr; iface = iface->next) CheckKnown(iface->ifname.data());
        while (Interface() != nullptr && !IsOver())
            Do("/", "interfaceFinalize", R"("interface":")" + std::string(Interface()->ifname.data()) + "\"");
        for (const char* caller : {":1.5", ":1.6", ":1.7", ":1.8", ":1.9"}) world.LeaveBus(caller);
        Pass(1s);
        EXPECT_EQ(world.OpenSockets() + world.LiveAllocations(), 0U);
        EXPECT_LE(world.PendingTimeouts(), 1U) << "the one that ends an idle daemon, and those of the bus";
        Stop();
    }

    static inline const std::string kAddresses =
        R"("ipv4Address":"0.0.0.0","ipv4Subnet":"0.0.0.0","ipv4Router":"0.0.0.0","ipv4RangeStart":"0.0.0.0")";

    const bool rfc;
    World world;
    Segment& wire = world.AddSegment();
    static inline const ServerScript kScript{.leaseTime = 600};
    ScriptedServer server{wire, kScript};
    Ostrel_SystemObj system{};

private:
    // What a call that failed must leave as it was.
    [[nodiscard]] std::pair<size_t, size_t> Left() const { return {world.OpenSockets(), world.LiveAllocations()}; }
    static std::string WordAfter(const std::string& text, std::string_view mark) {
        const size_t start = text.find(mark);
        return start == std::string::npos
                   ? ""
                   : text.substr(start + mark.size(), text.find('"', start + mark.size()) - start - mark.size());
    }

    // Each is there whole: with all that its roles need.
    void CheckInterfaces() const {
        for (const auto* iface = system.interfaceList; iface != nullptr; iface = iface->next) {
            const auto runs = [iface](uint32_t role) { return (iface->mode & role) != 0; };
            ASSERT_TRUE(iface->txFrame != nullptr && iface->txPayload != nullptr && iface->arpFilter.l2 != nullptr);
            ASSERT_EQ(iface->dhcpClient != nullptr, runs(kOstrelModeDHCPClient));
            ASSERT_EQ(iface->dhcpServer != nullptr, runs(kOstrelModeDHCPServer));
            ASSERT_EQ(iface->linkLocal != nullptr, runs(kOstrelModeLinkLocal));
            ASSERT_TRUE(iface->dhcpClient == nullptr || iface->dhcpClient->packetFilter.l2 != nullptr);
            ASSERT_TRUE(iface->dhcpServer == nullptr || iface->dhcpServer->packetFilter.l2 != nullptr);
        }
    }

    // What the last post about the interface has told is what one is told who asks.
    void CheckKnown(const std::string& ifname) {
        const auto partOf = [](const std::string& text) {
            const size_t start = text.find(R"({"interface":)");
            return start == std::string::npos ? text : text.substr(start, text.find(R"(,"counters":)") - start);
        };
        const auto last = [&](std::string_view subscriber) -> const Post* {
            const auto isOfIt = [&](const Post& post) {
                return post.subscriber == subscriber &&
                       post.payload.find("\"interface\":\"" + ifname + "\"") != std::string::npos;
            };
            const auto found = std::find_if(world.posts.rbegin(), world.posts.rend(), isOfIt);
            return found == world.posts.rend() ? nullptr : &*found;
        };
        const std::string request = R"({"interface":")" + ifname + R"("})";
        const Post* const told = last(":1.9");
        const std::string state = world.Call("/", "interfaceState", request);
        EXPECT_TRUE(told == nullptr || partOf(told->payload) == partOf(state))
            << state << told->payload << world.Describe();
        const Post* const lease = last(":1.7");
        if (Find(ifname)->leaseIsHeld && world.BusAccounts() != 0) {
            const std::string asked = world.Call("/client", "leaseInformation", request);
            EXPECT_EQ(lease == nullptr ? "never told" : lease->payload, asked) << world.Describe();
        }
    }

    bool isRunning = false;
    bool isOut = false;
    std::string device = "eth0";
    uint8_t lastMAC = 0x40;
    std::array<size_t, kDeviceCalls> atStart{};
};

}  // namespace sim
