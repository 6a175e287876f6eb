// SPDX-License-Identifier: MIT
// Capturing a connection's traffic into a pcap file.
#include "LLC_CommHandler.h"
#include "Vyrix_Internal.h"

namespace {
constexpr Vyrix_ReturnStatus Result(Vyrix_ReturnCodeE code) { return VYRIX_RESULT(code); }

// The link of the open connection the handle names; false for any other
// handle.
bool CaptureLinkOf(const void* handle, std::shared_ptr<CCommHandler>* pLink) {
    LibraryLock lock;
    Vyrix_Connection* entry = FindConnection(handle);
    if (entry == nullptr) return false;
    *pLink = entry->link;
    return true;
}
}  // namespace

extern "C" Vyrix_ReturnStatus Vyrix_StartCapture(void* connHandle, const char* pPath) {
    if (g_pLibCtx == nullptr) return Result(eVYRIX_UNINITIALIZED);
    if (pPath == nullptr || pPath[0] == '\0') return Result(eVYRIX_INVALID_ARGUMENT);
    try {
        std::shared_ptr<CCommHandler> link;
        if (!CaptureLinkOf(connHandle, &link)) return Result(eVYRIX_INVALID_ARGUMENT);
        // A link inherited across fork() is the parent's.
        if (!link || link->IsInherited()) return Result(eVYRIX_NOT_CONNECTED);
        return link->Capture().Start(pPath);
    } catch (...) {
        return Result(eVYRIX_INTERNAL_ERROR);
    }
}

extern "C" Vyrix_ReturnStatus Vyrix_StopCapture(void* connHandle) {
    if (g_pLibCtx == nullptr) return Result(eVYRIX_UNINITIALIZED);
    try {
        std::shared_ptr<CCommHandler> link;
        if (!CaptureLinkOf(connHandle, &link)) return Result(eVYRIX_INVALID_ARGUMENT);
        if (link && link->IsInherited()) return Result(eVYRIX_NOT_CONNECTED);
        if (link) link->Capture().Stop();
        return eVYRIX_RETURN_SUCCESS;
    } catch (...) {
        return Result(eVYRIX_INTERNAL_ERROR);
    }
}
