/* SPDX-License-Identifier: MIT */
// Waits for a port descriptor to become ready, with a deadline and a wake
// descriptor in the same poll, so a close ends a read or write at once
// instead of waiting for the device.
#ifndef LLC_PORTWAITER_H
#define LLC_PORTWAITER_H

#include "LLC_Deadline.h"

class CPortWaiter {
public:
    enum Outcome { kReady, kWoken, kHangup, kTimeout };

    CPortWaiter();
    ~CPortWaiter();
    CPortWaiter(const CPortWaiter&) = delete;
    CPortWaiter& operator=(const CPortWaiter&) = delete;

    // Waits until `fd` is ready for `events` (POLLIN or POLLOUT), the
    // deadline passes, Wake() was called, or the other end hung up.
    Outcome Wait(int fd, short events, const CDeadline& deadline);

    // Ends the current wait and every later one at once.
    void Wake();

private:
    int m_wakeFd;
};

#endif  // LLC_PORTWAITER_H
