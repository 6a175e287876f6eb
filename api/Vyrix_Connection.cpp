// SPDX-License-Identifier: MIT
// The table of open connections, the records behind the handles, and the
// per-connection settings that an operation's command uses.
#include <limits.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>

#include "LLC_LastError.h"
#include "LLC_Links.h"
#include "LLC_NetAddress.h"
#include "Vyrix_Internal.h"

namespace {
constexpr Vyrix_ReturnStatus Result(Vyrix_ReturnCodeE code) { return VYRIX_RESULT(code); }
constexpr size_t kSerialNumberCompare = 100;
constexpr unsigned int kNoIndex = 0xFFFFFFFFu;
constexpr uint32_t kUsbProductId = 4;
constexpr uint32_t kUartBaudRate = 57600;

bool ValidRecord(const Vyrix_ConnectionInfoS& info) {
    switch (info.connectionType) {
        case eVYRIX_CONNECTION_UART: {
            const Vyrix_UartInfoS& u = info.uartInfo;
            return u.pPortName != nullptr && u.baudRate == kUartBaudRate &&
                   (u.flowControl == 0 || u.flowControl == 1) && (u.stopBits == 1 || u.stopBits == 2);
        }
        case eVYRIX_CONNECTION_USB:
            return info.usbInfo.productID == kUsbProductId && info.usbInfo.pSerialNumber != nullptr;
        case eVYRIX_CONNECTION_BTH: return info.bthInfo.pMacID != nullptr && info.bthInfo.pPassKey != nullptr;
    }
    return false;
}

// Two names of one serial device: the same path once symbolic links are
// resolved (a name that does not resolve compares as written), or the same
// server port of two network addresses, whatever their scheme.
bool SamePath(const char* a, const char* b) {
    CNetAddress urlA, urlB;
    if (CNetAddress::Parse(a, &urlA) == CNetAddress::ePARSE_VALID &&
        CNetAddress::Parse(b, &urlB) == CNetAddress::ePARSE_VALID)
        return urlA.Endpoint() == urlB.Endpoint();
    char realA[PATH_MAX], realB[PATH_MAX];
    const char* left = realpath(a, realA) != nullptr ? realA : a;
    const char* right = realpath(b, realB) != nullptr ? realB : b;
    return strcmp(left, right) == 0;
}

bool SameDevice(const Vyrix_ConnectionInfoS& a, const Vyrix_ConnectionInfoS& b) {
    if (a.connectionType != b.connectionType) return false;
    switch (a.connectionType) {
        case eVYRIX_CONNECTION_USB:
            return strncmp(a.usbInfo.pSerialNumber, b.usbInfo.pSerialNumber, kSerialNumberCompare) == 0;
        case eVYRIX_CONNECTION_UART: return SamePath(a.uartInfo.pPortName, b.uartInfo.pPortName);
        case eVYRIX_CONNECTION_BTH: return strcmp(a.bthInfo.pMacID, b.bthInfo.pMacID) == 0;
    }
    return false;
}

// The record with only the transport's member of the union filled.
Vyrix_ConnectionInfoS Normalised(const Vyrix_ConnectionInfoS& info) {
    Vyrix_ConnectionInfoS copy;
    memset(&copy, 0, sizeof copy);
    copy.connectionType = info.connectionType;
    if (info.connectionType == eVYRIX_CONNECTION_UART) copy.uartInfo = info.uartInfo;
    if (info.connectionType == eVYRIX_CONNECTION_USB) copy.usbInfo = info.usbInfo;
    if (info.connectionType == eVYRIX_CONNECTION_BTH) copy.bthInfo = info.bthInfo;
    return copy;
}

// Connection records, handed out new until kRetiredConnections closed ones
// wait; then the one closed longest ago.  Process-wide: a handle from a
// library opened and closed before stays dead too.
class RecordPool {
public:
    Vyrix_Connection* Take() {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_retired.size() < kRetiredConnections) return new Vyrix_Connection();
        Vyrix_Connection* record = m_retired.front();
        m_retired.pop_front();
        *record = Vyrix_Connection();
        return record;
    }
    void Retire(Vyrix_Connection* record) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_retired.push_back(record);
    }
    ~RecordPool() {
        for (Vyrix_Connection* record : m_retired) delete record;
    }

private:
    std::mutex m_mutex;
    std::deque<Vyrix_Connection*> m_retired;
};

RecordPool& Records() {
    // Never destroyed: threads may still open or close connections while
    // the process exits.
    static RecordPool* pool = new RecordPool();
    return *pool;
}

KtTransportE TransportOf(const Vyrix_ConnectionInfoS& info) {
    switch (info.connectionType) {
        case eVYRIX_CONNECTION_USB: return eTRANSPORT_USB;
        case eVYRIX_CONNECTION_UART: return eTRANSPORT_SERIAL;
        case eVYRIX_CONNECTION_BTH: break;
    }
    return eTRANSPORT_BTH;
}

