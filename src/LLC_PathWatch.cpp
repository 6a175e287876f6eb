// SPDX-License-Identifier: MIT
#include "LLC_PathWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cstring>

CPathWatch::CPathWatch(const char* path) : m_inotifyFd(-1), m_tried(false) {
    const std::string full = path != nullptr ? path : "";
    const size_t slash = full.rfind('/');
    m_directory = slash == std::string::npos ? "." : (slash == 0 ? "/" : full.substr(0, slash));
    m_name = slash == std::string::npos ? full : full.substr(slash + 1);
}

CPathWatch::~CPathWatch() {
    if (m_inotifyFd >= 0) close(m_inotifyFd);
}

// Without inotify (or a directory to watch) the pause is a plain back-off.
int CPathWatch::Source() {
    if (!m_tried) {
        m_tried = true;
        m_inotifyFd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (m_inotifyFd >= 0 &&
            inotify_add_watch(m_inotifyFd, m_directory.c_str(), IN_CREATE | IN_MOVED_TO | IN_ATTRIB) < 0) {
            close(m_inotifyFd);
            m_inotifyFd = -1;
        }
    }
    return m_inotifyFd;
}

bool CPathWatch::TakeArrival() {
    alignas(inotify_event) char buf[4096];
    bool ours = false;
    for (;;) {
        const ssize_t n = read(m_inotifyFd, buf, sizeof buf);
        if (n <= 0) return ours;
        for (ssize_t at = 0; at < n;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buf + at);
            if (event->len > 0 && m_name == event->name) ours = true;
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
}
