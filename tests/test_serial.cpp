// SPDX-License-Identifier: MIT
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

constexpr Vyrix_ReturnStatus kOk = static_cast<Vyrix_ReturnStatus>(0);
using Bytes = std::vector<uint8_t>;

// One terminal and a port on it (not opened).
class Serial : public vt::Logged {
protected:
    void TearDown() override {
        port.ClosePort();
        LogEnd();
        unlink(pty.LockName().c_str());
    }
    bool Has(const std::string& entry) { return vt::Contains(vt::Log(), entry); }
    vt::PtyPair pty;
    CSPort port{pty.Path().c_str()};
    Bytes buf = Bytes(4101);
    int n = -1;
};

// Raw 57600 8N1 while open, not inherited, and the line as it was after.
TEST_F(Serial, OpenSetsTheLineUpRawAndCloseRestoresIt) {
    termios before{}, tio{}, after{};
    ASSERT_EQ(tcgetattr(pty.Slave(), &before), 0);
    before.c_lflag |= ECHO | ICANON;
    cfsetspeed(&before, B9600);
    ASSERT_EQ(tcsetattr(pty.Slave(), TCSANOW, &before), 0);
    ASSERT_EQ(tcgetattr(pty.Slave(), &before), 0);
    ASSERT_EQ(port.OpenPort(), kOk);
    ASSERT_EQ(tcgetattr(pty.Slave(), &tio), 0);
    EXPECT_EQ(std::make_tuple(cfgetospeed(&tio), cfgetispeed(&tio)), std::make_tuple(speed_t{B57600}, speed_t{B57600}));
    EXPECT_EQ(tio.c_cflag & (CSIZE | CREAD | PARENB | CSTOPB | CRTSCTS | HUPCL | CLOCAL), tcflag_t{CS8 | CREAD});
    EXPECT_EQ(std::make_tuple(tio.c_iflag, tio.c_oflag, tio.c_lflag & (ICANON | ECHO | ISIG)),
              std::make_tuple(0u, 0u, 0u));
    EXPECT_EQ(std::make_tuple(tio.c_cc[VMIN], tio.c_cc[VTIME], tio.c_cc[VEOF]), std::make_tuple(1, 0, 4));
    bool cloexec = false;
    for (int fd = 3; fd < 1024; ++fd)
        if (vt::FdPath(fd) == pty.Path() && fd != pty.Slave()) cloexec = (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
    EXPECT_TRUE(cloexec);
    ASSERT_EQ(port.ClosePort(), kOk);
    ASSERT_EQ(tcgetattr(pty.Slave(), &after), 0);
    EXPECT_EQ(std::tie(after.c_iflag, after.c_oflag, after.c_cflag, after.c_lflag),
              std::tie(before.c_iflag, before.c_oflag, before.c_cflag, before.c_lflag));
    EXPECT_EQ(memcmp(after.c_cc, before.c_cc, sizeof after.c_cc), 0);
    EXPECT_EQ(cfgetospeed(&after), cfgetospeed(&before));
}

TEST_F(Serial, BytesBothWaysIncludingEveryByteValue) {
    ASSERT_EQ(port.OpenPort(), kOk);
    Bytes all(256), got;
    for (int i = 0; i < 256; ++i) all[i] = static_cast<uint8_t>(i);
    ASSERT_EQ(port.WritePort(all.data(), 256), kOk);
    for (pollfd p = {pty.Master(), POLLIN, 0}; got.size() < 256 && poll(&p, 1, 2000) > 0;) {
        ssize_t r = read(pty.Master(), buf.data(), 256);
        if (r <= 0) break;
        got.insert(got.end(), buf.begin(), buf.begin() + r);
    }
    EXPECT_EQ(got, all);
    got.clear();
    ASSERT_EQ(write(pty.Master(), all.data(), all.size()), 256);
    while (got.size() < all.size()) {
        ASSERT_EQ(port.ReadPort(buf.data(), &n, CDeadline::After(5000)), kOk);
        got.insert(got.end(), buf.begin(), buf.begin() + n);
    }
    EXPECT_EQ(got, all);
}

TEST_F(Serial, LockFileLivesExactlyAsLongAsThePort) {
    ASSERT_EQ(port.OpenPort(), kOk);
    EXPECT_STREQ(port.LockFileName(), pty.LockName().c_str());
    CSPort second(pty.Path().c_str());
    EXPECT_EQ(second.OpenPort(), 0x16000000u);
    EXPECT_EQ(port.OpenPort(), 0x18000000u);
    EXPECT_TRUE(vt::FileExists(pty.LockName()));  // neither refusal touched it
    EXPECT_EQ(port.ClosePort(), kOk);
    EXPECT_FALSE(vt::FileExists(pty.LockName()));
    EXPECT_EQ(port.ClosePort(), kOk);  // closed already: nothing to do
    EXPECT_EQ(second.OpenPort(), kOk);
    for (const char* entry :
         {"<RROR> CreateLockFile: Lockfile create failed.-1\n", "<ERROR> OpenPort Device not connected\n",
          "<ERROR> OpenPort Port already opened\n", "<INFO> ClosePort: Lock File Removed.\n"})
        EXPECT_TRUE(Has(entry));
    // Someone replaces the lock file while the port holds the line: closing
    // must not delete a file that is not the one the port created.
    ASSERT_EQ(unlink(pty.LockName().c_str()), 0);
    { std::ofstream(pty.LockName()) << "someone else's\n"; }
    EXPECT_EQ(second.ClosePort(), kOk);
    EXPECT_EQ(vt::ReadFile(pty.LockName()), "someone else's\n");
    EXPECT_TRUE(Has("<ERROR> ClosePort: Lock file " + pty.LockName() + " remove failed.\n"));
}

TEST_F(Serial, PlantedLinkBlocksAndSurvives) {
    const std::string target = vt::RuntimeDir() + "/vyrix_test_lock_target";
    unlink(target.c_str());
    ASSERT_EQ(symlink(target.c_str(), pty.LockName().c_str()), 0);
    EXPECT_EQ(port.OpenPort(), 0x16000000u);
    EXPECT_FALSE(vt::FileExists(target));  // not created through the link
    struct stat st {};
    EXPECT_EQ(lstat(pty.LockName().c_str(), &st), 0);  // and the link is not ours to remove
}

TEST_F(Serial, NamesAndTheirLockFiles) {
    const std::string dir = vt::RuntimeDir();
    const struct {
        const char *path, *lock;
    } names[] = {{"/dev/ttyUSB0", "ttyUSB0"}, {"/dev/pts/3", "pts_3"}, {"/tmp/line", "_tmp_line"}};
    char name[KT_LOCK_NAME_SIZE];
    for (const auto& c : names) {
        ASSERT_TRUE(CSPort::LockNameFor(c.path, name));
        EXPECT_EQ(name, dir + "/vyrix_llc_com_" + c.lock + ".lock");
    }
    unsetenv("VYRIX_RUNTIME_DIR");  // the default directory
    ASSERT_TRUE(CSPort::LockNameFor("/dev/ttyUSB0", name));
    setenv("VYRIX_RUNTIME_DIR", dir.c_str(), 1);
    EXPECT_STREQ(name, "/tmp/vyrix_llc_com_ttyUSB0.lock");

    CSPort unnamed, missing("/dev/vyrix-no-such-tty"), tooLong(("/dev/" + std::string(95, 'x')).c_str());
    EXPECT_EQ(unnamed.OpenPort(), 0x05000000u);
    EXPECT_EQ(tooLong.OpenPort(), 0x05000000u);
    EXPECT_EQ(tooLong.LockFileName()[0], '\0');
    EXPECT_EQ(missing.OpenPort(), 0x01000000u);
    EXPECT_FALSE(vt::FileExists(dir + "/vyrix_llc_com_vyrix-no-such-tty.lock"));
    EXPECT_TRUE(Has("<INFO> OpenPort Opening '/dev/vyrix-no-such-tty' failed\n"));
}

TEST(SerialFlags, ParityByteSizeStopBitsAndBaudTable) {
    const struct {
        char parity;
        int result, size;
        float stop;
        double rate;
        tcflag_t cflag;
        speed_t speed;
    } cases[] = {{'n', parity_none, 5, 1.0f, 0, CS5, B0},
                 {'N', parity_none, 6, 1.0f, 50, CS6, B50},
                 {'x', parity_none, 7, 2.0f, 134, CS7 | CSTOPB, B134},
                 {'E', parity_even, 8, 1.5f, 9600, CS8 | PARENB, B9600},
                 {'e', parity_even, 9, 1.0f, 38400, CS8 | PARENB, B38400},
                 {'O', parity_odd, 0, 2.0f, 115200, CS8 | CSTOPB | PARENB | PARODD, B115200},
                 {'o', parity_odd, 8, 1.0f, 57600, CS8 | PARENB | PARODD, B57600},
                 {'n', parity_none, 8, 1.0f, 230400, CS8, B57600},
                 {'n', parity_none, 8, 1.0f, 12345, CS8, B57600}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.parity << c.size << " " << c.stop << " " << c.rate);
        CSPort port;
        EXPECT_EQ(port.setParityFlag(c.parity), c.result);
        port.setByteSizeFlag(c.size, c.stop);
        port.setBaudRateFlag(c.rate);
        const termios& tio = port.AppliedAttributes();
        EXPECT_EQ(tio.c_cflag & (PARENB | PARODD | CSIZE | CSTOPB), c.cflag);
        EXPECT_EQ(std::make_tuple(cfgetospeed(&tio), cfgetispeed(&tio)), std::make_tuple(c.speed, c.speed));
    }
}

