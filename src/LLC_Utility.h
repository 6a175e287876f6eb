// Small services shared by the ports: sleeping and lock files.
#ifndef LLC_UTILITY_H
#define LLC_UTILITY_H

#include <cerrno>
#include <cstddef>

#include "LLC_Common.h"

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

// Writes all `len` bytes with `write` (a write(2)-like call); on EBUSY or
// EAGAIN it logs, waits 25 ms and writes the rest again, without limit.
// 0, or 0x1000000 after logging any other failure.
template <typename WriteFn>
Vyrix_ReturnStatus WriteWithRetry(const unsigned char* buf, size_t len, WriteFn write) {
    size_t done = 0;
    while (done < len) {
        ssize_t n = write(buf + done, len - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && (errno == EBUSY || errno == EAGAIN)) {
            LlcLog("<INFO> %s: Resource is temporarily unavailable\n", "WritePort");
            LLCSleep(KT_WRITE_RETRY_MS);
        } else {
            LlcLog("<ERROR> %s: Write Failed.\n", "WritePort");
            return RC(eVYRIX_FAILURE);
        }
    }
    return RC_OK;
}

#endif  // LLC_UTILITY_H
