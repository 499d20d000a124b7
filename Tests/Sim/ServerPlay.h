// The server and a model of its rules at one table: both get the same frames, and after each of them must have sent the
// same bytes, reported the same failures and hold the same table. Of the plain rules the lines of every step are
// compared as well, and the tables that are posted.
//
// The frames are what stations send and what they had better not: stations that have identifiers, or share them, or
// share an address, one that has none; relays near and far; hosts that answer for addresses that are probed. Frames are
// cut, with headers that lie, options twice, endless or in no order; the server's sends fall short, its memory runs
// out, its debug level changes between the one where it walks and the one where its index answers. OSTREL_MODEL_FRAMES
// asks for more frames than the usual ones.
#pragma once

#include <endian.h>
#include <gtest/gtest.h>
#include <memory>

#include "Ostrel/ARPShared.h"
#include "Ostrel/Log.h"

#include "LeaseInvariants.h"
#include "ServerModel.h"

namespace sim::model {

constexpr uint64_t kFramesOfAGame = 2'000;

// Whether the server keeps this.
[[nodiscard]] inline bool IsKeptIn(const os_array<uint8_t>& buffer, uint32_t length, const std::optional<Bytes>& kept) {
    if (buffer == nullptr || !kept) return buffer == nullptr && !kept && length == 0;
    return std::equal(kept->begin(), kept->end(), buffer.get(), buffer.get() + length) && buffer[length] == 0;
}

// The server and its model at one table.
class Play {
public:
    Play(Model& ofRules, uint64_t seed, uint32_t clock)
        : model(ofRules), game(model.game), lan(game.wishes, seed), shown(model.slots), random(lan.world.random) {
        lan.world.monotonicStart = clock;
        model.wallOffset = lan.world.wallStart - int64_t{clock};
        model.isHeard = isListening = model.Tells() && game.wishes.maxLeases <= 65;
        if (!isListening) lan.world.LeaveBus(":1.7");
        lan.wire.sentLimit = 0;
        lan.world.onSend = [this](std::span<const uint8_t> frame) {
            sent.emplace_back(frame.begin(), frame.end());
            if (ReadARP(frame)) return;
            fault += FindFault(frame);
            for (const size_t checksum : {24, 25, 40, 41}) sent.back()[checksum] = 0;
            if (const auto answer = ReadDHCP(frame)) ++answers.at(answer->Type());
        };
        lan.Reports();
    }

    // What differs after one more frame; empty when nothing does.
    std::string Step() {
        PassTime();
        const Trouble trouble = {.send = Draw(20) != 0  ? SendFault::None
                                         : Draw(2) == 0 ? SendFault::Short
                                                        : SendFault::Error,
                                 .failingAllocation = Draw(20) != 0 ? 0 : 1 + Draw(2),
                                 .post = isListening && Draw(20) == 0};
        const IPv4 probed = model.ProbedAddress(random());
        if (probed != 0 && Draw(game.probe > 5000 ? 30 : 3) == 0) return Answer(probed, trouble);
        const Frame frame = DrawFrame();
        Meet(trouble, [&] { Ostrel_BOOTPServerPacketFilterHandler(Interface(), nullptr, frame); });
        Compare(model.Receive(frame, Now(), trouble));
        return fault.empty() ? "" : fault + " after " + DescribeFrame(frame);
    }

    std::array<uint64_t, 256> answers{};

private:
    uint32_t Draw(uint32_t below) { return DrawBelow(random, below); }
    Ostrel_InterfaceObj* Interface() { return lan.daemon.system.interfaceList; }
    uint64_t Now() {
        return lan.world.monotonicStart * uint64_t{1000} + static_cast<uint64_t>(lan.world.TimeAwake() / 1ms);
    }

    template <typename Event>
    void Meet(const Trouble& trouble, const Event& event) {
        lan.world.FailSends("eth0", trouble.send, trouble.send == SendFault::None ? 0 : 1);
        lan.world.FailAllocation(trouble.failingAllocation);
        lan.world.failPosts = trouble.post;
        sent.clear();
        event();
        lan.world.FailSends("eth0", SendFault::None, 0);
        lan.world.FailAllocation(0);
    }

