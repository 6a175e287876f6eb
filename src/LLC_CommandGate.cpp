// SPDX-License-Identifier: MIT
#include "LLC_CommandGate.h"

Vyrix_ReturnStatus CCommandGate::Enter(const CDeadline& deadline) {
    std::unique_lock<std::mutex> lock(m_mutex);
    auto ready = [this] { return m_closed || !m_busy; };
    if (deadline.IsNever())
        m_free.wait(lock, ready);
    else if (!m_free.wait_until(lock, deadline.When(), ready))
        return RC(eVYRIX_INCOMPLETE);
    if (m_closed) return RC(eVYRIX_NOT_CONNECTED);
    m_busy = true;
    return RC_OK;
}

void CCommandGate::Leave() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_busy = false;
    }
    m_free.notify_one();
}

bool CCommandGate::Pause(const CDeadline& until) {
    // The holder is the only one who could call Leave, so only Close wakes
    // this wait before its deadline.
    std::unique_lock<std::mutex> lock(m_mutex);
    return !m_free.wait_until(lock, until.When(), [this] { return m_closed; });
}

void CCommandGate::Reopen() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_closed = false;
}

void CCommandGate::Close() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
    }
    m_free.notify_all();
}
