// The serial port on real pseudo-terminals.
#include <poll.h>

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <thread>
#include <vector>

#include "LLC_SPort.h"
#include "PtyPair.h"
#include "TestSupport.h"

namespace {

using vt::PtyPair;

constexpr Vyrix_ReturnStatus kOk = static_cast<Vyrix_ReturnStatus>(0);

// A read deadline no healthy test reaches.
CDeadline Soon() { return CDeadline::After(5000); }

std::vector<uint8_t> ReadAvailable(int fd, size_t want) {
    std::vector<uint8_t> got;
    uint8_t buf[256];
    while (got.size() < want) {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, 2000) <= 0) break;
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) break;
        got.insert(got.end(), buf, buf + n);
    }
    return got;
}

class Serial : public vt::Logged {
protected:
    void TearDown() override {
        LogEnd();
        unlink(pty.LockName().c_str());
    }
    PtyPair pty;
};

TEST_F(Serial, OpenSetsTheLineUpRaw57600_8N1) {
    CSPort port(pty.Path().c_str());
    ASSERT_EQ(port.OpenPort(), kOk);
    termios tio{};
    ASSERT_EQ(tcgetattr(pty.Slave(), &tio), 0);
    EXPECT_EQ(cfgetospeed(&tio), static_cast<speed_t>(B57600));
    EXPECT_EQ(cfgetispeed(&tio), static_cast<speed_t>(B57600));
    EXPECT_EQ(tio.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
    EXPECT_TRUE(tio.c_cflag & CREAD);
    EXPECT_FALSE(tio.c_cflag & (PARENB | CSTOPB | CRTSCTS | HUPCL | CLOCAL));
    EXPECT_EQ(tio.c_iflag, 0u);
    EXPECT_EQ(tio.c_oflag, 0u);
    EXPECT_EQ(tio.c_lflag & (ICANON | ECHO | ISIG), 0u);
    EXPECT_EQ(tio.c_cc[VMIN], 1);
    EXPECT_EQ(tio.c_cc[VTIME], 0);
    EXPECT_EQ(tio.c_cc[VEOF], 4);
}

TEST_F(Serial, BytesBothWaysIncludingEveryByteValue) {
    CSPort port(pty.Path().c_str());
    ASSERT_EQ(port.OpenPort(), kOk);
    std::vector<uint8_t> all(256);
    for (int i = 0; i < 256; ++i) all[i] = static_cast<uint8_t>(i);
    ASSERT_EQ(port.WritePort(all.data(), static_cast<unsigned short>(all.size())), kOk);
    EXPECT_EQ(ReadAvailable(pty.Master(), all.size()), all);

    ASSERT_EQ(write(pty.Master(), all.data(), all.size()), 256);
    std::vector<uint8_t> got;
    std::vector<uint8_t> buf(4101);
    while (got.size() < all.size()) {
        int n = 0;
        ASSERT_EQ(port.ReadPort(buf.data(), &n, Soon()), kOk);
        got.insert(got.end(), buf.begin(), buf.begin() + n);
    }
    EXPECT_EQ(got, all);
}

TEST_F(Serial, LockFileLivesExactlyAsLongAsThePort) {
    {
        CSPort port(pty.Path().c_str());
        ASSERT_EQ(port.OpenPort(), kOk);
        EXPECT_STREQ(port.LockFileName(), pty.LockName().c_str());
        EXPECT_TRUE(vt::FileExists(pty.LockName()));

        CSPort second(pty.Path().c_str());
        EXPECT_EQ(second.OpenPort(), 0x16000000u);
        EXPECT_EQ(port.OpenPort(), 0x18000000u);
        EXPECT_TRUE(vt::FileExists(pty.LockName()));  // neither refusal touched it

        EXPECT_EQ(port.ClosePort(), kOk);
        EXPECT_FALSE(vt::FileExists(pty.LockName()));
        EXPECT_EQ(port.ClosePort(), kOk);  // closed already: nothing to do
    }
    CSPort again(pty.Path().c_str());
    EXPECT_EQ(again.OpenPort(), kOk);
    for (const char* entry :
         {"<RROR> CreateLockFile: Lockfile create failed.-1\n", "<ERROR> OpenPort Device not connected\n",
          "<ERROR> OpenPort Port already opened\n", "<INFO> ClosePort: Lock File Removed.\n"})
        EXPECT_TRUE(vt::Contains(vt::Log(), entry));
}

TEST_F(Serial, HandMadeLockFileOrPlantedLinkBlocksAndSurvives) {
    const std::string target = vt::RuntimeDir() + "/vyrix_test_lock_target";
    unlink(target.c_str());
    ASSERT_EQ(symlink(target.c_str(), pty.LockName().c_str()), 0);
    CSPort port(pty.Path().c_str());
    EXPECT_EQ(port.OpenPort(), 0x16000000u);
    EXPECT_FALSE(vt::FileExists(target));  // not created through the link
    struct stat st {};
    EXPECT_EQ(lstat(pty.LockName().c_str(), &st), 0);  // and the link is not ours to remove
}

TEST_F(Serial, MissingDeviceLeavesNoLockFile) {
    CSPort port("/dev/vyrix-no-such-tty");
    EXPECT_EQ(port.OpenPort(), 0x01000000u);
    EXPECT_FALSE(vt::FileExists(vt::RuntimeDir() + "/vyrix_llc_com_vyrix-no-such-tty.lock"));
    EXPECT_TRUE(vt::Contains(vt::Log(), "<INFO> OpenPort Opening '/dev/vyrix-no-such-tty' failed\n"));
}

TEST_F(Serial, NamesAndTheirLockFiles) {
    char name[128];
    const std::string dir = vt::RuntimeDir();
    ASSERT_TRUE(CSPort::LockNameFor("/dev/ttyUSB0", name));
    EXPECT_EQ(name, dir + "/vyrix_llc_com_ttyUSB0.lock");
    ASSERT_TRUE(CSPort::LockNameFor("/dev/pts/3", name));
    EXPECT_EQ(name, dir + "/vyrix_llc_com_pts_3.lock");
    ASSERT_TRUE(CSPort::LockNameFor("/tmp/line", name));
    EXPECT_EQ(name, dir + "/vyrix_llc_com__tmp_line.lock");
    unsetenv("VYRIX_RUNTIME_DIR");  // the default directory
    ASSERT_TRUE(CSPort::LockNameFor("/dev/ttyUSB0", name));
    setenv("VYRIX_RUNTIME_DIR", dir.c_str(), 1);
    EXPECT_STREQ(name, "/tmp/vyrix_llc_com_ttyUSB0.lock");

    CSPort unnamed;
    EXPECT_EQ(unnamed.OpenPort(), 0x05000000u);
    std::string longName = "/dev/" + std::string(95, 'x');  // 100 characters
    CSPort port(longName.c_str());
    EXPECT_EQ(port.OpenPort(), 0x05000000u);
    EXPECT_EQ(port.LockFileName()[0], '\0');
}

TEST_F(Serial, AttributesAreRestoredOnClose) {
    termios before{};
    ASSERT_EQ(tcgetattr(pty.Slave(), &before), 0);
    before.c_lflag |= ECHO | ICANON;
    cfsetspeed(&before, B9600);
    ASSERT_EQ(tcsetattr(pty.Slave(), TCSANOW, &before), 0);
    ASSERT_EQ(tcgetattr(pty.Slave(), &before), 0);
    {
        CSPort port(pty.Path().c_str());
        ASSERT_EQ(port.OpenPort(), kOk);
        termios during{};
        tcgetattr(pty.Slave(), &during);
        EXPECT_NE(memcmp(&during, &before, sizeof before), 0);
        ASSERT_EQ(port.ClosePort(), kOk);
    }
    termios after{};
    ASSERT_EQ(tcgetattr(pty.Slave(), &after), 0);
    EXPECT_EQ(std::tie(after.c_iflag, after.c_oflag, after.c_cflag, after.c_lflag),
              std::tie(before.c_iflag, before.c_oflag, before.c_cflag, before.c_lflag));
    EXPECT_EQ(memcmp(after.c_cc, before.c_cc, sizeof after.c_cc), 0);
    EXPECT_EQ(cfgetospeed(&after), cfgetospeed(&before));
}

TEST(SerialFlags, ParityByteSizeStopBitsAndBaudTables) {
    struct ParityCase {
        char c;
        int result;
        tcflag_t bits;
    } parities[] = {{'n', parity_none, 0},
                    {'N', parity_none, 0},
                    {'x', parity_none, 0},
                    {'E', parity_even, PARENB},
                    {'e', parity_even, PARENB},
                    {'O', parity_odd, PARENB | PARODD},
                    {'o', parity_odd, PARENB | PARODD}};
    for (const ParityCase& p : parities) {
        CSPort port;
        EXPECT_EQ(port.setParityFlag(p.c), p.result) << p.c;
        EXPECT_EQ(port.AppliedAttributes().c_cflag & (PARENB | PARODD), p.bits) << p.c;
    }
    struct SizeCase {
        int size;
        float stop;
        tcflag_t csize;
        bool twoStops;
    } sizes[] = {{5, 1.0f, CS5, false}, {6, 1.0f, CS6, false}, {7, 2.0f, CS7, true},
                 {8, 1.5f, CS8, false}, {9, 1.0f, CS8, false}, {0, 2.0f, CS8, true}};
    for (const SizeCase& s : sizes) {
        CSPort port;
        port.setByteSizeFlag(s.size, s.stop);
        EXPECT_EQ(port.AppliedAttributes().c_cflag & CSIZE, s.csize) << s.size;
        EXPECT_EQ((port.AppliedAttributes().c_cflag & CSTOPB) != 0, s.twoStops) << s.stop;
    }
    struct BaudCase {
        double rate;
        speed_t speed;
    } bauds[] = {{0, B0},           {50, B50},       {134, B134},      {9600, B9600},  {38400, B38400},
                 {115200, B115200}, {57600, B57600}, {230400, B57600}, {12345, B57600}};
    for (const BaudCase& b : bauds) {
        CSPort port;
        port.setBaudRateFlag(b.rate);
        EXPECT_EQ(cfgetospeed(&port.AppliedAttributes()), b.speed) << b.rate;
        EXPECT_EQ(cfgetispeed(&port.AppliedAttributes()), b.speed) << b.rate;
    }
}

TEST_F(Serial, WriteAndReadArgumentsAndClosedPort) {
    CSPort port(pty.Path().c_str());
    uint8_t byte = 1;
    int n = 0;
    EXPECT_EQ(port.ReadPort(&byte, &n, Soon()), 0x16000000u);
    EXPECT_EQ(port.WritePort(&byte, 1), 0x16000000u);
    ASSERT_EQ(port.OpenPort(), kOk);
    EXPECT_EQ(port.WritePort(nullptr, 1), 0x05000000u);
    EXPECT_EQ(port.ReadPort(nullptr, &n, Soon()), 0x05000000u);
    EXPECT_EQ(port.ReadPort(&byte, nullptr, Soon()), 0x05000000u);
    EXPECT_EQ(port.WritePort(&byte, 0), kOk);
    struct pollfd p = {pty.Master(), POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 50), 0);  // nothing was written
}

