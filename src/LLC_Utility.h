// Small services shared by the ports: sleeping and lock files.
#ifndef LLC_UTILITY_H
#define LLC_UTILITY_H

#include <cerrno>
#include <cstddef>

#include "LLC_Common.h"
#include "LLC_PortWaiter.h"

#include <poll.h>

#include <sys/types.h>
#include <time.h>

// Which file a lock is: a file planted under the same name later is not
// it, even when it gets the same inode number (its times differ).
struct LockIdentity {
    dev_t dev = 0;
    ino_t ino = 0;
    struct timespec modified = {0, 0};
};

// Creates the lock file `name` exclusively (mode 0644, never through a
// symbolic link); true when this call created it.
bool CreateExclusiveLockFile(const char* name, int* pOpenResult, LockIdentity* identity);

// Deletes the lock file named in `lockName` (if any) when it is still the
// file this process created, and empties the name.  Returns false when a
// name was held but the file could not be deleted or is no longer ours.
bool ReleaseLockFile(char* lockName, const LockIdentity& identity);

// Writes all `len` bytes with `write` (a write(2)-like call on the
// non-blocking descriptor `fd`), waiting in `waiter` while the device does
// not take more.  0; 0x1000000 after logging any other failure or when no
// byte went out for KT_WRITE_STALL_MS; 0x16000000 when the other end hung up
// or the port is being closed.
template <typename WriteFn>
Vyrix_ReturnStatus WriteWithRetry(const unsigned char* buf, size_t len, int fd, CPortWaiter& waiter, WriteFn write) {
    size_t done = 0;
    bool told = false;
    CDeadline stall = CDeadline::After(KT_WRITE_STALL_MS);
    while (done < len) {
        ssize_t n = write(buf + done, len - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
            stall = CDeadline::After(KT_WRITE_STALL_MS);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EBUSY || errno == EAGAIN)) {
            if (!told) LlcLog("<INFO> %s: Resource is temporarily unavailable\n", "WritePort");
            told = true;
            CPortWaiter::Outcome outcome = waiter.Wait(fd, POLLOUT, stall);
            if (outcome == CPortWaiter::kReady) continue;
            if (outcome != CPortWaiter::kTimeout) return RC(eVYRIX_NOT_CONNECTED);
        }
        LlcLog("<ERROR> %s: Write Failed.\n", "WritePort");
        return RC(eVYRIX_FAILURE);
    }
    return RC_OK;
}

#endif  // LLC_UTILITY_H
