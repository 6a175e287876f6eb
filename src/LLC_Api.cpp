// The exported packet-level service functions: one handler per transport,
// created by an open and destroyed by a close; every send and receive goes
// to the first open transport in the order USB, serial, Bluetooth.
#include <cstdio>
#include <memory>

#include "LLC_CommHandler.h"
#include "LLC_LogFile.h"

CCommHandler* g_pUsbCommHandler = nullptr;
CCommHandler* g_pSerialCommHandler = nullptr;
CCommHandler* g_pBTHCommHandler = nullptr;

namespace {
constexpr size_t kSerialNameSize = 32;

CCommHandler* ChooseHandler(const char* function) {
    if (g_pUsbCommHandler != nullptr) return g_pUsbCommHandler;
    if (g_pSerialCommHandler != nullptr) return g_pSerialCommHandler;
    if (g_pBTHCommHandler != nullptr) return g_pBTHCommHandler;
    LlcLog("<ERROR> %s :No port opened for communication\n", function);
    return nullptr;
}

template <typename OpenFn>
Vyrix_ReturnStatus OpenTransport(CCommHandler*& slot, const char* function, const char* alreadyOpen,
                                 const char* openError, OpenFn open) {
    LogStart();
    if (slot != nullptr) {
        LlcLog(alreadyOpen, function);
        return RC(eVYRIX_ALREADY_OPENED);
    }
    std::unique_ptr<CCommHandler> handler(new CCommHandler());
    slot = handler.get();
    Vyrix_ReturnStatus r = open(*handler);
    if (r != RC_OK) {
        LlcLog(openError, function);
        slot = nullptr;
        return r;
    }
    handler.release();
    return RC_OK;
}

Vyrix_ReturnStatus CloseTransport(CCommHandler*& slot, const char* function) {
    if (slot == nullptr) {
        LlcLog("<ERROR> %s :No port opened for communication\n", function);
        return RC(eVYRIX_NOT_CONNECTED);
    }
    Vyrix_ReturnStatus r = RC(eVYRIX_FAILURE);
    try {
        r = slot->ClosePort();
    } catch (...) {
        // The handler goes whatever its close did.
    }
    delete slot;
    slot = nullptr;
    return r;
}

Vyrix_ReturnStatus RemoveInto(KtQueueTypeE queue, const char* function, BYTE* pDeviceID, BYTE* pPriority,
                              BYTE* pProtocolID, WORD* pPayloadLen, BYTE* pPayload, WORD cbPayload) {
    CCommHandler* handler = ChooseHandler(function);
    if (handler == nullptr) return RC(eVYRIX_NOT_CONNECTED);
    if (pDeviceID == nullptr || pPriority == nullptr || pProtocolID == nullptr || pPayloadLen == nullptr ||
        pPayload == nullptr) {
        LlcLog("<ERROR> %s :Invalid argument\n", function);
        return RC(eVYRIX_INVALID_ARGUMENT);
    }
    if (cbPayload > KT_XLNK_MAX_PAYLOAD) {
        LlcLog("<ERROR> %s :Payload length greater than max payload %d\n", function, cbPayload);
        return RC(eVYRIX_PAYLOAD_TOO_LARGE);
    }
    KtXlnkMsgS record{};
    record.payloadLen = cbPayload;
    record.pPayload = pPayload;
    if (queue == eCONNECTION_ORIENTED) LlcLog("<INFO> %s Payload length : %d\n", function, cbPayload);
    Vyrix_ReturnStatus r = handler->RemoveMsg(queue, &record);
    if (r != RC_OK) return r;
    *pDeviceID = record.deviceID;
    *pPriority = record.priority;
    *pProtocolID = record.protocolID;
    *pPayloadLen = record.payloadLen;
    return RC_OK;
}

Vyrix_ReturnStatus Enumerate(Vyrix_ReturnStatus (CCommHandler::*enumerate)(unsigned, unsigned*, void*),
                             const char* function, unsigned int count, unsigned int* pNumDevices, void* pInfo) {
    if (pNumDevices == nullptr || pInfo == nullptr) {
        LlcLog("<ERROR> %s:Invalid parameter\n", function);
        return RC(eVYRIX_INVALID_ARGUMENT);
    }
    CCommHandler handler;
    return (handler.*enumerate)(count, pNumDevices, pInfo);
}

void DestroyHandler(CCommHandler*& slot) {
    delete slot;
    slot = nullptr;
}
}  // namespace