// A read ends at its deadline, at once when the port is being closed, and
// reports a hung-up line as the device gone.
TEST_F(Serial, ReadEndsOnDeadlineWakeOrHangUp) {
    CSPort port(pty.Path().c_str());
    ASSERT_EQ(port.OpenPort(), kOk);
    std::vector<uint8_t> buf(4101);
    int n = -1;
    vt::Stopwatch timed;
    EXPECT_EQ(port.ReadPort(buf.data(), &n, CDeadline::After(100)), 0x07000000u);
    EXPECT_GE(timed.Ms(), 95);
    EXPECT_EQ(n, -1);  // set only on success

    std::thread closer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        port.CancelRead();
    });
    vt::Stopwatch woken;
    EXPECT_EQ(port.ReadPort(buf.data(), &n, CDeadline::Never()), 0x07000000u);
    closer.join();
    EXPECT_LT(woken.Ms(), 2000);

    CSPort other(pty.Path().c_str());
    port.ClosePort();
    ASSERT_EQ(other.OpenPort(), kOk);
    pty.CloseMaster();  // the line hangs up
    vt::Stopwatch hungUp;
    EXPECT_EQ(other.ReadPort(buf.data(), &n, CDeadline::Never()), 0x16000000u);
    EXPECT_LT(hungUp.Ms(), 2000);
}

