// The library context, its lock and the lifecycle operations.
#include "Vyrix_Internal.h"

#include <new>

Vyrix_LibraryContext* g_pLibCtx = nullptr;
void* g_pSyncObj = nullptr;

namespace {
constexpr Vyrix_ReturnStatus Result(Vyrix_ReturnCodeE code) { return VYRIX_RESULT(code); }
}  // namespace

LibraryLock::LibraryLock() { KtLockSyncObject(g_pSyncObj); }
LibraryLock::~LibraryLock() { KtUnlockSyncObject(g_pSyncObj); }

extern "C" Vyrix_ReturnStatus Vyrix_OpenLibrary(void** ppLibHandle) {
    if (g_pLibCtx != nullptr) return Result(eVYRIX_ALREADY_OPENED);
    if (ppLibHandle == nullptr) return Result(eVYRIX_INVALID_ARGUMENT);
    try {
        KtCreateSyncObject(&g_pSyncObj);
        if (g_pSyncObj == nullptr) return Result(eVYRIX_FAILURE);
        LibraryLock lock;
        g_pLibCtx = new (std::nothrow) Vyrix_LibraryContext();
        if (g_pLibCtx == nullptr) return Result(eVYRIX_FAILURE);
        g_pLibCtx->connections.clear();
        g_pLibCtx->sequenceNumber = 0;
        *ppLibHandle = g_pLibCtx;
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
        {
            LibraryLock lock;
            // Each connection once, oldest first; a failed one keeps its
            // place, so the next one stands after it.
            const size_t count = g_pLibCtx->connections.size();
            unsigned int index = 0;
            for (size_t i = 0; i < count; ++i) {
                if (CloseConnection(index) != eVYRIX_RETURN_SUCCESS) {
                    anyFailed = true;
                    ++index;
                }
            }
            for (Vyrix_Connection* left : g_pLibCtx->connections) RetireConnection(left);
            delete g_pLibCtx;
            g_pLibCtx = nullptr;
        }
        KtDestroySyncObj(g_pSyncObj);
        g_pSyncObj = nullptr;
        return anyFailed ? Result(eVYRIX_FAILURE) : eVYRIX_RETURN_SUCCESS;
    } catch (...) {
        return Result(eVYRIX_INTERNAL_ERROR);
    }
}
