// The keys that "interfaceInitialize" takes strictly: what each refuses, in the words that a caller reads, and what the
// configuration dump shows of those that it took.

#include "Ostrel/Interface.h"

#include "Harness.h"

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

TEST_F(ValueKeys, ARefusedOneIsToldInWords) {
    const struct {
        const char *mode, *members, *problem;
    } cases[] = {
        {"client", R"("rfc":1)", R"("rfc": true or false is wanted)"},
        {"client", R"("rfc":"true")", R"("rfc": true or false is wanted)"},
        {"server", R"("rfc":null)", R"("rfc": true or false is wanted)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.members);
        world.log.clear();
        EXPECT_EQ(
            Initialize(c.mode, c.members),
            R"({"returnValue":false,"errorCode":-1,"errorText":"Failed","problem":")" + Quoted(c.problem) + "\"}");
        EXPECT_TRUE(world.Logged(c.problem));
        EXPECT_EQ(daemon.system.interfaceList, nullptr);
    }
}

TEST_F(ValueKeys, TheDumpShowsThemAsTheyWereGiven) {
    const struct {
        const char *mode, *members;
    } cases[] = {
        {"client", R"("rfc":true)"},
        {"server", R"("rfc":false)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.members);
        EXPECT_EQ(Initialize(c.mode, c.members), R"({"returnValue":true})");
        EXPECT_TRUE(Dump().ends_with(std::string(",") + c.members + "}]}")) << Dump();
        EXPECT_TRUE(daemon.Finalize("eth0"));
    }
}

}  // namespace
}  // namespace sim
