// SPDX-License-Identifier: MIT
// Lock files and ports against crashed holders and odd names: a lock names
// its holder and is taken over only when it is left over, one terminal under
// two names has one owner, only terminals are serial ports, and Bluetooth
// addresses are checked before anything is opened.
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <tuple>

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

// What a lock file holds for the process `pid`.
std::string Names(pid_t pid) {
    char text[16];
    snprintf(text, sizeof text, "%10d\n", static_cast<int>(pid));
    return text;
}

// A process that lives until Stop(), waiting on a pipe: a holder that is
// alive, or, stopped and reaped, one that is gone.
class Child {
public:
    Child() {
        int wake[2];
        if (pipe2(wake, O_CLOEXEC) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            char c;
            close(wake[1]);
            while (read(wake[0], &c, 1) > 0) {
            }
            _exit(0);
        }
        close(wake[0]);
        wake_ = wake[1];
    }
    ~Child() { Stop(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    pid_t Pid() const { return pid_; }
    void Stop() {
        if (wake_ < 0) return;
        close(wake_);
        wake_ = -1;
        if (pid_ > 0) waitpid(pid_, nullptr, 0);
    }

private:
    pid_t pid_ = -1;
    int wake_ = -1;
};

using Files = vt::Logged;

// Whatever is found under the lock name is taken over only when nobody locks
// it and it is left over: its process is gone, or it is older than the
// boot.  Otherwise the open is refused and the file stays as it was.
TEST_F(Files, LockFileIsTakenOverOnlyWhenLeftOver) {
    enum Holder { kNobody, kAlive, kGone };
    const struct {
        const char* what;
        const char* text;  // printf form of the file, given the pid; nullptr: no file
        Holder holder;
        bool beforeBoot, locked, taken;
    } cases[] = {
        {"no file", nullptr, kNobody, false, false, true},
        {"empty", "", kNobody, false, false, false},
        {"holder alive", "%10d\n", kAlive, false, false, false},
        {"not a number", "pid %d\n", kGone, false, false, false},
        {"holder gone", "%10d\n", kGone, false, false, true},
        {"holder gone, unpadded", "%d", kGone, false, false, true},
        {"holder gone, blanks", "  %d \n", kGone, false, false, true},
        {"holder gone, file locked", "%10d\n", kGone, false, true, false},
        {"empty, before boot", "", kNobody, true, false, true},
        {"holder alive, before boot", "%10d\n", kAlive, true, false, true},
        {"empty, before boot, file locked", "", kNobody, true, true, false},
    };
    vt::PtyPair pty;
    const std::string lock = pty.LockName();
    const std::string stale = "<INFO> CreateLockFile: Stale lock file " + lock + " taken over.\n";
    const auto stamp = [](const struct stat& st) {
        return std::make_tuple(st.st_ino, st.st_mtim.tv_sec, st.st_mtim.tv_nsec, st.st_ctim.tv_sec, st.st_ctim.tv_nsec);
    };
    size_t takenOver = vt::Occurrences(vt::Log(), stale);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Child child;
        if (c.holder == kGone) child.Stop();
        std::string before;
        int fd = -1;
        if (c.text != nullptr) {
            char text[32];
            snprintf(text, sizeof text, c.text, c.holder == kNobody ? 0 : static_cast<int>(child.Pid()));
            before = text;
            fd = open(lock.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
            ASSERT_GE(fd, 0);
            ASSERT_EQ(write(fd, before.data(), before.size()), static_cast<ssize_t>(before.size()));
            const struct timespec epoch[2] = {{0, 0}, {0, 0}};
            ASSERT_EQ(c.beforeBoot ? futimens(fd, epoch) : 0, 0);
            ASSERT_EQ(c.locked ? flock(fd, LOCK_EX) : 0, 0);
        }
        struct stat was {};
        lstat(lock.c_str(), &was);

        std::unique_ptr<CSPort> port;
        EXPECT_EQ(OpenLine(port, pty.Path()), c.taken ? 0u : 0x16000000u);
        EXPECT_EQ(vt::ReadFile(lock), c.taken ? Names(getpid()) : before);
        if (c.taken && c.text != nullptr) ++takenOver;
        EXPECT_EQ(vt::Occurrences(vt::Log(), stale), takenOver);
        struct stat is {};
        ASSERT_EQ(lstat(lock.c_str(), &is), 0);
        if (!c.taken) {
            EXPECT_EQ(stamp(is), stamp(was));  // not even truncated and written back
        }
        EXPECT_EQ(port->ClosePort(), 0u);
        EXPECT_EQ(vt::FileExists(lock), !c.taken);  // ours goes with the port, another's stays
        if (fd >= 0) close(fd);
        unlink(lock.c_str());
    }
}

// A process holding the line is killed: its lock file stays, naming it, but
// its advisory lock went with it, so the next open takes the file over.
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
    EXPECT_EQ(vt::ReadFile(pty.LockName()), Names(holder));
    ASSERT_EQ(kill(holder, SIGKILL), 0);
    ASSERT_EQ(waitpid(holder, nullptr, 0), holder);
    ASSERT_TRUE(vt::FileExists(pty.LockName()));  // left behind
    ASSERT_EQ(OpenLine(port, pty.Path()), 0u) << vt::Log();
    EXPECT_EQ(vt::ReadFile(pty.LockName()), Names(getpid()));
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