    std::string Answer(IPv4 probed, const Trouble& trouble) {
        const MAC host = Draw(4) == 0 ? DrawStation() : MAC{2, 0, 0, 0, 9, static_cast<uint8_t>(Draw(4))};
        const ARPFrame arp = {.ethernetDestination = kClientMAC,
                              .operation = static_cast<uint16_t>(1 + Draw(2)),
                              .senderMAC = Draw(20) == 0 ? kClientMAC : host,
                              .sender = Draw(4) == 0 ? 0 : probed,
                              .target = probed};
        const Frame frame = WriteARP(arp);
        Meet(trouble, [&] { Ostrel_ARPPacketFilterHandler(Interface(), nullptr, frame); });
        Compare(model.Hear(arp, Now(), trouble));
        return fault.empty() ? "" : fault + " after " + DescribeFrame(frame);
    }

    void PassTime() {
        if (Draw(20) == 0) {
            using Level = std::pair<const char*, int32_t>;
            constexpr std::array<Level, 4> kLevels{{{"info", 1000}, {"info", 1000}, {"trace", 800}, {"chatty", 100}}};
            const auto& [name, level] = kLevels[game.wishes.maxLeases < 50 ? Draw(kLevels.size()) : 0];
            Ostrel_SetDebugLevel(name);
            model.threshold = level;
        }
        Duration time = Draw(isFilling ? 40 : 4) != 0 ? 0s : (Draw(3) == 0 ? Draw(12) : Draw(2)) * 1s;
        if (!isFilling && Draw(40) == 0) time += game.wishes.leaseTime / 2 * 1s;
        if (Draw(400) == 0) time += 500s;
        if (game.probe != 0 && Draw(2) == 0) time += 100ms;
        if (Draw(200) == 0) isFilling = !isFilling;
        sent.clear();
        lan.world.RunFor(time);
        Compare(model.PassTo(Now()));
        if (!fault.empty()) fault += " as time passes, before";
    }

    // Mostly what the station has, while the table is filled what is free; otherwise an address of the range or just
    // past either end of it; sometimes none, another subnet's, or one that is kept.
    IPv4 DrawAddress(const MAC& mac) {
        const uint32_t choice = Draw(12);
        if (choice > 7 && !isFilling) return model.AddressHeldBy(mac);
        if (choice < 2) return choice == 0 ? 0 : 0xAC100001;
        if (choice == 2 && !game.fixed.empty())
            return ToIPv4(game.fixed[Draw(static_cast<uint32_t>(game.fixed.size()))].address);
        if (isFilling && choice < 11) return model.FreeAddress(Draw(static_cast<uint32_t>(game.wishes.maxLeases)));
        return ToIPv4(game.wishes.rangeStart) + Draw(static_cast<uint32_t>(game.wishes.maxLeases) + 2) - 1;
    }

    MAC DrawStation() {
        const auto number = static_cast<uint16_t>(Draw(game.stations));
        if (number == 0) return {};  // one has no address of its own
        return {2, 0, 0, 0, static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)};
    }

    Frame DrawFrame() {
        constexpr std::array kTypes{kDiscover, kDiscover, kRequest, kRequest, kRequest, kInform, kRelease, kDecline};
        const MAC mac = DrawStation();
        const uint32_t types = !isFilling ? uint32_t{kTypes.size()} : game.probe > 5000 ? 2 : 6;
        const auto type = Draw(40) == 0 ? static_cast<MessageType>(Draw(256)) : kTypes[Draw(types)];
        DHCPMessage message = MessageFrom(mac, type);
        if (Draw(8) == 0) message.ethernetSource = {2, 0, 0, 0, 8, 8};  // an extender
        message.xid = static_cast<uint32_t>(random());
        message.flags = static_cast<uint16_t>(random());
        message.ciaddr = Draw(3) == 0 ? 0 : DrawAddress(message.chaddr);
        if (Draw(8) == 0) message.giaddr = Draw(2) == 0 ? 0x0A010001 : ToIPv4(game.wishes.address) + 1;
        if (Draw(8) == 0) message.destination = ToIPv4(game.wishes.address);
        AddOptions(message);
        Frame frame = WriteDHCP(message);
        for (size_t at = 76; at < 86; ++at) frame[at] = static_cast<uint8_t>(random());  // the rest of chaddr
        if (Draw(50) == 0) frame[43] = static_cast<uint8_t>(random());                   // htype
        if (Draw(50) == 0) frame[44] = static_cast<uint8_t>(Draw(20));                   // hlen
        if (Draw(10) == 0) Damage(frame, random);
        return frame;
    }

