// SPDX-License-Identifier: MIT
// A connection's lifecycle as the application sees it: the link's state
// and its callback, the event descriptor for event loops, reconnection.
// Each resolves the handle to its link once, under the library lock, and
// works on the link outside it.
#include "LLC_Links.h"
#include "Vyrix_Internal.h"

namespace {
constexpr Vyrix_ReturnStatus Result(Vyrix_ReturnCodeE code) { return VYRIX_RESULT(code); }

// The link of the open connection the handle names; null for any other
// handle (or a connection without a link).
KtHandlerRef LinkOf(const void* handle) {
    LibraryLock lock;
    Vyrix_Connection* entry = FindConnection(handle);
    return entry != nullptr ? entry->link : nullptr;
}

template <typename Work>
Vyrix_ReturnStatus OnLink(void* handle, Work work) {
    if (g_pLibCtx == nullptr) return Result(eVYRIX_UNINITIALIZED);
    try {
        KtHandlerRef link = LinkOf(handle);
        if (!link || link->IsInherited()) return Result(eVYRIX_INVALID_ARGUMENT);
        return work(*link);
    } catch (...) {
        return Result(eVYRIX_INTERNAL_ERROR);
    }
}
}  // namespace

extern "C" Vyrix_ReturnStatus Vyrix_GetLinkState(void* hConnection, Vyrix_LinkStateE* pState) {
    if (g_pLibCtx == nullptr) return Result(eVYRIX_UNINITIALIZED);
    if (pState == nullptr) return Result(eVYRIX_INVALID_ARGUMENT);
    return OnLink(hConnection, [pState](CCommHandler& link) {
        *pState = link.ReadState();
        return eVYRIX_RETURN_SUCCESS;
    });
}

extern "C" Vyrix_ReturnStatus Vyrix_SetLinkStateCallback(void* hConnection, Vyrix_LinkStateCallbackFn pfn,
                                                         void* pUser) {
    return OnLink(hConnection, [=](CCommHandler& link) {
        link.SetStateListener(CLinkState::Listener{pfn, pUser, hConnection});
        return eVYRIX_RETURN_SUCCESS;
    });
}

extern "C" Vyrix_ReturnStatus Vyrix_GetEventFd(void* hConnection, int* pFd) {
    if (g_pLibCtx == nullptr) return Result(eVYRIX_UNINITIALIZED);
    if (pFd == nullptr) return Result(eVYRIX_INVALID_ARGUMENT);
    return OnLink(hConnection, [pFd](CCommHandler& link) {
        const int fd = link.EventFd();
        if (fd < 0) return Result(eVYRIX_FAILURE);
        *pFd = fd;
        return eVYRIX_RETURN_SUCCESS;
    });
}

extern "C" Vyrix_ReturnStatus Vyrix_SetReconnect(void* hConnection, int enable, uint32_t maxIntervalMs) {
    return OnLink(hConnection, [=](CCommHandler& link) {
        link.SetReconnect(enable != 0, maxIntervalMs == 0 ? KT_RECONNECT_DEFAULT_MAX_MS : maxIntervalMs);
        return eVYRIX_RETURN_SUCCESS;
    });
}
