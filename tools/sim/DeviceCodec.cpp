// SPDX-License-Identifier: MIT
#include "DeviceCodec.h"

namespace vyrix::sim {

namespace {
constexpr uint8_t kStart = 0xC0;
constexpr uint8_t kHostId = 2;
}  // namespace

std::vector<uint8_t> EncodeDevicePacket(uint8_t destination, uint8_t source, uint8_t protocol,
                                        const std::vector<uint8_t>& payload) {
    const size_t length = payload.size() & 0x0FFF;
    std::vector<uint8_t> packet;
    packet.reserve(length + 6);
    packet.push_back(kStart);
    packet.push_back(destination);
    packet.push_back(source);
    packet.push_back(static_cast<uint8_t>(((protocol & 0x03) << 4) | (length >> 8)));
    packet.push_back(static_cast<uint8_t>(length & 0xFF));
    packet.insert(packet.end(), payload.begin(), payload.begin() + static_cast<std::ptrdiff_t>(length));
    uint8_t sum = 0;
    for (size_t i = 1; i < packet.size(); ++i) sum = static_cast<uint8_t>(sum + packet[i]);
    packet.push_back(static_cast<uint8_t>(0 - sum));
    return packet;
}

void HostPacketParser::Feed(const uint8_t* data, size_t size, std::vector<HostPacket>& out) {
    for (size_t i = 0; i < size; ++i) Take(data[i], out);
}

void HostPacketParser::Take(uint8_t byte, std::vector<HostPacket>& out) {
    switch (state_) {
        case State::kSeek:
            if (byte == kStart) {
                state_ = State::kHeader;
                headerBytes_ = 0;
                sum_ = 0;
                current_ = HostPacket{};
                current_.raw.push_back(byte);
            }
            return;
        case State::kHeader: {
            header_[headerBytes_++] = byte;
            current_.raw.push_back(byte);
            sum_ = static_cast<uint8_t>(sum_ + byte);
            if (headerBytes_ == 1 && byte != 0 && byte != 3) break;  // not for the device
            if (headerBytes_ == 2 && byte != kHostId) break;         // not from the host
            if (headerBytes_ == 3 && ((byte & 0xC0) || ((byte >> 4) & 0x03) > 1)) break;
            if (headerBytes_ < 4) return;
            current_.destination = header_[0];
            current_.source = header_[1];
            current_.protocol = (header_[2] >> 4) & 0x03;
            length_ = (static_cast<size_t>(header_[2] & 0x0F) << 8) | header_[3];
            state_ = length_ ? State::kPayload : State::kChecksum;
            return;
        }
        case State::kPayload:
            current_.payload.push_back(byte);
            current_.raw.push_back(byte);
            sum_ = static_cast<uint8_t>(sum_ + byte);
            if (current_.payload.size() == length_) state_ = State::kChecksum;
            return;
        case State::kChecksum:
            current_.raw.push_back(byte);
            state_ = State::kSeek;
            if (static_cast<uint8_t>(sum_ + byte) == 0)
                out.push_back(std::move(current_));
            else
                ++bad_;
            current_ = HostPacket{};
            return;
    }
    // A header byte no host sends: start over at the next start byte.
    ++bad_;
    state_ = State::kSeek;
}

std::vector<uint8_t> ReplyPayload(uint8_t type, uint8_t sequence, uint32_t status, const std::vector<uint8_t>& values) {
    std::vector<uint8_t> payload = {kMarker, kMarker, static_cast<uint8_t>((type << 6) | (sequence & 0x3F))};
    for (int i = 0; i < 4; ++i) payload.push_back(static_cast<uint8_t>(status >> (8 * i)));
    payload.insert(payload.end(), values.begin(), values.end());
    return payload;
}

}  // namespace vyrix::sim