    // Of four stations one has no identifier, one says its address, one has one of its own, and one several.
    void AddIdentifier(DHCPMessage& message) {
        auto& options = message.options;
        const uint8_t low = message.chaddr[5];
        if (low % 4 == 1) options.emplace_back(61, Bytes{1});
        if (low % 4 == 1) Append(options.back().second, {message.chaddr.begin(), message.chaddr.end()});
        if (low % 4 == 2) options.emplace_back(61, Bytes{255, message.chaddr[4], low});
        if (low % 4 == 3)
            options.emplace_back(61, Draw(10) == 0 ? DrawBytes(random, 4) : Bytes{0, static_cast<uint8_t>(Draw(3))});
    }

    void AddOptions(DHCPMessage& message) {
        auto& options = message.options;
        if (Draw(20) != 0)
            AddIdentifier(message);
        else
            options.emplace_back(61, DrawBytes(random, 256));
        if (Draw(2) == 0) options.emplace_back(50, OfNumber(DrawAddress(message.chaddr), Draw(8) == 0 ? 3 : 4));
        if (Draw(4) == 0)
            options.emplace_back(54,
                                 OfNumber(ToIPv4(game.wishes.address) + (Draw(3) == 0 ? 5 : 0), Draw(8) == 0 ? 5 : 4));
        if (Draw(4) == 0) options.emplace_back(12, DrawBytes(random, Draw(20) == 0 ? 256 : 8));
        if (Draw(2) == 0) options.emplace_back(55, Bytes{1, 3, 6, 15, 12, 28, 51, 42, 43, 114, 3});
        if (Draw(6) == 0) options.emplace_back(55, DrawBytes(random, Draw(20) == 0 ? 256 : 8));
        if (Draw(6) == 0)
            options.emplace_back(57, OfNumber(Draw(2) == 0 ? Draw(3000) : Draw(65536), Draw(8) == 0 ? 1 : 2));
        if (Draw(6) == 0) options.emplace_back(82, DrawBytes(random, Draw(20) == 0 ? 256 : 12));
        if (Draw(8) == 0) options.push_back(options[Draw(static_cast<uint32_t>(options.size()))]);
        if (Draw(8) == 0) options.emplace_back(static_cast<uint8_t>(1 + Draw(254)), DrawBytes(random, 8));
        if (Draw(8) == 0) options.emplace_back(55, DrawLongList());
        if (Draw(4) == 0) std::shuffle(options.begin(), options.end(), random);
    }

    // More than any frame has room for, when none is told twice.
    Bytes DrawLongList() {
        Bytes codes(255);
        for (uint8_t& code : codes) code = std::array<uint8_t, 4>{1, 3, 6, 15}[Draw(4)];
        return codes;
    }

    // Of the debug output what the models know of, without addresses of memory.
    std::string TakeLines() {
        std::string lines;
        for (const LogLine& line : lan.world.log)
            for (const char* const known :
                 {"DHCP Packet too small", "Invalid options cookie", "[eth0] DHCP Server RX msg", "[eth0] Find Lease",
                  "[eth0] SUBNET", "[eth0] Lease at index", "[eth0] msgType", "[eth0] No requested",
                  "[eth0] Free Lease", "[eth0] ### PRUNE", "[eth0]  ### PRUNE", "Ostrel_DHCPServerSend_BOOTPReply("}) {
                if (line.systemLog || !line.text.starts_with(known)) continue;
                const size_t pointer = line.text.find("lease set to ");
                lines += line.text.substr(0, pointer == std::string::npos ? pointer : pointer + 13) + "\n";
            }
        return lines;
    }

    // A table without what clients call themselves, which is another test's.
    static std::string Nameless(std::string table) {
        for (const std::string member : {",\"hostName\":\"", ",\"clientIdentifier\":\""})
            for (size_t at; (at = table.find(member)) != std::string::npos;) {
                size_t end = at + member.size();
                while (table[end] != '"') end += table[end] == '\\' ? 2 : 1;
                table.erase(at, end + 1 - at);
            }
        return table;
    }

