/* SPDX-License-Identifier: MIT */
// One worker thread whose owner waits until it has returned and then
// reclaims it.
#ifndef LLC_THREAD_H
#define LLC_THREAD_H

#include <pthread.h>

#include <condition_variable>
#include <mutex>

#include "LLC_Common.h"

typedef int (*KT_THREAD_ROUTINE)(void*);

class CThreadObject {
public:
    CThreadObject();
    ~CThreadObject();
    CThreadObject(const CThreadObject&) = delete;
    CThreadObject& operator=(const CThreadObject&) = delete;

    // 0; 0x5000000 for a null routine; 0x1000000 when a thread exists
    // already or cannot be made.  `name` (at most 15 characters) is what
    // tools such as top show for the thread.
    Vyrix_ReturnStatus createThread(KT_THREAD_ROUTINE userProcess, void* userData, const char* name = nullptr);

    // Waits until the worker has returned, then joins it.  It does not stop
    // the worker: the owner ends its loop first.  "Thread still active!!" is
    // logged each time 250 ms pass without the worker ending.
    Vyrix_ReturnStatus CloseThread();

    bool IsActive();
    // True when called on the worker itself (which cannot wait for itself).
    bool IsCurrent() const;

private:
    static void* threadRoutine(void* arg);

    pthread_t m_threadID;
    bool m_started;
    KT_THREAD_ROUTINE m_userRoutine;
    void* m_userData;
    std::mutex m_mutex;
    std::condition_variable m_ended;
    bool m_thread_active;
};

#endif  // LLC_THREAD_H
