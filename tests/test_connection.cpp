// SPDX-License-Identifier: MIT
// Connections: record checks before any port is touched, the table search
// with its matching rules, closing one entry and closing them all.
#include <gtest/gtest.h>

#include <future>
#include <set>
#include <thread>

#include "ApiLink.h"
#include "LLC_CommHandler.h"
#include "Vyrix_Opcodes.h"

namespace {

using vt::ApiLink;
using vt::Bytes;
using vt::UartRecord;

using Connections = ApiLink;
using Handles = ApiLink;

TEST(ConnectionChecks, RecordsAreRefusedBeforeAnyPortIsTouched) {
    void* library = nullptr;
    void* conn = reinterpret_cast<void*>(0x77);
    EXPECT_EQ(Vyrix_OpenConnection(nullptr, &conn, UartRecord("/dev/null")), 0x04000000u);
    ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);

    auto uart = [](uint32_t baud, int32_t flow, uint8_t stop, const char* name = "/dev/vyrix-x") {
        Vyrix_ConnectionInfoS i = UartRecord(name);
        i.uartInfo = Vyrix_UartInfoS{name, baud, flow, stop};
        return i;
    };
    Vyrix_ConnectionInfoS unknown = UartRecord("/dev/vyrix-x"), usb3 = vt::UsbRecord("SN1");
    unknown.connectionType = static_cast<Vyrix_ConnectionTypeE>(3);
    usb3.usbInfo.productID = 3;
    const Vyrix_ConnectionInfoS bad[] = {uart(115200, 0, 1),
                                         uart(57600, 2, 1),
                                         uart(57600, -1, 1),
                                         uart(57600, 0, 0),
                                         uart(57600, 0, 3),
                                         uart(57600, 0, 1, nullptr),
                                         usb3,
                                         vt::UsbRecord(nullptr),
                                         vt::BthRecord("00:11:22:33:44:55", nullptr),
                                         vt::BthRecord(nullptr),
                                         unknown};
    for (const Vyrix_ConnectionInfoS& record : bad) {
        EXPECT_EQ(Vyrix_OpenConnection(library, &conn, record), 0x05000000u);
        EXPECT_EQ(conn, reinterpret_cast<void*>(0x77));
    }
    EXPECT_EQ(Vyrix_OpenConnection(nullptr, &conn, UartRecord("/dev/vyrix-x")), 0x05000000u);
    EXPECT_EQ(Vyrix_OpenConnection(library, nullptr, UartRecord("/dev/vyrix-x")), 0x05000000u);
    EXPECT_FALSE(LogExists());  // no port was opened: the log never started
    EXPECT_EQ(KtCheckSerialPort(), 0x01000000u);
    EXPECT_TRUE(g_pLibCtx.load()->connections.empty());
    Vyrix_CloseLibrary(library);
}

TEST_F(Connections, OpenStoresTheRecordWithTheApplicationsPointers) {
    ASSERT_EQ(g_pLibCtx.load()->connections.size(), 1u);
    EXPECT_EQ(connection, static_cast<void*>(g_pLibCtx.load()->connections[0]));
    const Vyrix_ConnectionInfoS& stored = g_pLibCtx.load()->connections[0]->info;
    EXPECT_EQ(stored.connectionType, eVYRIX_CONNECTION_UART);
    EXPECT_EQ(stored.uartInfo.pPortName, path.c_str());
    EXPECT_EQ(KtCheckSerialPort(), 0u);
    EXPECT_TRUE(vt::FileExists(vt::SerialLockName(path)));
}

