// The client and the selector beside models of their plain rules, on one interface: after each event both must have
// sent the same bytes at the same moments, written the same lines, posted the same leases and know the same.
//
// The events are what servers and neighbours send and what they had better not: answers of every kind, to the client
// and to others, of this transaction and of another, with options cut, doubled, endless or in no order; ARP frames of
// whoever has an address; callers that act; sends that fall short or are refused, memory that runs out, a bus that
// takes no posts, a link that is lost, a wall clock that is set. Time passes by microseconds and by days, mostly to
// where something is due, just before it or just after. OSTREL_MODEL_FRAMES asks for more events than the usual ones.
#pragma once

#include <endian.h>

#include "Ostrel/Interface.h"
#include "Ostrel/LinkLocal.h"
#include "Ostrel/Log.h"

#include "ClientModel.h"
#include "LogLimit.h"
#include "SelectorModel.h"

namespace sim::model {

[[nodiscard]] inline std::string FrameWords(const Frame& frame) {
    std::string text = DescribeFrame(frame) + ", ";
    for (const uint8_t byte : frame) text += Hex(byte);
    return text;
}

// Whether the models know of such a line: not what is told of a client's story, nor of timeouts of the rfc rules.
[[nodiscard]] inline bool IsOfTheModels(const LogLine& line) {
    if (line.systemLog || line.text.starts_with("[eth0] client ") || line.text.starts_with("[eth0] linkLocal "))
        return false;
    for (const char* const other :
         {"probing>", "announcing>", "declining>", "renewing> RTC", "rebinding> RTC", "DEFEND >", "FORGET >"})
        if (line.text.find(other) != std::string::npos) return false;
    return true;
}

[[nodiscard]] inline valdo::JValue AsJson(const std::vector<std::string>& texts) {
    valdo::JValue array = valdo::Array();
    for (const std::string& text : texts) array.append(std::string_view(text));
    return array;
}

class ClientPlay {
public:
    ClientPlay(const ClientConfig& withConfig, uint64_t seed, uint32_t clock)
        : config(withConfig),
          world(seed),
          random(world.random),
          clientModel(deviceAt(clock), config),
          selectorModel(device) {
        world.monotonicStart = clock;
        wire.sentLimit = 0;
        world.onSend = [this](std::span<const uint8_t> frame) {
            sent.emplace_back(Moment(), Frame(frame.begin(), frame.end()));
            difference += FindFault(frame);
            if (ReadARP(frame)) return;
            for (const size_t checksum : {24, 25, 40, 41}) sent.back().second[checksum] = 0;
        };
        (void)world.Call("/client", "leaseInformation", R"({"subscribe":true})", ":1.7");
        const auto domain = config.domainName.empty() ? valdo::JValue() : valdo::JValue(config.domainName);
        const auto identifier = config.identifier ? valdo::JValue(*config.identifier) : valdo::JValue();
        EXPECT_TRUE(daemon.Initialize("eth0", {{"ipv4Config", config.config.c_str()},
                                               {"ipv4Address", config.address.c_str()},
                                               {"ipv4Subnet", config.mask.c_str()},
                                               {"ipv4Router", config.router.c_str()},
                                               {"dnsServers", AsJson(config.dnsServers)},
                                               {"domainName", domain},
                                               {"clientIdentifier", identifier},
                                               {"ipv4LinkLocal", config.linkLocal}}));
        if (config.linkLocal) clientModel.selected = &selectorModel.books.address;
        world.log.clear();
        device.log.clear();
    }

    // What differs after one more event; empty when nothing does.
    std::string Step() {
        what.clear();
        delivered.clear();
        LogLimitReset();
        PassTime();
        Compare();
        if (!difference.empty()) return difference + "\nas time passes until " + Join(device.now);
        device.trouble = {.send = Draw(20) != 0  ? SendFault::None
                                  : Draw(2) == 0 ? SendFault::Short
                                                 : SendFault::Error,
                          .failingAllocation = Draw(20) != 0 ? 0 : 1 + Draw(4)};
        world.FailSends("eth0", device.trouble.send, device.trouble.send == SendFault::None ? 0 : 1);
        world.FailAllocation(device.trouble.failingAllocation);
        Happen();
        world.FailAllocation(0);
        device.trouble.failingAllocation = 0;
        // Mostly what follows at once follows before the next event; a send that is to fail may be that.
        if (Draw(4) != 0) Pass(0);
        world.FailSends("eth0", SendFault::None, 0);
        device.trouble.send = SendFault::None;
        Compare();
        return difference.empty() ? ""
                                  : difference + "\nat " + Join(device.now) + " after " + what +
                                        (delivered.empty() ? "" : FrameWords(delivered));
    }

