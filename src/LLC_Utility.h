/* SPDX-License-Identifier: MIT */
// Small services shared by the ports: sleeping, file names and writing.
#ifndef LLC_UTILITY_H
#define LLC_UTILITY_H

#include <cerrno>
#include <cstddef>

#include "LLC_Common.h"
#include "LLC_PortWaiter.h"

#include <poll.h>

#include <sys/types.h>

// The directory of the log and the lock files: $VYRIX_RUNTIME_DIR when it
// is set and not empty, /tmp otherwise.
const char* RuntimeDir();

// Formats a file name inside RuntimeDir() into `out` ("<dir>/" followed by
// the formatted text); false, with `out` emptied, when it does not fit in
// `size` bytes.
bool RuntimeFileName(char* out, size_t size, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

// Waits in `waiter` until `deadline` for input on the non-blocking
// descriptor `fd` and reads what is there (at most one longest packet).
// 0 with *outLen set; 0x7000000 nothing came in time, or the waiter was
// woken; 0x16000000 end of stream, a hang-up or a read error: the device is
// gone.
Vyrix_ReturnStatus ReadAvailable(int fd, CPortWaiter& waiter, unsigned char* inbuf, int* outLen,
                                 const CDeadline& deadline);

// Writes all `len` bytes with `write` (a write(2)-like call on the
// non-blocking descriptor `fd`), waiting in `waiter` while the device does
// not take more.  0; 0x16000000 when the other end hung up or the port is
// being closed; 0x1000000 after logging any other failure, or when no byte
// went out for KT_WRITE_STALL_MS.
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
        // A hung-up line or a reset stream: the device is gone.
        const bool gone = n < 0 && (errno == EIO || errno == EPIPE || errno == ECONNRESET || errno == ENXIO);
        return RC(gone ? eVYRIX_NOT_CONNECTED : eVYRIX_FAILURE);
    }
    return RC_OK;
}

#endif  // LLC_UTILITY_H
