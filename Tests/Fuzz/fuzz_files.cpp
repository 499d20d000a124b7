// The files that ostrelctl reads: the first byte says whether it is the configuration of `run` or what that has kept.
//
// A file that is taken comes to requests that are JSON, and means the same as itself. What was kept is kept again, and
// is then the same.

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

#include "ostrelctl/Files.h"
#include "ostrelctl/KeptFile.h"
#include "ostrelctl/RunState.h"
#include "ostrelctl/Terminal.h"

namespace {

using namespace ostrelctl;

void Require(bool holds) {
    if (!holds) std::abort();
}

// A directory of this process, which goes with it, and complaints that nobody reads.
class Place {
public:
    Place() {
        char name[] = "/dev/shm/ostrel-fuzz-XXXXXX";
        Require(mkdtemp(name) != nullptr);
        directory = name;
    }
    ~Place() {
        for (const char* file : {"/a.toml", "/kept", "/kept.bad", "/kept.new"}) unlink((directory + file).c_str());
        rmdir(directory.c_str());
    }
    [[nodiscard]] std::string Write(const char* name, std::string_view text) const {
        std::string file = directory + name;
        std::FILE* const stream = std::fopen(file.c_str(), "wb");
        Require(stream != nullptr && std::fwrite(text.data(), 1, text.size(), stream) == text.size());
        Require(std::fclose(stream) == 0);
        return file;
    }

private:
    std::string directory;
};

std::string RequestText(const Entry& entry) {
    std::string text;
    valdo::JDomParser parser;
    Require(ToText(RequestFor(entry, "eth0"), text) && parser.parse(text, valdo::JSchemaFragment("{}")));
    return text;
}

void ReadConfiguration(const Place& place, std::string_view text) {
    const std::string file = place.Write("/a.toml", text);
    Configuration configuration, again;
    const bool isTaken = ReadFiles({file}, configuration) == kExitDone;
    Require(isTaken == (ReadFiles({file}, again) == kExitDone));
    Require(configuration.entries.size() == again.entries.size() && (isTaken || configuration.entries.empty()));
    for (size_t i = 0; i < configuration.entries.size(); ++i) {
        const Entry& entry = configuration.entries[i];
        Require(IsSame(entry, again.entries[i]) && RequestText(entry) == RequestText(again.entries[i]));
        Require(Printable(RoleText(entry)) == RoleText(entry));
    }
    for (const char* interface : {"eth0", "usb1"})
        if (const Entry* const entry = EntryFor(configuration, interface)) (void)RequestText(*entry);
}

std::string TextOf(const KeptState& state) {
    std::string text = state.owner + '\n';
    for (const auto& [interface, kept] : state.each) {
        std::string leases;
        Require(!kept.leases.isArray() || ToText(kept.leases, leases));
        text += interface + '\n' + kept.request + '\n' + kept.address + '\n' + kept.own + '\n' + leases + '\n';
    }
    return text;
}

void ReadState(const Place& place, std::string_view text) {
    const std::string file = place.Write("/kept", text);
    const KeptState state = LoadState(file);
    Require(SaveState(file, state) == kExitDone);
    Require(TextOf(LoadState(file)) == TextOf(state));
}

// Complaints would be all that is seen; what the sanitizers say still is.
void Hush() {
    static const bool hushed = [] {
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        stderr = fdopen(nowhere, "w");
        return stderr != nullptr;
    }();
    Require(hushed);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const Place place;
    Hush();
    if (size == 0) return 0;
    const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (data[0] == 's')
        ReadState(place, text);
    else
        ReadConfiguration(place, text);
    return 0;
}
