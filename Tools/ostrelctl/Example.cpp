// A file for `ostrelctl run` with every key in it.
//
// What the keys mean comes from the options; here are only values to show. A key without one is left out, which a test
// notices.
#include <algorithm>
#include <array>
#include <string_view>

#include "Files.h"
#include "Terminal.h"

namespace ostrelctl {

namespace {

constexpr char kHead[] =
    "# What the interfaces of this device are to be: /etc/ostrel/*.toml, a table for each, for 'ostrelctl run'.\n"
    "#\n"
    "# 'ostrelctl run --check' says what a file means, 'ostrelctl reload' has a changed one taken over. "
    "ostrel.toml(5).\n"
    "\n"
    "# Where neither systemd-resolved nor resolvconf is installed: the file that DNS servers are written to.\n"
    "#resolv-conf = \"/etc/resolv.conf\"\n";

constexpr char kClientHead[] = "\n# Gets its address from the network.\n[eth0]\nrole = \"client\"\n";
constexpr char kServerHead[] =
    "\n# Hands out addresses, on every interface whose name begins so. A name with * or a dot stands between quotes.\n"
    "[\"usb*\"]\nrole = \"server\"\n";

struct Shown {
    std::string_view key, value;
    bool isUsual = false;  // it is not commented out
};

constexpr std::array<Shown, 12> kClientKeys{{
    {"dhcp", "true"},
    {"static", "\"192.0.2.7/24\""},
    {"address", "\"192.0.2.7\""},
    {"router", "\"192.0.2.1\""},
    {"dns", "[\"192.0.2.3\", \"192.0.2.4\"]"},
    {"domain", "\"lab.example\""},
    {"link-local", "\"fallback\"", true},
    {"client-id", "\"unit-7\""},
    {"host-name", "\"unit-7\""},
    {"plain", "true"},
    {"metric", "100"},
    {"release", "true"},
}};

constexpr std::array<Shown, 10> kServerKeys{{
    {"address", "\"192.168.10.1/24\"", true},
    {"range", "\"192.168.10.100-192.168.10.119\"", true},
    {"count", "20"},
    {"router", "\"192.168.10.1\""},
    {"dns", "[\"192.168.10.1\"]"},
    {"domain", "\"lab.example\""},
    {"lease", "\"12h\""},
    {"fixed", "[{mac = \"02:00:5e:10:00:01\", address = \"192.168.10.105\", name = \"printer\"}]"},
    {"option", "{ntp = \"192.168.10.1\", mtu = 1400, 43 = \"hex:0104c0000201\"}"},
    {"plain", "true"},
}};

std::string ShownKey(const CLI::Option& option, const Shown& shown) {
    const std::string text = std::string(shown.key) + " = " + std::string(shown.value) + '\n';
    return "\n# " + WithoutDashes(option.get_description()) + ".\n" + (shown.isUsual ? "" : "#") + text;
}

template <size_t count>
std::string ShownKeys(Entry entry, const std::array<Shown, count>& keys) {
    CLI::App command;
    command.set_help_flag();
    AddEntryOptions(command, entry);
    std::string text;
    for (const CLI::Option* option : command.get_options()) {
        const std::string& key = option->get_lnames().front();
        const auto shown = std::find_if(keys.begin(), keys.end(), [&key](const Shown& row) { return row.key == key; });
        if (shown != keys.end()) text += ShownKey(*option, *shown);
    }
    return text;
}

}  // namespace

std::string ExampleFile() {
    return kHead + (kClientHead + ShownKeys({.pattern = "", .file = "", .words = {}}, kClientKeys)) + kServerHead +
           ShownKeys({.pattern = "", .file = "", .words = {}, .role = ServerOptions{}}, kServerKeys);
}

}  // namespace ostrelctl
