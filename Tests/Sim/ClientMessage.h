// A message that a client's model hears, read anew for each question.
#pragma once

#include "DeviceModel.h"

namespace sim::model {

class ClientMessage {
protected:
    explicit ClientMessage(DeviceModel& onDevice) : device(onDevice) {}

    Ostrel_Status Read(const Frame& frame) {
        options.clear();
        const size_t message = 14 + (frame.size() > 14 ? 4 * (frame[14] & 0x0FU) : 20) + 8;
        if (frame.size() < message + 240) {
            device.Say(8000, "DHCP Packet too small; need ", message + 240, " bytes, only have ", frame.size(),
                       " bytes");
            return kBadSizeErr;
        }
        const auto at = [&](size_t place, size_t size) { return std::span(frame).subspan(place, size); };
        if (AddressOf(at(message + 236, 4)) != 0x63825363) {
            device.Say(8000, "Invalid options cookie; expected 99.130.83.99, got ",
                       ToText(AddressOf(at(message + 236, 4))));
            return kBadFormatErr;
        }
        std::copy_n(frame.begin() + 6, 6, from.begin());
        source = AddressOf(at(26, 4));
        std::copy_n(at(message + 4, 4).begin(), 4, reinterpret_cast<uint8_t*>(&xid));
        yiaddr = AddressOf(at(message + 16, 4));
        std::copy_n(at(message + 28, 6).begin(), 6, chaddr.begin());
        options.assign(frame.begin() + static_cast<ptrdiff_t>(message) + 240, frame.end());
        return kNoErr;
    }

    [[nodiscard]] bool IsForUs() const { return chaddr == kClientMAC; }

    Ostrel_Status ReadNumber(uint8_t code, uint32_t& value) {
        const Option option = FindOption(options, code);
        if (option.status != kNoErr) return option.status;
        if (option.data.size() != 4) {
            device.ReportCheck("( optionBuf[1] == sizeof( uint32_t ) )", "Src/DHCPShared");
            return kBadSizeErr;
        }
        value = AddressOf(option.data);
        return kNoErr;
    }

    Ostrel_Status ReadAddresses(uint8_t code, std::vector<IPv4>& values) {
        const Option option = FindOption(options, code);
        if (option.status != kNoErr) return option.status == kEndingErr ? kNoErr : option.status;
        if (option.data.size() % 4 != 0)
            return device.ReportCheck("( ( inLen % sizeof( uint32_t ) ) == 0 )", "Src/DHCPShared"), kBadSizeErr;
        if (!device.Allocate()) return device.ReportCheck("out32", "Src/DHCPShared"), kOutOfMemoryErr;
        for (size_t i = 0; i < option.data.size(); i += 4)
            values.push_back(AddressOf(std::span(option.data).subspan(i, 4)));
        return kNoErr;
    }

    DeviceModel& device;

    // Of the message at hand.
    Bytes options;
    MAC from{};
    IPv4 source = 0;
    uint32_t xid = 0;
    IPv4 yiaddr = 0;
    MAC chaddr{};
};

}  // namespace sim::model
