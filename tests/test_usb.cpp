// SPDX-License-Identifier: MIT
// The USB port on the real libusb-1.0 against devices emulated by umockdev.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <memory>
#include <set>
#include <thread>

#include "ApiLink.h"
#include "LLC_CommHandler.h"
#include "LLC_UsbPort.h"
#include "StateRecorder.h"
#include "usb/UsbEmulator.h"

namespace {

using vt::Contains;
using vt::Log;
using Vyrix = vt::UsbDeviceSpec;
using Sim = vyrix::sim::DeviceSimulator;
constexpr Vyrix_ReturnStatus kOk = static_cast<Vyrix_ReturnStatus>(0);
vt::UsbEmulator* g_usb = nullptr;

std::string UsbLock(int address) {
    char name[64];
    snprintf(name, sizeof name, "/vyrix_llc_usb_001_%03d.lock", address);
    return vt::RuntimeDir() + name;
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

using Usb = vt::Logged;

TEST_F(Usb, EnumeratesWithSerialNumbers) {
    Vyrix_EnumerateUSBInfo found[5];
    unsigned count = 7;
    EXPECT_EQ(CUsbPort().EnumerateDevices(2, &count, found), 0x16000000u);
    EXPECT_EQ(count, 0u);
    EXPECT_TRUE(Contains(Log(), "<INFO> EnumerateDevices: No Devices Found.\n"));
    Vyrix foreign(3, "ZZ99"), unreadable(5);
    foreign.vendor = 0x1234;  // someone else's device
    unreadable.serialReadable = false;
    for (const Vyrix& setup : {Vyrix(2, "AB12"), foreign, Vyrix(4, "CD34"), unreadable}) g_usb->Add(setup);
    memset(found, 0x5A, sizeof found);
    testing::internal::CaptureStdout();
    ASSERT_EQ(CUsbPort().EnumerateDevices(5, &count, found), kOk) << Log();
    EXPECT_TRUE(
        Contains(testing::internal::GetCapturedStdout(), "<ERROR> GetSerialNumberString:Couldn't get serial string\n"));
    ASSERT_EQ(count, 3u);
    std::set<std::string> serials;
    for (int i = 0; i < 3; ++i) serials.insert(found[i].serialNumber);
    EXPECT_EQ(serials, (std::set<std::string>{"AB12", "CD34", "NULL"}));
    EXPECT_EQ(std::make_tuple(found[0].productID, found[2].productID), std::make_tuple(4u, 4u));
    EXPECT_EQ(static_cast<unsigned char>(found[3].serialNumber[0]), 0x5A);
    EXPECT_TRUE(Contains(Log(), "<INFO> GetSerialNumberString:Serial Number is: AB12\n"));
    ASSERT_EQ(CUsbPort().EnumerateDevices(1, &count, found), kOk);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(CUsbPort().EnumerateDevices(0, &count, found), 0x16000000u);
    EXPECT_EQ(count, 0u);
    CUsbPort opener;  // listing takes no device: the first is still free to open
    EXPECT_EQ(opener.OpenPort(), kOk);
}

TEST_F(Usb, OpenTakesTheFirstFreeMatchingDevice) {
    g_usb->Add(Vyrix(2, "TWO"));
    g_usb->Add(Vyrix(3, "THREE"));
    const std::vector<std::string> order = ListOrder();
    ASSERT_EQ(order.size(), 2u);
    const int firstAddress = order[0] == "TWO" ? 2 : 3, secondAddress = 5 - firstAddress;
    CUsbPort first, second, third;
    ASSERT_EQ(first.OpenPort(), kOk) << Log();
    EXPECT_STREQ(first.LockFileName(), UsbLock(firstAddress).c_str());
    ASSERT_EQ(second.OpenPort(), kOk) << Log();  // skips the locked one
    EXPECT_STREQ(second.LockFileName(), UsbLock(secondAddress).c_str());
    EXPECT_EQ(third.OpenPort(), 0x16000000u);
    EXPECT_EQ(first.OpenPort(), 0x18000000u);
    EXPECT_TRUE(Contains(Log(), "<ERROR> CreateLockFile: Lockfile create failed.-1\n"));
    EXPECT_EQ(first.ClosePort(), kOk);
    EXPECT_FALSE(vt::FileExists(UsbLock(firstAddress)));
    EXPECT_EQ(third.OpenPort(), kOk);  // free again
    EXPECT_STREQ(third.LockFileName(), UsbLock(firstAddress).c_str());
}

// A lock file blocks the device while its advisory lock is held; once that
// is free and the file is left over (made before this boot) it is taken
// over.
TEST_F(Usb, HeldLockFileBlocksAStaleOneIsTakenOver) {
    g_usb->Add(Vyrix(2));
    const int held = open(UsbLock(2).c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    ASSERT_GE(held, 0);
    const struct timespec epoch[2] = {{0, 0}, {0, 0}};
    ASSERT_EQ(futimens(held, epoch), 0);
    ASSERT_EQ(flock(held, LOCK_EX), 0);
    CUsbPort port;
    EXPECT_EQ(port.OpenPort(), 0x16000000u);
    EXPECT_TRUE(vt::FileExists(UsbLock(2)));  // not ours to remove
    close(held);
    EXPECT_EQ(port.OpenPort(), kOk) << Log();
    EXPECT_TRUE(Contains(Log(), "<INFO> CreateLockFile: Stale lock file " + UsbLock(2) + " taken over.\n"));
    EXPECT_EQ(port.ClosePort(), kOk);
    EXPECT_FALSE(vt::FileExists(UsbLock(2)));
}

// No device, another product, a configuration without interfaces: refused,
// and no lock file is left.
TEST_F(Usb, NoDeviceWrongIdentityOrNoInterfaces) {
    Vyrix wrongProduct(2), noInterfaces(3);
    wrongProduct.product = 5;
    noInterfaces.interfaces = false;
    EXPECT_EQ(CUsbPort().OpenPort(), 0x16000000u);
    for (const Vyrix& setup : {wrongProduct, noInterfaces}) {
        g_usb->Add(setup);
        EXPECT_EQ(CUsbPort().OpenPort(), 0x16000000u) << setup.address;
        EXPECT_FALSE(vt::FileExists(UsbLock(setup.address)));
    }
    EXPECT_TRUE(Contains(Log(), "<INFO> OpenPort: No Devices Found.\n"));
}

TEST_F(Usb, ConfigurationWithoutOutEndpointEndsTheSearch) {
    Vyrix inOnly(3, "INONLY");
    inOnly.outEndpoint = false;
    g_usb->Add(Vyrix(2, "GOOD"));
    g_usb->Add(inOnly);
    ASSERT_EQ(ListOrder(), (std::vector<std::string>{"INONLY", "GOOD"})) << "this test needs the in-only device first";
    EXPECT_EQ(CUsbPort().OpenPort(), 0x16000000u);  // the good one behind it is not tried
    EXPECT_FALSE(vt::FileExists(UsbLock(2)));
}

// The kernel driver is detached, the OUT endpoint found in the descriptors,
// and packets go out in 64-byte transfers, the last one padded with zeros.
TEST_F(Usb, PacketsGoOutIn64ByteTransfersToTheOutEndpoint) {
    Vyrix setup(2);
    setup.kernelDriver = true;
    setup.outAddress = 0x02;
    auto& dev = g_usb->Add(setup);
    CUsbPort port;
    ASSERT_EQ(port.OpenPort(), kOk) << Log();
    EXPECT_EQ(vyrix_write_ep_.load(), 0x02);
    EXPECT_TRUE(Contains(Log(), "<INFO> OpenPort: OUT EP addr : 0x2\n"));
    std::vector<uint8_t> packet(100), exact(64, 0xAB);
    for (size_t i = 0; i < packet.size(); ++i) packet[i] = static_cast<uint8_t>(i + 1);
    ASSERT_EQ(port.WritePort(packet.data(), 100), kOk);
    ASSERT_EQ(port.WritePort(exact.data(), 64), kOk);
    EXPECT_EQ(port.WritePort(nullptr, 4), 0x05000000u);
    EXPECT_EQ(port.WritePort(exact.data(), 0), 0x05000000u);
    const vt::UsbEmulator::Device::Seen seen = dev.Observed();
    EXPECT_TRUE(seen.detached && seen.claimed);
    EXPECT_EQ(seen.endpoints, std::vector<uint8_t>(3, 0x02));
    std::vector<uint8_t> tail(packet.begin() + 64, packet.end());
    tail.resize(64, 0);  // 36 bytes and 28 zeros
    EXPECT_EQ(seen.outs, (std::vector<std::vector<uint8_t>>{std::vector<uint8_t>(packet.begin(), packet.begin() + 64),
                                                            tail, exact}));
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
    EXPECT_EQ(port.ReadPort(in, &n, CDeadline::Never()), 0x01000000u);
    EXPECT_EQ(port.WritePort(in, 1), 0x01000000u);

    CUsbPort other;  // unplugged while a transfer is waiting
    ASSERT_EQ(other.OpenPort(), kOk);
    EXPECT_EQ(other.ReadPort(in, &n, CDeadline::After(50)), 0x07000000u);
    dev.Unplug();
    EXPECT_EQ(other.ReadPort(in, &n, CDeadline::After(5000)), 0x16000000u);
    EXPECT_EQ(other.WritePort(in, 1), 0x16000000u);
    EXPECT_EQ(other.ClosePort(), kOk);
    EXPECT_FALSE(vt::FileExists(UsbLock(2)));
    close(stream);
}

// The whole stack over USB with the device simulator behind the emulation:
// two devices of the product, each connection taking the one with its
// serial number whatever their order on the bus, and a serial line.  Each
// handle reaches its own device; a handle that is not a connection reaches
// the first open transport, USB first.
TEST_F(Usb, EachHandleReachesItsOwnDeviceBySerialNumber) {
    LogEnd();
    Vyrix setupA(2, "AB12"), setupB(3, "CD34");
    setupA.outAddress = 0x02;
    setupB.outAddress = 0x03;  // each device is written at its own OUT endpoint
    auto &devA = g_usb->Add(setupA), &devB = g_usb->Add(setupB);
    Sim simA(devA.TakeStream()), simB(devB.TakeStream());
    auto serial = Sim::OverPty();
    void *library = nullptr, *a = nullptr, *b = nullptr, *uart = nullptr, *again = nullptr;
    ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
    ASSERT_EQ(Vyrix_OpenConnection(library, &b, vt::UsbRecord("CD34")), 0u);
    EXPECT_TRUE(vt::FileExists(UsbLock(3)));
    ASSERT_EQ(Vyrix_OpenConnection(library, &a, vt::UsbRecord("AB12")), 0u);
    EXPECT_EQ(Vyrix_OpenConnection(library, &again, vt::UsbRecord("AB12")), 0x18000000u);  // already open
    ASSERT_EQ(Vyrix_OpenConnection(library, &uart, vt::UartRecord(serial->SlavePath().c_str())), 0u);
    EXPECT_EQ(Vyrix_SetBrightness(a, 11, eVYRIX_STORAGE_CURRENT), 0u);
    EXPECT_EQ(Vyrix_SetBrightness(uart, 33, eVYRIX_STORAGE_CURRENT), 0u);
    void* handles[] = {a, b, uart};
    uint8_t got[3] = {};
    for (int i = 0; i < 3; ++i) EXPECT_EQ(Vyrix_GetBrightness(handles[i], &got[i], eVYRIX_STORAGE_CURRENT), 0u);
    EXPECT_EQ(std::vector<uint8_t>(got, got + 3), (std::vector<uint8_t>{11, 80, 33}));  // b was not touched
    int stranger = 0;
    EXPECT_EQ(Vyrix_SetBrightness(&stranger, 44, eVYRIX_STORAGE_CURRENT), 0u);  // not a connection: USB first
    EXPECT_EQ(std::make_tuple(simA.ReceivedCount() + simB.ReceivedCount(), serial->ReceivedCount()),
              std::make_tuple(4u, 2u));
    for (auto* dev : {&devA, &devB}) {
        const std::vector<uint8_t> endpoints = dev->Observed().endpoints;
        EXPECT_EQ(std::set<uint8_t>(endpoints.begin(), endpoints.end()).size(), 1u);
    }
    EXPECT_EQ(devA.Observed().endpoints.front(), 0x02);
    EXPECT_EQ(devB.Observed().endpoints.front(), 0x03);
    EXPECT_EQ(std::make_tuple(Vyrix_CloseConnection(a), Vyrix_CloseConnection(b)), std::make_tuple(0u, 0u));
    EXPECT_FALSE(vt::FileExists(UsbLock(2)) || vt::FileExists(UsbLock(3)));
    EXPECT_EQ(Vyrix_SetBrightness(&stranger, 55, eVYRIX_STORAGE_CURRENT), 0u);  // now the serial line
    EXPECT_EQ(serial->ReceivedCount(), 3u);
    EXPECT_EQ(Vyrix_CloseLibrary(library), 0u);
    EXPECT_FALSE(vt::FileExists(vt::SerialLockName(serial->SlavePath())));  // closed with the library
}

// A process that exits with a USB connection open exits with its own
// status and leaves no lock file.
TEST_F(Usb, ExitWithAConnectionOpenReleasesTheDevice) {
    VT_SKIP_THREADED_FORK_UNDER_SANITIZERS();
    Sim sim(g_usb->Add(Vyrix(2, "AB12")).TakeStream());
    const pid_t pid = fork();
    if (pid == 0) {
        void *library = nullptr, *conn = nullptr;
        uint8_t b;
        if (Vyrix_OpenLibrary(&library) != 0 || Vyrix_OpenConnection(library, &conn, vt::UsbRecord("AB12")) != 0 ||
            Vyrix_GetBrightness(conn, &b, eVYRIX_STORAGE_CURRENT) != 0)
            _exit(1);
        exit(42);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 42) << status;
    EXPECT_EQ(sim.ReceivedCount(), 1u);
    EXPECT_FALSE(vt::FileExists(UsbLock(2)));
}

// Faults over USB: the device unplugged in the middle of a command, of a
// resend sequence and of a firmware upgrade.
class UsbFaults : public Usb {
protected:
    void TearDown() override {
        KtCloseUsbPort();
        sim.reset();
        Usb::TearDown();
    }
    // Opens the port, noting the threads that exist without it.
    Vyrix_ReturnStatus Open() {
        threads = vt::NonGlibThreads();
        names = vt::ThreadNames();
        return KtOpenUsbPort();
    }
    // The cable goes once the device has `packets`; `taking` ends at once.
    void UnplugAfter(size_t packets, std::future<Vyrix_ReturnStatus> taking) {
        ASSERT_TRUE(sim->WaitForPackets(packets, std::chrono::seconds(5)));
        dev.Unplug();
        vt::Stopwatch watch;
        EXPECT_EQ(taking.get(), 0x16000000u);  // at once, not after 750 s
        EXPECT_LT(watch.Ms(), 3000);
        EXPECT_EQ(std::make_tuple(KtCheckUsbPort(), vt::Send()), std::make_tuple(0x01000000u, 0x16000000u));
        EXPECT_EQ(KtCloseUsbPort(), 0u);
        EXPECT_FALSE(vt::FileExists(UsbLock(2)));
        EXPECT_TRUE(vt::Eventually([&] { return vt::NonGlibThreads() <= threads; }))
            << vt::ThreadNames() << " before: " << names;
    }
    int threads = 0;
    std::string names;
    vt::UsbEmulator::Device& dev = g_usb->Add(Vyrix(2));
    std::unique_ptr<Sim> sim = std::make_unique<Sim>(dev.TakeStream());
};

TEST_F(UsbFaults, UnpluggedInTheMiddleOfACommand) {
    sim->SetFaults(vt::Quiet());
    ASSERT_EQ(Open(), 0u);
    ASSERT_EQ(vt::Send(), 0u);
    UnplugAfter(1, std::async(std::launch::deferred, [] { return vt::Take(7500); }));
}

// The cable goes while the handler waits for the reply to a resend.
TEST_F(UsbFaults, UnpluggedInTheMiddleOfAResendSequence) {
    sim->SetFaults(vt::With(&vt::Faults::resendRequests, 100));
    ASSERT_EQ(Open(), 0u);
    ASSERT_EQ(vt::Send(), 0u);
    UnplugAfter(3, std::async(std::launch::async, [] { return vt::Take(7500); }));  // resending
}

TEST_F(UsbFaults, UnpluggedInTheMiddleOfAFirmwareUpgrade) {
    void *library = nullptr, *conn = nullptr;
    ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
    ASSERT_EQ(Vyrix_OpenConnection(library, &conn, vt::UsbRecord("AB12")), 0u);
    std::vector<uint8_t> chunk(4000, 0x77);
    for (uint32_t i = 0; i < 3; ++i) ASSERT_EQ(Vyrix_UpgradeSoftware(conn, i, 4000, 40000, chunk.data()), 0u);
    dev.Unplug();
    vt::Stopwatch watch;
    EXPECT_EQ(Vyrix_UpgradeSoftware(conn, 3, 4000, 40000, chunk.data()), 0x16000000u);
    EXPECT_LT(watch.Ms(), 3000);
    EXPECT_EQ(sim->Model().FirmwareState().receivedBytes, 12000u);
    vt::Stopwatch closing;
    EXPECT_EQ(Vyrix_CloseLibrary(library), 0u);
    EXPECT_LT(closing.Ms(), 3000);
    EXPECT_FALSE(vt::FileExists(UsbLock(2)));
}

// Reconnection by serial number: the device unplugged and plugged in again
// (at another address) is taken; a device with another serial number that
// arrives meanwhile is not.
TEST_F(Usb, ReconnectsToTheSameSerialNumberOnly) {
    vt::UsbEmulator::Device& first = g_usb->Add(Vyrix(2, "AB12"));
    Sim original(first.TakeStream());
    void *library = nullptr, *conn = nullptr;
    ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
    ASSERT_EQ(Vyrix_OpenConnection(library, &conn, vt::UsbRecord("AB12")), 0u);
    vt::Recorder recorder;
    ASSERT_EQ(Vyrix_SetLinkStateCallback(conn, vt::Recorder::Callback, &recorder), 0u);
    ASSERT_EQ(Vyrix_SetReconnect(conn, 1, 100), 0u);
    first.Unplug();
    ASSERT_TRUE(recorder.WaitFor(2));
    uint8_t value = 0;
    EXPECT_EQ(Vyrix_GetBrightness(conn, &value, eVYRIX_STORAGE_CURRENT), 0x16000000u);
    EXPECT_FALSE(vt::FileExists(UsbLock(2)));

    Sim other(g_usb->Plug(Vyrix(3, "ZZ99")).TakeStream());
    // An attempt has looked at it (and must have left it).
    ASSERT_TRUE(vt::Eventually([] { return Log().find("Found Device on bus 001 and addr 003") != std::string::npos; }));
    Sim back(g_usb->Plug(Vyrix(4, "AB12")).TakeStream());
    ASSERT_TRUE(recorder.WaitFor(3));
    EXPECT_EQ(recorder.Events(), (std::vector<vt::Event>{vt::kDown, vt::kReconnecting, vt::kUp}));
    ASSERT_EQ(Vyrix_GetBrightness(conn, &value, eVYRIX_STORAGE_CURRENT), 0u);
    EXPECT_EQ(std::make_tuple(back.ReceivedCount(), other.ReceivedCount()), std::make_tuple(size_t{1}, size_t{0}));
    EXPECT_TRUE(vt::FileExists(UsbLock(4)));
    EXPECT_FALSE(vt::FileExists(UsbLock(3)));
    EXPECT_EQ(Vyrix_CloseLibrary(library), 0u);
    EXPECT_FALSE(vt::FileExists(UsbLock(4)));
}

#ifdef VYRIXCTL
// vyrixctl in this testbed: the device present, then one arriving and
// going, each a JSON line as libusb's hot-plug callbacks report it.
TEST_F(Usb, ListWatchPrintsArrivalsAndRemovals) {
    g_usb->Add(Vyrix(2, "AB12"));
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], 1);
        execl(VYRIXCTL, VYRIXCTL, "list", "usb", "--watch", "--json", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    FILE* out = fdopen(fds[0], "r");
    auto next = [out] {
        char line[512] = {0};
        return fgets(line, sizeof line, out) != nullptr ? std::string(line) : std::string();
    };
    EXPECT_TRUE(Contains(next(), R"({"event":"present","product":4,"serial":"AB12","bus":1,"address":2})"));
    vt::UsbEmulator::Device& arriving = g_usb->Plug(Vyrix(3, "CD34"));
    EXPECT_TRUE(Contains(next(), R"({"event":"arrived","product":4,"serial":"CD34","bus":1,"address":3})"));
    arriving.Unplug();
    EXPECT_TRUE(Contains(next(), R"({"event":"removed","product":4,"serial":"CD34","bus":1,"address":3})"));
    kill(pid, SIGTERM);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 143) << status;
    EXPECT_EQ(next(), "");  // nothing more
    fclose(out);
}
#endif

}  // namespace

int main(int argc, char** argv) {
    vt::UsbEmulator::EnsurePreload(argv);
    vt::UsbEmulator emulator;  // before any thread starts
    g_usb = &emulator;
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
