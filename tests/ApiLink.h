/* SPDX-License-Identifier: MIT */
// The library opened, with a serial connection to the device simulator over
// a pseudo-terminal.
#ifndef VYRIX_TEST_APILINK_H
#define VYRIX_TEST_APILINK_H

#include "SimLink.h"
#include "Vyrix_Internal.h"

namespace vt {

inline Vyrix_ConnectionInfoS UartRecord(const char* path) {
    Vyrix_ConnectionInfoS info{};
    info.connectionType = eVYRIX_CONNECTION_UART;
    info.uartInfo = Vyrix_UartInfoS{path, 57600, 0, 1};
    return info;
}
inline Vyrix_ConnectionInfoS UsbRecord(const char* serial) {
    Vyrix_ConnectionInfoS info{};
    info.connectionType = eVYRIX_CONNECTION_USB;
    info.usbInfo = Vyrix_USBInfoS{4, serial};
    return info;
}
inline Vyrix_ConnectionInfoS BthRecord(const char* address, const char* key = "0000") {
    Vyrix_ConnectionInfoS info{};
    info.connectionType = eVYRIX_CONNECTION_BTH;
    info.bthInfo = Vyrix_BTHInfoS{address, key};
    return info;
}

class ApiLink : public ::testing::Test {
protected:
    void SetUp() override {
        sim = vyrix::sim::DeviceSimulator::OverPty();
        path = sim->SlavePath();
        // The terminal is new: a lock file under its name was left by a
        // process that died (terminal numbers are reused).
        unlink(SerialLockName(path).c_str());
        ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
        ASSERT_EQ(Vyrix_OpenConnection(library, &connection, UartRecord(path.c_str())), 0u);
    }
    void TearDown() override {
        if (g_pLibCtx != nullptr) Vyrix_CloseLibrary(library);
        unlink(SerialLockName(path).c_str());
        sim.reset();
    }

    // The payload of the n-th command the device received (0-based).
    Bytes Command(size_t n) {
        EXPECT_TRUE(sim->WaitForPackets(n + 1, std::chrono::seconds(5)));
        auto got = sim->Received();
        return n < got.size() ? got[n].payload : Bytes{};
    }

    std::unique_ptr<vyrix::sim::DeviceSimulator> sim;
    std::string path;
    void* library = nullptr;
    void* connection = nullptr;
};

// A responder that answers every command with the given reply type, status
// word and values (the sequence number of the command it answers).
inline vyrix::sim::Responder Answering(Bytes values, uint32_t status = 0, uint8_t type = 1,
                                       std::pair<uint8_t, uint8_t> markers = {0x2A, 0x2A}) {
    return [=](const vyrix::sim::HostPacket& p) -> std::optional<vyrix::sim::Reply> {
        Bytes payload = vyrix::sim::ReplyPayload(type, p.payload[2] & 0x3F, status, values);
        payload[0] = markers.first;
        payload[1] = markers.second;
        return vyrix::sim::Reply{2, 0, 1, payload};
    };
}

}  // namespace vt

#endif
