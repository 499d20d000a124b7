// What `ostrelctl run` remembers, as JSON in one file.
#include "RunState.h"

#include <cstdio>

#include "Fields.h"
#include "KeptFile.h"
#include "Terminal.h"

using valdo::JValue;

namespace ostrelctl {

namespace {

constexpr char kKind[] = "ostrelctl run 1";  // what a file of ours calls itself, with the version of its form

bool Understand(const std::string& text, KeptState& state) {
    valdo::JDomParser parser;
    if (!parser.parse(text, valdo::JSchemaFragment("{}"))) return false;
    const JValue root = parser.getDom();
    const JValue list = root["interfaces"];
    if (TextOf(root, "kind") != kKind || !list.isArray()) return false;
    state.owner = TextOf(root, "daemon");
    for (size_t i = 0; i < list.arraySize(); ++i) {
        const JValue one = list[i];
        state.each[TextOf(one, "interface")] = {.request = TextOf(one, "request"),
                                                .address = TextOf(one, "address"),
                                                .own = TextOf(one, "own"),
                                                .leases = one["leases"].isArray() ? one["leases"] : JValue()};
    }
    return true;
}

void SetAside(const std::string& file) {
    const std::string aside = file + ".bad";
    const bool moved = rename(file.c_str(), aside.c_str()) == 0;
    Complain('\'' + Printable(file) + "' holds nothing of ours; beginning without it",
             moved ? "it is called " + Printable(aside) + " now" : "");
}

}  // namespace

KeptState LoadState(const std::string& file) {
    std::string text;
    KeptState state;
    if (ReadKeptFile(file, text) != kExitDone || text.empty()) return state;
    if (Understand(text, state)) return state;
    SetAside(file);
    return {};
}

ExitStatus SaveState(const std::string& file, const KeptState& state) {
    JValue root = valdo::Object(), list = valdo::Array();
    for (const auto& [interface, kept] : state.each) {
        JValue one = valdo::Object();
        one.put("interface", interface);
        one.put("request", kept.request);
        one.put("address", kept.address);
        one.put("own", kept.own);
        if (kept.leases.isArray()) one.put("leases", kept.leases);
        list.append(std::move(one));
    }
    root.put("kind", kKind);
    root.put("daemon", state.owner);
    root.put("interfaces", std::move(list));
    std::string text;
    if (!ToText(root, text)) return Refuse(kExitRefused, "no memory for what is to be kept", "");
    return WriteKeptFile(file, text + '\n');
}

}  // namespace ostrelctl
