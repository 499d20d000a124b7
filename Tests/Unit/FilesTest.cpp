// The files of 'ostrelctl run': what they come to, and what is said of those that can't be meant so.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <regex>
#include <unistd.h>

#include "ostrelctl/Files.h"
#include "ostrelctl/Others.h"

namespace ostrelctl {

namespace {

std::string WrittenFile(const std::string& text) {
    const std::string file = testing::TempDir() + "ostrel-files-" + std::to_string(getpid()) + ".toml";
    std::ofstream(file) << text;
    return file;
}

// What is complained about, with the file called F; empty: nothing.
std::string ComplaintsOf(const std::string& text, Configuration& configuration) {
    const std::string file = WrittenFile(text);
    testing::internal::CaptureStderr();
    const ExitStatus status = ReadFiles({file}, configuration);
    std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(status == kExitDone, said.empty());
    for (size_t at = 0; (at = said.find(file, at)) != std::string::npos;) said.replace(at, file.size(), "F");
    return said;
}

std::string RequestText(const Configuration& configuration, const std::string& interface) {
    const Entry* const entry = EntryFor(configuration, interface);
    if (entry == nullptr) return "none";
    std::string text;
    EXPECT_TRUE(valdo::JGenerator::toString(RequestFor(*entry, interface), valdo::JSchemaFragment("{}"), text));
    return text;
}

TEST(Files, SayWhatAnInterfaceIs) {
    Configuration configuration;
    EXPECT_EQ(ComplaintsOf("resolv-conf = '/run/resolv.conf'\n"
                           "[eth0]\nrole = 'client'\nstatic = '192.0.2.7/24'\nlink-local = 'fallback'\n"
                           "dns = ['192.0.2.3', '192.0.2.4']\nmetric = 7\nplain = false\n"
                           "['usb*']\nrole = 'server'\naddress = '192.168.10.1/24'\nrange = '192.168.10.100'\n"
                           "count = 20\nlease = '1h'\noption = {ntp = ['192.0.2.5', '192.0.2.6'], 43 = 'hex:01ff'}\n"
                           "fixed = [{mac = '02:00:00:00:00:05', address = '192.168.10.105', name = 'printer'}]\n"
                           "['usb1*']\nrole = 'client'\nplain = true\n",
                           configuration),
              "");
    EXPECT_EQ(configuration.resolvConf, "/run/resolv.conf");
    EXPECT_EQ(configuration.entries.front().metric, 7u);
    EXPECT_EQ(
        RequestText(configuration, "eth0"),
        R"({"interface":"eth0","mode":"client","ipv4Config":"static","ipv4LinkLocal":true,)"
        R"("linkLocal":"fallback","ipv4Address":"192.0.2.7","ipv4Subnet":"255.255.255.0",)"
        R"("ipv4Router":"0.0.0.0","ipv4RangeStart":"0.0.0.0","dnsServers":["192.0.2.3","192.0.2.4"],"rfc":true})");
    EXPECT_EQ(RequestText(configuration, "usb7"),
              R"({"interface":"usb7","mode":"server","ipv4Address":"192.168.10.1","ipv4Subnet":"255.255.255.0",)"
              R"("ipv4Router":"0.0.0.0","ipv4RangeStart":"192.168.10.100","maxLeases":20,)"
              R"("leaseTime":3600,"rfc":true,"fixed":[{"macAddress":"02:00:00:00:00:05",)"
              R"("ipv4Address":"192.168.10.105","hostName":"printer"}],"options":[{"code":43,"hex":"01ff"},)"
              R"({"code":42,"ipv4":["192.0.2.5","192.0.2.6"]}]})");
    EXPECT_EQ(RequestText(configuration, "usb12").substr(0, 35), R"({"interface":"usb12","mode":"client)");
    EXPECT_EQ(RequestText(configuration, "lan0"), "none");
}

struct Refused {
    const char* text;
    const char* complaint;
};

constexpr Refused kRefused[] = {
    {"[usb*]\n",
     "F:1: is no TOML: Error while parsing table header: expected ']', saw '*'\n"
     "  a name with * in it stands between quotes: [\"usb*\"]\n"},
    {"x\xEF\xBB\xBB", "F:1: is no TOML: Error while parsing key-value pair: expected '=', saw '\xEF\xBB\xBB'\n"},
    {"a = 1\n", "F:1: no key 'a' outside a table\n  an interface's keys follow its [name]\n"},
    {"resolv-conf = 'here'\n", "F:1: resolv-conf: is no absolute path\n"},
    {"\n[eth0]\n", "F:2: [eth0]: role is missing\n  it is \"client\" or \"server\"\n"},
    {"[eth0]\nrole = 'both'\n", "F:2: [eth0] role: is neither \"client\" nor \"server\"\n"},
    {"[eth0.5]\nrole = 'client'\n",
     "F:1: [eth0] 5: is a table\n  a name with a dot in it stands between quotes: [\"eth0.5\"]\n"},
    {"['a/b']\nrole = 'client'\n", "F:1: [a/b]: no interface is called so\n  a name has 1 to 15 characters\n"},
    {"[e]\nrole = 'client'\nrange = 3\n", "F:3: [e] range: there is no such key for a client\n"},
    {"[e]\nrole = 'client'\nplain = 'yes'\n", "F:3: [e] plain: is neither true nor false\n"},
    {"[e]\nrole = 'client'\nhost-name = ''\n", "F:3: [e] host-name: is empty\n"},
    {"[e]\nrole = 'client'\nmetric = [1, 2]\n", "F:3: [e] metric: takes one value\n"},
    {"[e]\nrole = 'client'\nstatic = 1.5\n", "F:3: [e] static: is neither text nor a whole number\n"},
    {"[e]\nrole = 'client'\nlink-local = 'often'\n", "F:3: [e] link-local: 'often' is not 'fallback'\n"},
    {"[e]\nrole = 'client'\naddress = '10.1'\n", "F:3: [e] address: '10.1' is not an address such as 192.0.2.1\n"},
    {"[e]\nrole = 'client'\nstatic = '192.0.2.0/24'\n",
     "F:3: [e] static: the interface's own address is 192.0.2.0, the network address of 192.0.2.0/24\n"},
    {"[e]\nrole = 'client'\nrouter = '192.0.2.1'\n", "F:3: [e] router: router requires static\n"},
    {"[e]\nrole = 'server'\nrange = '192.0.2.7-192.0.2.9'\n", "F:1: [e]: address is required\n"},
    {"[e]\nrole = 'server'\naddress = '192.0.2.1/24'\nrange = '192.0.2.7-192.0.3.9'\n",
     "F:4: [e] range: the range ends at 192.0.3.9, outside 192.0.2.0/24\n"},
    {"[e]\nrole = 'server'\naddress = '192.0.2.1/24'\nrange = '192.0.2.7'\n",
     "F:4: [e] range: range has no end\n  write it FIRST-LAST, or say how many addresses with count\n"},
    {"[e]\nrole = 'server'\naddress = '192.0.2.1/24'\nrange = '192.0.2.7-192.0.2.9'\nfixed = [{mac = 5}]\n",
     "F:5: [e] fixed: a station needs mac and address\n"},
};

TEST(Files, AreRefusedWithFileLineAndKey) {
    for (const Refused& refused : kRefused) {
        Configuration configuration{.entries = {}, .resolvConf = "as it was"};
        const std::string said = ComplaintsOf(refused.text, configuration);
        EXPECT_EQ(said, std::string("ostrelctl: ") + refused.complaint) << refused.text;
        EXPECT_EQ(configuration.resolvConf, "as it was");
    }
    Configuration configuration;
    const std::string all = ComplaintsOf("[b]\nrole = 1\n[a]\nrole = 2\n", configuration);
    EXPECT_LT(all.find("F:2: [b]"), all.find("F:4: [a]"));
    EXPECT_NE(all.find("F:4: [a]"), std::string::npos);
    testing::internal::CaptureStderr();
    EXPECT_EQ(ReadFiles({"/proc"}, configuration), kExitUsage);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ostrelctl: /proc: cannot be read: Is a directory\n");
}

std::set<std::string> KeysOf(Entry entry) {
    CLI::App command;
    command.set_help_flag();
    AddEntryOptions(command, entry);
    std::set<std::string> keys;
    for (const CLI::Option* option : command.get_options()) keys.insert(option->get_lnames().front());
    return keys;
}

TEST(Files, ExampleAndManualPageHaveEveryKeyAndTheExampleIsAFile) {
    Configuration configuration;
    EXPECT_EQ(ComplaintsOf(ExampleFile(), configuration), "");
    EXPECT_EQ(configuration.entries.size(), 2u);
    std::ifstream stream(OSTREL_DATA_DIR "/man/ostrel.toml.5");
    const std::string page{std::istreambuf_iterator<char>(stream), {}};
    const std::string example = ExampleFile();
    const size_t server = example.find("\"usb*\"");
    for (const bool isServer : {false, true}) {
        Entry entry{.pattern = "", .file = "", .words = {}};
        if (isServer) entry.role = ServerOptions{};
        const std::string shown = isServer ? example.substr(server) : example.substr(0, server);
        for (const std::string& key : KeysOf(entry)) {
            EXPECT_TRUE(std::regex_search(shown, std::regex("\n#?" + key + " = "))) << key;
            EXPECT_TRUE(std::regex_search(page, std::regex("\n\\.It Cm " + key + "( |\n)"))) << key;
        }
    }
}

// By the files in which they say so. `lo` is the interface that is everywhere; its number is 1.
TEST(Others, ConfigureAnInterfaceOrLeaveIt) {
    struct Row {
        const char* file;
        const char* text;
        const char* interfaces;  // of ifupdown
        const char* manager;
    };
    const Row rows[] = {
        {"run/NetworkManager/devices/1", "[device]\nmanaged=true\n", "", "NetworkManager"},
        {"run/NetworkManager/devices/1", "[device]\nmanaged=unknown\n", "", ""},
        {"run/NetworkManager/devices/2", "[device]\nmanaged=true\n", "", ""},
        {"run/systemd/netif/links/1", "ADMIN_STATE=configuring\nOPER_STATE=carrier\n", "", "systemd-networkd"},
        {"run/systemd/netif/links/1", "ADMIN_STATE=unmanaged\n", "", ""},
        {"run/network/ifstate", "eth0=eth0\nlo=lo\n", "", "ifupdown"},
        {"run/network/ifstate", "eth0=eth0\nlo1=lo\n", "", ""},
        {"run/network/ifstate", "lo=lo\n", "auto lo\n  iface lo\tinet manual\n\tup true\n", ""},
        {"run/network/ifstate", "lo=lo\n", "iface lo inet manual\niface lo inet dhcp\n", "ifupdown"},
        {"run/network/ifstate", "lo=lo\n", "iface eth0 inet manual\niface lo inet6 manual\n", "ifupdown"},
    };
    const std::filesystem::path root = testing::TempDir() + "ostrel-others-" + std::to_string(getpid());
    for (const Row& row : rows) {
        for (const char* const stanzas : {"etc/network/interfaces", "etc/network/interfaces.d/x"}) {
            std::filesystem::create_directories((root / row.file).parent_path());
            std::filesystem::create_directories((root / stanzas).parent_path());
            std::ofstream(root / row.file) << row.text;
            std::ofstream(root / stanzas) << row.interfaces;
            EXPECT_EQ(OtherManagerOf("lo", root), row.manager) << row.file << ": " << row.text << row.interfaces;
            std::filesystem::remove_all(root);
        }
    }
}

}  // namespace

}  // namespace ostrelctl
