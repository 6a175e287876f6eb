// A serial link to the device simulator over a pseudo-terminal, opened
// through the LLC service functions.
#ifndef VYRIX_TEST_SIMLINK_H
#define VYRIX_TEST_SIMLINK_H

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <vector>

#include "DeviceSimulator.h"
#include "TestSupport.h"
#include "Vyrix_LLC_Api_Ex.h"

namespace vt {

using Bytes = std::vector<uint8_t>;

inline std::string SerialLockName(const std::string& path) {
    return RuntimeDir() + "/vyrix_llc_com_pts_" + path.substr(path.rfind('/') + 1) + ".lock";
}

class SimLink : public ::testing::Test {
protected:
    void SetUp() override {
        sim = vyrix::sim::DeviceSimulator::OverPty();
        unlink(SerialLockName(sim->SlavePath()).c_str());  // stale: the terminal is new
        ASSERT_EQ(KtOpenSerialPortByName(sim->SlavePath().c_str(), 57600), 0u);
    }
    void TearDown() override {
        KtCloseSerialPort();
        unlink(SerialLockName(sim->SlavePath()).c_str());
        sim.reset();
    }

    // Sends a command payload to the device as KtSendMsg does.
    Vyrix_ReturnStatus Send(Bytes payload, uint8_t destination = 0) {
        KtXlnkMsgS msg{2, destination, 0, 1, static_cast<WORD>(payload.size()), payload.data()};
        return KtSendMsg(msg);
    }

    // Takes a reply with KtRemoveMsg into `payload`.
    Vyrix_ReturnStatus Take(Bytes& payload, int retryCount, KtXlnkMsgS* record = nullptr) {
        payload.assign(4096, 0);
        KtXlnkMsgS msg{};
        msg.pPayload = payload.data();
        Vyrix_ReturnStatus r = KtRemoveMsg(&msg, retryCount);
        if (r == 0) payload.resize(msg.payloadLen);
        if (record) *record = msg;
        return r;
    }

    std::string Log() { return ReadFile(LogPath()); }

    size_t SplitEntries() {
        const std::string log = Log();
        size_t n = 0;
        for (size_t at = log.find(kSplitEntry); at != std::string::npos; at = log.find(kSplitEntry, at + 1)) ++n;
        return n;
    }

    // Writes the first bytes of a packet (ending inside its payload) and
    // waits until the parser says it has read them.  False when the bytes
    // went unparsed (they shared a read with the end of a packet before).
    bool WriteHead(const Bytes& packet, std::chrono::milliseconds limit) {
        const size_t before = SplitEntries();
        sim->SendRaw(Bytes(packet.begin(), packet.begin() + kHeadBytes));
        return Eventually([&] { return SplitEntries() > before; }, limit);
    }

    // Sends a device packet and returns once the receive thread has handled
    // it.  The receive thread parses one packet per read, so packets that
    // must each be seen are kept apart this way: the packet goes in two
    // writes, and a second packet is started after it until the parser
    // reports reading that one on its own.
    void SendSettled(const Bytes& packet) {
        ASSERT_GT(packet.size(), kHeadBytes + 2);
        ASSERT_TRUE(WriteHead(packet, std::chrono::seconds(5)));
        sim->SendRaw(Bytes(packet.begin() + kHeadBytes, packet.end()));
        const Bytes fence = vyrix::sim::EncodeDevicePacket(2, 0, 0, {0x2A, 0x2A, 0xFE, 0xFE});
        for (int attempt = 0; !WriteHead(fence, std::chrono::milliseconds(300)); ++attempt)
            ASSERT_LT(attempt, 20) << "the receive thread does not read";
        // The fence ends with a wrong checksum: the parser drops it and
        // keeps seeking in the same read, so it cannot hide what follows.
        Bytes tail(fence.begin() + kHeadBytes, fence.end());
        tail.back() ^= 0xFF;
        sim->SendRaw(tail);
    }
    void SendSettled(const vyrix::sim::Reply& reply) {
        SendSettled(vyrix::sim::EncodeDevicePacket(reply.destination, reply.source, reply.protocol, reply.payload));
    }

    static constexpr size_t kHeadBytes = 6;  // start, header, one payload byte
    static constexpr const char* kSplitEntry = "Payload not completely present";

    std::unique_ptr<vyrix::sim::DeviceSimulator> sim;
};

// A device reply to the command numbered `sequence`.
inline vyrix::sim::Reply ReplyTo(uint8_t sequence, Bytes values = {}, uint8_t type = 1) {
    return vyrix::sim::Reply{2, 0, 1, vyrix::sim::ReplyPayload(type, sequence, 0, values)};
}

}  // namespace vt

#endif
