/* SPDX-License-Identifier: MIT */
// A descriptor that an event loop polls: readable exactly while its owner
// says there is something to take, never for anything else.  The owner
// recomputes that condition after every change that could alter it;
// Update runs the computation under this object's lock, so the descriptor
// always ends up matching the last computation.
#ifndef LLC_EVENTNOTIFIER_H
#define LLC_EVENTNOTIFIER_H

#include <atomic>
#include <functional>
#include <mutex>

class CEventNotifier {
public:
    CEventNotifier() = default;
    ~CEventNotifier();
    CEventNotifier(const CEventNotifier&) = delete;
    CEventNotifier& operator=(const CEventNotifier&) = delete;

    // The descriptor (an eventfd, close-on-exec, non-blocking), made on the
    // first call; -1 when it cannot be made or the notifier is closed.
    int Fd();
    // Whether anyone asked for the descriptor (until Close).
    bool Active() const { return m_active; }
    // Makes the descriptor readable while `ready()` is true.  The callable
    // runs under this object's lock and must not call back into it.
    void Update(const std::function<bool()>& ready);
    // Closes the descriptor for good.
    void Close();

private:
    std::mutex m_mutex;
    int m_fd = -1;
    bool m_readable = false;
    bool m_closed = false;
    std::atomic<bool> m_active{false};
};

#endif  // LLC_EVENTNOTIFIER_H