// A device already in the table is refused under any of its names; another
// device on the same transport gets a port of its own.
TEST_F(Connections, SameDeviceIsRefusedAnotherOneOpens) {
    const std::string alias = vt::RuntimeDir() + "/vyrix_tty_alias";
    ASSERT_EQ(symlink(path.c_str(), alias.c_str()), 0);
    for (const std::string& name : {path, alias}) {
        void* again = reinterpret_cast<void*>(0x77);
        EXPECT_EQ(Vyrix_OpenConnection(library, &again, UartRecord(name.c_str())), 0x18000000u) << name;
        EXPECT_EQ(again, reinterpret_cast<void*>(0x77));
    }
    unsigned index = 9;
    EXPECT_EQ(GetConnectionHandleIndex(UartRecord(alias.c_str()), &index), 0x18000000u);
    EXPECT_EQ(index, 0u);
    EXPECT_EQ(GetConnectionHandleIndex(UartRecord("/dev/vyrix-elsewhere"), &index), 0x16000000u);
    EXPECT_EQ(index, 0xFFFFFFFFu);

    auto other = vyrix::sim::DeviceSimulator::OverPty();
    void* second = nullptr;
    ASSERT_EQ(Vyrix_OpenConnection(library, &second, UartRecord(other->SlavePath().c_str())), 0u);
    EXPECT_EQ(g_pLibCtx.load()->connections.size(), 2u);
    // The link-layer functions name no connection: the first port opened.
    EXPECT_EQ(KtOpenSerialPortByName(other->SlavePath().c_str(), 57600), 0x18000000u);
    Bytes payload = {0x2A, 0x2A, 0x01, 0x2A, 0, 0, 0, 0};
    KtXlnkMsgS msg{2, 0, 0, 1, static_cast<WORD>(payload.size()), payload.data()};
    ASSERT_EQ(KtSendMsg(msg), 0u);
    EXPECT_TRUE(sim->WaitForPackets(1, std::chrono::seconds(5)));
    EXPECT_EQ(other->ReceivedCount(), 0u);
    // Closing one leaves the other working.
    EXPECT_EQ(Vyrix_CloseConnection(connection), 0u);
    uint8_t brightness = 0;
    EXPECT_EQ(Vyrix_GetBrightness(second, &brightness, eVYRIX_STORAGE_CURRENT), 0u);
    EXPECT_EQ(brightness, 80);
    unlink(alias.c_str());
}

TEST_F(Connections, CloseRemovesTheEntryAndKeepsTheOrderOfTheOthers) {
    // A Bluetooth entry that was never opened stands behind the serial one.
    auto* bth = new Vyrix_Connection{};
    bth->info.connectionType = eVYRIX_CONNECTION_BTH;
    bth->info.bthInfo = Vyrix_BTHInfoS{"00:11:22:33:44:55", ""};
    g_pLibCtx.load()->connections.push_back(bth);
    unsigned index = 0;
    EXPECT_EQ(GetConnectionHandleIndex(bth->info, &index), 0x18000000u);
    EXPECT_EQ(index, 1u);

    EXPECT_EQ(Vyrix_CloseConnection(connection), 0u);
    ASSERT_EQ(g_pLibCtx.load()->connections.size(), 1u);
    EXPECT_EQ(g_pLibCtx.load()->connections[0], bth);
    EXPECT_EQ(KtCheckSerialPort(), 0x01000000u);
    EXPECT_FALSE(vt::FileExists(vt::SerialLockName(path)));

    EXPECT_EQ(Vyrix_CloseConnection(nullptr), 0x05000000u);
    Vyrix_ConnectionInfoS stranger = UartRecord("/dev/vyrix-stranger");
    EXPECT_EQ(Vyrix_CloseConnection(&stranger), 0x05000000u);
    EXPECT_EQ(CloseConnection(5), 0x05000000u);

    // Its port is not open: the close fails, the entry stays, and the
    // library still closes.
    EXPECT_EQ(Vyrix_CloseConnection(bth), 0x16000000u);
    EXPECT_EQ(g_pLibCtx.load()->connections.size(), 1u);
    EXPECT_EQ(Vyrix_CloseLibrary(library), 0x01000000u);
    EXPECT_EQ(g_pLibCtx, nullptr);
    EXPECT_EQ(Vyrix_CloseConnection(connection), 0x04000000u);
}

TEST_F(Connections, ClosingTheLibraryClosesEveryConnection) {
    EXPECT_EQ(Vyrix_CloseLibrary(library), 0u);
    EXPECT_EQ(KtCheckSerialPort(), 0x01000000u);
    EXPECT_FALSE(vt::FileExists(vt::SerialLockName(path)));
    EXPECT_FALSE(LogExists());
    // And the device can be connected again.
    ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
    EXPECT_EQ(Vyrix_OpenConnection(library, &connection, UartRecord(path.c_str())), 0u);
}

// A closed handle stays dead: it never names a newer connection, and using
// it touches nothing.
TEST_F(Handles, ClosedHandleNeverNamesANewerConnection) {
    void* closed = connection;
    ASSERT_EQ(Vyrix_CloseConnection(closed), 0u);
    std::set<void*> handles = {closed};
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(Vyrix_OpenConnection(library, &connection, UartRecord(path.c_str())), 0u);
        EXPECT_TRUE(handles.insert(connection).second) << "a handle was handed out again";
        EXPECT_EQ(Vyrix_CloseConnection(closed), 0x05000000u);
        EXPECT_EQ(Vyrix_SetReplyTimeout(closed, 100), 0x05000000u);
        EXPECT_EQ(KtCheckSerialPort(), 0u);  // the new one is still open
        ASSERT_EQ(Vyrix_CloseConnection(connection), 0u);
        EXPECT_EQ(Vyrix_CloseConnection(connection), 0x05000000u);
        closed = connection;
    }
}

