// SPDX-License-Identifier: MIT
#include "LLC_Thread.h"

#include <chrono>

CThreadObject::CThreadObject()
    : m_threadID(), m_started(false), m_userRoutine(nullptr), m_userData(nullptr), m_thread_active(false) {}

CThreadObject::~CThreadObject() {
    if (m_started) CloseThread();
}

Vyrix_ReturnStatus CThreadObject::createThread(KT_THREAD_ROUTINE userProcess, void* userData, const char* name) {
    if (userProcess == nullptr) return RC(eVYRIX_INVALID_ARGUMENT);
    if (m_started) return RC(eVYRIX_FAILURE);
    m_userRoutine = userProcess;
    m_userData = userData;
    {
        // Set before the thread exists, so a worker that returns at once
        // cannot leave it set.
        std::lock_guard<std::mutex> lock(m_mutex);
        m_thread_active = true;
    }
    int err = pthread_create(&m_threadID, nullptr, threadRoutine, this);
    if (err != 0) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_thread_active = false;
        LlcLog("<ERROR> %s: Error Creating Thread. %d\n", "createThread", err);
        return RC(eVYRIX_FAILURE);
    }
    if (name != nullptr) pthread_setname_np(m_threadID, name);
    m_started = true;
    return RC_OK;
}

void* CThreadObject::threadRoutine(void* arg) {
    auto* self = static_cast<CThreadObject*>(arg);
    self->m_userRoutine(self->m_userData);
    {
        std::lock_guard<std::mutex> lock(self->m_mutex);
        self->m_thread_active = false;
    }
    self->m_ended.notify_all();
    return nullptr;
}

Vyrix_ReturnStatus CThreadObject::CloseThread() {
    if (!m_started) return RC_OK;
    if (IsCurrent()) return RC(eVYRIX_FAILURE);
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_ended.wait_for(lock, std::chrono::milliseconds(KT_THREAD_CLOSE_POLL_MS),
                                 [this] { return !m_thread_active; }))
            LlcLog("<ERROR> %s: Thread still active!!\n", "CloseThread");
    }
    int err = pthread_join(m_threadID, nullptr);
    if (err != 0) LlcLog("<ERROR> %s: Error joining thread. %d\n", "CloseThread", err);
    m_started = false;
    return RC_OK;
}

bool CThreadObject::IsActive() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_thread_active;
}

bool CThreadObject::IsCurrent() const { return m_started && pthread_equal(m_threadID, pthread_self()); }
