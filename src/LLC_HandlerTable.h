// The handlers of the open ports, per transport, oldest first.  The table
// holds one reference to each; a caller that works with a handler takes a
// reference of its own, so a close on another thread cannot free it under
// the caller.
#ifndef LLC_HANDLERTABLE_H
#define LLC_HANDLERTABLE_H

#include <memory>
#include <mutex>
#include <vector>

#include "LLC_CommHandler.h"

enum KtTransportE { eTRANSPORT_USB = 0, eTRANSPORT_SERIAL = 1, eTRANSPORT_BTH = 2 };
constexpr int KT_TRANSPORT_COUNT = 3;

using KtHandlerRef = std::shared_ptr<CCommHandler>;

class CHandlerTable {
public:
    static CHandlerTable& Instance();

    // The first port opened on the transport, or null.
    KtHandlerRef First(KtTransportE transport);
    // The first port of the first transport that has one, in the order USB,
    // serial, Bluetooth, or null.
    KtHandlerRef FirstOpen();
    size_t Count(KtTransportE transport);

    // Adds an opened handler; false when the transport holds `limit`
    // handlers already.
    bool Add(KtTransportE transport, const KtHandlerRef& handler, size_t limit);
    // Takes the handler out of the table; false when it was not there.
    bool Remove(const KtHandlerRef& handler);
    // Takes every handler out, in the order USB, serial, Bluetooth.
    std::vector<KtHandlerRef> TakeAll();

private:
    std::mutex m_mutex;
    std::vector<KtHandlerRef> m_handlers[KT_TRANSPORT_COUNT];
};

#endif  // LLC_HANDLERTABLE_H