    void Compare(const Outcome& expected) {
        const std::string lines = TakeLines();
        if (model.Tells()) fault += FirstDifference("lines", lines, expected.lines);
        std::string posts;
        for (const Post& post : lan.world.posts) posts += Nameless(post.payload) + "\n";
        lan.world.posts.clear();
        if (isListening) fault += FirstDifference("posts", posts, expected.posts);
        const std::string reports = lan.Reports();
        if (reports != expected.reports) fault += "reports " + reports + "instead of " + expected.reports;
        if (sent != expected.sent) {
            fault += "other frames are sent:";
            for (const Frame& frame : sent) fault += "\n  " + DescribeFrame(frame);
            fault += "\n instead of:";
            for (const Frame& frame : expected.sent) fault += "\n  " + DescribeFrame(frame);
        }
        if (fault.empty()) CompareSlots();
    }

    // Every slot, whether it says that it changed, and the walk over those in use. Where somebody listens, what has
    // changed shows in the posts.
    void CompareSlots() {
        Ostrel_ServerObj& server = lan.Server();
        const Ostrel_LeaseInformation* used = Ostrel_DHCPServer_LeaseNextUsed(&server, nullptr);
        for (size_t i = 0; i < model.slots.size(); ++i) {
            Ostrel_LeaseInformation& lease = server.leases[i];
            const Slot& slot = model.slots[i];
            const bool isUsed = used == &lease;
            if (isUsed) used = Ostrel_DHCPServer_LeaseNextUsed(&server, used);
            const bool isStale = !isListening && !lease.changed && slot.Shown() != shown[i].Shown();
            if (!IsSame(lease, slot) || isUsed != slot.IsUsed() || isStale)
                fault = "slot " + std::to_string(i) + " differs";
            if (isListening) continue;
            if (lease.changed) shown[i] = slot;
            lease.changed = false;
        }
        if (fault.empty() && Draw(50) == 0) fault = FindLeaseFault(server);
    }

    static bool IsSame(const Ostrel_LeaseInformation& lease, const Slot& slot) {
        return be32toh(lease.IPv4Address) == slot.address && lease.state == slot.state && lease.srcMAC == slot.mac &&
               lease.offerTime == slot.offerTime &&
               IsKeptIn(lease.clientIdentifier, lease.clientIdentifierLength, slot.identifier) &&
               IsKeptIn(lease.hostName, lease.hostNameLength, slot.hostName);
    }

    Model& model;
    const Game& game;
    ServerLan lan;
    std::vector<Slot> shown;  // each slot when it last said that it changed
    std::mt19937_64& random;
    bool isListening = false;  // somebody, to the table
    bool isFilling = false;    // the stations take what they can get, and little time passes
    std::vector<Frame> sent;
    std::string fault;
};

using NewModel = std::unique_ptr<Model> (*)(const Game&);

// Some rounds of every game from each clock, with a seed of its own. The games must be worth playing: replies of each
// kind come often, and what the model counts as interesting comes at all.
inline void PlayGames(std::span<const Game> games, const std::array<uint32_t, 3>& clocks, NewModel newModel) {
    const size_t frames = Wished("OSTREL_MODEL_FRAMES", 60'000);
    std::array<uint64_t, 256> answers{};
    std::vector<uint64_t> seen;
    for (size_t seed = 1; seed * kFramesOfAGame <= frames; ++seed) {
        const std::unique_ptr<Model> model = newModel(games[seed % games.size()]);
        Play play(*model, seed, clocks[seed / 9 % 3]);
        for (uint64_t step = 0; step < kFramesOfAGame; ++step)
            if (const std::string fault = play.Step(); !fault.empty())
                FAIL() << fault << "\nseed " << seed << ", frame " << step;
        for (size_t type = 0; type < answers.size(); ++type) answers[type] += play.answers[type];
        seen.resize(model->seen.size());
        for (size_t i = 0; i < seen.size(); ++i) seen[i] += model->seen[i];
    }
    for (const auto type : {kOffer, kAck, kNak}) EXPECT_GT(answers[type], frames / 20) << type;
    for (size_t i = 0; i < seen.size(); ++i) EXPECT_GT(seen[i], frames / 2000) << i;
}

}  // namespace sim::model
