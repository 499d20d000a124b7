// A device with an Ethernet interface "here", whose cable leads to a station that is none of it, a loop, and a bus on
// which others are. Two implementations: the simulated device, and this machine's kernel with a bus daemon of its own,
// in a network namespace. The same tests run on both, so that what holds on the one holds on the other.
//
// Frames of the tests carry an EtherType for local experiments and one byte that tells them apart.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace lab {

using Frame = std::vector<uint8_t>;
using MAC = std::array<uint8_t, 6>;

constexpr MAC kHere{2, 0, 0, 0, 0, 0x01}, kThere{2, 0, 0, 0, 0, 0x02}, kOther{2, 0, 0, 0, 0, 0x03};
constexpr uint16_t kExperimental = 0x88B5;
constexpr uint32_t kMTU = 3000;

class Lab {
public:
    Lab();  // with a loop; the link is up
    ~Lab();
    Lab(const Lab&) = delete;
    Lab& operator=(const Lab&) = delete;

    // The link.
    void SetUp(const std::string& ifname, bool up);
    void PlugIn(bool plugged);  // the cable's other end
    void Rename(const std::string& from, const std::string& to);
    void ChangeMAC(const std::string& ifname, const MAC& mac);
    void Remove(const std::string& ifname);
    void PutBack(const std::string& ifname);  // up, and with its cable
    void Send(const Frame& frame);            // by the station
    std::vector<Frame> heard;                 // by the station, experimental ones alone

    // Runs the loop until that is so, for ten seconds of the device's time at most; false when it did not come.
    bool RunUntil(const std::function<bool()>& isSo);
    void Raise(int signal);

    // The bus. A reply's text, or the name of the error that came instead, "UnknownMethod" and the like.
    std::string Call(const std::string& caller, const std::string& category, const char* method,
                     const std::string& request);
    void Leave(const std::string& caller);
    std::vector<std::string> Posts(const std::string& caller);  // "/category text", since they were asked for last

private:
    struct State;
    std::unique_ptr<State> state;
};

}  // namespace lab
