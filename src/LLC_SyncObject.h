/* SPDX-License-Identifier: MIT */
// A plain, non-recursive mutex.
#ifndef LLC_SYNCOBJECT_H
#define LLC_SYNCOBJECT_H

#include <pthread.h>

class CSyncObject {
public:
    CSyncObject();
    ~CSyncObject();
    CSyncObject(const CSyncObject&) = delete;
    CSyncObject& operator=(const CSyncObject&) = delete;

    // Failures are logged only; the caller proceeds as if it had the lock.
    void LockSyncObject();
    void UnlockSyncObject();

    // For condition variables that pair with this mutex.
    pthread_mutex_t* NativeHandle() { return &m_mutex; }

private:
    pthread_mutex_t m_mutex;
};

#endif  // LLC_SYNCOBJECT_H
