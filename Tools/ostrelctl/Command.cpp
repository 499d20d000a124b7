// What every command has on its command line.
#include "Command.h"

#include "Terminal.h"

namespace ostrelctl {

void AddJsonFlag(CLI::App& app, std::string& json) {
    app.add_flag("-j{raw},--json{raw}", json, "Print the daemon's own replies, one to a line")
        ->take_last()
        ->check([](const std::string& word) -> std::string {
            return word == "raw" || word == "lines" ? "" : '\'' + Printable(word) + "' is neither raw nor lines";
        });
}

}  // namespace ostrelctl
