// SPDX-License-Identifier: MIT
// The library context, its lock and the lifecycle operations.
#include "Vyrix_Internal.h"

#include <new>

#include "LLC_ForkGuard.h"
#include "LLC_Links.h"

std::atomic<Vyrix_LibraryContext*> g_pLibCtx{nullptr};
void* g_pSyncObj = nullptr;

namespace {
constexpr Vyrix_ReturnStatus Result(Vyrix_ReturnCodeE code) { return VYRIX_RESULT(code); }

void LockLibrary();
void UnlockLibrary();

// The library lock, made once and kept for the life of the process.
void* TheLibraryLock() {
    static void* lock = [] {
        void* made = nullptr;
        KtCreateSyncObject(&made);
        CForkGuard::Register(CForkGuard::eRANK_LIBRARY, LockLibrary, UnlockLibrary, UnlockLibrary);
        return made;
    }();
    return lock;
}

void LockLibrary() { KtLockSyncObject(TheLibraryLock()); }
void UnlockLibrary() { KtUnlockSyncObject(TheLibraryLock()); }
}  // namespace

LibraryLock::LibraryLock() { LockLibrary(); }
LibraryLock::~LibraryLock() { UnlockLibrary(); }

extern "C" Vyrix_ReturnStatus Vyrix_OpenLibrary(void** ppLibHandle) {
    if (g_pLibCtx != nullptr) return Result(eVYRIX_ALREADY_OPENED);
    if (ppLibHandle == nullptr) return Result(eVYRIX_INVALID_ARGUMENT);
    try {
        if (TheLibraryLock() == nullptr) return Result(eVYRIX_FAILURE);
        LibraryLock lock;
        if (g_pLibCtx != nullptr) return Result(eVYRIX_ALREADY_OPENED);  // another thread was quicker
        Vyrix_LibraryContext* context = new (std::nothrow) Vyrix_LibraryContext();
        if (context == nullptr) return Result(eVYRIX_FAILURE);
        g_pSyncObj = TheLibraryLock();
        g_pLibCtx = context;
        *ppLibHandle = context;
        return eVYRIX_RETURN_SUCCESS;
    } catch (...) {
        return Result(eVYRIX_INTERNAL_ERROR);
    }
}

extern "C" Vyrix_ReturnStatus Vyrix_GetLibraryInfo(void* libHandle, Vyrix_LibraryInfoS* pInfo) {
    if (g_pLibCtx == nullptr) return Result(eVYRIX_UNINITIALIZED);
    if (libHandle == nullptr || pInfo == nullptr) return Result(eVYRIX_INVALID_ARGUMENT);
    pInfo->majorVersion = kLibraryMajor;
    pInfo->minorVersion = kLibraryMinor;
    pInfo->revision = kLibraryRevision;
    pInfo->build = kLibraryBuild;
    return eVYRIX_RETURN_SUCCESS;
}

extern "C" Vyrix_ReturnStatus Vyrix_CloseLibrary(void* libHandle) {
    if (g_pLibCtx == nullptr) return Result(eVYRIX_UNINITIALIZED);
    if (libHandle == nullptr) return Result(eVYRIX_INVALID_ARGUMENT);
    try {
        bool anyFailed = false;
        std::vector<std::shared_ptr<CCommHandler>> closed;
        {
            LibraryLock lock;
            Vyrix_LibraryContext* context = g_pLibCtx;
            if (context == nullptr) return Result(eVYRIX_UNINITIALIZED);  // another thread closed it
            // Each connection once, oldest first; a failed one keeps its
            // place, so the next one stands after it.
            const size_t count = context->connections.size();
            unsigned int index = 0;
            for (size_t i = 0; i < count; ++i) {
                closed.push_back(context->connections[index]->link);
                if (CloseConnection(index) != eVYRIX_RETURN_SUCCESS) {
                    anyFailed = true;
                    ++index;
                }
            }
            for (Vyrix_Connection* left : context->connections) RetireConnection(left);
            g_pLibCtx = nullptr;
            g_pSyncObj = nullptr;
            delete context;
        }
        // No link-state callback of a closed connection runs once this
        // returns (waited for outside the lock, which a callback may want).
        for (std::shared_ptr<CCommHandler>& link : closed) {
            LlcQuiesceCallbacks(link);
            LlcReleaseLink(link);
        }
        return anyFailed ? Result(eVYRIX_FAILURE) : eVYRIX_RETURN_SUCCESS;
    } catch (...) {
        return Result(eVYRIX_INTERNAL_ERROR);
    }
}
