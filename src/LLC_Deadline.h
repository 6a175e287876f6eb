/* SPDX-License-Identifier: MIT */
// A point on the monotonic clock that a wait must not pass.  Every wait of
// the link layer (queue waits, port reads and writes, joins) takes one, so
// a caller's time-out holds across the steps of one exchange.
#ifndef LLC_DEADLINE_H
#define LLC_DEADLINE_H

#include <chrono>
#include <climits>

class CDeadline {
public:
    using Clock = std::chrono::steady_clock;

    static CDeadline After(unsigned long ms) { return CDeadline(Clock::now() + std::chrono::milliseconds(ms)); }
    static CDeadline Never() { return CDeadline(); }

    bool IsNever() const { return m_never; }
    bool Expired() const { return !m_never && Clock::now() >= m_when; }
    Clock::time_point When() const { return m_when; }

    // Milliseconds left, rounded up so a poll does not wake just before the
    // deadline; -1 (wait without limit) for Never.
    int PollTimeout() const {
        if (m_never) return -1;
        auto left = std::chrono::ceil<std::chrono::milliseconds>(m_when - Clock::now()).count();
        if (left <= 0) return 0;
        return left > INT_MAX ? INT_MAX : static_cast<int>(left);
    }

private:
    CDeadline() : m_when(Clock::time_point::max()), m_never(true) {}
    explicit CDeadline(Clock::time_point when) : m_when(when), m_never(false) {}

    Clock::time_point m_when;
    bool m_never;
};

#endif  // LLC_DEADLINE_H
