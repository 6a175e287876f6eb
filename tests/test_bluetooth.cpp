// SPDX-License-Identifier: MIT
// The Bluetooth port through the real socket calls, with the adapter and the
// RFCOMM connection played by the fake linked into this program.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <future>
#include <memory>
#include <thread>

#include <bluetooth/bluetooth.h>
#include <bluetooth/hci.h>

#include "ApiLink.h"
#include "LLC_BTPort.h"
#include "LLC_CommHandler.h"
#include "StateRecorder.h"

extern "C" {
extern int vyrix_fake_last_inquiry_length;
extern int vyrix_fake_last_inquiry_max;
extern long vyrix_fake_last_inquiry_flags;
extern int vyrix_fake_timeouts_set;
extern int vyrix_fake_rfcomm_cloexec;
}

namespace {

using vt::Bytes;
using vt::Contains;
using vt::Log;
const Bytes kInfo = {0x2A, 0x2A, 0x01, 0x27};
constexpr Vyrix_ReturnStatus kOk = static_cast<Vyrix_ReturnStatus>(0);
const std::string kAddress = "00:11:22:33:44:55";
const char* const kAddr = kAddress.c_str();

std::string Dir() { return getenv("VYRIX_FAKE_BT_DIR"); }
void Choose(const std::string& name, bool on) {
    const std::string path = Dir() + "/" + name;
    if (on) std::ofstream(path).put('\n');
    if (!on) unlink(path.c_str());
}
std::string LockName(const std::string& address) { return vt::RuntimeDir() + "/vyrix_llc_bth_" + address + ".lock"; }

// A device listening on RFCOMM channel 1 of an address; it takes one
// connection and hands it to a simulator, or keeps it raw.
class FakeDevice {
public:
    explicit FakeDevice(const std::string& address, bool simulate = true) : path_(Dir() + "/" + address + "_1") {
        sockaddr_un un{};
        un.sun_family = AF_UNIX;
        snprintf(un.sun_path, sizeof un.sun_path, "%s", path_.c_str());
        unlink(path_.c_str());
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&un), sizeof un), 0);
        EXPECT_EQ(listen(listener_, 4), 0);
        acceptor_ = std::thread([this, simulate] {
            int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) return;
            if (simulate) sim_ = std::make_unique<vyrix::sim::DeviceSimulator>(fd);
            raw_ = simulate ? -1 : fd;
            connected_.set_value();
        });
    }
    ~FakeDevice() {
        shutdown(listener_, SHUT_RDWR);
        close(listener_);
        acceptor_.join();
        sim_.reset();
        if (raw_ >= 0) close(raw_);
        unlink(path_.c_str());
    }
    bool WaitConnected() {
        return connected_.get_future().wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    }
    vyrix::sim::DeviceSimulator& Sim() { return *sim_; }
    int Raw() const { return raw_; }

private:
    std::string path_;
    int listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), raw_ = -1;
    std::unique_ptr<vyrix::sim::DeviceSimulator> sim_;
    std::promise<void> connected_;
    std::thread acceptor_;
};

class Bluetooth : public ::testing::Test {
protected:
    void SetUp() override {
        Choose("adapter", true);
        LogStart();
    }
    void TearDown() override {
        LogEnd();
        for (const char* c : {"adapter", "radio-fails", "socket-fails", "inquiry-fails", "inquiry"}) Choose(c, false);
        unlink(LockName(kAddress).c_str());
    }
};

TEST_F(Bluetooth, NoAdapterMeansBluetoothDisabled) {
    Choose("adapter", false);
    CBTPort port(kAddr, "0000");
    EXPECT_EQ(port.OpenPort(), 0x19000000u);
    unsigned count = 99;
    Vyrix_BTHDiscoveryInfo found[2];
    EXPECT_EQ(port.EnumerateDevices(2, &count, found), 0x19000000u);
    EXPECT_EQ(count, 99u);
    Choose("adapter", true);
    Choose("radio-fails", true);
    EXPECT_EQ(port.OpenPort(), 0x19000000u);
    EXPECT_TRUE(Contains(Log(), "<ERROR> OpenPort:No bluetooth Support in Host mechine\n"));
    EXPECT_TRUE(Contains(Log(), "<INFO> EnumerateDevices:Host device doesnt have bluetooth support.\n"));
    EXPECT_FALSE(vt::FileExists(LockName(kAddress)));
}

