#include "LLC_Utility.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

void LLCSleep(unsigned long ulMilliSecs) {
    // The microsecond count is 32 bits wide, as usleep's was.
    uint32_t micros = static_cast<uint32_t>(ulMilliSecs * 1000UL);
    struct timespec ts {};
    ts.tv_sec = micros / 1000000U;
    ts.tv_nsec = static_cast<long>(micros % 1000000U) * 1000L;
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

extern "C" void KtSleep(DWORD dwMilliSecs) {
    try {
        LLCSleep(dwMilliSecs);
    } catch (...) {
    }
}

bool CreateExclusiveLockFile(const char* name, int* pOpenResult, LockIdentity* identity) {
    int fd = open(name, O_RDONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    *pOpenResult = fd;
    if (fd < 0) return false;
    struct stat st {};
    fstat(fd, &st);
    identity->dev = st.st_dev;
    identity->ino = st.st_ino;
    identity->modified = st.st_mtim;
    close(fd);
    return true;
}

bool ReleaseLockFile(char* lockName, const LockIdentity& identity) {
    bool removed = true;
    if (lockName[0] != '\0') {
        struct stat st {};
        const bool ours = lstat(lockName, &st) == 0 && st.st_dev == identity.dev && st.st_ino == identity.ino &&
                          st.st_mtim.tv_sec == identity.modified.tv_sec &&
                          st.st_mtim.tv_nsec == identity.modified.tv_nsec;
        removed = ours && remove(lockName) == 0;
    }
    lockName[0] = '\0';
    return removed;
}
