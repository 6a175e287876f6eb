// SPDX-License-Identifier: MIT
#include "LLC_PortWaiter.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

CPortWaiter::CPortWaiter() : m_wakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

CPortWaiter::~CPortWaiter() {
    if (m_wakeFd >= 0) close(m_wakeFd);
}

CPortWaiter::Outcome CPortWaiter::Wait(int fd, short events, const CDeadline& deadline) {
    for (;;) {
        struct pollfd fds[2] = {{fd, events, 0}, {m_wakeFd, POLLIN, 0}};
        int ready = poll(fds, m_wakeFd >= 0 ? 2 : 1, deadline.PollTimeout());
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) return kHangup;
        if (ready == 0) return kTimeout;
        if (m_wakeFd >= 0 && (fds[1].revents & POLLIN)) return kWoken;
        // Data still waiting is read first; the hang-up shows on the next read.
        if (fds[0].revents & events) return kReady;
        return kHangup;  // POLLHUP, POLLERR or POLLNVAL without the event
    }
}

void CPortWaiter::Wake() {
    // The counter stays non-zero: the wake descriptor remains readable.
    uint64_t one = 1;
    if (m_wakeFd >= 0 && write(m_wakeFd, &one, sizeof one) < 0) {
        // Full counter: it is readable already.
    }
}