TEST_F(Bluetooth, OpenTalkAndClose) {
    FakeDevice device(kAddress, false);
    CBTPort port(kAddr, "");  // an empty pass key is accepted
    vyrix_fake_timeouts_set = 0;
    ASSERT_EQ(port.OpenPort(), kOk);
    ASSERT_TRUE(device.WaitConnected());
    EXPECT_EQ(vyrix_fake_timeouts_set, 2);  // receive and send time-outs, 2 s each
    EXPECT_EQ(vyrix_fake_rfcomm_cloexec, 1);
    EXPECT_TRUE(vt::FileExists(LockName(kAddress)));
    EXPECT_EQ(port.OpenPort(), 0x18000000u);

    Bytes out = {1, 2, 3, 0xC0, 0xFF}, got(8), in(4101);
    ASSERT_EQ(port.WritePort(out.data(), 5), kOk);
    ASSERT_EQ(read(device.Raw(), got.data(), got.size()), 5);
    got.resize(5);
    EXPECT_EQ(got, out);
    ASSERT_EQ(write(device.Raw(), "\x07\x08", 2), 2);
    int n = 0;
    ASSERT_EQ(port.ReadPort(in.data(), &n, CDeadline::After(5000)), kOk);
    EXPECT_EQ(std::make_tuple(n, in[1]), std::make_tuple(2, 8));

    vt::Stopwatch watch;
    EXPECT_EQ(port.ReadPort(in.data(), &n, CDeadline::After(100)), 0x07000000u);  // nothing in time
    EXPECT_GE(watch.Ms(), 95);
    shutdown(device.Raw(), SHUT_WR);  // the device ends the stream: gone, at once
    EXPECT_EQ(port.ReadPort(in.data(), &n, CDeadline::Never()), 0x16000000u);
    EXPECT_TRUE(Contains(Log(), "<ERROR> ReadPort :  Returns 1\n.\n"));

    EXPECT_EQ(port.ClosePort(), kOk);
    EXPECT_FALSE(vt::FileExists(LockName(kAddress)));
    EXPECT_EQ(port.ReadPort(in.data(), &n, CDeadline::After(5000)), 0x16000000u);
    testing::internal::CaptureStdout();
    EXPECT_EQ(port.WritePort(out.data(), 1), 0x16000000u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Not connected\n");
}

TEST_F(Bluetooth, DeviceSwitchedOffOrNoSocket) {
    {
        CBTPort port(kAddr, "0");
        EXPECT_EQ(port.OpenPort(), 0x01000000u);
        EXPECT_TRUE(Contains(Log(), "<ERROR> OpenPort LLC_BTPort Open failure -1\n"));
    }
    EXPECT_FALSE(vt::FileExists(LockName(kAddress)));  // gone with the port
    Choose("socket-fails", true);
    CBTPort port(kAddr, "0");
    EXPECT_EQ(port.OpenPort(), 0x01000000u);
    EXPECT_FALSE(vt::FileExists(LockName(kAddress)));  // removed at once
}

TEST_F(Bluetooth, LockFilesPerAddressText) {
    FakeDevice device(kAddress, false), other("AA:BB:CC:DD:EE:FF", false);
    CBTPort first(kAddr, "0"), second(kAddr, "0");
    ASSERT_EQ(first.OpenPort(), kOk);
    EXPECT_EQ(second.OpenPort(), 0x16000000u);
    EXPECT_TRUE(Contains(Log(), "<RROR> CreateLockFile: Lockfile create failed.-1\n"));
    EXPECT_TRUE(vt::FileExists(LockName(kAddress)));  // the holder keeps it
    // One device whatever the case of its address: the name is upper case.
    CBTPort a("aa:bb:cc:dd:ee:ff", "0"), b("AA:BB:CC:DD:EE:FF", "0");
    ASSERT_EQ(a.OpenPort(), kOk);
    EXPECT_EQ(a.LockFileName(), LockName("AA:BB:CC:DD:EE:FF"));
    EXPECT_EQ(b.OpenPort(), 0x16000000u);
}

TEST_F(Bluetooth, Enumeration) {
    std::ofstream(Dir() + "/inquiry")
        << "00:11:22:33:44:55 Projector One\nAA:BB:CC:DD:EE:01\nAA:BB:CC:DD:EE:02 Phone\n";
    CBTPort port;
    Vyrix_BTHDiscoveryInfo found[4];
    memset(found, 0x5A, sizeof found);
    unsigned count = 0;
    ASSERT_EQ(port.EnumerateDevices(4, &count, found), kOk);
    EXPECT_EQ(
        std::make_tuple(vyrix_fake_last_inquiry_length, vyrix_fake_last_inquiry_max, vyrix_fake_last_inquiry_flags),
        std::make_tuple(8, 255, long{IREQ_CACHE_FLUSH}));
    ASSERT_EQ(count, 3u);
    EXPECT_EQ(std::make_tuple(std::string(found[0].uniqueID), std::string(found[0].friendlyName),
                              std::string(found[1].friendlyName), std::string(found[2].uniqueID)),
              std::make_tuple("00:11:22:33:44:55", "Projector One", "[unknown]", "AA:BB:CC:DD:EE:02"));
    EXPECT_EQ(static_cast<unsigned char>(found[3].uniqueID[0]), 0x5A);  // not written

    ASSERT_EQ(port.EnumerateDevices(1, &count, found), kOk);
    EXPECT_EQ(count, 1u);
    memset(found, 0x5A, sizeof found);
    ASSERT_EQ(port.EnumerateDevices(0, &count, found), kOk);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(static_cast<unsigned char>(found[0].uniqueID[0]), 0x5A);
    Choose("inquiry-fails", true);
    count = 7;
    ASSERT_EQ(port.EnumerateDevices(4, &count, found), kOk);
    EXPECT_EQ(count, 0u);
}

// The whole stack over Bluetooth: LLC functions and API operations.
class BluetoothLink : public Bluetooth {
protected:
    void SetUp() override {
        Bluetooth::SetUp();
        LogEnd();  // the ports start their own log
    }
    void TearDown() override {
        KtCloseBTHSocket();
        KtCloseSerialPort();
        device.reset();
        Bluetooth::TearDown();
    }
    std::unique_ptr<FakeDevice> device = std::make_unique<FakeDevice>(kAddress);
};

TEST_F(BluetoothLink, CommandsTravelOverRfcomm) {
    void *library = nullptr, *conn = nullptr, *again = nullptr;
    ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
    const Vyrix_ConnectionInfoS info = vt::BthRecord(kAddr);
    ASSERT_EQ(Vyrix_OpenConnection(library, &conn, info), 0u);
    ASSERT_TRUE(device->WaitConnected());
    EXPECT_EQ(Vyrix_SetBrightness(conn, 42, eVYRIX_STORAGE_CURRENT), 0u);
    uint8_t b = 0;
    EXPECT_EQ(Vyrix_GetBrightness(conn, &b, eVYRIX_STORAGE_CURRENT), 0u);
    EXPECT_EQ(b, 42);
    EXPECT_EQ(Vyrix_OpenConnection(library, &again, info), 0x18000000u);
    EXPECT_EQ(KtOpenBTHSocket(kAddr, "0000"), 0x18000000u);  // and the first still works
    EXPECT_EQ(Vyrix_GetBrightness(conn, &b, eVYRIX_STORAGE_CURRENT), 0u);
    unsigned count = 0;
    Vyrix_BTHDiscoveryInfo found[1];
    EXPECT_EQ(KtEnumerateBTHDevices(1, &count, found), 0u);  // leaves the open port alone
    EXPECT_EQ(Vyrix_GetBrightness(conn, &b, eVYRIX_STORAGE_CURRENT), 0u);
    const int threads = vt::Threads();
    vt::Stopwatch watch;
    EXPECT_EQ(Vyrix_CloseLibrary(library), 0u);
    EXPECT_LT(watch.Ms(), 3000);  // at most one read time-out
    EXPECT_FALSE(vt::FileExists(LockName(kAddress)));
    EXPECT_TRUE(vt::Eventually([&] { return vt::Threads() < threads; }));
}

TEST_F(BluetoothLink, SerialGoesBeforeBluetoothAndTrafficMovesOnWhenItCloses) {
    auto serial = vyrix::sim::DeviceSimulator::OverPty();
    ASSERT_EQ(KtOpenBTHSocket(kAddr, "0000"), 0u);
    ASSERT_TRUE(device->WaitConnected());
    ASSERT_EQ(KtOpenSerialPortByName(serial->SlavePath().c_str(), 57600), 0u);
    ASSERT_EQ(vt::Send(kInfo), 0u);
    ASSERT_TRUE(serial->WaitForPackets(1, std::chrono::seconds(2)));
    EXPECT_EQ(device->Sim().ReceivedCount(), 0u);
    EXPECT_EQ(vt::Take(10), 0u);

    ASSERT_EQ(KtCloseSerialPort(), 0u);
    EXPECT_TRUE(LogExists());  // the log lives while the Bluetooth port is open
    unlink(vt::SerialLockName(serial->SlavePath()).c_str());
    ASSERT_EQ(vt::Send(kInfo), 0u);
    ASSERT_TRUE(device->Sim().WaitForPackets(1, std::chrono::seconds(2)));
    EXPECT_EQ(vt::Take(10), 0u);
    EXPECT_EQ(KtCheckBthSocket(), 0u);
    EXPECT_EQ(KtCloseBTHSocket(), 0u);
    EXPECT_FALSE(LogExists());  // and ends with the last port
}

TEST_F(BluetoothLink, DeviceClosingTheLinkMidCommandEndsNothingBadly) {
    device.reset();
    FakeDevice raw(kAddress, false);
    ASSERT_EQ(KtOpenBTHSocket(kAddr, "0000"), 0u);
    ASSERT_TRUE(raw.WaitConnected());
    ASSERT_EQ(vt::Send(kInfo), 0u);
    shutdown(raw.Raw(), SHUT_RDWR);  // the device goes away before it answers
    vt::Stopwatch waited;
    EXPECT_EQ(vt::Take(7500), 0x16000000u);  // at once, not after 750 s
    EXPECT_LT(waited.Ms(), 3000);
    EXPECT_EQ(std::make_tuple(KtCheckBthSocket(), vt::Send(kInfo)), std::make_tuple(0x01000000u, 0x16000000u));
    vt::Stopwatch watch;
    EXPECT_EQ(KtCloseBTHSocket(), 0u);
    EXPECT_LT(watch.Ms(), 1000);
    EXPECT_FALSE(vt::FileExists(LockName(kAddress)));
}

// A second process opening the same address is refused by the lock file.
TEST_F(BluetoothLink, SecondProcessIsRefusedByTheLockFile) {
    ASSERT_EQ(KtOpenBTHSocket(kAddr, "0000"), 0u);
    ASSERT_TRUE(device->WaitConnected());
    const std::string command = "VYRIX_BT_SECOND_PROCESS=1 /proc/" + std::to_string(getpid()) +
                                "/exe --gtest_filter=BluetoothSecondProcess.* > /dev/null 2>&1";
    EXPECT_EQ(system(command.c_str()), 0);
    EXPECT_TRUE(vt::FileExists(LockName(kAddress)));
    ASSERT_EQ(vt::Send(kInfo), 0u);
    EXPECT_EQ(vt::Take(10), 0u);  // the first keeps working
}

// The second process's side of the test above.
TEST(BluetoothSecondProcess, OpeningTheSameAddress) {
    if (getenv("VYRIX_BT_SECOND_PROCESS") == nullptr) GTEST_SKIP() << "runs as the second process only";
    EXPECT_EQ(KtOpenBTHSocket(kAddr, "0000"), 0x16000000u);
}

TEST_F(Bluetooth, ReconnectsWhenThePeerComesBack) {
    auto device = std::make_unique<FakeDevice>(kAddress);
    void *library = nullptr, *conn = nullptr;
    ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
    ASSERT_EQ(Vyrix_OpenConnection(library, &conn, vt::BthRecord(kAddr)), 0u);
    ASSERT_TRUE(device->WaitConnected());
    vt::Recorder recorder;
    ASSERT_EQ(Vyrix_SetLinkStateCallback(conn, vt::Recorder::Callback, &recorder), 0u);
    ASSERT_EQ(Vyrix_SetReconnect(conn, 1, 100), 0u);
    device.reset();  // the peer goes away
    ASSERT_TRUE(recorder.WaitFor(2));
    uint8_t value = 0;
    EXPECT_EQ(Vyrix_GetBrightness(conn, &value, eVYRIX_STORAGE_CURRENT), 0x16000000u);
    device = std::make_unique<FakeDevice>(kAddress);
    ASSERT_TRUE(recorder.WaitFor(3));
    ASSERT_TRUE(device->WaitConnected());
    EXPECT_EQ(recorder.Events(), (std::vector<vt::Event>{vt::kDown, vt::kReconnecting, vt::kUp}));
    ASSERT_EQ(Vyrix_GetBrightness(conn, &value, eVYRIX_STORAGE_CURRENT), 0u);
    EXPECT_EQ(device->Sim().ReceivedCount(), 1u);
    EXPECT_EQ(Vyrix_CloseLibrary(library), 0u);
    EXPECT_FALSE(vt::FileExists(LockName(kAddress)));
}

}  // namespace

int main(int argc, char** argv) {
    // The fake's choices live in a short directory of this process's own,
    // made before any thread starts (socket paths hold 108 bytes).
    // A second process of a test shares the first one's directory.
    char dir[] = "/tmp/vbt.XXXXXX";
    const bool second = getenv("VYRIX_BT_SECOND_PROCESS") != nullptr;
    if (!second && mkdtemp(dir) == nullptr) return 1;
    if (!second) setenv("VYRIX_FAKE_BT_DIR", dir, 1);
    ::testing::InitGoogleTest(&argc, argv);
    int result = RUN_ALL_TESTS();
    if (!second && system((std::string("rm -rf ") + dir).c_str()) != 0) result = result ? result : 1;
    return result;
}