TEST_F(Handles, ReplyTimeoutIsTheConnections) {
    sim->SetFaults(vt::Quiet());
    EXPECT_EQ(Vyrix_SetReplyTimeout(nullptr, 100), 0x05000000u);
    ASSERT_EQ(Vyrix_SetReplyTimeout(connection, 300), 0u);
    uint8_t brightness = 0;
    vt::Stopwatch watch;
    EXPECT_EQ(Vyrix_GetBrightness(connection, &brightness, eVYRIX_STORAGE_CURRENT), 0x07000000u);
    EXPECT_GE(watch.Ms(), 295);
    EXPECT_LT(watch.Ms(), 5000);
}

// A close on another thread ends a command that waits for its reply; the
// command never touches the closed connection's memory.
TEST_F(Handles, CloseDuringACommandEndsItWithNotConnected) {
    sim->SetFaults(vt::Quiet());
    auto command = std::async(std::launch::async, [&] {
        uint8_t brightness = 0;
        return Vyrix_GetBrightness(connection, &brightness, eVYRIX_STORAGE_CURRENT);
    });
    ASSERT_TRUE(sim->WaitForPackets(1, std::chrono::seconds(5)));
    vt::Stopwatch watch;
    EXPECT_EQ(Vyrix_CloseConnection(connection), 0u);
    EXPECT_EQ(command.get(), 0x16000000u);
    EXPECT_LT(watch.Ms(), 1000);
}

// Two devices on two serial lines, driven from two threads at once: each
// thread's commands and their wire bytes reach its own device only, and
// each device's own messages are told apart by their connection.
TEST(TwoDevices, CommandsFromTwoThreadsReachTheirOwnDevice) {
    std::unique_ptr<vyrix::sim::DeviceSimulator> sims[2] = {vyrix::sim::DeviceSimulator::OverPty(),
                                                            vyrix::sim::DeviceSimulator::OverPty()};
    void* library = nullptr;
    void* conn[2] = {};
    ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
    for (int d = 0; d < 2; ++d)
        ASSERT_EQ(Vyrix_OpenConnection(library, &conn[d], vt::UartRecord(sims[d]->SlavePath().c_str())), 0u);
    constexpr int kRounds = 50;
    auto drive = [&](int d) {
        for (int i = 0; i < kRounds; ++i) {
            const uint8_t value = static_cast<uint8_t>(d * kRounds + i);
            EXPECT_EQ(Vyrix_SetBrightness(conn[d], value, eVYRIX_STORAGE_CURRENT), 0u);
            uint8_t back = 0;
            EXPECT_EQ(Vyrix_GetBrightness(conn[d], &back, eVYRIX_STORAGE_CURRENT), 0u);
            EXPECT_EQ(back, value);
        }
    };
    std::thread first(drive, 0), second(drive, 1);
    first.join();
    second.join();
    for (int d = 0; d < 2; ++d) {
        std::vector<vyrix::sim::HostPacket> got = sims[d]->Received();
        ASSERT_EQ(got.size(), 2u * kRounds) << "device " << d;
        for (const vyrix::sim::HostPacket& p : got) {
            if (p.payload[3] == eOP_SET_BRIGHTNESS) {
                EXPECT_EQ(p.payload[4] / kRounds, d);
            }
        }
    }

    ASSERT_EQ(KtRegisterCallback(vt::CallbackCounter::Callback), 0u);
    sims[1]->SendUnsolicited({0x2A, 0x2A, 0xB1});
    sims[0]->SendUnsolicited({0x2A, 0x2A, 0xA0});
    ASSERT_TRUE(vt::CallbackCounter::Instance().WaitFor(2));
    const uint8_t mark[2] = {0xA0, 0xB1};
    for (int d = 0; d < 2; ++d) {
        uint8_t buf[16], source = 9;
        uint16_t length = 0;
        ASSERT_EQ(Vyrix_TakeUnpromptedMessage(conn[d], buf, sizeof buf, &length, nullptr), 0u);
        EXPECT_EQ(length, 3u);
        EXPECT_EQ(buf[2], mark[d]);
        EXPECT_EQ(Vyrix_TakeUnpromptedMessage(conn[d], buf, sizeof buf, &length, &source), 0x07000000u);
    }
    uint16_t length = 0;
    uint8_t buf[4];
    EXPECT_EQ(Vyrix_TakeUnpromptedMessage(&length, buf, sizeof buf, &length, nullptr), 0x05000000u);
    EXPECT_EQ(Vyrix_CloseLibrary(library), 0u);
}

}  // namespace
