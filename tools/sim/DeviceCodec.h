/* SPDX-License-Identifier: MIT */
// The device's side of the packet format: it parses what the host sends
// (destination 0 or 3, source 2) and encodes what the device sends
// (destination 2 or 63, source 0 or 3).  Written apart from the library's
// codec so that each checks the other.
#ifndef VYRIX_SIM_DEVICECODEC_H
#define VYRIX_SIM_DEVICECODEC_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vyrix::sim {

struct HostPacket {
    uint8_t destination = 0;
    uint8_t source = 0;
    uint8_t protocol = 0;
    std::vector<uint8_t> payload;
    std::vector<uint8_t> raw;  // the packet's bytes as received
};

// Encodes a device-to-host packet.
std::vector<uint8_t> EncodeDevicePacket(uint8_t destination, uint8_t source, uint8_t protocol,
                                        const std::vector<uint8_t>& payload);

// Incremental parser of host-to-device packets; any chunking, several
// packets per chunk.
class HostPacketParser {
public:
    enum class State { kSeek, kHeader, kPayload, kChecksum };
    // Appends every packet completed by these bytes.
    void Feed(const uint8_t* data, size_t size, std::vector<HostPacket>& out);
    size_t BadPackets() const { return bad_; }

private:
    void Take(uint8_t byte, std::vector<HostPacket>& out);

    State state_ = State::kSeek;
    uint8_t header_[4] = {};
    size_t headerBytes_ = 0;
    size_t length_ = 0;
    uint8_t sum_ = 0;
    HostPacket current_;
    size_t bad_ = 0;
};

// Command and reply payload fields.
constexpr uint8_t kMarker = 0x2A;
constexpr uint8_t kReplyType = 1;
constexpr uint8_t kErrorReplyType = 2;

// A reply payload: markers, type and sequence, status word, values.
std::vector<uint8_t> ReplyPayload(uint8_t type, uint8_t sequence, uint32_t status, const std::vector<uint8_t>& values);

}  // namespace vyrix::sim

#endif
