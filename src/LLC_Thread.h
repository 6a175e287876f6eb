// One detached worker thread whose owner can wait until it has returned.
#ifndef LLC_THREAD_H
#define LLC_THREAD_H

#include <pthread.h>

#include <atomic>

#include "LLC_Common.h"

typedef int (*KT_THREAD_ROUTINE)(void*);

class CThreadObject {
public:
    CThreadObject();
    ~CThreadObject();
    CThreadObject(const CThreadObject&) = delete;
    CThreadObject& operator=(const CThreadObject&) = delete;

    // 0; 0x5000000 for a null routine; 0x1000000 when a thread exists
    // already or cannot be made.
    Vyrix_ReturnStatus createThread(KT_THREAD_ROUTINE userProcess, void* userData);

    // Waits (polling every 250 ms) until the worker has returned.  It does
    // not stop the worker: the owner ends its loop first.
    Vyrix_ReturnStatus CloseThread();

    bool IsActive() const { return m_thread_active.load(); }

private:
    static void* threadRoutine(void* arg);

    pthread_t m_threadID;
    KT_THREAD_ROUTINE m_userRoutine;
    void* m_userData;
    pthread_attr_t m_thread_attr;
    std::atomic<bool> m_thread_active;
};

#endif  // LLC_THREAD_H
