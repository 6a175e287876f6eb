// SPDX-License-Identifier: MIT
#include "LLC_EventNotifier.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

CEventNotifier::~CEventNotifier() { Close(); }

int CEventNotifier::Fd() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fd < 0 && !m_closed) {
        m_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        m_active = m_fd >= 0;
    }
    return m_fd;
}

void CEventNotifier::Update(const std::function<bool()>& ready) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fd < 0) return;
    const bool want = ready();
    if (want == m_readable) return;
    uint64_t value = 1;
    // The counter is 0 or 1: a write sets it, a read clears it.
    const ssize_t done = want ? write(m_fd, &value, sizeof value) : read(m_fd, &value, sizeof value);
    if (done == static_cast<ssize_t>(sizeof value)) m_readable = want;
}

void CEventNotifier::Close() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_closed = true;
    m_active = false;
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
    m_readable = false;
}
