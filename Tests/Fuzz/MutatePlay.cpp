// Changes a play as one who knows the protocol: its steps, and within them the options of a message, its fields, ARP
// frames and time. Now and then it leaves the bytes to libFuzzer.

#include <algorithm>
#include <array>
#include <cstring>

#include "Chance.h"
#include "Frames.h"
#include "Play.h"
#include "Scenes.h"

namespace sim::fuzz {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr std::array<uint32_t, 20> kNumbers{0,          1,          2,          59,         60,
                                            576,        1500,       3600,       86400,      0x7FFFFFFF,
                                            0x80000000, 0xFFFFFFFE, 0xFFFFFFFF, 0xC0000201, 0xC000020A,
                                            0xC0000205, 0xC0000209, 0xA9FE0101, 0x7F000001, 0xFFFFFF00};

// Options as servers and clients send them.
struct Usual {
    uint8_t code;
    const char* data;  // hexadecimal
};
constexpr Usual kOfServers[] = {
    {53, "02"},
    {53, "05"},
    {53, "06"},
    {54, "c0000201"},
    {54, "c0000209"},
    {51, "00000e10"},
    {51, "0000003c"},
    {51, "ffffffff"},
    {58, "00000708"},
    {59, "00000c4e"},
    {1, "ffffff00"},
    {1, "ff00ff00"},
    {3, "c0000201"},
    {3, "c0000201c0000202"},
    {6, "c0000202"},
    {15, "6c616e00"},
    {26, "05dc"},
    {28, "c00002ff"},
    {33, "0a000000c0000201"},
    {42, "c0000205"},
    {43, "0102"},
    {52, "01"},
    {52, "02"},
    {52, "03"},
    {56, "6e6f"},
    {66, "62"},
    {100, "555443"},
    {108, "0000012c"},
    {114, "687474703a2f2f61"},
    {119, "03616263000178c000"},
    {120, "0003616263 00"},
    {121, "18c00003c000020100c0000201"},
    {249, "08 0a c0000201"},
    {160, "75"},
    {61, "ff0102030405"},
    {82, "010161"},
};
constexpr Usual kOfClients[] = {
    {53, "01"},
    {53, "03"},
    {53, "04"},
    {53, "07"},
    {53, "08"},
    {50, "c000020a"},
    {50, "c000020b"},
    {50, "c000024d"},
    {54, "c0000205"},
    {54, "c0000201"},
    {61, "01020300"},
    {61, "01020302"},
    {61, ""},
    {12, "68"},
    {12, "ff00"},
    {55, "0103060f1c333a3b2a2b42"},
    {55, "010101"},
    {57, "0240"},
    {57, "05dc"},
    {57, "0010"},
    {77, "0161"},
    {60, "76"},
    {81, "0500 00 0163"},
    {82, "010161"},
    {82, "0101610502c0000205"},
    {116, "01"},
    {118, "c0000200"},
    {51, "0000003c"},
    {52, "01"},
    {52, "03"},
    {80, ""},
};

void PutNumber(Bytes& data, uint32_t number) {
    for (size_t i = 0; i < data.size() && i < 4; ++i) data[data.size() - 1 - i] = static_cast<uint8_t>(number >> 8 * i);
}

Option UsualOption(Chance& chance, bool ofServer) {
    const Usual& usual = ofServer ? chance.Of(kOfServers) : chance.Of(kOfClients);
    Option option{usual.code, {}, sim::Bytes(usual.data)};
    option.length = static_cast<uint8_t>(option.data.size());
    return option;
}

void MutateOption(Chance& chance, Option& option) {
    switch (chance.Below(7)) {
        case 0:
            option.code = static_cast<uint8_t>(chance.Below(256));
            return;
        case 1:
            option.length = static_cast<uint8_t>(chance.OneIn(2) ? chance.Below(256) : option.data.size() + 1);
            return;
        case 2:
            option.data.resize(chance.OneIn(4) ? chance.Below(256) : chance.Below(option.data.size() + 5));
            break;
        case 3:
            PutNumber(option.data, chance.Of(kNumbers));
            break;
        case 4:
            if (!option.data.empty()) chance.Of(option.data) = static_cast<uint8_t>(chance.Below(256));
            break;
        case 5:
            option.data.insert(option.data.end(), option.data.begin(), option.data.end());
            break;
        default:
            MutateBytes(option.data, 8);
            break;
    }
    option.data.resize(std::min<size_t>(option.data.size(), 255));
    option.length = static_cast<uint8_t>(option.data.size());
}

// One option in two parts of the same code, or several of that code with as much as there is room for (RFC 3396).
void Split(Chance& chance, std::vector<Option>& options, size_t at) {
    Option rest = options[at];
    const size_t cut = chance.Below(rest.data.size() + 1);
    options[at].data.resize(cut);
    options[at].length = static_cast<uint8_t>(cut);
    if (chance.OneIn(4)) rest.data.resize(255, static_cast<uint8_t>(chance.Below(256)));
    rest.data.erase(rest.data.begin(), rest.data.begin() + (std::min(cut, rest.data.size())));
    rest.length = static_cast<uint8_t>(rest.data.size());
    options.insert(options.begin() + (at + 1 + chance.Below(options.size() - at)), rest);
}

void MutateOptions(Chance& chance, Bytes& area, bool ofServer) {
    std::vector<Option> options = ReadOptions(area);
    const size_t at = chance.Below(options.size());
    const auto place = [&](size_t index) { return options.begin() + index; };
    const size_t choice = options.empty() ? 0 : chance.Below(8);
    switch (choice) {
        case 0:
            options.insert(place(chance.Below(options.size() + 1)), UsualOption(chance, ofServer));
            break;
        case 1:
            options.erase(place(at));
            break;
        case 2:
            options.insert(place(chance.Below(options.size() + 1)), Option(options[at]));
            break;
        case 3:
            std::swap(options[at], chance.Of(options));
            break;
        case 4:
            Split(chance, options, at);
            break;
        case 5:
            options.insert(place(at), Option{static_cast<uint8_t>(chance.OneIn(2) ? 0 : 255), {}, {}});
            break;
        default:
            MutateOption(chance, options[at]);
            break;
    }
    area = WriteOptions(options);
}

// The fixed part of a BOOTP message: single fields, or the two that option 52 lets hold options.
void MutateHead(Chance& chance, Bytes& frame, bool ofServer) {
    constexpr std::array<std::pair<size_t, size_t>, 19> kFields{{{0, 6},
                                                                 {6, 6},
                                                                 {12, 2},
                                                                 {14, 1},
                                                                 {15, 1},
                                                                 {16, 2},
                                                                 {20, 2},
                                                                 {23, 1},
                                                                 {26, 4},
                                                                 {30, 4},
                                                                 {34, 4},
                                                                 {38, 2},
                                                                 {40, 2},
                                                                 {42, 3},
                                                                 {52, 2},
                                                                 {54, 4},
                                                                 {58, 4},
                                                                 {66, 4},
                                                                 {278, 4}}};
    if (frame.size() < kOptionsAt) return MutateBytes(frame, 16);
    const auto begin = frame.begin();
    if (chance.OneIn(4)) {
        const auto [at, size] = chance.OneIn(2) ? std::pair{86, 64} : std::pair{150, 128};
        Bytes area(begin + at, begin + at + size);
        MutateOptions(chance, area, ofServer);
        area.resize(static_cast<size_t>(size));
        std::copy(area.begin(), area.end(), begin + at);
        return;
    }
    const auto [at, size] = chance.Of(kFields);
    Bytes field(begin + at, begin + (at + size));
    if (chance.OneIn(2))
        PutNumber(field, chance.Of(kNumbers));
    else
        chance.Of(field) = static_cast<uint8_t>(chance.Below(256));
    std::copy(field.begin(), field.end(), begin + at);
}

// Has the step hold its whole frame, so that what comes before the options can be changed.
void MakeWhole(Step& step, bool ofServer) {
    DHCPMessage message = FromStation(0, 0);
    if (ofServer) {
        message.op = 2;
        message.source = ToIPv4("192.0.2.1");
        message.yiaddr = ToIPv4("192.0.2.10");
        std::swap(message.sourcePort, message.destinationPort);
    }
    const Frame head = HeadOf(message);
    step.data.insert(step.data.begin(), head.begin(), head.end());
    step.argument |= kWhole;
}

void MutateFrame(Chance& chance, Step& step) {
    const bool ofServer = step.kind == StepKind::FromServer;
    const size_t choice = chance.Below(16);
    if (choice == 0) step.argument ^= static_cast<uint8_t>(1 << (1 + chance.Below(7)));
    if (choice == 1 && (step.argument & kWhole) == 0) MakeWhole(step, ofServer);
    if (choice < 2) return;
    if ((step.argument & kWhole) == 0 || step.data.size() < kOptionsAt)
        return choice < 14 ? MutateOptions(chance, step.data, ofServer) : MutateBytes(step.data, 16);
    if (choice < 6) return MutateHead(chance, step.data, ofServer);
    Bytes area(step.data.begin() + kOptionsAt, step.data.end());
    MutateOptions(chance, area, ofServer);
    step.data.resize(kOptionsAt);
    step.data.insert(step.data.end(), area.begin(), area.end());
}

void MutateStep(Chance& chance, Step& step) {
    const bool isDHCP = step.kind == StepKind::FromServer || step.kind == StepKind::FromClient;
    if (isDHCP) return MutateFrame(chance, step);
    if (step.kind == StepKind::Script && chance.OneIn(2)) return MutateOptions(chance, step.data, true);
    if (chance.OneIn(2))
        step.argument = static_cast<uint8_t>(chance.Below(256));
    else if (!step.data.empty())
        chance.Of(step.data) = static_cast<uint8_t>(chance.Below(256));
    else
        step.data.push_back(static_cast<uint8_t>(chance.Below(256)));
}

Step NewStep(Chance& chance) {
    Step step{static_cast<StepKind>(chance.Below(static_cast<size_t>(StepKind::kCount))),
              static_cast<uint8_t>(chance.Below(256)),
              {}};
    const bool isDHCP = step.kind == StepKind::FromServer || step.kind == StepKind::FromClient;
    if (isDHCP) step.argument &= kLiveAddress | kStation;
    if (isDHCP) step.argument |= kLiveAddress;
    for (size_t i = isDHCP ? 2 + chance.Below(6) : 0; i > 0; --i)
        MutateOptions(chance, step.data, step.kind == StepKind::FromServer);
    if (step.kind == StepKind::ARP) step.data.assign({static_cast<uint8_t>(1 + chance.Below(2)), 0x66});
    if (step.kind == StepKind::ARP) step.argument &= static_cast<uint8_t>(~kWholeARP);
    return step;
}

void MutatePlay(Chance& chance, Play& play) {
    auto& steps = play.steps;
    const auto place = [&] { return steps.begin() + chance.Below(steps.size() + 1); };
    const size_t choice = steps.empty() ? chance.Below(4) : chance.Below(24);
    switch (choice) {
        case 0:
            play.scene = static_cast<uint8_t>(chance.Below(kNumScenes));
            return;
        case 1:
            play.flags ^= static_cast<uint8_t>(1 << chance.Below(8));
            return;
        case 2:
        case 3:
        case 4:
        case 5:
            steps.insert(place(), NewStep(chance));
            return;
        case 6:
            steps.erase(steps.begin() + chance.Below(steps.size()));
            return;
        case 7:
            steps.insert(place(), Step(chance.Of(steps)));
            return;
        case 8:
            std::swap(chance.Of(steps), chance.Of(steps));
            return;
        default:
            return MutateStep(chance, chance.Of(steps));
    }
}

size_t Store(const Bytes& bytes, uint8_t* data, size_t maxSize) {
    const size_t size = std::min(bytes.size(), maxSize);
    std::copy_n(bytes.begin(), size, data);
    return size;
}

}  // namespace
}  // namespace sim::fuzz

using namespace sim::fuzz;

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize, unsigned seed) {
    Chance chance(seed);
    if (chance.OneIn(40)) return LLVMFuzzerMutate(data, size, maxSize);
    Play play = ReadPlay({data, size});
    for (size_t i = 1 + chance.Below(3); i > 0; --i) MutatePlay(chance, play);
    return Store(WritePlay(play), data, maxSize);
}

// The beginning of one play, and then what comes last in another.
extern "C" size_t LLVMFuzzerCustomCrossOver(const uint8_t* data1, size_t size1, const uint8_t* data2, size_t size2,
                                            uint8_t* out, size_t maxSize, unsigned seed) {
    Chance chance(seed);
    Play play = ReadPlay({data1, size1});
    const Play other = ReadPlay({data2, size2});
    play.steps.resize(chance.Below(play.steps.size() + 1));
    play.steps.insert(play.steps.end(), other.steps.begin() + chance.Below(other.steps.size() + 1), other.steps.end());
    return Store(WritePlay(play), out, maxSize);
}
