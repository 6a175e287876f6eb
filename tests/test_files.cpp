// Lock files and ports against crashed holders and odd names: a lock left by
// a killed process is taken over, one terminal under two names has one
// owner, only terminals are serial ports, and Bluetooth addresses are
// checked before anything is opened.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "LLC_BTPort.h"
#include "LLC_SPort.h"
#include "PtyPair.h"
#include "TestSupport.h"

namespace {

// Opens `path` as a serial line into `port` (a new one each time).
Vyrix_ReturnStatus OpenLine(std::unique_ptr<CSPort>& port, const std::string& path) {
    port.reset(new CSPort(path.c_str()));
    return port->OpenPort();
}

std::string LockNameFor(const std::string& path) {
    char name[KT_LOCK_NAME_SIZE];
    return CSPort::LockNameFor(path.c_str(), name) ? name : "";
}

using Files = vt::Logged;

// A process holding the line is killed: its lock file stays, but its
// advisory lock went with it, so the next open takes the file over.
TEST_F(Files, LockOfAKilledProcessIsTakenOver) {
    vt::PtyPair pty;
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    const pid_t holder = fork();
    ASSERT_GE(holder, 0);
    if (holder == 0) {
        std::unique_ptr<CSPort> port;
        char result = OpenLine(port, pty.Path()) == 0 ? 1 : 0;
        if (write(ready[1], &result, 1) != 1) _exit(1);
        pause();  // until killed
        _exit(0);
    }
    close(ready[1]);
    char opened = 0;
    ASSERT_EQ(read(ready[0], &opened, 1), 1);
    close(ready[0]);
    ASSERT_EQ(opened, 1);

    std::unique_ptr<CSPort> port;
    EXPECT_EQ(OpenLine(port, pty.Path()), 0x16000000u);  // its holder is alive
    ASSERT_EQ(kill(holder, SIGKILL), 0);
    ASSERT_EQ(waitpid(holder, nullptr, 0), holder);
    ASSERT_TRUE(vt::FileExists(pty.LockName()));  // left behind
    ASSERT_EQ(OpenLine(port, pty.Path()), 0u) << vt::Log();
    EXPECT_TRUE(vt::Contains(vt::Log(), "<INFO> CreateLockFile: Stale lock file " + pty.LockName() + " taken over.\n"));
    EXPECT_EQ(port->ClosePort(), 0u);
    EXPECT_FALSE(vt::FileExists(pty.LockName()));
}

// The same terminal under another name gets another lock file, but the
// lock on the terminal itself refuses it.
TEST_F(Files, OtherNameOfAnOpenTerminalIsRefused) {
    vt::PtyPair pty;
    const std::string link = vt::RuntimeDir() + "/vyrix_tty_link";
    ASSERT_EQ(symlink(pty.Path().c_str(), link.c_str()), 0);
    std::unique_ptr<CSPort> first, second;
    ASSERT_EQ(OpenLine(first, pty.Path()), 0u);
    EXPECT_EQ(OpenLine(second, link), 0x16000000u);
    EXPECT_FALSE(vt::FileExists(LockNameFor(link)));  // its lock file went with the refusal
    EXPECT_TRUE(vt::Contains(vt::Log(), "<ERROR> OpenPort Device not connected\n"));
    EXPECT_EQ(first->ClosePort(), 0u);
    EXPECT_EQ(OpenLine(second, link), 0u);  // free again
    EXPECT_EQ(OpenLine(first, pty.Path()), 0x16000000u);
    EXPECT_FALSE(vt::FileExists(pty.LockName()));
    unlink(link.c_str());
}

// What is not a terminal is refused as a device that cannot be opened, is
// not written to, and leaves no lock file.
TEST_F(Files, OnlyTerminalsAreSerialPorts) {
    const std::string path = vt::RuntimeDir() + "/not_a_terminal";
    const std::function<int()> makers[] = {
        [&] { return close(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)); },
        [&] { return mkfifo(path.c_str(), 0600); }};
    for (const auto& make : makers) {
        ASSERT_EQ(make(), 0);
        std::unique_ptr<CSPort> port;
        EXPECT_EQ(OpenLine(port, path), 0x01000000u);
        EXPECT_FALSE(vt::FileExists(LockNameFor(path)));
        struct stat st {};
        ASSERT_EQ(stat(path.c_str(), &st), 0);
        EXPECT_EQ(st.st_size, 0);
        unlink(path.c_str());
    }
    EXPECT_TRUE(vt::Contains(vt::Log(), "<INFO> OpenPort Opening '" + path + "' failed\n"));
}

// Missing or malformed addresses and keys: refused before any file, socket
// or adapter is touched.
TEST_F(Files, MalformedBluetoothAddressesAreRefusedFirst) {
    const std::string tooLong(25, 'A');
    const char* cases[][2] = {{nullptr, "0000"},           {"00:11:22:33:44:55", nullptr},
                              {tooLong.c_str(), ""},       {"", "0"},
                              {"00:11:22:33:44", "0"},     {"00:11:22:33:44:55:66", "0"},
                              {"00:11:22:33:44:5", "0"},   {"00-11-22-33-44-55", "0"},
                              {"001122334455", "0"},       {"0:011:22:33:44:55", "0"},
                              {"00:11:22:33:44:5G", "0"},  {"00:11:22:33:44:55 ", "0"},
                              {" 00:11:22:33:44:55", "0"}, {"../../x:11:22:33:44", "0"}};
    const int fds = vt::OpenFds(), files = vt::CountEntries(vt::RuntimeDir().c_str());
    for (const auto& c : cases) {
        SCOPED_TRACE(c[0] ? c[0] : "(null)");
        CBTPort port(c[0], c[1]);
        EXPECT_EQ(port.OpenPort(), 0x05000000u);
        EXPECT_STREQ(port.LockFileName(), "");
    }
    EXPECT_EQ(vt::CountEntries(vt::RuntimeDir().c_str()), files);
    EXPECT_EQ(vt::OpenFds(), fds);
}

}  // namespace