TEST_F(Serial, WriteAndReadArgumentsAndClosedPort) {
    uint8_t byte = 1;
    EXPECT_EQ(port.ReadPort(&byte, &n, CDeadline::Never()), 0x16000000u);
    EXPECT_EQ(port.WritePort(&byte, 1), 0x16000000u);
    ASSERT_EQ(port.OpenPort(), kOk);
    EXPECT_EQ(port.WritePort(nullptr, 1), 0x05000000u);
    EXPECT_EQ(port.ReadPort(nullptr, &n, CDeadline::Never()), 0x05000000u);
    EXPECT_EQ(port.ReadPort(&byte, nullptr, CDeadline::Never()), 0x05000000u);
    EXPECT_EQ(port.WritePort(&byte, 0), kOk);
    struct pollfd p = {pty.Master(), POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 50), 0);  // nothing was written
}

// A read ends at its deadline, at once when the port is being closed, and
// reports a hung-up line as the device gone, as does a write.
TEST_F(Serial, ReadEndsOnDeadlineWakeOrHangUp) {
    ASSERT_EQ(port.OpenPort(), kOk);
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
    EXPECT_EQ(other.WritePort(buf.data(), 8), 0x16000000u);
    EXPECT_EQ(other.ClosePort(), kOk);
    EXPECT_FALSE(vt::FileExists(pty.LockName()));
}

// Nobody reads the other end: the write gives up after two seconds without
// progress, saying once that it waits.
TEST_F(Serial, WriteWithoutProgressFailsAfterTwoSeconds) {
    ASSERT_EQ(port.OpenPort(), kOk);
    Vyrix_ReturnStatus r = kOk;
    vt::Stopwatch watch;
    for (int written = 0; written < 1000 && r == kOk; ++written) r = port.WritePort(buf.data(), 4101);
    EXPECT_EQ(r, 0x01000000u);
    EXPECT_GE(watch.Ms(), 1900);
    // Said for the last packet that still fitted, and for the one that failed.
    EXPECT_LE(vt::Occurrences(vt::Log(), "Resource is temporarily unavailable"), 2u);
    EXPECT_TRUE(Has("<ERROR> WritePort: Write Failed.\n"));
}

}  // namespace
