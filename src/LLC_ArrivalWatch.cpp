// SPDX-License-Identifier: MIT
#include "LLC_ArrivalWatch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

CArrivalWatch::CArrivalWatch() : m_wakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

CArrivalWatch::~CArrivalWatch() {
    if (m_wakeFd >= 0) close(m_wakeFd);
}

CArrivalWatch::Outcome CArrivalWatch::Wait(const CDeadline& deadline) {
    bool watchSource = Source() >= 0;
    for (;;) {
        struct pollfd fds[2] = {{m_wakeFd, POLLIN, 0}, {Source(), POLLIN, 0}};
        const int ready = poll(fds, watchSource ? 2 : 1, deadline.PollTimeout());
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return kTimeout;
        if (fds[0].revents & POLLIN) {
            uint64_t count = 0;
            if (read(m_wakeFd, &count, sizeof count) < 0) {
                // Read by an earlier wait already: woken all the same.
            }
            return kWoken;
        }
        // A source in error is left out for the rest of this pause.
        if (!(fds[1].revents & POLLIN)) watchSource = false;
        if (watchSource && TakeArrival()) return kArrived;
        if (deadline.Expired()) return kTimeout;
    }
}

void CArrivalWatch::Wake() {
    uint64_t one = 1;
    if (m_wakeFd >= 0 && write(m_wakeFd, &one, sizeof one) < 0) {
        // A full counter: the next wait wakes anyway.
    }
}
