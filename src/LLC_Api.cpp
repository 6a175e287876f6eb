// The exported packet-level service functions: one handler per transport,
// created by an open and destroyed by a close (or by the last caller still
// using it); every send and receive goes to the first open transport in the
// order USB, serial, Bluetooth.
#include <cstdio>
#include <memory>

#include "LLC_HandlerTable.h"
#include "LLC_Links.h"
#include "LLC_LogFile.h"

namespace {
constexpr size_t kSerialNameSize = 32;

KtHandlerRef ChooseHandler(const char* function) {
    KtHandlerRef handler = CHandlerTable::Instance().FirstOpen();
    if (handler == nullptr) LlcLog("<ERROR> %s :No port opened for communication\n", function);
    return handler;
}

template <typename OpenFn>
Vyrix_ReturnStatus OpenTransport(KtTransportE transport, const char* function, const char* alreadyOpen,
                                 const char* openError, OpenFn open) {
    LogStart();
    CHandlerTable& table = CHandlerTable::Instance();
    if (table.Count(transport) > 0) {
        LlcLog(alreadyOpen, function);
        return RC(eVYRIX_ALREADY_OPENED);
    }
    auto handler = std::make_shared<CCommHandler>();
    Vyrix_ReturnStatus r = open(*handler);
    if (r != RC_OK) {
        LlcLog(openError, function);
        return r;
    }
    if (!table.Add(transport, handler, 1)) {  // another thread opened one meanwhile
        handler->ClosePort();
        LlcLog(alreadyOpen, function);
        return RC(eVYRIX_ALREADY_OPENED);
    }
    return RC_OK;
}

Vyrix_ReturnStatus CloseTransport(KtTransportE transport, const char* function) {
    CHandlerTable& table = CHandlerTable::Instance();
    KtHandlerRef handler = table.First(transport);
    if (handler == nullptr || !table.Remove(handler)) {
        LlcLog("<ERROR> %s :No port opened for communication\n", function);
        return RC(eVYRIX_NOT_CONNECTED);
    }
    Vyrix_ReturnStatus r = RC(eVYRIX_FAILURE);
    try {
        r = handler->ClosePort();
    } catch (...) {
        // The handler goes whatever its close did.
    }
    return r;
}

Vyrix_ReturnStatus CheckTransport(KtTransportE transport) {
    KtHandlerRef handler = CHandlerTable::Instance().First(transport);
    return handler ? handler->IsDeviceConnected() : RC(eVYRIX_FAILURE);
}

Vyrix_ReturnStatus RemoveInto(KtQueueTypeE queue, const char* function, BYTE* pDeviceID, BYTE* pPriority,
                              BYTE* pProtocolID, WORD* pPayloadLen, BYTE* pPayload, WORD cbPayload) {
    KtHandlerRef handler = ChooseHandler(function);
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
}  // namespace

void LlcDropReplies() {
    KtHandlerRef handler = CHandlerTable::Instance().FirstOpen();
    if (handler != nullptr) handler->DropReplies();
}

extern "C" {

Vyrix_ReturnStatus KtOpenUsbPort(void) {
    try {
        Vyrix_ReturnStatus r =
            OpenTransport(eTRANSPORT_USB, "KtOpenUsbPort", "<ERROR> %s :USB port already opened\n",
                          "<ERROR> %s :Error opening USB port\n", [](CCommHandler& h) { return h.OpenPort(); });
        if (r == RC_OK) LlcLog("<INFO> %s :USB port opened successfully\n", "KtOpenUsbPort");
        return r;
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

static Vyrix_ReturnStatus OpenSerial(const char* function, const char* pPortName, DWORD dwBaud) {
    return OpenTransport(eTRANSPORT_SERIAL, function, "<ERROR> %s :Serial port already opened\n",
                         "<ERROR> %s :Error opening serial port\n",
                         [&](CCommHandler& h) { return h.OpenPort(pPortName, dwBaud); });
}

Vyrix_ReturnStatus KtOpenSerialPort(int nCom, DWORD dwBaud) {
    try {
        if (nCom < 0 && CHandlerTable::Instance().Count(eTRANSPORT_SERIAL) == 0) {
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
        return OpenTransport(eTRANSPORT_BTH, "KtOpenBTHSocket", "<ERROR> %s :BTH socket already opened\n",
                             "<ERROR> %s :Error opening bth socket\n",
                             [&](CCommHandler& h) { return h.OpenPort(macID, passKey); });
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtCheckUsbPort(void) { return CheckTransport(eTRANSPORT_USB); }

Vyrix_ReturnStatus KtCheckSerialPort(void) { return CheckTransport(eTRANSPORT_SERIAL); }

Vyrix_ReturnStatus KtCheckBthSocket(void) { return CheckTransport(eTRANSPORT_BTH); }

Vyrix_ReturnStatus KtSendMsg(KtXlnkMsgS sMsg) {
    try {
        KtHandlerRef handler = ChooseHandler("KtSendMsg");
        return handler ? handler->SendMsg(sMsg) : RC(eVYRIX_NOT_CONNECTED);
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtSendMessage(BYTE ucSourceID, BYTE ucDeviceID, BYTE ucPriority, BYTE ucProtocolID, WORD wPayloadLen,
                                 BYTE* pPayload) {
    try {
        KtXlnkMsgS record{ucSourceID, ucDeviceID, ucPriority, ucProtocolID, wPayloadLen, pPayload};
        KtHandlerRef handler = ChooseHandler("KtSendMessage");
        return handler ? handler->SendMsg(record) : RC(eVYRIX_NOT_CONNECTED);
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtRemoveMsg(KtXlnkMsgS* pMsg, int retryCount) {
    try {
        KtHandlerRef handler = ChooseHandler("KtRemoveMsg");
        if (handler == nullptr) return RC(eVYRIX_NOT_CONNECTED);
        if (pMsg != nullptr) pMsg->payloadLen = KT_XLNK_MAX_PAYLOAD;
        // retryCount + 1 periods; a reply that is there is taken at once.
        const unsigned long periods = retryCount < 0 ? 1UL : static_cast<unsigned long>(retryCount) + 1UL;
        return handler->WaitReply(pMsg, CDeadline::After(periods * KT_REMOVE_POLL_MS));
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtRemoveConnectionlessMsg(KtXlnkMsgS* pMsg) {
    try {
        KtHandlerRef handler = ChooseHandler("KtRemoveConnectionlessMsg");
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
        bool wasOpen = CHandlerTable::Instance().Count(eTRANSPORT_USB) > 0;
        Vyrix_ReturnStatus r = CloseTransport(eTRANSPORT_USB, "KtCloseUsbPort");
        if (wasOpen && r == RC_OK) LlcLog("<INFO> %s :USB port closed successfully\n", "KtCloseUsbPort");
        if (wasOpen) LogEnd();
        return r;
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtCloseSerialPort(void) {
    try {
        bool wasOpen = CHandlerTable::Instance().Count(eTRANSPORT_SERIAL) > 0;
        Vyrix_ReturnStatus r = CloseTransport(eTRANSPORT_SERIAL, "KtCloseSerialPort");
        if (wasOpen) LogEnd();
        return r;
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtCloseBTHSocket(void) {
    try {
        bool wasOpen = CHandlerTable::Instance().Count(eTRANSPORT_BTH) > 0;
        Vyrix_ReturnStatus r = CloseTransport(eTRANSPORT_BTH, "KtCloseBTHSocket");
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
        for (KtHandlerRef& handler : CHandlerTable::Instance().TakeAll()) handler->ClosePort();
        LogEnd();
    } catch (...) {
    }
}

}  // extern "C"
