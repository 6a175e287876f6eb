// SPDX-License-Identifier: MIT
// The exported packet-level service functions: one handler per transport,
// created by an open and destroyed by a close (or by the last caller still
// using it); every send and receive goes to the first open transport in the
// order USB, serial, Bluetooth.  The exception: inside the connectionless
// callback, a take goes to the link whose message the callback announces.
#include <cstdio>
#include <memory>

#include "LLC_CallbackDispatcher.h"
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

KtHandlerRef ChooseMessageSource(const char* function) {
    KtHandlerRef current = CCallbackDispatcher::CurrentLink();
    return current ? current : ChooseHandler(function);
}

// A link that a forked child inherited is the parent's: not to be used.
bool Usable(const KtHandlerRef& link) { return link != nullptr && !link->IsInherited(); }

// What the open and close functions of a transport say, named after them.
struct TransportTexts {
    const char* openFunction;
    const char* alreadyOpen;
    const char* openError;
    const char* closeFunction;
};
const TransportTexts kTexts[KT_TRANSPORT_COUNT] = {
    {"KtOpenUsbPort", "<ERROR> %s :USB port already opened\n", "<ERROR> %s :Error opening USB port\n",
     "KtCloseUsbPort"},
    {"KtOpenSerialPortByName", "<ERROR> %s :Serial port already opened\n", "<ERROR> %s :Error opening serial port\n",
     "KtCloseSerialPort"},
    {"KtOpenBTHSocket", "<ERROR> %s :BTH socket already opened\n", "<ERROR> %s :Error opening bth socket\n",
     "KtCloseBTHSocket"},
};

Vyrix_ReturnStatus OpenHandler(CCommHandler& handler, const KtLinkRequestS& request) {
    switch (request.transport) {
        case eTRANSPORT_USB: return handler.OpenPort(request.name);
        case eTRANSPORT_SERIAL: return handler.OpenPort(request.name, request.baud);
        case eTRANSPORT_BTH: return handler.OpenPort(request.name, request.passKey);
    }
    return RC(eVYRIX_FAILURE);
}

// Opens a port on the transport unless it holds `limit` ports already.
Vyrix_ReturnStatus OpenTransport(const KtLinkRequestS& request, const char* function, size_t limit,
                                 KtHandlerRef* pLink) {
    LogStart();
    const TransportTexts& texts = kTexts[request.transport];
    CHandlerTable& table = CHandlerTable::Instance();
    if (table.Count(request.transport) >= limit) {
        LlcLog(texts.alreadyOpen, function);
        return RC(eVYRIX_ALREADY_OPENED);
    }
    auto handler = std::make_shared<CCommHandler>();
    Vyrix_ReturnStatus r = OpenHandler(*handler, request);
    if (r != RC_OK) {
        LlcLog(texts.openError, function);
        return r;
    }
    if (!table.Add(request.transport, handler, limit)) {  // another thread was quicker
        handler->ClosePort();
        LlcLog(texts.alreadyOpen, function);
        return RC(eVYRIX_ALREADY_OPENED);
    }
    if (request.transport == eTRANSPORT_USB) LlcLog("<INFO> %s :USB port opened successfully\n", function);
    if (pLink != nullptr) *pLink = handler;
    return RC_OK;
}

// Takes the port out of the table and closes it; the log ends with the last
// open port.
Vyrix_ReturnStatus CloseHandler(const KtHandlerRef& handler, KtTransportE transport) {
    const char* function = kTexts[transport].closeFunction;
    if (handler != nullptr && handler->IsInherited()) {
        CHandlerTable::Instance().KeepInherited(handler);
        return RC(eVYRIX_NOT_CONNECTED);
    }
    if (handler == nullptr || !CHandlerTable::Instance().Remove(handler)) {
        LlcLog("<ERROR> %s :No port opened for communication\n", function);
        return RC(eVYRIX_NOT_CONNECTED);
    }
    Vyrix_ReturnStatus r = RC(eVYRIX_FAILURE);
    try {
        r = handler->ClosePort();
    } catch (...) {
        // The handler goes whatever its close did.
    }
    if (transport == eTRANSPORT_USB && r == RC_OK) LlcLog("<INFO> %s :USB port closed successfully\n", function);
    if (CHandlerTable::Instance().Total() == 0) LogEnd();
    return r;
}

Vyrix_ReturnStatus CloseTransport(KtTransportE transport) {
    return CloseHandler(CHandlerTable::Instance().First(transport), transport);
}

Vyrix_ReturnStatus CheckTransport(KtTransportE transport) {
    KtHandlerRef handler = CHandlerTable::Instance().First(transport);
    return handler ? handler->IsDeviceConnected() : RC(eVYRIX_FAILURE);
}

