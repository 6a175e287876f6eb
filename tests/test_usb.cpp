// The USB port on the real libusb-1.0 against devices emulated by umockdev.
#include <fcntl.h>
#include <sys/file.h>

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <future>
#include <memory>
#include <set>
#include <thread>

#include "ApiLink.h"
#include "LLC_CommHandler.h"
#include "LLC_UsbPort.h"
#include "usb/UsbEmulator.h"

namespace {

using vt::Contains;
using vt::Log;
using vt::UsbDeviceSpec;
constexpr Vyrix_ReturnStatus kOk = static_cast<Vyrix_ReturnStatus>(0);
vt::UsbEmulator* g_usb = nullptr;

UsbDeviceSpec Vyrix(int address, const std::string& serial = "AB12") {
    UsbDeviceSpec s;
    s.vendor = VYRIX_USB_VENDOR_ID;
    s.address = address;
    s.serial = serial;
    return s;
}

// A setup with one field changed.
template <typename T>
UsbDeviceSpec With(T UsbDeviceSpec::*field, T value, UsbDeviceSpec spec) {
    spec.*field = value;
    return spec;
}

std::string UsbLock(int bus, int address) {
    char name[64];
    snprintf(name, sizeof name, "/vyrix_llc_usb_%03d_%03d.lock", bus, address);
    return vt::RuntimeDir() + name;
}

class Usb : public vt::Logged {};

TEST_F(Usb, EnumeratesWithSerialNumbers) {
    g_usb->Add(Vyrix(2, "AB12"));
    g_usb->Add(With(&UsbDeviceSpec::vendor, uint16_t{0x1234}, Vyrix(3, "ZZ99")));  // someone else's device
    g_usb->Add(Vyrix(4, "CD34"));
    CUsbPort port;
    Vyrix_EnumerateUSBInfo found[4];
    memset(found, 0x5A, sizeof found);
    unsigned count = 0;
    ASSERT_EQ(port.EnumerateDevices(4, &count, found), kOk) << Log();
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(found[0].productID, 4u);
    EXPECT_EQ(found[1].productID, 4u);
    std::set<std::string> serials = {found[0].serialNumber, found[1].serialNumber};
    EXPECT_EQ(serials, (std::set<std::string>{"AB12", "CD34"}));
    EXPECT_EQ(static_cast<unsigned char>(found[2].serialNumber[0]), 0x5A);
    EXPECT_TRUE(Contains(Log(), "<INFO> GetSerialNumberString:Serial Number is: AB12\n"));

    CUsbPort limited;
    ASSERT_EQ(limited.EnumerateDevices(1, &count, found), kOk);
    EXPECT_EQ(count, 1u);
    // Listing takes no device: the first is still free to open.
    CUsbPort opener;
    EXPECT_EQ(opener.OpenPort(), kOk);
}

TEST_F(Usb, EnumerationEdgeCases) {
    CUsbPort none;
    Vyrix_EnumerateUSBInfo found[2] = {};
    unsigned count = 7;
    EXPECT_EQ(none.EnumerateDevices(2, &count, found), 0x16000000u);
    EXPECT_EQ(count, 0u);
    EXPECT_TRUE(Contains(Log(), "<INFO> EnumerateDevices: No Devices Found.\n"));
    g_usb->Add(With(&UsbDeviceSpec::serialReadable, false, Vyrix(2)));
    testing::internal::CaptureStdout();
    CUsbPort port;
    ASSERT_EQ(port.EnumerateDevices(2, &count, found), kOk);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(count, 1u);
    EXPECT_STREQ(found[0].serialNumber, "NULL");
    EXPECT_EQ(out, "<ERROR> GetSerialNumberString:Couldn't get serial string\n");
    CUsbPort zero;
    EXPECT_EQ(zero.EnumerateDevices(0, &count, found), 0x16000000u);
    EXPECT_EQ(count, 0u);
}

// The serial numbers in libusb's list order.
std::vector<std::string> ListOrder() {
    CUsbPort port;
    Vyrix_EnumerateUSBInfo found[4] = {};
    unsigned count = 0;
    port.EnumerateDevices(4, &count, found);
    std::vector<std::string> order;
    for (unsigned i = 0; i < count; ++i) order.push_back(found[i].serialNumber);
    return order;
}

TEST_F(Usb, OpenTakesTheFirstFreeMatchingDevice) {
    g_usb->Add(Vyrix(2, "TWO"));
    g_usb->Add(Vyrix(3, "THREE"));
    const std::vector<std::string> order = ListOrder();
    ASSERT_EQ(order.size(), 2u);
    const int firstAddress = order[0] == "TWO" ? 2 : 3, secondAddress = 5 - firstAddress;
    CUsbPort first, second, third;
    ASSERT_EQ(first.OpenPort(), kOk) << Log();
    EXPECT_STREQ(first.LockFileName(), UsbLock(1, firstAddress).c_str());
    ASSERT_EQ(second.OpenPort(), kOk) << Log();  // skips the locked one
    EXPECT_STREQ(second.LockFileName(), UsbLock(1, secondAddress).c_str());
    EXPECT_EQ(third.OpenPort(), 0x16000000u);
    EXPECT_EQ(first.OpenPort(), 0x18000000u);
    EXPECT_TRUE(Contains(Log(), "<ERROR> CreateLockFile: Lockfile create failed.-1\n"));
    EXPECT_EQ(first.ClosePort(), kOk);
    EXPECT_FALSE(vt::FileExists(UsbLock(1, firstAddress)));
    EXPECT_EQ(third.OpenPort(), kOk);  // free again
    EXPECT_STREQ(third.LockFileName(), UsbLock(1, firstAddress).c_str());
}

// A lock file blocks the device while its advisory lock is held; once that
// is free (its holder died) the file is taken over.
TEST_F(Usb, HeldLockFileBlocksAStaleOneIsTakenOver) {
    g_usb->Add(Vyrix(2));
    const int held = open(UsbLock(1, 2).c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    ASSERT_GE(held, 0);
    ASSERT_EQ(flock(held, LOCK_EX), 0);
    CUsbPort port;
    EXPECT_EQ(port.OpenPort(), 0x16000000u);
    EXPECT_TRUE(vt::FileExists(UsbLock(1, 2)));  // not ours to remove
    close(held);
    EXPECT_EQ(port.OpenPort(), kOk) << Log();
    EXPECT_TRUE(Contains(Log(), "<INFO> CreateLockFile: Stale lock file " + UsbLock(1, 2) + " taken over.\n"));
    EXPECT_EQ(port.ClosePort(), kOk);
    EXPECT_FALSE(vt::FileExists(UsbLock(1, 2)));
}

TEST_F(Usb, NoDeviceOrWrongIdentity) {
    CUsbPort empty;
    EXPECT_EQ(empty.OpenPort(), 0x16000000u);
    g_usb->Add(With(&UsbDeviceSpec::product, uint16_t{5}, Vyrix(2)));
    CUsbPort port;
    EXPECT_EQ(port.OpenPort(), 0x16000000u);
    EXPECT_TRUE(Contains(Log(), "<INFO> OpenPort: No Devices Found.\n"));
}

TEST_F(Usb, ConfigurationWithoutInterfacesOrOutEndpoint) {
    g_usb->Add(With(&UsbDeviceSpec::interfaces, false, Vyrix(2)));
    CUsbPort port;
    EXPECT_EQ(port.OpenPort(), 0x16000000u);
    EXPECT_FALSE(vt::FileExists(UsbLock(1, 2)));
}

TEST_F(Usb, ConfigurationWithoutOutEndpointEndsTheSearch) {
    g_usb->Add(Vyrix(2, "GOOD"));
    g_usb->Add(With(&UsbDeviceSpec::outEndpoint, false, Vyrix(3, "INONLY")));
    ASSERT_EQ(ListOrder(), (std::vector<std::string>{"INONLY", "GOOD"})) << "this test needs the in-only device first";
    CUsbPort port;
    EXPECT_EQ(port.OpenPort(), 0x16000000u);  // the good one behind it is not tried
    EXPECT_FALSE(vt::FileExists(UsbLock(1, 2)));
}

TEST_F(Usb, KernelDriverIsDetachedAndTheOutEndpointFound) {
    auto& dev =
        g_usb->Add(With(&UsbDeviceSpec::outAddress, uint8_t{2}, With(&UsbDeviceSpec::kernelDriver, true, Vyrix(2))));
    CUsbPort port;
    ASSERT_EQ(port.OpenPort(), kOk) << Log();
    EXPECT_TRUE(dev.DriverDetached());
    EXPECT_TRUE(dev.InterfaceClaimed());
    EXPECT_EQ(vyrix_write_ep_.load(), 0x02);
    uint8_t byte = 7;
    ASSERT_EQ(port.WritePort(&byte, 1), kOk);
    EXPECT_EQ(dev.OutEndpoints(), std::vector<uint8_t>{0x02});
    EXPECT_TRUE(Contains(Log(), "<INFO> OpenPort: OUT EP addr : 0x2\n"));
}

TEST_F(Usb, PacketsGoOutIn64ByteTransfers) {
    auto& dev = g_usb->Add(Vyrix(2));
    CUsbPort port;
    ASSERT_EQ(port.OpenPort(), kOk);
    std::vector<uint8_t> packet(100);
    for (size_t i = 0; i < packet.size(); ++i) packet[i] = static_cast<uint8_t>(i + 1);
    ASSERT_EQ(port.WritePort(packet.data(), 100), kOk);
    std::vector<uint8_t> exact(64, 0xAB);
    ASSERT_EQ(port.WritePort(exact.data(), 64), kOk);
    auto outs = dev.OutTransfers();
    ASSERT_EQ(outs.size(), 3u);
    EXPECT_EQ(outs[0], std::vector<uint8_t>(packet.begin(), packet.begin() + 64));
    std::vector<uint8_t> tail(packet.begin() + 64, packet.end());
    tail.resize(64, 0);  // 36 bytes and 28 zeros
    EXPECT_EQ(outs[1], tail);
    EXPECT_EQ(outs[2], exact);
    EXPECT_EQ(port.WritePort(nullptr, 4), 0x05000000u);
    EXPECT_EQ(port.WritePort(exact.data(), 0), 0x05000000u);
}

// Reads take at most one 64-byte transfer, end at their deadline without
// losing what arrives later, end at once when cancelled, and report an
// unplugged device.
TEST_F(Usb, ReadsEndOnDataDeadlineCancelOrUnplug) {
    auto& dev = g_usb->Add(Vyrix(2));
    int stream = dev.TakeStream();
    CUsbPort port;
    ASSERT_EQ(port.OpenPort(), kOk);
    std::vector<uint8_t> reply(100, 0x42);
    ASSERT_EQ(write(stream, reply.data(), reply.size()), 100);
    uint8_t in[4101];
    int n = 0;
    ASSERT_EQ(port.ReadPort(in, &n, CDeadline::After(5000)), kOk);
    EXPECT_EQ(n, 64);
    ASSERT_EQ(port.ReadPort(in, &n, CDeadline::After(5000)), kOk);
    EXPECT_EQ(n, 36);
    const double cpu = vt::CpuSeconds();
    vt::Stopwatch watch;
    EXPECT_EQ(port.ReadPort(in, &n, CDeadline::After(300)), 0x07000000u);
    EXPECT_GE(watch.Ms(), 295);
    EXPECT_LT(vt::CpuSeconds() - cpu, 0.2) << "waiting for the device burns CPU";
    ASSERT_EQ(write(stream, "\x01\x02", 2), 2);  // the transfer left pending takes it
    ASSERT_EQ(port.ReadPort(in, &n, CDeadline::After(5000)), kOk);
    EXPECT_EQ(n, 2);
    EXPECT_EQ(port.ReadPort(nullptr, &n, CDeadline::Never()), 0x05000000u);

    auto reading = std::async(std::launch::async, [&] { return port.ReadPort(in, &n, CDeadline::Never()); });
    port.CancelRead();
    EXPECT_EQ(reading.get(), 0x07000000u);
    EXPECT_EQ(port.ReadPort(in, &n, CDeadline::Never()), 0x07000000u);  // and every later one
    EXPECT_EQ(port.ClosePort(), kOk);

    CUsbPort closed;
    EXPECT_EQ(closed.ReadPort(in, &n, CDeadline::Never()), 0x01000000u);
    EXPECT_EQ(closed.WritePort(in, 1), 0x01000000u);
    close(stream);
}

TEST_F(Usb, UnpluggedDeviceSaysNotConnectedAndClosesCleanly) {
    auto& dev = g_usb->Add(Vyrix(2));
    CUsbPort port;
    ASSERT_EQ(port.OpenPort(), kOk);
    uint8_t in[4101];
    int n = 0;
    EXPECT_EQ(port.ReadPort(in, &n, CDeadline::After(50)), 0x07000000u);  // a transfer is waiting
    dev.Unplug();
    EXPECT_EQ(port.ReadPort(in, &n, CDeadline::After(5000)), 0x16000000u);
    uint8_t byte = 1;
    EXPECT_EQ(port.WritePort(&byte, 1), 0x16000000u);
    EXPECT_EQ(port.ClosePort(), kOk);
    EXPECT_FALSE(vt::FileExists(UsbLock(1, 2)));
}

// The whole stack over USB with the device simulator behind the emulation:
// each handle reaches its own device; a handle that is not a connection
// reaches the first open transport, USB first.
TEST_F(Usb, EachHandleReachesItsOwnDevice) {
    LogEnd();
    auto& dev = g_usb->Add(Vyrix(2));
    vyrix::sim::DeviceSimulator sim(dev.TakeStream());
    auto serial = vyrix::sim::DeviceSimulator::OverPty();
    void* library = nullptr;
    void* usb = nullptr;
    void* uart = nullptr;
    ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
    ASSERT_EQ(Vyrix_OpenConnection(library, &usb, vt::UsbRecord("AB12")), 0u);
    ASSERT_EQ(Vyrix_OpenConnection(library, &uart, vt::UartRecord(serial->SlavePath().c_str())), 0u);

    EXPECT_EQ(Vyrix_SetBrightness(uart, 33, eVYRIX_STORAGE_CURRENT), 0u);
    uint8_t b = 0;
    EXPECT_EQ(Vyrix_GetBrightness(usb, &b, eVYRIX_STORAGE_CURRENT), 0u);
    EXPECT_EQ(b, 80);  // the USB device was not touched
    EXPECT_EQ(Vyrix_GetBrightness(uart, &b, eVYRIX_STORAGE_CURRENT), 0u);
    EXPECT_EQ(b, 33);
    int stranger = 0;
    EXPECT_EQ(Vyrix_SetBrightness(&stranger, 44, eVYRIX_STORAGE_CURRENT), 0u);  // not a connection: USB first
    EXPECT_EQ(sim.ReceivedCount(), 2u);
    EXPECT_EQ(serial->ReceivedCount(), 2u);

    EXPECT_EQ(Vyrix_CloseConnection(usb), 0u);
    EXPECT_EQ(Vyrix_SetBrightness(&stranger, 55, eVYRIX_STORAGE_CURRENT), 0u);  // now the serial line
    EXPECT_EQ(serial->ReceivedCount(), 3u);
    EXPECT_EQ(Vyrix_CloseLibrary(library), 0u);
    EXPECT_FALSE(vt::FileExists(UsbLock(1, 2)));
}

// Two devices of the product: each connection takes the one with its
// serial number, whatever their order on the bus.
TEST_F(Usb, TwoDevicesBySerialNumber) {
    LogEnd();
    vyrix::sim::DeviceSimulator simA(g_usb->Add(Vyrix(2, "AB12")).TakeStream());
    vyrix::sim::DeviceSimulator simB(g_usb->Add(Vyrix(3, "CD34")).TakeStream());
    void* library = nullptr;
    void* b = nullptr;
    void* a = nullptr;
    ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
    ASSERT_EQ(Vyrix_OpenConnection(library, &b, vt::UsbRecord("CD34")), 0u);
    EXPECT_TRUE(vt::FileExists(UsbLock(1, 3)));
    ASSERT_EQ(Vyrix_OpenConnection(library, &a, vt::UsbRecord("AB12")), 0u);
    void* again = nullptr;
    EXPECT_EQ(Vyrix_OpenConnection(library, &again, vt::UsbRecord("AB12")), 0x18000000u);  // already open
    EXPECT_EQ(Vyrix_SetBrightness(a, 11, eVYRIX_STORAGE_CURRENT), 0u);
    EXPECT_EQ(Vyrix_SetBrightness(b, 22, eVYRIX_STORAGE_CURRENT), 0u);
    uint8_t value = 0;
    uint8_t other = 0;
    EXPECT_EQ(Vyrix_GetBrightness(a, &value, eVYRIX_STORAGE_CURRENT), 0u);
    EXPECT_EQ(Vyrix_GetBrightness(b, &other, eVYRIX_STORAGE_CURRENT), 0u);
    EXPECT_EQ(std::make_tuple(value, other, simA.ReceivedCount(), simB.ReceivedCount()),
              std::make_tuple(11, 22, 2u, 2u));
    EXPECT_EQ(Vyrix_CloseLibrary(library), 0u);
    EXPECT_FALSE(vt::FileExists(UsbLock(1, 2)) || vt::FileExists(UsbLock(1, 3)));
}

// Faults over USB: the device unplugged in the middle of a command, of a
// resend sequence and of a firmware upgrade.
class UsbFaults : public Usb {
protected:
    void SetUp() override {
        dev = &g_usb->Add(Vyrix(2));
        sim = std::make_unique<vyrix::sim::DeviceSimulator>(dev->TakeStream());
    }
    void TearDown() override {
        KtCloseUsbPort();
        sim.reset();
        Usb::TearDown();
    }
    void ExpectClosedCleanly() {
        EXPECT_EQ(KtCloseUsbPort(), 0u);
        EXPECT_FALSE(vt::FileExists(UsbLock(1, 2)));
        EXPECT_TRUE(vt::Eventually([&] { return vt::NonGlibThreads() <= threads; }))
            << vt::ThreadNames() << " before: " << names;
    }
    // Opens the port, noting the threads that exist without it.
    Vyrix_ReturnStatus Open() {
        threads = vt::NonGlibThreads();
        names = vt::ThreadNames();
        return KtOpenUsbPort();
    }
    int threads = 0;
    std::string names;
    vt::UsbEmulator::Device* dev = nullptr;
    std::unique_ptr<vyrix::sim::DeviceSimulator> sim;
};

TEST_F(UsbFaults, UnpluggedInTheMiddleOfACommand) {
    sim->SetFaults(vt::Quiet());
    ASSERT_EQ(Open(), 0u);
    ASSERT_EQ(vt::Send(), 0u);
    ASSERT_TRUE(sim->WaitForPackets(1, std::chrono::seconds(2)));
    dev->Unplug();
    vt::Stopwatch watch;
    EXPECT_EQ(vt::Take(7500), 0x16000000u);  // at once, not after 750 s
    EXPECT_LT(watch.Ms(), 3000);
    EXPECT_EQ(std::make_tuple(KtCheckUsbPort(), vt::Send()), std::make_tuple(0x01000000u, 0x16000000u));
    ExpectClosedCleanly();
}

// The cable goes while the handler waits for the reply to a resend.
TEST_F(UsbFaults, UnpluggedInTheMiddleOfAResendSequence) {
    sim->SetFaults(vt::With(&vt::Faults::resendRequests, 100));
    ASSERT_EQ(Open(), 0u);
    ASSERT_EQ(vt::Send(), 0u);
    auto taking = std::async(std::launch::async, [] { return vt::Take(7500); });
    ASSERT_TRUE(sim->WaitForPackets(3, std::chrono::seconds(5)));  // resending
    dev->Unplug();
    vt::Stopwatch watch;
    EXPECT_EQ(taking.get(), 0x16000000u);
    EXPECT_LT(watch.Ms(), 3000);
    ExpectClosedCleanly();
}

TEST_F(UsbFaults, UnpluggedInTheMiddleOfAFirmwareUpgrade) {
    void* library = nullptr;
    void* conn = nullptr;
    ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
    ASSERT_EQ(Vyrix_OpenConnection(library, &conn, vt::UsbRecord("AB12")), 0u);
    std::vector<uint8_t> chunk(4000, 0x77);
    for (uint32_t i = 0; i < 3; ++i) ASSERT_EQ(Vyrix_UpgradeSoftware(conn, i, 4000, 40000, chunk.data()), 0u);
    dev->Unplug();
    vt::Stopwatch watch;
    EXPECT_EQ(Vyrix_UpgradeSoftware(conn, 3, 4000, 40000, chunk.data()), 0x16000000u);
    EXPECT_LT(watch.Ms(), 3000);
    EXPECT_EQ(sim->Model().FirmwareState().receivedBytes, 12000u);
    vt::Stopwatch closing;
    EXPECT_EQ(Vyrix_CloseLibrary(library), 0u);
    EXPECT_LT(closing.Ms(), 3000);
    EXPECT_FALSE(vt::FileExists(UsbLock(1, 2)));
}

}  // namespace

int main(int argc, char** argv) {
    vt::UsbEmulator::EnsurePreload(argc, argv);
    vt::UsbEmulator emulator;  // before any thread starts
    g_usb = &emulator;
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
