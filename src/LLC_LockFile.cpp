#include "LLC_LockFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "LLC_Common.h"

namespace {
// A name that keeps changing under us (other processes creating and
// removing it at that very moment) is given up after this many tries.
constexpr unsigned kAttempts = 4;

bool SameFile(const struct stat& a, const struct stat& b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }
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

// The advisory lock is taken after the file exists, so the name is checked
// again once it is held: a holder deletes its file before it drops the lock,
// and a file that is no longer under the name is nobody's lock.
CLockFile::Attempt CLockFile::TryCreate(const char* name) {
    int fd = open(name, O_RDONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) return errno == EEXIST ? Attempt::kRetry : Attempt::kRefused;
    struct stat mine {};
    struct stat named {};
    if (flock(fd, LOCK_EX | LOCK_NB) != 0 || fstat(fd, &mine) != 0 || lstat(name, &named) != 0 ||
        !SameFile(mine, named)) {
        // Another process took the new file over before we locked it: it is
        // that process's lock now.
        close(fd);
        return Attempt::kRefused;
    }
    Remember(fd, mine);
    return Attempt::kTaken;
}

CLockFile::Attempt CLockFile::TryTakeOver(const char* name) {
    struct stat named {};
    if (lstat(name, &named) != 0) return errno == ENOENT ? Attempt::kRetry : Attempt::kRefused;
    // Only a regular file can be a lock file; anything else planted under
    // the name (a link, a FIFO, a device) is never opened.
    if (!S_ISREG(named.st_mode)) return Attempt::kRefused;
    int fd = open(name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return errno == ENOENT ? Attempt::kRetry : Attempt::kRefused;
    struct stat opened {};
    if (fstat(fd, &opened) != 0 || !S_ISREG(opened.st_mode) || flock(fd, LOCK_EX | LOCK_NB) != 0) {
        close(fd);  // held: its owner is alive
        return Attempt::kRefused;
    }
    if (lstat(name, &named) != 0 || !SameFile(opened, named)) {
        close(fd);  // deleted (or replaced) while we locked it
        return Attempt::kRetry;
    }
    Remember(fd, opened);
    return Attempt::kTaken;
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
