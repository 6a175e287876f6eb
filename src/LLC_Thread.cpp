#include "LLC_Thread.h"

CThreadObject::CThreadObject()
    : m_threadID(0), m_userRoutine(nullptr), m_userData(nullptr), m_thread_attr(), m_thread_active(false) {}

CThreadObject::~CThreadObject() {
    if (m_threadID != 0) CloseThread();
}

Vyrix_ReturnStatus CThreadObject::createThread(KT_THREAD_ROUTINE userProcess, void* userData) {
    if (userProcess == nullptr) return RC(eVYRIX_INVALID_ARGUMENT);
    if (m_threadID != 0) return RC(eVYRIX_FAILURE);
    m_userRoutine = userProcess;
    m_userData = userData;

    int err = pthread_attr_init(&m_thread_attr);
    if (err != 0) {
        LlcLog("<ERROR> %s: pthread attributes init failed. %d\n", "createThread", err);
        return RC(eVYRIX_FAILURE);
    }
    err = pthread_attr_setdetachstate(&m_thread_attr, PTHREAD_CREATE_DETACHED);
    if (err != 0) {
        LlcLog("<ERROR> %s: Error setting thread attributes. %d\n", "createThread", err);
        pthread_attr_destroy(&m_thread_attr);
        return RC(eVYRIX_FAILURE);
    }
    // Set before the thread exists, so a worker that returns at once cannot
    // leave it set.
    m_thread_active = true;
    err = pthread_create(&m_threadID, &m_thread_attr, threadRoutine, this);
    if (err != 0) {
        m_thread_active = false;
        m_threadID = 0;
        pthread_attr_destroy(&m_thread_attr);
        LlcLog("<ERROR> %s: Error Creating Thread. %d\n", "createThread", err);
        return RC(eVYRIX_FAILURE);
    }
    return RC_OK;
}

void* CThreadObject::threadRoutine(void* arg) {
    auto* self = static_cast<CThreadObject*>(arg);
    self->m_userRoutine(self->m_userData);
    // The owner may destroy this object as soon as the flag drops: touch
    // nothing of it afterwards.
    self->m_thread_active = false;
    return nullptr;
}

Vyrix_ReturnStatus CThreadObject::CloseThread() {
    if (m_threadID != 0) {
        while (m_thread_active) {
            LlcLog("<ERROR> %s: Thread still active!!\n", "CloseThread");
            LLCSleep(KT_THREAD_CLOSE_POLL_MS);
        }
        int err = pthread_attr_destroy(&m_thread_attr);
        if (err != 0) LlcLog("<ERROR> %s: Error deleting thread attributes. %d\n", "CloseThread", err);
    }
    m_threadID = 0;
    return RC_OK;
}
