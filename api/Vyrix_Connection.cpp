// The table of open connections: one entry per transport at most.
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <new>

#include "Vyrix_Internal.h"

namespace {
constexpr Vyrix_ReturnStatus Result(Vyrix_ReturnCodeE code) { return VYRIX_RESULT(code); }
constexpr size_t kSerialNumberCompare = 100;
constexpr size_t kPortNameCompare = 11;
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

bool SameDevice(const Vyrix_ConnectionInfoS& a, const Vyrix_ConnectionInfoS& b) {
    if (a.connectionType != b.connectionType) return false;
    switch (a.connectionType) {
        case eVYRIX_CONNECTION_USB:
            return strncmp(a.usbInfo.pSerialNumber, b.usbInfo.pSerialNumber, kSerialNumberCompare) == 0;
        case eVYRIX_CONNECTION_UART: return strncmp(a.uartInfo.pPortName, b.uartInfo.pPortName, kPortNameCompare) == 0;
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

Vyrix_ReturnStatus OpenPortFor(const Vyrix_ConnectionInfoS& info) {
    switch (info.connectionType) {
        case eVYRIX_CONNECTION_USB: return KtOpenUsbPort();
        case eVYRIX_CONNECTION_UART: return KtOpenSerialPortByName(info.uartInfo.pPortName, info.uartInfo.baudRate);
        case eVYRIX_CONNECTION_BTH: return KtOpenBTHSocket(info.bthInfo.pMacID, info.bthInfo.pPassKey);
    }
    return Result(eVYRIX_FAILURE);
}
}  // namespace

Vyrix_ReturnStatus GetConnectionHandleIndex(Vyrix_ConnectionInfoS connectionInfo, unsigned int* pIndex) {
    LibraryLock lock;
    const std::vector<Vyrix_ConnectionInfoS*>& table = g_pLibCtx->connections;
    for (size_t i = 0; i < table.size(); ++i) {
        if (SameDevice(*table[i], connectionInfo)) {
            *pIndex = static_cast<unsigned int>(i);
            return Result(eVYRIX_ALREADY_OPENED);
        }
    }
    *pIndex = kNoIndex;
    return Result(eVYRIX_NOT_CONNECTED);
}

Vyrix_ReturnStatus CloseConnection(unsigned int index) {
    if (g_pLibCtx == nullptr) return Result(eVYRIX_UNINITIALIZED);
    std::vector<Vyrix_ConnectionInfoS*>& table = g_pLibCtx->connections;
    if (index >= table.size()) return Result(eVYRIX_INVALID_ARGUMENT);
    Vyrix_ReturnStatus r;
    switch (table[index]->connectionType) {
        case eVYRIX_CONNECTION_USB: r = KtCloseUsbPort(); break;
        case eVYRIX_CONNECTION_UART: r = KtCloseSerialPort(); break;
        case eVYRIX_CONNECTION_BTH: r = KtCloseBTHSocket(); break;
        default: return Result(eVYRIX_FAILURE);
    }
    if (r == eVYRIX_RETURN_SUCCESS) {
        delete table[index];
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
    if (g_pLibCtx == nullptr) return Result(eVYRIX_UNINITIALIZED);
    try {
        if (libHandle == nullptr || ppConnHandle == nullptr || !ValidRecord(connectionInfo))
            return Result(eVYRIX_INVALID_ARGUMENT);
        const Vyrix_ConnectionInfoS info = Normalised(connectionInfo);
        unsigned int index = 0;
        if (GetConnectionHandleIndex(info, &index) == Result(eVYRIX_ALREADY_OPENED))
            return Result(eVYRIX_ALREADY_OPENED);
        auto* stored = new (std::nothrow) Vyrix_ConnectionInfoS;
        if (stored == nullptr) return Result(eVYRIX_FAILURE);
        {
            // Room first, so the append below cannot fail once a port is open.
            LibraryLock lock;
            g_pLibCtx->connections.reserve(g_pLibCtx->connections.size() + 1);
        }
        // The port opens outside the library lock; the LLC keeps two opens
        // of one transport apart.
        Vyrix_ReturnStatus r = OpenPortFor(info);
        if (r != eVYRIX_RETURN_SUCCESS) {
            delete stored;
            return r;
        }
        *stored = info;
        {
            LibraryLock lock;
            g_pLibCtx->connections.push_back(stored);
        }
        *ppConnHandle = stored;
        return eVYRIX_RETURN_SUCCESS;
    } catch (...) {
        return Result(eVYRIX_INTERNAL_ERROR);
    }
}

extern "C" Vyrix_ReturnStatus Vyrix_CloseConnection(void* connHandle) {
    if (g_pLibCtx == nullptr) return Result(eVYRIX_UNINITIALIZED);
    if (connHandle == nullptr) return Result(eVYRIX_INVALID_ARGUMENT);
    try {
        const Vyrix_ConnectionInfoS record = *static_cast<Vyrix_ConnectionInfoS*>(connHandle);
        unsigned int index = 0;
        if (GetConnectionHandleIndex(record, &index) == Result(eVYRIX_NOT_CONNECTED))
            return Result(eVYRIX_INVALID_ARGUMENT);
        LibraryLock lock;
        return CloseConnection(index);
    } catch (...) {
        return Result(eVYRIX_INTERNAL_ERROR);
    }
}
