// Options taken out of whole messages: parts joined in their order, fields that are options only when the message says
// so, and nothing beyond the frame.
#include <algorithm>
#include <gtest/gtest.h>

#include "Ostrel/DHCPShared.h"

#include "Sim.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Found = std::vector<std::pair<int, Bytes>>;

constexpr size_t kSname = 14 + 20 + 8 + 44;  // in a frame
constexpr size_t kFile = kSname + 64;

Bytes Frame(const Bytes& options, const Bytes& file = {}, const Bytes& sname = {}) {
    Bytes frame(14 + 20 + 8 + 236);
    frame[14] = 0x45;
    std::copy(file.begin(), file.end(), frame.begin() + kFile);
    std::copy(sname.begin(), sname.end(), frame.begin() + kSname);
    frame.insert(frame.end(), {99, 130, 83, 99});
    frame.insert(frame.end(), options.begin(), options.end());
    return frame;
}

Found Collected(const Bytes& frame, const Bytes& codes) {
    Ostrel_PreprocessedPacket packet{};
    (void)Ostrel_BOOTPPacketPreprocess(frame, &packet);
    Ostrel_OptionList list{};
    EXPECT_EQ(Ostrel_BOOTPPacketCollectOptions(packet, codes, &list), kNoErr);
    Found found;
    for (uint32_t i = 0; i < list.count; ++i) {
        const uint8_t* data = list.values[i].data.get();
        found.push_back({list.values[i].code, Bytes(data, data + list.values[i].length)});
    }
    return found;
}

Bytes Joined(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

TEST(Collect, JoinsThePartsOfAnOption) {
    const Bytes longPart(255, 7);
    const Bytes file{121, 1, 3, 42, 1, 9, 255, 121, 1, 8};
    const Bytes sname{121, 1, 4, 0, 0};
    const struct {
        const char* what;
        Bytes frame;
        Found found;
        Bytes codes = {121, 42};
    } cases[] = {
        {"the codes' order", Frame({42, 1, 2, 26, 2, 5, 220, 255}), {{26, {5, 220}}, {42, {2}}}, {26, 42, 26, 12}},
        {"an empty one is there", Frame({121, 0, 255}), {{121, {}}}},
        {"parts, other options between them",
         Frame(Joined({{121, 255}, longPart, {0, 12, 1, 'x', 121, 1, 8, 255}})),
         {{121, Joined({longPart, {8}})}}},
        {"file and sname are text unless the message says so", Frame({121, 1, 2, 255}, file, sname), {{121, {2}}}},
        {"file", Frame({52, 1, 1, 121, 1, 2, 255}, file, sname), {{121, {2, 3}}, {42, {9}}}},
        {"sname", Frame({52, 1, 2, 121, 1, 2, 255}, file, sname), {{121, {2, 4}}}},
        {"both, file first", Frame({121, 1, 2, 52, 1, 3, 255}, file, sname), {{121, {2, 3, 4}}, {42, {9}}}},
        {"an overload of two bytes is none", Frame({52, 2, 3, 3, 121, 1, 2, 255}, file), {{121, {2}}}},
        {"an overload in file is none", Frame({52, 1, 1, 255}, {52, 1, 3, 121, 1, 5}, sname), {{121, {5}}}},
        {"a part that runs past its field is none",
         Frame({52, 1, 2, 121, 1, 2, 255}, {}, Joined({{121, 61}, Bytes(61, 1), {121}})),
         {{121, Joined({{2}, Bytes(61, 1)})}}},
        {"a part that runs past the frame is none", Frame({121, 1, 2, 121, 9, 1}), {{121, {2}}}},
        {"what fails the checks has no options", Bytes(100, 121), {}},
    };
    const sim::World world;
    for (const auto& c : cases) EXPECT_EQ(Collected(c.frame, c.codes), c.found) << c.what;
}

TEST(Collect, LeavesTheListAloneWhenMemoryIsOut) {
    sim::World world;
    const Bytes frame = Frame({42, 1, 2, 26, 2, 5, 220, 255});
    Ostrel_PreprocessedPacket packet{};
    ASSERT_EQ(Ostrel_BOOTPPacketPreprocess(frame, &packet), kNoErr);
    Ostrel_OptionList list{};
    list.count = 9;
    for (const size_t allocation : {1, 2, 3}) {
        world.FailAllocation(allocation);
        EXPECT_EQ(Ostrel_BOOTPPacketCollectOptions(packet, Bytes{42, 26}, &list), kOutOfMemoryErr);
        EXPECT_EQ(list.count, 9u);
    }
}

}  // namespace