TEST_F(Serial, WriteToAHungUpLineSaysTheDeviceIsGone) {
    CSPort port(pty.Path().c_str());
    ASSERT_EQ(port.OpenPort(), kOk);
    pty.CloseMaster();
    uint8_t bytes[8] = {};
    EXPECT_EQ(port.WritePort(bytes, sizeof bytes), 0x16000000u);
    EXPECT_EQ(port.ClosePort(), kOk);
    EXPECT_FALSE(vt::FileExists(pty.LockName()));
}

// Nobody reads the other end: the write gives up after two seconds without
// progress, saying once that it waits.
TEST_F(Serial, WriteWithoutProgressFailsAfterTwoSeconds) {
    CSPort port(pty.Path().c_str());
    ASSERT_EQ(port.OpenPort(), kOk);
    std::vector<uint8_t> packet(4101, 0x55);
    Vyrix_ReturnStatus r = kOk;
    vt::Stopwatch watch;
    int written = 0;
    for (; written < 1000 && r == kOk; ++written) r = port.WritePort(packet.data(), 4101);
    EXPECT_EQ(r, 0x01000000u);
    EXPECT_GE(watch.Ms(), 1900);
    // Said for the last packet that still fitted, and for the one that failed.
    EXPECT_LE(vt::Occurrences(vt::Log(), "Resource is temporarily unavailable"), 2u);
    EXPECT_TRUE(vt::Contains(vt::Log(), "<ERROR> WritePort: Write Failed.\n"));
}

