/* SPDX-License-Identifier: MIT */
// The link registry: the links of the open ports, per transport, oldest
// first.  The registry holds one reference to each; a caller that works
// with a link takes a reference of its own, so a close on another thread
// cannot free it under the caller.  The first link of each transport is
// what the transport's Kt functions act on, and what g_pUsbCommHandler,
// g_pSerialCommHandler and g_pBTHCommHandler show.
//
// Fork and exit are ordinary events here: the registry is never destroyed
// (the unload routine empties it), and in a forked child the parent's links
// are forgotten, never closed, since their ports, threads and lock files
// are the parent's.
#ifndef LLC_HANDLERTABLE_H
#define LLC_HANDLERTABLE_H

#include <memory>
#include <mutex>
#include <vector>

#include "LLC_CommHandler.h"

enum KtTransportE { eTRANSPORT_USB = 0, eTRANSPORT_SERIAL = 1, eTRANSPORT_BTH = 2 };
constexpr int KT_TRANSPORT_COUNT = 3;

using KtHandlerRef = std::shared_ptr<CCommHandler>;

// The first link of each transport, or null (read-only views).
extern std::atomic<CCommHandler*> g_pUsbCommHandler;
extern std::atomic<CCommHandler*> g_pSerialCommHandler;
extern std::atomic<CCommHandler*> g_pBTHCommHandler;

class CHandlerTable {
public:
    static CHandlerTable& Instance();

    // The first port opened on the transport, or null.
    KtHandlerRef First(KtTransportE transport);
    // The first port of the first transport that has one, in the order USB,
    // serial, Bluetooth, or null.
    KtHandlerRef FirstOpen();
    size_t Count(KtTransportE transport);
    // Links open on all transports.
    size_t Total();

    // Adds an opened handler; false when the transport holds `limit`
    // handlers already.
    bool Add(KtTransportE transport, const KtHandlerRef& handler, size_t limit);
    // Takes the handler out of the table; false when it was not there.
    bool Remove(const KtHandlerRef& handler);
    // Takes every handler out, in the order USB, serial, Bluetooth.
    std::vector<KtHandlerRef> TakeAll();

    // Keeps a reference to a link that a forked child inherited, for the
    // life of the process: destroying it would close the parent's port.
    void KeepInherited(KtHandlerRef link);

private:
    CHandlerTable();
    void UpdateViews();
    static void ForkPrepare();
    static void ForkParent();
    static void ForkChild();

    std::mutex m_mutex;
    std::vector<KtHandlerRef> m_handlers[KT_TRANSPORT_COUNT];
    std::vector<KtHandlerRef> m_inherited;
};

#endif  // LLC_HANDLERTABLE_H