extern "C" {

Vyrix_ReturnStatus KtOpenUsbPort(void) {
    try {
        Vyrix_ReturnStatus r =
            OpenTransport(g_pUsbCommHandler, "KtOpenUsbPort", "<ERROR> %s :USB port already opened\n",
                          "<ERROR> %s :Error opening USB port\n", [](CCommHandler& h) { return h.OpenPort(); });
        if (r == RC_OK) LlcLog("<INFO> %s :USB port opened successfully\n", "KtOpenUsbPort");
        return r;
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

static Vyrix_ReturnStatus OpenSerial(const char* function, const char* pPortName, DWORD dwBaud) {
    return OpenTransport(g_pSerialCommHandler, function, "<ERROR> %s :Serial port already opened\n",
                         "<ERROR> %s :Error opening serial port\n",
                         [&](CCommHandler& h) { return h.OpenPort(pPortName, dwBaud); });
}

Vyrix_ReturnStatus KtOpenSerialPort(int nCom, DWORD dwBaud) {
    try {
        if (nCom < 0 && g_pSerialCommHandler == nullptr) {
            LogStart();
            return RC(eVYRIX_INVALID_ARGUMENT);
        }
        char name[kSerialNameSize];
        snprintf(name, sizeof name, "/dev/ttyS%d", nCom);
        return OpenSerial("KtOpenSerialPort", name, dwBaud);
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtOpenSerialPortByName(const char* pPortName, DWORD dwBaud) {
    try {
        return OpenSerial("KtOpenSerialPortByName", pPortName, dwBaud);
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtOpenBTHSocket(const char* macID, const char* passKey) {
    try {
        return OpenTransport(g_pBTHCommHandler, "KtOpenBTHSocket", "<ERROR> %s :BTH socket already opened\n",
                             "<ERROR> %s :Error opening bth socket\n",
                             [&](CCommHandler& h) { return h.OpenPort(macID, passKey); });
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtCheckUsbPort(void) {
    return g_pUsbCommHandler ? g_pUsbCommHandler->IsDeviceConnected() : RC(eVYRIX_FAILURE);
}

Vyrix_ReturnStatus KtCheckSerialPort(void) {
    return g_pSerialCommHandler ? g_pSerialCommHandler->IsDeviceConnected() : RC(eVYRIX_FAILURE);
}

Vyrix_ReturnStatus KtCheckBthSocket(void) {
    return g_pBTHCommHandler ? g_pBTHCommHandler->IsDeviceConnected() : RC(eVYRIX_FAILURE);
}

Vyrix_ReturnStatus KtSendMsg(KtXlnkMsgS sMsg) {
    try {
        CCommHandler* handler = ChooseHandler("KtSendMsg");
        return handler ? handler->SendMsg(sMsg) : RC(eVYRIX_NOT_CONNECTED);
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtSendMessage(BYTE ucSourceID, BYTE ucDeviceID, BYTE ucPriority, BYTE ucProtocolID, WORD wPayloadLen,
                                 BYTE* pPayload) {
    try {
        KtXlnkMsgS record{ucSourceID, ucDeviceID, ucPriority, ucProtocolID, wPayloadLen, pPayload};
        CCommHandler* handler = ChooseHandler("KtSendMessage");
        return handler ? handler->SendMsg(record) : RC(eVYRIX_NOT_CONNECTED);
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtRemoveMsg(KtXlnkMsgS* pMsg, int retryCount) {
    try {
        CCommHandler* handler = ChooseHandler("KtRemoveMsg");
        if (handler == nullptr) return RC(eVYRIX_NOT_CONNECTED);
        Vyrix_ReturnStatus r = RC(eVYRIX_INCOMPLETE);
        for (int attempt = 0;; ++attempt) {
            if (pMsg != nullptr) pMsg->payloadLen = KT_XLNK_MAX_PAYLOAD;
            const uint64_t seen = handler->QueuedRecords(eCONNECTION_ORIENTED);
            r = handler->RemoveMsg(eCONNECTION_ORIENTED, pMsg);
            if (r == RC_OK) break;
            // The pause ends early when a reply arrives.
            handler->WaitForRecord(eCONNECTION_ORIENTED, seen, KT_REMOVE_POLL_MS);
            if (attempt >= retryCount) break;
        }
        handler->ClearRetryCache();
        return r;
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtRemoveConnectionlessMsg(KtXlnkMsgS* pMsg) {
    try {
        CCommHandler* handler = ChooseHandler("KtRemoveConnectionlessMsg");
        if (handler == nullptr) return RC(eVYRIX_NOT_CONNECTED);
        if (pMsg != nullptr && pMsg->payloadLen == 0) pMsg->payloadLen = KT_XLNK_MAX_PAYLOAD;
        return handler->RemoveMsg(eCONNECTIONLESS, pMsg);
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtRemoveMessage(BYTE* pDeviceID, BYTE* pPriority, BYTE* pProtocolID, WORD* pPayloadLen,
                                   BYTE* pPayload, WORD cbPayload) {
    try {
        return RemoveInto(eCONNECTION_ORIENTED, "KtRemoveMessage", pDeviceID, pPriority, pProtocolID, pPayloadLen,
                          pPayload, cbPayload);
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtRemoveConnectionlessMessage(BYTE* pDeviceID, BYTE* pPriority, BYTE* pProtocolID, WORD* pPayloadLen,
                                                 BYTE* pPayload, WORD cbPayload) {
    try {
        return RemoveInto(eCONNECTIONLESS, "KtRemoveConnectionlessMessage", pDeviceID, pPriority, pProtocolID,
                          pPayloadLen, pPayload, cbPayload);
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtCloseUsbPort(void) {
    try {
        bool wasOpen = g_pUsbCommHandler != nullptr;
        Vyrix_ReturnStatus r = CloseTransport(g_pUsbCommHandler, "KtCloseUsbPort");
        if (wasOpen && r == RC_OK) LlcLog("<INFO> %s :USB port closed successfully\n", "KtCloseUsbPort");
        if (wasOpen) LogEnd();
        return r;
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtCloseSerialPort(void) {
    try {
        bool wasOpen = g_pSerialCommHandler != nullptr;
        Vyrix_ReturnStatus r = CloseTransport(g_pSerialCommHandler, "KtCloseSerialPort");
        if (wasOpen) LogEnd();
        return r;
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtCloseBTHSocket(void) {
    try {
        bool wasOpen = g_pBTHCommHandler != nullptr;
        Vyrix_ReturnStatus r = CloseTransport(g_pBTHCommHandler, "KtCloseBTHSocket");
        if (wasOpen) LogEnd();
        return r;
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtRegisterCallback(KtEventCallbackFn pfnParseEventCallbackFunction) {
    if (pfnParseEventCallbackFunction == nullptr) {
        LlcLog("<ERROR> %s:Invalid parameter\n", "KtRegisterCallback");
        return RC(eVYRIX_INVALID_ARGUMENT);
    }
    g_pfnParseEventCallbackFunction = pfnParseEventCallbackFunction;
    return RC_OK;
}

Vyrix_ReturnStatus KtEnumerateUSBDevices(unsigned int numDevicesToEnumerate, unsigned int* pNumDevices,
                                         void* pBtDeviceInfo) {
    try {
        return Enumerate(&CCommHandler::EnumerateUSBDevices, "KtEnumerateUSBDevices", numDevicesToEnumerate,
                         pNumDevices, pBtDeviceInfo);
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtEnumerateBTHDevices(unsigned int numDevicesToEnumerate, unsigned int* pNumDevices,
                                         void* pBtDeviceInfo) {
    try {
        return Enumerate(&CCommHandler::EnumerateBTHDevices, "KtEnumerateBTHDevices", numDevicesToEnumerate,
                         pNumDevices, pBtDeviceInfo);
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtEnumerateUARTDevices(unsigned int numDevicesToEnumerate, unsigned int* pNumDevices,
                                          void* pBtDeviceInfo) {
    try {
        return Enumerate(&CCommHandler::EnumerateUARTDevices, "KtEnumerateUARTDevices", numDevicesToEnumerate,
                         pNumDevices, pBtDeviceInfo);
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

__attribute__((destructor)) void LibraryCleanUpRoutine(void) {
    try {
        DestroyHandler(g_pUsbCommHandler);
        DestroyHandler(g_pSerialCommHandler);
        DestroyHandler(g_pBTHCommHandler);
        LogEnd();
    } catch (...) {
    }
}

}  // extern "C"