Vyrix_ReturnStatus OpenPortFor(const Vyrix_ConnectionInfoS& info, KtHandlerRef* pLink) {
    switch (info.connectionType) {
        case eVYRIX_CONNECTION_USB:
            return LlcOpenLink(KtLinkRequestS{eTRANSPORT_USB, info.usbInfo.pSerialNumber, nullptr, 0}, pLink);
        case eVYRIX_CONNECTION_UART:
            return LlcOpenLink(
                KtLinkRequestS{eTRANSPORT_SERIAL, info.uartInfo.pPortName, nullptr, info.uartInfo.baudRate}, pLink);
        case eVYRIX_CONNECTION_BTH:
            return LlcOpenLink(KtLinkRequestS{eTRANSPORT_BTH, info.bthInfo.pMacID, info.bthInfo.pPassKey, 0}, pLink);
    }
    return Result(eVYRIX_FAILURE);
}
}  // namespace

void RetireConnection(Vyrix_Connection* record) {
    LlcReleaseLink(record->link);
    Records().Retire(record);
}

Vyrix_Connection* FindConnection(const void* handle) {
    Vyrix_LibraryContext* context = g_pLibCtx;
    if (context == nullptr || handle == nullptr) return nullptr;
    for (Vyrix_Connection* entry : context->connections)
        if (entry == handle) return entry;
    return nullptr;
}

CommandRoute DefaultRoute() { return CommandRoute{LlcDefaultLink(), DefaultReplyTimeoutMs()}; }

Vyrix_ReturnStatus RouteFor(const void* handle, CommandRoute* pRoute) {
    {
        LibraryLock lock;
        if (g_pLibCtx.load() == nullptr) return Result(eVYRIX_UNINITIALIZED);
        Vyrix_Connection* entry = FindConnection(handle);
        if (entry != nullptr) {
            pRoute->link = entry->link;
            pRoute->replyTimeoutMs = entry->replyTimeoutMs != 0 ? entry->replyTimeoutMs : DefaultReplyTimeoutMs();
            return eVYRIX_RETURN_SUCCESS;
        }
    }
    *pRoute = DefaultRoute();
    return eVYRIX_RETURN_SUCCESS;
}

Vyrix_ReturnStatus GetConnectionHandleIndex(Vyrix_ConnectionInfoS connectionInfo, unsigned int* pIndex) {
    LibraryLock lock;
    Vyrix_LibraryContext* context = g_pLibCtx;
    if (context == nullptr) return Result(eVYRIX_UNINITIALIZED);
    const std::vector<Vyrix_Connection*>& table = context->connections;
    for (size_t i = 0; i < table.size(); ++i) {
        if (SameDevice(table[i]->info, connectionInfo)) {
            *pIndex = static_cast<unsigned int>(i);
            return Result(eVYRIX_ALREADY_OPENED);
        }
    }
    *pIndex = kNoIndex;
    return Result(eVYRIX_NOT_CONNECTED);
}

Vyrix_ReturnStatus CloseConnection(unsigned int index) {
    Vyrix_LibraryContext* context = g_pLibCtx;
    if (context == nullptr) return Result(eVYRIX_UNINITIALIZED);
    std::vector<Vyrix_Connection*>& table = context->connections;
    if (index >= table.size()) return Result(eVYRIX_INVALID_ARGUMENT);
    Vyrix_Connection* entry = table[index];
    Vyrix_ReturnStatus r = LlcCloseLink(TransportOf(entry->info), entry->link);
    if (r == eVYRIX_RETURN_SUCCESS) {
        RetireConnection(entry);
        table.erase(table.begin() + index);
    }
    return r;
}

int GetCOMPortNumber(const char* pName, const char* pPrefix) {
    const char* at = strstr(pName, pPrefix);
    if (at == nullptr) return -1;
    const char* rest = at + strlen(pPrefix);
    int number = atoi(rest);
    if (number == 0 && strlen(rest) > 1) return -1;
    return number;
}

extern "C" Vyrix_ReturnStatus Vyrix_OpenConnection(void* libHandle, void** ppConnHandle,
                                                   Vyrix_ConnectionInfoS connectionInfo) {
    CLastError::Clear();
    if (g_pLibCtx == nullptr) return Result(eVYRIX_UNINITIALIZED);
    try {
        if (libHandle == nullptr || ppConnHandle == nullptr || !ValidRecord(connectionInfo))
            return Result(eVYRIX_INVALID_ARGUMENT);
        const Vyrix_ConnectionInfoS info = Normalised(connectionInfo);
        unsigned int index = 0;
        const Vyrix_ReturnStatus known = GetConnectionHandleIndex(info, &index);
        if (known != Result(eVYRIX_NOT_CONNECTED)) {
            CLastError::Set("this device is already open in this process");
            return known;
        }
        Vyrix_Connection* stored = Records().Take();
        Vyrix_LibraryContext* library = nullptr;
        {
            // Room first, so the append below cannot fail once a port is open.
            LibraryLock lock;
            library = g_pLibCtx;
            if (library == nullptr) {
                Records().Retire(stored);
                return Result(eVYRIX_UNINITIALIZED);
            }
            library->connections.reserve(library->connections.size() + 1);
        }
        // The port opens outside the library lock; the lock file keeps two
        // opens of one device apart.
        Vyrix_ReturnStatus r = OpenPortFor(info, &stored->link);
        if (r != eVYRIX_RETURN_SUCCESS) {
            Records().Retire(stored);
            return r;
        }
        stored->info = info;
        {
            LibraryLock lock;
            if (g_pLibCtx.load() == library) {
                library->connections.push_back(stored);
                *ppConnHandle = stored;
                return eVYRIX_RETURN_SUCCESS;
            }
        }
        // The library was closed (and maybe reopened) while the port opened: the
        // port goes again, so nothing is left that no table knows of.
        LlcCloseLink(TransportOf(info), stored->link);
        RetireConnection(stored);
        return Result(eVYRIX_UNINITIALIZED);
    } catch (...) {
        return Result(eVYRIX_INTERNAL_ERROR);
    }
}

