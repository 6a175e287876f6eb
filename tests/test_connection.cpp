// Connections: record checks before any port is touched, the table search
// with its matching rules, closing one entry and closing them all.
#include <gtest/gtest.h>

#include <future>
#include <set>

#include "ApiLink.h"
#include "LLC_CommHandler.h"

namespace {

using vt::ApiLink;
using vt::UartRecord;

class Connections : public ApiLink {};

TEST(ConnectionChecks, RecordsAreRefusedBeforeAnyPortIsTouched) {
    void* library = nullptr;
    void* conn = reinterpret_cast<void*>(0x77);
    EXPECT_EQ(Vyrix_OpenConnection(nullptr, &conn, UartRecord("/dev/null")), 0x04000000u);
    ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);

    std::vector<Vyrix_ConnectionInfoS> bad;
    auto uart = [&](uint32_t baud, int32_t flow, uint8_t stop, const char* name = "/dev/vyrix-x") {
        Vyrix_ConnectionInfoS i = UartRecord(name);
        i.uartInfo.baudRate = baud;
        i.uartInfo.flowControl = flow;
        i.uartInfo.stopBits = stop;
        bad.push_back(i);
    };
    uart(115200, 0, 1);
    uart(57600, 2, 1);
    uart(57600, -1, 1);
    uart(57600, 0, 0);
    uart(57600, 0, 3);
    uart(57600, 0, 1, nullptr);
    Vyrix_ConnectionInfoS usb{};
    usb.connectionType = eVYRIX_CONNECTION_USB;
    usb.usbInfo = Vyrix_USBInfoS{3, "SN1"};
    bad.push_back(usb);
    usb.usbInfo = Vyrix_USBInfoS{4, nullptr};
    bad.push_back(usb);
    Vyrix_ConnectionInfoS bth{};
    bth.connectionType = eVYRIX_CONNECTION_BTH;
    bth.bthInfo = Vyrix_BTHInfoS{"00:11:22:33:44:55", nullptr};
    bad.push_back(bth);
    bth.bthInfo = Vyrix_BTHInfoS{nullptr, "0000"};
    bad.push_back(bth);
    Vyrix_ConnectionInfoS unknown = UartRecord("/dev/vyrix-x");
    unknown.connectionType = static_cast<Vyrix_ConnectionTypeE>(3);
    bad.push_back(unknown);

    for (const Vyrix_ConnectionInfoS& record : bad) {
        EXPECT_EQ(Vyrix_OpenConnection(library, &conn, record), 0x05000000u);
        EXPECT_EQ(conn, reinterpret_cast<void*>(0x77));
    }
    EXPECT_EQ(Vyrix_OpenConnection(nullptr, &conn, UartRecord("/dev/vyrix-x")), 0x05000000u);
    EXPECT_EQ(Vyrix_OpenConnection(library, nullptr, UartRecord("/dev/vyrix-x")), 0x05000000u);
    EXPECT_FALSE(LogExists());  // no port was opened: the log never started
    EXPECT_EQ(KtCheckSerialPort(), 0x01000000u);
    EXPECT_TRUE(g_pLibCtx->connections.empty());
    Vyrix_CloseLibrary(library);
}

TEST_F(Connections, OpenStoresTheRecordWithTheApplicationsPointers) {
    ASSERT_EQ(g_pLibCtx->connections.size(), 1u);
    EXPECT_EQ(connection, static_cast<void*>(g_pLibCtx->connections[0]));
    const Vyrix_ConnectionInfoS& stored = g_pLibCtx->connections[0]->info;
    EXPECT_EQ(stored.connectionType, eVYRIX_CONNECTION_UART);
    EXPECT_EQ(stored.uartInfo.pPortName, path.c_str());
    EXPECT_EQ(KtCheckSerialPort(), 0u);
    EXPECT_TRUE(vt::FileExists(vt::SerialLockName(path)));
}

