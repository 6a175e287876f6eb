/* SPDX-License-Identifier: MIT */
// The state of one link as the application sees it (up, down,
// reconnecting), whether a change has not yet been read, and who is told
// of changes.  Delivering the changes is the callback dispatcher's job;
// this only keeps them consistent under one lock.
#ifndef LLC_LINKSTATE_H
#define LLC_LINKSTATE_H

#include <mutex>

#include "Vyrix_Api.h"

class CLinkState {
public:
    struct Listener {
        Vyrix_LinkStateCallbackFn fn;
        void* user;
        void* owner;  // the connection handle the callback is given
    };

    CLinkState() = default;
    CLinkState(const CLinkState&) = delete;
    CLinkState& operator=(const CLinkState&) = delete;

    // Moves to `state`; false (nothing recorded) when it is there already.
    bool Change(Vyrix_LinkStateE state);
    // The state, marking every change so far as read.
    Vyrix_LinkStateE Read();
    Vyrix_LinkStateE Current() const;
    bool Unread() const;

    void SetListener(const Listener& listener);
    Listener GetListener() const;

private:
    mutable std::mutex m_mutex;
    Vyrix_LinkStateE m_state = eVYRIX_LINK_UP;
    bool m_unread = false;
    Listener m_listener{nullptr, nullptr, nullptr};
};

#endif  // LLC_LINKSTATE_H