    std::array<uint64_t, 9> entered{};  // events in each state
    uint64_t leases = 0;                // posted
    uint64_t conflicts = 0;

private:
    DeviceModel& deviceAt(uint32_t clock) {
        device.monotonicStart = clock;
        device.wallStart = world.wallStart;
        return device;
    }
    uint32_t Draw(uint32_t below) { return DrawBelow(random, below); }
    [[nodiscard]] uint64_t Moment() const { return static_cast<uint64_t>(world.Now().count()); }
    Ostrel_InterfaceObj* Interface() { return daemon.system.interfaceList; }

    // Time.

    void Pass(uint64_t microseconds) {
        world.RunFor(Duration(microseconds));
        device.PassTo(device.now + microseconds);
    }

    // No more than nine DISCOVERs or DECLINEs in ten seconds: what keeps storms down is not of the rules.
    void PassTime() {
        auto& asked = clientModel.asked;
        std::erase_if(asked, [this](uint64_t moment) { return moment + 10'500'000 < device.now; });
        if (asked.size() > 7) Pass(11'000'000);
        const uint64_t due = device.NextDue();
        const uint32_t choice = Draw(16);
        if (choice < 5) return;
        if (choice < 7) return Pass(Draw(2) == 0 ? Draw(1000) : Draw(1'000'000));
        if (choice < 9) return Pass(uint64_t{Draw(12)} * 1'000'000);
        if (choice == 9 && Draw(8) == 0) {
            const uint64_t asleep = uint64_t{Draw(4000)} * 1'000'000;
            const uint64_t end = device.now + asleep;
            world.Suspend(Duration(asleep));
            world.RunFor(Duration(asleep));
            device.Sleep(asleep);
            return device.PassTo(end);
        }
        if (choice == 9 && Draw(8) == 0) return Pass(uint64_t{Draw(Draw(20) == 0 ? 100'000 : 4000)} * 1'000'000);
        if (due == UINT64_MAX || due - device.now > 400'000'000'000'000) return;
        const uint64_t left = due - device.now;
        Pass(Draw(4) != 0 || left == 0 ? left : Draw(2) == 0 ? left - 1 : left + 1);
    }

    // Events.

    void Happen() {
        const uint32_t choice = Draw(40);
        if (choice < 26) return Answer();
        if (choice < 33) return Speak();
        if (choice < 36) return Act();
        if (choice == 36) {
            device.isUp = Draw(3) != 0;
            world.SetLink("eth0", device.isUp);
        } else if (choice == 37) {
            device.failPosts = world.failPosts = Draw(4) == 0;
        } else if (choice == 38) {
            device.threshold = Draw(8) == 0 ? 1000 : 800;
            Ostrel_SetDebugLevel(device.threshold == 1000 ? "info" : "trace");
        } else {
            device.wallStart = world.wallStart = 1'780'000'000 + Draw(1'000'000'000);
        }
    }

    // A word for one of them, or for both by way of the bus.
    void Act() {
        constexpr const char* kWords[] = {"init", "init", "init", "renew", "rebind", "halt", "halt", "Init", "halt "};
        const std::string word = kWords[Draw(std::size(kWords))];
        const uint32_t whom = Draw(3);
        what = Join("\"", word, "\" for ", whom);
        bool done = true;
        bool expected = true;
        if (whom == 2) {
            done = daemon.LeaseAction("eth0", word);
            expected = clientModel.Act(word) && (!config.linkLocal || selectorModel.Act(word));
        } else if (whom == 0) {
            const IPv4 address = word == "init" && Draw(2) == 0 ? 0xC000020A + Draw(3) : 0;
            const bool release = word == "halt" && Draw(2) == 0;
            done = Ostrel_DHCPClientLeaseAction(Interface(), word.c_str(), {htobe32(address), release}) == kNoErr;
            expected = clientModel.Act(word, address, release);
        } else if (config.linkLocal) {
            done = Ostrel_LinkLocalAction(Interface(), word.c_str()) == kNoErr;
            expected = selectorModel.Act(word);
        }
        if (done != expected) difference += "another reply";
    }

    // What a server says, mostly what the client waits for.
    void Answer() {
        const uint32_t state = clientModel.books.state;
        const MessageType wanted = state == kClientStateSelecting ? kOffer : kAck;
        const uint32_t choice = Draw(16);
        MessageType type = choice < 11 ? wanted : choice < 13 ? kOffer : kAck;
        if (choice == 14 && Draw(2) == 0) type = kNak;
        if (choice == 15) type = static_cast<MessageType>(Draw(Draw(2) == 0 ? 20 : 256));
        const auto server = static_cast<uint8_t>(1 + Draw(3));
        const auto leased = static_cast<uint8_t>(10 + Draw(3));
        DHCPMessage message{.ethernetDestination = Draw(2) == 0 ? kClientMAC : kEveryone,
                            .ethernetSource = {2, 0, 0, 0, 0, server},
                            .source = 0xC0000200U + server + Draw(2) * 100,
                            .destination = Draw(2) == 0 ? kEveryoneIPv4 : 0xC0000200 + leased,
                            .sourcePort = 67,
                            .destinationPort = static_cast<uint16_t>(Draw(50) == 0 ? 67 : 68),
                            .op = static_cast<uint8_t>(Draw(20) == 0 ? 1 : 2),
                            .xid = be32toh(clientModel.books.xid) + (Draw(12) == 0 ? 1 : 0),
                            .yiaddr = Draw(40) == 0 ? 0 : 0xC0000200U + leased,
                            .chaddr = Draw(20) == 0 ? kOtherMAC : kClientMAC,
                            .options = {{53, {type}}}};
        AddOptions(message, 0xC0000200U + server);
        Frame frame = WriteDHCP(message);
        if (Draw(12) == 0) Damage(frame, random);
        Deliver(frame);
    }

    uint32_t DrawTime() {
        constexpr std::array<uint32_t, 12> kTimes{0,   1,    59,    60,          119,        122,
                                                  300, 3600, 86400, 613'566'757, 0xFFFFFFFE, 0xFFFFFFFF};
        return Draw(3) == 0 ? kTimes[Draw(kTimes.size())] : Draw(Draw(2) == 0 ? 1000 : 100'000);
    }

    void AddOptions(DHCPMessage& message, IPv4 server) {
        auto& options = message.options;
        const auto add = [&](uint8_t code, const Bytes& data) { options.emplace_back(code, data); };
        const auto length = [this](uint32_t right) { return Draw(50) == 0 ? Draw(7) : right; };
        if (Draw(40) != 0) add(51, OfNumber(DrawTime(), length(4)));
        if (Draw(40) != 0) add(54, OfNumber(server, length(4)));
        if (Draw(40) != 0) add(1, OfNumber(0xFFFFFF00 << Draw(3), length(4)));
        if (Draw(4) == 0) add(58, OfNumber(DrawTime(), length(4)));
        if (Draw(4) == 0) add(59, OfNumber(DrawTime(), length(4)));
        for (const uint8_t code : {uint8_t{3}, uint8_t{6}}) {
            if (Draw(3) == 0) continue;
            Bytes addresses;
            for (uint32_t count = Draw(4); count > 0; --count)
                Append(addresses, OfNumber(Draw(5) == 0 ? 0 : 0xC0000200 + Draw(9), 4));
            if (Draw(30) == 0) addresses.push_back(1);
            add(code, addresses);
        }
        if (Draw(2) == 0) {
            Bytes name(Draw(Draw(20) == 0 ? 256 : 9));
            for (uint8_t& letter : name) letter = Draw(50) == 0 ? 0 : static_cast<uint8_t>('a' + Draw(26));
            add(15, name);
        }
        if (Draw(8) == 0) add(static_cast<uint8_t>(60 + Draw(190)), DrawBytes(random, 20));
        if (Draw(12) == 0) options.push_back(options[Draw(static_cast<uint32_t>(options.size()))]);
        if (Draw(8) == 0) options.erase(options.begin() + Draw(static_cast<uint32_t>(options.size())));
        if (Draw(8) == 0 && !options.empty()) add(0, {});
        if (Draw(4) == 0) std::shuffle(options.begin(), options.end(), random);
    }

    // What a neighbour says, mostly of an address of ours.
    void Speak() {
        const IPv4 leased = clientModel.books.lease.address;
        const IPv4 selected = selectorModel.books.address;
        const uint32_t choice = Draw(8);
        const IPv4 about = choice < 3 ? leased : choice < 6 ? selected : choice == 6 ? 0 : selected + 1;
        ARPFrame arp = {.ethernetDestination = Draw(2) == 0 ? kClientMAC : kEveryone,
                        .operation = static_cast<uint16_t>(Draw(3) != 0    ? 2
                                                           : Draw(10) != 0 ? 1
                                                                           : Draw(1024)),
                        .senderMAC = Draw(8) == 0 ? kClientMAC : kOtherMAC,
                        .sender = about,
                        .target = Draw(2) == 0 ? about : leased};
        // Half of the conflicts are none after all, or the client would hold nothing for long.
        if (choice < 3 && leased != 0 && Draw(2) == 0) arp.operation = 1;
        Frame frame = WriteARP(arp);
        if (Draw(20) == 0) frame[12 + Draw(8)] = static_cast<uint8_t>(Draw(9));
        if (Draw(30) == 0) frame.resize(Draw(60));
        Deliver(frame);
    }

    // By way of the sockets and their programs.
    void Deliver(const Frame& frame) {
        delivered = frame;
        eth0.Receive(frame);
        if (!device.isUp) return;
        if (PassesARP(frame)) HearARP(frame);
        if (PassesDHCP(frame)) clientModel.Receive(frame);
        // How odd bytes are shown is another test's.
        const std::string& domain = clientModel.books.lease.domain;
        if (std::any_of(domain.begin(), domain.end(),
                        [](char letter) { return letter != 0 && letter != '.' && (letter < 'a' || letter > 'z'); })) {
            (void)Ostrel_DHCPClientLeaseAction(Interface(), "halt");
            clientModel.Act("halt");
        }
    }

    static uint32_t At(const Frame& frame, size_t place, size_t size) {
        uint32_t value = 0;
        for (; size > 0; --size) value = value << 8 | frame[place++];
        return value;
    }
    static bool PassesARP(const Frame& frame) {
        return frame.size() >= 20 && At(frame, 12, 2) == 0x0806 && (At(frame, 14, 2) & 1) != 0 &&
               (At(frame, 16, 2) & 0x0800) != 0 && (frame[18] & 6) != 0 && (frame[19] & 4) != 0;
    }
    static bool PassesDHCP(const Frame& frame) {
        if (frame.size() < 24 || At(frame, 12, 2) != 0x0800 || frame[23] != 17 || (At(frame, 20, 2) & 0x1FFF) != 0)
            return false;
        const size_t port = 16 + 4 * (frame[14] & 0x0FU);
        return frame.size() >= port + 2 && At(frame, port, 2) == 68;
    }

    void HearARP(const Frame& frame) {
        if (frame.size() < 42) return;
        ARPFrame arp{.operation = static_cast<uint16_t>(At(frame, 20, 2)), .sender = At(frame, 28, 4)};
        std::copy_n(frame.begin() + 22, 6, arp.senderMAC.begin());
        clientModel.Hear(arp);
        if (config.linkLocal) selectorModel.Hear(arp);
    }

    // Comparison.

    void Compare() {
        std::string log;
        for (const LogLine& line : world.log) {
            if (!IsOfTheModels(line)) continue;
            std::string text = line.text;
            // The line of the source is nobody's business, nor in which part of a step a check failed.
            if (text.starts_with("### Assert")) {
                const size_t at = text.rfind(':');
                const bool isOfStep =
                    !text.starts_with("### Assert: err 0 ") && text.find("Ostrel_", at) != std::string::npos;
                text.erase(at, isOfStep ? text.find(' ', at) - at : std::string::npos);
            }
            log += Join(line.time.count(), " ", text, "\n");
        }
        world.log.clear();
        CompareTexts("the log", log, std::exchange(device.log, {}));

        std::vector<std::pair<uint64_t, std::string>> posts;
        for (const Post& post : world.posts) posts.emplace_back(static_cast<uint64_t>(post.time.count()), post.payload);
        leases += posts.size();
        world.posts.clear();
        const auto flat = [](const auto& list) {
            std::string text;
            for (const auto& [time, one] : list) text += Join(time, " ", one, "\n");
            return text;
        };
        CompareTexts("posts", flat(posts), flat(std::exchange(device.posts, {})));

        const auto frames = [](const auto& list) {
            std::string text;
            for (const auto& [time, frame] : list) text += Join(time, " ", FrameWords(frame), "\n");
            return text;
        };
        if (sent != device.sent) CompareTexts("frames", frames(sent), frames(device.sent));
        sent.clear();
        device.sent.clear();

        ++entered[clientModel.books.state];
        std::string client = Words(BooksOf(*Interface()->dhcpClient));
        std::string model = Words(clientModel.books);
        if (config.linkLocal) client += Words(BooksOf(*Interface()->linkLocal));
        if (config.linkLocal) model += Words(selectorModel.books);
        CompareTexts("the books", client, model);
        if (Draw(20) == 0)
            CompareTexts("the lease", daemon.Lease().text,
                         R"({"returnValue":true,"interfaceList":[)" + clientModel.LeaseText() + "]}");
        world.log.clear();
    }

    void CompareTexts(const std::string& where, const std::string& daemons, const std::string& models) {
        if (difference.empty()) difference = FirstDifference(where, daemons, models);
    }

    const ClientConfig config;
    DeviceModel device;
    World world;
    std::mt19937_64& random;
    Segment& wire = world.AddSegment();
    Station& eth0 = world.AddInterface("eth0", kClientMAC, wire);
    Daemon daemon;
    ClientModel clientModel;
    SelectorModel selectorModel;
    std::vector<std::pair<uint64_t, Frame>> sent;
    std::string what;
    Frame delivered;
    std::string difference;
};

}  // namespace sim::model
