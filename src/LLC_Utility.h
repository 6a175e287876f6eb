// Small services shared by the ports: sleeping, file names and writing.
#ifndef LLC_UTILITY_H
#define LLC_UTILITY_H

#include <cerrno>
#include <cstddef>

#include "LLC_Common.h"

#include <sys/types.h>

// The directory of the log and the lock files: $VYRIX_RUNTIME_DIR when it
// is set and not empty, /tmp otherwise.
const char* RuntimeDir();

// Formats a file name inside RuntimeDir() into `out` ("<dir>/" followed by
// the formatted text); false, with `out` emptied, when it does not fit in
// `size` bytes.
bool RuntimeFileName(char* out, size_t size, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

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
