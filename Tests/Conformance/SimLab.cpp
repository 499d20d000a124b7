// The lab on the simulated device.
#include <gtest/gtest.h>
#include <utility>

#include "Lab.h"
#include "Sim.h"
#include "eloop.h"

namespace lab {

struct Lab::State : sim::Station {
    void Receive(std::span<const uint8_t> frame) override {
        if (frame.size() > 14 && frame[12] == kExperimental >> 8 && frame[13] == (kExperimental & 0xFF))
            lab.heard.emplace_back(frame.begin(), frame.end());
    }
    explicit State(Lab& owner) : lab(owner) { wire.Attach(*this); }

    Lab& lab;
    sim::World world;
    sim::Segment& wire = world.AddSegment();
};

Lab::Lab() : state(std::make_unique<State>(*this)) {
    sim::World::onFailure = [](const std::string& what) { ADD_FAILURE() << what; };
    PutBack("here");
    EXPECT_EQ(eloop_init(this), 0);
}
Lab::~Lab() {
    eloop_destroy();
}

void Lab::SetUp(const std::string& ifname, bool up) {
    state->world.SetLink(ifname, up);
}
void Lab::PlugIn(bool plugged) {
    state->world.SetCarrier("here", plugged);
}
void Lab::Rename(const std::string& from, const std::string& to) {
    state->world.RenameInterface(from, to);
}
void Lab::ChangeMAC(const std::string& ifname, const MAC& mac) {
    state->world.ChangeMAC(ifname, mac);
}
void Lab::Remove(const std::string& ifname) {
    state->world.RemoveInterface(ifname);
}
void Lab::PutBack(const std::string& ifname) {
    state->world.AddInterface(ifname, kHere, state->wire, kMTU);
}
void Lab::Send(const Frame& frame) {
    state->wire.Send(*state, frame);
}

bool Lab::RunUntil(const std::function<bool()>& isSo) {
    for (int i = 0; i < 10'000 && !isSo(); ++i) state->world.RunFor(std::chrono::milliseconds(1));
    return isSo();
}
void Lab::Raise(int signal) {
    state->world.Raise(signal);
}

std::string Lab::Call(const std::string& caller, const std::string& category, const char* method,
                      const std::string& request) {
    const auto onFailure = std::exchange(sim::World::onFailure, [](const std::string& what) {
        EXPECT_TRUE(what.starts_with("no answer: ")) << what;  // there are methods here that give none
    });
    const std::string reply = state->world.Call(category, method, request, caller);
    sim::World::onFailure = onFailure;
    const std::string& error = state->world.callError;
    return error.empty() ? reply : error.substr(error.rfind('.') + 1);
}
void Lab::Leave(const std::string& caller) {
    state->world.LeaveBus(caller);
}
std::vector<std::string> Lab::Posts(const std::string& caller) {
    std::vector<std::string> texts;
    for (const sim::Post& post : state->world.posts)
        if (post.subscriber == caller) texts.push_back(post.category + " " + post.payload);
    std::erase_if(state->world.posts, [&](const sim::Post& post) { return post.subscriber == caller; });
    return texts;
}

}  // namespace lab
