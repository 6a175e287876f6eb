// SPDX-License-Identifier: MIT
#include "LLC_Utility.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
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

const char* RuntimeDir() {
    const char* dir = getenv("VYRIX_RUNTIME_DIR");
    return dir != nullptr && dir[0] != '\0' ? dir : KT_RUNTIME_DIR_DEFAULT;
}

bool RuntimeFileName(char* out, size_t size, const char* fmt, ...) {
    int dirLen = snprintf(out, size, "%s/", RuntimeDir());
    bool fits = dirLen >= 0 && static_cast<size_t>(dirLen) < size;
    if (fits) {
        va_list args;
        va_start(args, fmt);
        int n = vsnprintf(out + dirLen, size - static_cast<size_t>(dirLen), fmt, args);
        va_end(args);
        fits = n >= 0 && static_cast<size_t>(n) < size - static_cast<size_t>(dirLen);
    }
    if (!fits && size > 0) out[0] = '\0';
    return fits;
}

Vyrix_ReturnStatus ReadAvailable(int fd, CPortWaiter& waiter, unsigned char* inbuf, int* outLen,
                                 const CDeadline& deadline) {
    for (;;) {
        CPortWaiter::Outcome outcome = waiter.Wait(fd, POLLIN, deadline);
        if (outcome == CPortWaiter::kTimeout || outcome == CPortWaiter::kWoken) return RC(eVYRIX_INCOMPLETE);
        ssize_t n = read(fd, inbuf, KT_XLNK_MAX_PACKET);
        if (n > 0) {
            *outLen = static_cast<int>(n);
            return RC_OK;
        }
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        return RC(eVYRIX_NOT_CONNECTED);
    }
}