extern "C" Vyrix_ReturnStatus Vyrix_CloseConnection(void* connHandle) {
    if (g_pLibCtx == nullptr) return Result(eVYRIX_UNINITIALIZED);
    if (connHandle == nullptr) return Result(eVYRIX_INVALID_ARGUMENT);
    try {
        KtHandlerRef link;
        Vyrix_ReturnStatus r = Result(eVYRIX_INVALID_ARGUMENT);
        {
            LibraryLock lock;
            Vyrix_LibraryContext* context = g_pLibCtx;
            if (context == nullptr) return Result(eVYRIX_UNINITIALIZED);
            const std::vector<Vyrix_Connection*>& table = context->connections;
            for (size_t i = 0; i < table.size() && link == nullptr; ++i) {
                if (table[i] != connHandle) continue;
                link = table[i]->link;
                r = CloseConnection(static_cast<unsigned int>(i));
            }
        }
        // No callback of the closed connection runs once this returns (the
        // wait is outside the lock, which a callback may want).
        if (r == eVYRIX_RETURN_SUCCESS) LlcQuiesceCallbacks(link);
        LlcReleaseLink(link);
        return r;
    } catch (...) {
        return Result(eVYRIX_INTERNAL_ERROR);
    }
}

extern "C" Vyrix_ReturnStatus Vyrix_SetReplyTimeout(void* connHandle, unsigned int milliseconds) {
    if (g_pLibCtx == nullptr) return Result(eVYRIX_UNINITIALIZED);
    try {
        LibraryLock lock;
        Vyrix_Connection* entry = FindConnection(connHandle);
        if (entry == nullptr) return Result(eVYRIX_INVALID_ARGUMENT);
        entry->replyTimeoutMs = milliseconds;
        return eVYRIX_RETURN_SUCCESS;
    } catch (...) {
        return Result(eVYRIX_INTERNAL_ERROR);
    }
}

namespace {
// The link of the open connection the handle names; false for any other
// handle.
bool LinkOfConnection(const void* handle, KtHandlerRef* pLink) {
    LibraryLock lock;
    Vyrix_Connection* entry = FindConnection(handle);
    if (entry == nullptr) return false;
    *pLink = entry->link;
    return true;
}
}  // namespace

extern "C" Vyrix_ReturnStatus Vyrix_TakeUnpromptedMessage(void* connHandle, uint8_t* pPayload, uint16_t capacity,
                                                          uint16_t* pLength, uint8_t* pSource) {
    if (g_pLibCtx == nullptr) return Result(eVYRIX_UNINITIALIZED);
    if (pPayload == nullptr || pLength == nullptr) return Result(eVYRIX_INVALID_ARGUMENT);
    try {
        KtHandlerRef link;
        if (!LinkOfConnection(connHandle, &link)) return Result(eVYRIX_INVALID_ARGUMENT);
        KtXlnkMsgS msg{0, 0, 0, 0, capacity, pPayload};
        Vyrix_ReturnStatus r = LlcTakeMessage(link, &msg);
        if (r == eVYRIX_RETURN_SUCCESS || r == Result(eVYRIX_PAYLOAD_TOO_LARGE)) {
            *pLength = msg.payloadLen;
            if (pSource != nullptr) *pSource = msg.sourceID;
        }
        return r;
    } catch (...) {
        return Result(eVYRIX_INTERNAL_ERROR);
    }
}

extern "C" Vyrix_ReturnStatus Vyrix_GetLinkStatistics(void* connHandle, Vyrix_LinkStatisticsS* pStats) {
    if (g_pLibCtx == nullptr) return Result(eVYRIX_UNINITIALIZED);
    if (pStats == nullptr) return Result(eVYRIX_INVALID_ARGUMENT);
    try {
        KtHandlerRef link;
        if (!LinkOfConnection(connHandle, &link)) return Result(eVYRIX_INVALID_ARGUMENT);
        const KtLinkCountersS c = link ? link->Counters() : KtLinkCountersS{};
        *pStats = Vyrix_LinkStatisticsS{c.packetsSent, c.packetsReceived,  c.bytesSent,       c.bytesReceived,
                                        c.resends,     c.packetsDiscarded, c.messagesDropped, c.linkDowns};
        return eVYRIX_RETURN_SUCCESS;
    } catch (...) {
        return Result(eVYRIX_INTERNAL_ERROR);
    }
}
