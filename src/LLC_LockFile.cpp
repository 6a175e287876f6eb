// SPDX-License-Identifier: MIT
#include "LLC_LockFile.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>

#include "LLC_Common.h"

namespace {
// A name that keeps changing under us (other processes creating and
// removing it at that very moment) is given up after this many tries.
constexpr unsigned kAttempts = 4;

bool SameFile(const struct stat& a, const struct stat& b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

// The process a lock file names: its id in text, blanks around it allowed,
// as every program that follows the convention writes it.  0 when the file
// names nobody (empty, binary, anything else).
pid_t NamedPid(int fd) {
    char text[32];
    const ssize_t n = pread(fd, text, sizeof text, 0);
    if (n <= 0 || n == static_cast<ssize_t>(sizeof text)) return 0;
    const auto blank = [&](ssize_t i) { return i < n && isspace(static_cast<unsigned char>(text[i])) != 0; };
    ssize_t i = 0;
    while (blank(i)) ++i;
    const ssize_t first = i;
    long long pid = 0;
    for (; i < n && text[i] >= '0' && text[i] <= '9' && pid <= INT_MAX; ++i) pid = pid * 10 + (text[i] - '0');
    while (blank(i)) ++i;
    return i == n && i > first && pid <= INT_MAX ? static_cast<pid_t>(pid) : 0;
}

// Read from the clocks each time rather than kept: nothing here outlives a
// call, so a forked process inherits no state of ours.
time_t BootTime() {
    struct timespec now {};
    struct timespec up {};
    clock_gettime(CLOCK_REALTIME, &now);
    clock_gettime(CLOCK_BOOTTIME, &up);
    return now.tv_sec - up.tv_sec - (now.tv_nsec < up.tv_nsec ? 1 : 0);
}

// Whether a file nobody holds the advisory lock of is left over.  Its
// process is gone, or it was made before this boot: then the process it
// names, if any, is not the one that made it.  A file that names no process
// belongs to some other program until the next boot.
bool LeftOver(int fd) {
    struct stat st {};
    if (fstat(fd, &st) != 0) return false;
    const pid_t pid = NamedPid(fd);
    if (pid > 0 && kill(pid, 0) != 0 && errno == ESRCH) return true;  // EPERM: alive, another user's
    return st.st_mtim.tv_sec < BootTime();
}

bool WritePid(int fd) {
    char text[16];
    const int n = snprintf(text, sizeof text, "%10d\n", static_cast<int>(getpid()));
    return n > 0 && ftruncate(fd, 0) == 0 && pwrite(fd, text, static_cast<size_t>(n), 0) == n;
}
}  // namespace

CLockFile::~CLockFile() {
    if (m_fd >= 0) close(m_fd);
}

void CLockFile::Remember(int fd, const struct stat& st) {
    m_fd = fd;
    m_dev = st.st_dev;
    m_ino = st.st_ino;
    m_modified = st.st_mtim;
}

// `fd` holds the advisory lock, `out` is the same file open for writing.
// What is remembered is the file as written, or Release would not know it.
// A file left half written would name nobody and keep the device until the
// next boot, so it goes.
CLockFile::Attempt CLockFile::Claim(const char* name, int fd, int out) {
    struct stat written {};
    if (!WritePid(out) || fstat(fd, &written) != 0) {
        unlink(name);
        close(fd);
        return Attempt::kRefused;
    }
    Remember(fd, written);
    return Attempt::kTaken;
}

// The advisory lock is taken after the file exists, so the name is checked
// again once it is held: a holder deletes its file before it drops the lock,
// and a file that is no longer under the name is nobody's lock.  Until our
// id is in it the new file names nobody, so no other port takes it over.
CLockFile::Attempt CLockFile::TryCreate(const char* name) {
    int fd = open(name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) return errno == EEXIST ? Attempt::kRetry : Attempt::kRefused;
    struct stat mine {};
    struct stat named {};
    if (flock(fd, LOCK_EX | LOCK_NB) != 0 || fstat(fd, &mine) != 0 || lstat(name, &named) != 0 ||
        !SameFile(mine, named)) {
        // Replaced under the name, or locked by some other program: not
        // ours to write or remove.
        close(fd);
        return Attempt::kRefused;
    }
    return Claim(name, fd, fd);
}

CLockFile::Attempt CLockFile::TryTakeOver(const char* name) {
    struct stat named {};
    if (lstat(name, &named) != 0) return errno == ENOENT ? Attempt::kRetry : Attempt::kRefused;
    // Only a regular file can be a lock file; anything else planted under
    // the name (a link, a FIFO, a device) is never opened.
    if (!S_ISREG(named.st_mode)) return Attempt::kRefused;
    int fd = open(name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return errno == ENOENT ? Attempt::kRetry : Attempt::kRefused;
    // The file of a live holder is not even locked here, so a port that
    // has just created its file never finds it locked by us.
    struct stat opened {};
    if (fstat(fd, &opened) != 0 || !S_ISREG(opened.st_mode) || !LeftOver(fd) || flock(fd, LOCK_EX | LOCK_NB) != 0) {
        close(fd);  // its owner is alive
        return Attempt::kRefused;
    }
    if (lstat(name, &named) != 0 || !SameFile(opened, named)) {
        close(fd);  // deleted (or replaced) while we locked it
        return Attempt::kRetry;
    }
    if (!LeftOver(fd)) {
        close(fd);  // claimed in place by a program that does not lock
        return Attempt::kRefused;
    }
    // Written through a second descriptor: only a file found left over is
    // ever opened for writing, and the advisory lock stays where it is.
    const int out = open(name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    struct stat target {};
    if (out < 0 || fstat(out, &target) != 0 || !SameFile(opened, target)) {
        if (out >= 0) close(out);
        close(fd);  // not ours to write (another user's), or replaced meanwhile
        return Attempt::kRefused;
    }
    const Attempt result = Claim(name, fd, out);
    close(out);
    return result;
}

pid_t CLockFile::HolderOf(const char* name) {
    const int fd = open(name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return 0;
    struct stat st {};
    const pid_t pid = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) ? NamedPid(fd) : 0;
    close(fd);
    return pid;
}

bool CLockFile::Acquire(const char* name, int* pOpenResult) {
    *pOpenResult = -1;
    if (m_fd >= 0) return false;
    for (unsigned attempt = 0; attempt < kAttempts; ++attempt) {
        Attempt result = TryCreate(name);
        if (result == Attempt::kRetry) {
            result = TryTakeOver(name);
            if (result == Attempt::kTaken)
                LlcLog("<INFO> %s: Stale lock file %s taken over.\n", "CreateLockFile", name);
        }
        if (result == Attempt::kTaken) {
            *pOpenResult = m_fd;
            return true;
        }
        if (result == Attempt::kRefused) return false;
    }
    return false;
}

bool CLockFile::Release(char* lockName) {
    bool removed = true;
    if (lockName[0] != '\0') {
        struct stat st {};
        const bool ours = m_fd >= 0 && lstat(lockName, &st) == 0 && st.st_dev == m_dev && st.st_ino == m_ino &&
                          st.st_mtim.tv_sec == m_modified.tv_sec && st.st_mtim.tv_nsec == m_modified.tv_nsec;
        removed = ours && remove(lockName) == 0;
    }
    lockName[0] = '\0';
    // The file goes before the advisory lock: whoever gets the lock next
    // finds the name free or holding a new file.
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
    return removed;
}
