// SPDX-License-Identifier: MIT
#include "LLC_SyncObject.h"

#include <new>

#include "LLC_Common.h"

CSyncObject::CSyncObject() { pthread_mutex_init(&m_mutex, nullptr); }

CSyncObject::~CSyncObject() { pthread_mutex_destroy(&m_mutex); }

void CSyncObject::LockSyncObject() {
    int err = pthread_mutex_lock(&m_mutex);
    if (err != 0) LlcLog("Lock sync object failed :%d\n", err);
}

void CSyncObject::UnlockSyncObject() {
    int err = pthread_mutex_unlock(&m_mutex);
    if (err != 0) LlcLog("UnLock sync object failed errno :%d\n", err);
}

namespace {
Vyrix_ReturnStatus InvalidHandle(const char* function) {
    LlcLog("<ERROR> %s:Invalid parameter\n", function);
    return RC(eVYRIX_INVALID_ARGUMENT);
}
}  // namespace

extern "C" Vyrix_ReturnStatus KtCreateSyncObject(void** pObj) {
    try {
        if (pObj == nullptr) return InvalidHandle("KtCreateSyncObject");
        *pObj = new CSyncObject();
        return RC_OK;
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

extern "C" Vyrix_ReturnStatus KtLockSyncObject(void* pObj) {
    try {
        if (pObj == nullptr) return InvalidHandle("KtLockSyncObject");
        static_cast<CSyncObject*>(pObj)->LockSyncObject();
        return RC_OK;
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

extern "C" Vyrix_ReturnStatus KtUnlockSyncObject(void* pObj) {
    try {
        if (pObj == nullptr) return InvalidHandle("KtUnlockSyncObject");
        static_cast<CSyncObject*>(pObj)->UnlockSyncObject();
        return RC_OK;
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

extern "C" Vyrix_ReturnStatus KtDestroySyncObj(void* pObj) {
    try {
        if (pObj == nullptr) return InvalidHandle("KtDestroySyncObj");
        delete static_cast<CSyncObject*>(pObj);
        return RC_OK;
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}