TEST_F(Serial, DescriptorIsNotInherited) {
    CSPort port(pty.Path().c_str());
    ASSERT_EQ(port.OpenPort(), kOk);
    bool foundCloexec = false;
    for (int fd = 3; fd < 1024; ++fd) {
        if (vt::FdPath(fd) == pty.Path() && fd != pty.Slave()) {
            foundCloexec = (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
        }
    }
    EXPECT_TRUE(foundCloexec);
}

}  // namespace

namespace {

// Someone replaces the lock file while the port holds the line: closing
// must not delete a file that is not the one the port created.
TEST(SerialHostileTmp, ReplacedLockFileIsNotDeleted) {
    LogStart();
    vt::PtyPair pty;
    CSPort port(pty.Path().c_str());
    ASSERT_EQ(port.OpenPort(), 0u);
    ASSERT_EQ(unlink(pty.LockName().c_str()), 0);
    { std::ofstream(pty.LockName()) << "someone else's\n"; }
    EXPECT_EQ(port.ClosePort(), 0u);
    EXPECT_EQ(vt::ReadFile(pty.LockName()), "someone else's\n");
    EXPECT_TRUE(vt::Contains(vt::Log(), "<ERROR> ClosePort: Lock file " + pty.LockName() + " remove failed.\n"));
    unlink(pty.LockName().c_str());
    LogEnd();
}

}  // namespace