Vyrix_ReturnStatus RemoveInto(KtQueueTypeE queue, const char* function, BYTE* pDeviceID, BYTE* pPriority,
                              BYTE* pProtocolID, WORD* pPayloadLen, BYTE* pPayload, WORD cbPayload) {
    KtHandlerRef handler = queue == eCONNECTIONLESS ? ChooseMessageSource(function) : ChooseHandler(function);
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

Vyrix_ReturnStatus LlcOpenLink(const KtLinkRequestS& request, KtHandlerRef* pLink) {
    return OpenTransport(request, kTexts[request.transport].openFunction, KT_MAX_PORTS_PER_TRANSPORT, pLink);
}

Vyrix_ReturnStatus LlcCloseLink(KtTransportE transport, const KtHandlerRef& link) {
    return CloseHandler(link, transport);
}

void LlcReleaseLink(KtHandlerRef& link) {
    if (link && link->IsInherited()) CHandlerTable::Instance().KeepInherited(link);
    link.reset();
}

void LlcQuiesceCallbacks(const KtHandlerRef& link) {
    if (link) CCallbackDispatcher::Quiesce(*link);
}

KtHandlerRef LlcDefaultLink() { return CHandlerTable::Instance().FirstOpen(); }

Vyrix_ReturnStatus LlcSend(const KtHandlerRef& link, KtXlnkMsgS sMsg) {
    KtHandlerRef handler = link ? link : ChooseHandler("KtSendMsg");
    return Usable(handler) ? handler->SendMsg(sMsg) : RC(eVYRIX_NOT_CONNECTED);
}

Vyrix_ReturnStatus LlcWaitReply(const KtHandlerRef& link, KtXlnkMsgS* pMsg, const CDeadline& deadline) {
    KtHandlerRef handler = link ? link : ChooseHandler("KtRemoveMsg");
    if (!Usable(handler)) return RC(eVYRIX_NOT_CONNECTED);
    if (pMsg != nullptr) pMsg->payloadLen = KT_XLNK_MAX_PAYLOAD;
    return handler->WaitReply(pMsg, deadline);
}

void LlcDropReplies(const KtHandlerRef& link) {
    KtHandlerRef handler = link ? link : CHandlerTable::Instance().FirstOpen();
    if (Usable(handler)) handler->DropReplies();
}

Vyrix_ReturnStatus LlcTakeMessage(const KtHandlerRef& link, KtXlnkMsgS* pMsg) {
    KtHandlerRef handler = link ? link : ChooseMessageSource("KtRemoveConnectionlessMsg");
    if (!Usable(handler)) return RC(eVYRIX_NOT_CONNECTED);
    if (pMsg != nullptr && pMsg->payloadLen == 0) pMsg->payloadLen = KT_XLNK_MAX_PAYLOAD;
    return handler->RemoveMsg(eCONNECTIONLESS, pMsg);
}

extern "C" {

Vyrix_ReturnStatus KtOpenUsbPort(void) {
    try {
        return OpenTransport(KtLinkRequestS{eTRANSPORT_USB, nullptr, nullptr, 0}, "KtOpenUsbPort", 1, nullptr);
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

static Vyrix_ReturnStatus OpenSerial(const char* function, const char* pPortName, DWORD dwBaud) {
    return OpenTransport(KtLinkRequestS{eTRANSPORT_SERIAL, pPortName, nullptr, dwBaud}, function, 1, nullptr);
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
        return OpenTransport(KtLinkRequestS{eTRANSPORT_BTH, macID, passKey, 0}, "KtOpenBTHSocket", 1, nullptr);
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtCheckUsbPort(void) { return CheckTransport(eTRANSPORT_USB); }

Vyrix_ReturnStatus KtCheckSerialPort(void) { return CheckTransport(eTRANSPORT_SERIAL); }

Vyrix_ReturnStatus KtCheckBthSocket(void) { return CheckTransport(eTRANSPORT_BTH); }

Vyrix_ReturnStatus KtSendMsg(KtXlnkMsgS sMsg) {
    try {
        return LlcSend(nullptr, sMsg);
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
        // retryCount + 1 periods; a reply that is there is taken at once.
        const unsigned long periods = retryCount < 0 ? 1UL : static_cast<unsigned long>(retryCount) + 1UL;
        return LlcWaitReply(nullptr, pMsg, CDeadline::After(periods * KT_REMOVE_POLL_MS));
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtRemoveConnectionlessMsg(KtXlnkMsgS* pMsg) {
    try {
        return LlcTakeMessage(nullptr, pMsg);
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
        return CloseTransport(eTRANSPORT_USB);
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtCloseSerialPort(void) {
    try {
        return CloseTransport(eTRANSPORT_SERIAL);
    } catch (...) {
        return RC(eVYRIX_FAILURE);
    }
}

Vyrix_ReturnStatus KtCloseBTHSocket(void) {
    try {
        return CloseTransport(eTRANSPORT_BTH);
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
