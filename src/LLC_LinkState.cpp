// SPDX-License-Identifier: MIT
#include "LLC_LinkState.h"

bool CLinkState::Change(Vyrix_LinkStateE state) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state == state) return false;
    m_state = state;
    m_unread = true;
    return true;
}

Vyrix_LinkStateE CLinkState::Read() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_unread = false;
    return m_state;
}

Vyrix_LinkStateE CLinkState::Current() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_state;
}

bool CLinkState::Unread() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_unread;
}

void CLinkState::SetListener(const Listener& listener) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_listener = listener;
}

CLinkState::Listener CLinkState::GetListener() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_listener;
}