TEST_F(Connections, DuplicatesAreRefusedByTheTableOrByTheLinkLayer) {
    void* again = reinterpret_cast<void*>(0x77);
    EXPECT_EQ(Vyrix_OpenConnection(library, &again, UartRecord(path.c_str())), 0x18000000u);
    EXPECT_EQ(again, reinterpret_cast<void*>(0x77));
    EXPECT_EQ(vt::ReadFile(vt::LogPath()).find("Serial port already opened"), std::string::npos);  // the table said no

    // Another name reaches the link layer, which has the transport open.
    auto other = vyrix::sim::DeviceSimulator::OverPty();
    EXPECT_EQ(Vyrix_OpenConnection(library, &again, UartRecord(other->SlavePath().c_str())), 0x18000000u);
    EXPECT_NE(vt::ReadFile(vt::LogPath()).find("<ERROR> KtOpenSerialPortByName :Serial port already opened\n"),
              std::string::npos);
    EXPECT_EQ(g_pLibCtx->connections.size(), 1u);
}

TEST(ConnectionTable, SerialNamesMatchOnTheirFirstElevenCharacters) {
    auto sim = vyrix::sim::DeviceSimulator::OverPty();
    const std::string first = "/tmp/vyrix_tty_first", second = "/tmp/vyrix_tty_second";
    unlink(first.c_str());
    ASSERT_EQ(symlink(sim->SlavePath().c_str(), first.c_str()), 0);
    void* library = nullptr;
    void* conn = nullptr;
    ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
    ASSERT_EQ(Vyrix_OpenConnection(library, &conn, UartRecord(first.c_str())), 0u);
    unsigned index = 0;
    EXPECT_EQ(GetConnectionHandleIndex(UartRecord(second.c_str()), &index), 0x18000000u);  // "/tmp/vyrix_" alike
    EXPECT_EQ(index, 0u);
    EXPECT_EQ(GetConnectionHandleIndex(UartRecord("/tmp/vyrox_x"), &index), 0x16000000u);
    EXPECT_EQ(index, 0xFFFFFFFFu);
    void* again = nullptr;
    EXPECT_EQ(Vyrix_OpenConnection(library, &again, UartRecord(second.c_str())), 0x18000000u);
    EXPECT_EQ(Vyrix_CloseLibrary(library), 0u);
    unlink(first.c_str());
    EXPECT_FALSE(vt::FileExists(vt::RuntimeDir() + "/vyrix_llc_com__tmp_vyrix_tty_first.lock"));
}

TEST_F(Connections, CloseRemovesTheEntryAndKeepsTheOrderOfTheOthers) {
    // A Bluetooth entry that was never opened stands behind the serial one.
    auto* bth = new Vyrix_Connection{};
    bth->info.connectionType = eVYRIX_CONNECTION_BTH;
    bth->info.bthInfo = Vyrix_BTHInfoS{"00:11:22:33:44:55", ""};
    g_pLibCtx->connections.push_back(bth);
    unsigned index = 0;
    EXPECT_EQ(GetConnectionHandleIndex(bth->info, &index), 0x18000000u);
    EXPECT_EQ(index, 1u);

    EXPECT_EQ(Vyrix_CloseConnection(connection), 0u);
    ASSERT_EQ(g_pLibCtx->connections.size(), 1u);
    EXPECT_EQ(g_pLibCtx->connections[0], bth);
    EXPECT_EQ(KtCheckSerialPort(), 0x01000000u);
    EXPECT_FALSE(vt::FileExists(vt::SerialLockName(path)));

    EXPECT_EQ(Vyrix_CloseConnection(nullptr), 0x05000000u);
    Vyrix_ConnectionInfoS stranger = UartRecord("/dev/vyrix-stranger");
    EXPECT_EQ(Vyrix_CloseConnection(&stranger), 0x05000000u);
    EXPECT_EQ(CloseConnection(5), 0x05000000u);

    // Its port is not open: the close fails, the entry stays, and the
    // library still closes.
    EXPECT_EQ(Vyrix_CloseConnection(bth), 0x16000000u);
    EXPECT_EQ(g_pLibCtx->connections.size(), 1u);
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

}  // namespace

namespace {

using vt::ApiLink;
using vt::UartRecord;

class Handles : public ApiLink {
protected:
    void Silence() {
        vyrix::sim::Faults silent;
        silent.silent = true;
        sim->SetFaults(silent);
    }
};

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
    Silence();
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
    Silence();
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

}  // namespace
