#include "LLC_CommHandler.h"

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "LLC_BTPort.h"
#include "LLC_SPort.h"
#include "LLC_UsbPort.h"

std::atomic<KtEventCallbackFn> g_pfnParseEventCallbackFunction{nullptr};

namespace {
constexpr size_t kRecordHeader = 6;
constexpr size_t kScratchPayload = 4096;

timespec DeadlineIn(unsigned ms) {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    ts.tv_sec += ms / 1000;
    ts.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (ts.tv_nsec >= 1000000000L) {
        ts.tv_sec += 1;
        ts.tv_nsec -= 1000000000L;
    }
    return ts;
}
}  // namespace

CCommHandler::CCommHandler()
    : m_port(nullptr),
      m_bConnected(false),
      m_lastPacket(nullptr),
      m_LastPayloadLen(0),
      m_waitingReply(false),
      m_recordQueued(),
      m_queuedRecords() {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&m_recordQueued, &attr);
    pthread_condattr_destroy(&attr);
}

CCommHandler::~CCommHandler() {
    m_bConnected = false;
    if (m_port != nullptr) ClosePort();
    m_rxMsgQ.clear();
    m_rxMsgConnectionlessQ.clear();
    delete[] m_lastPacket;
    m_lastPacket = nullptr;
    pthread_cond_destroy(&m_recordQueued);
}

Vyrix_ReturnStatus CCommHandler::StartLink(Vyrix_ReturnStatus openResult, const char* failMessage,
                                           bool logThreadFailure) {
    if (openResult != RC_OK) {
        LlcLog(failMessage, "OpenPort");
        delete m_port;
        m_port = nullptr;
        return openResult;
    }
    m_bConnected = true;
    Vyrix_ReturnStatus r = m_thread.createThread(ReadThreadRoutine, this);
    if (r != RC_OK) {
        if (logThreadFailure) LlcLog("<ERROR> %s: Read Thread Creation failed\n", "OpenPort");
        ClosePort();
        return r;
    }
    return RC_OK;
}

Vyrix_ReturnStatus CCommHandler::OpenPort() {
    auto* port = new CUsbPort();
    m_port = port;
    return StartLink(port->OpenPort(), "<ERROR> %s :Error during OSAL open USB port\n", true);
}

Vyrix_ReturnStatus CCommHandler::OpenPort(const char* pPortName, DWORD dwBaud) {
    if (pPortName == nullptr || dwBaud != KT_VYRIX_BAUDRATE) {
        LlcLog("<ERROR>%s: Invalid Arguments.\n", "OpenPort");
        return RC(eVYRIX_INVALID_ARGUMENT);
    }
    auto* port = new CSPort();
    m_port = port;
    return StartLink(port->OpenPort(pPortName, KT_VYRIX_BAUDRATE, 'n', 8, 1.0f),
                     "<ERROR> %s :Error during OSAL open serial port\n", false);
}

Vyrix_ReturnStatus CCommHandler::OpenPort(const char* m_uniqueID, const char* m_pass_Key) {
    if (m_uniqueID == nullptr || m_pass_Key == nullptr) {
        LlcLog("<ERROR>%s: Invalid Arguments.\n", "OpenPort");
        return RC(eVYRIX_INVALID_ARGUMENT);
    }
    auto* port = new CBTPort();
    m_port = port;
    return StartLink(port->OpenPort(m_uniqueID, m_pass_Key), "<ERROR> %s :Error during OSAL open bth socket \n", false);
}

Vyrix_ReturnStatus CCommHandler::IsDeviceConnected() { return m_bConnected ? RC_OK : RC(eVYRIX_FAILURE); }

int CCommHandler::ReadThreadRoutine(void* arg) {
    auto* self = static_cast<CCommHandler*>(arg);
    if (self == nullptr || self->m_port == nullptr || !self->m_bConnected) return 0;
    // One longest packet; it lives with this thread.
    BYTE buf[KT_XLNK_MAX_PACKET] = {0};
    for (;;) {
        int bBytesRead = 0;
        Vyrix_ReturnStatus r = self->m_port->ReadPort(buf, &bBytesRead);
        if (HasCode(r, eVYRIX_NOT_CONNECTED)) {
            self->m_bConnected = false;
            return 0;
        }
        if (r == RC_OK && bBytesRead > 0) {
            KtXlnkMsgS sMsg{};
            if (self->m_msgHandler.ParsePacket(buf, static_cast<DWORD>(bBytesRead), &sMsg) == RC_OK) {
                self->Deliver(sMsg);
                delete[] sMsg.pPayload;
            }
            memset(buf, 0, static_cast<size_t>(bBytesRead));
        }
        if (self->m_port == nullptr || !self->m_bConnected) return 0;
    }
}

void CCommHandler::Deliver(const KtXlnkMsgS& sMsg) {
    if (sMsg.protocolID == ePROTOCOL_CONNECTION_ORIENTED) {
        AddMsgToQueue(m_rxMsgQ, sMsg);
        return;
    }
    if (sMsg.protocolID != ePROTOCOL_CONNECTIONLESS) {
        LlcLog("<ERROR> %s: Invalid Protocol ID.\n", "ReadThreadRoutine");
        return;
    }
    KtEventCallbackFn callback = g_pfnParseEventCallbackFunction.load();
    if (callback == nullptr) return;  // nobody listens: dropped
    AddMsgToQueue(m_rxMsgConnectionlessQ, sMsg);
    Vyrix_ReturnStatus result;
    try {
        result = callback(nullptr);
    } catch (...) {
        // The application's code must not end the receive thread.
        result = RC(eVYRIX_FAILURE);
    }
    if (result != RC_OK) LlcLog("<ERROR> %s: Error in ALC Callback.\n", "ReadThreadRoutine");
}

CCommHandler::Queue& CCommHandler::Select(KtQueueTypeE queueType) {
    return queueType == eCONNECTIONLESS ? m_rxMsgConnectionlessQ : m_rxMsgQ;
}

int CCommHandler::IndexOf(const Queue& queue) const { return &queue == &m_rxMsgConnectionlessQ ? 1 : 0; }

Vyrix_ReturnStatus CCommHandler::AddMsgToQueue(Queue& queue, KtXlnkMsgS sMsg) {
    // Replies that nobody waits for would be taken for the next one's.
    if (!m_waitingReply && sMsg.protocolID != ePROTOCOL_CONNECTIONLESS) return RC_OK;
    const BYTE header[kRecordHeader] = {sMsg.deviceID,
                                        sMsg.sourceID,
                                        static_cast<BYTE>(sMsg.priority >> 6),
                                        sMsg.protocolID,
                                        static_cast<BYTE>(sMsg.payloadLen & 0xFF),
                                        static_cast<BYTE>(sMsg.payloadLen >> 8)};
    m_syncObj.LockSyncObject();
    queue.insert(queue.end(), header, header + kRecordHeader);
    if (sMsg.payloadLen > 0 && sMsg.pPayload != nullptr)
        queue.insert(queue.end(), sMsg.pPayload, sMsg.pPayload + sMsg.payloadLen);
    ++m_queuedRecords[IndexOf(queue)];
    pthread_cond_broadcast(&m_recordQueued);
    m_syncObj.UnlockSyncObject();
    return RC_OK;
}

Vyrix_ReturnStatus CCommHandler::RemoveMsgFromQueue(Queue& queue, KtXlnkMsgS* pMsg) {
    m_syncObj.LockSyncObject();
    if (queue.size() < kRecordHeader) {
        m_syncObj.UnlockSyncObject();
        return RC(eVYRIX_INCOMPLETE);
    }
    pMsg->deviceID = queue[0];
    pMsg->sourceID = queue[1];
    pMsg->priority = queue[2];
    pMsg->protocolID = queue[3];
    const size_t length = static_cast<size_t>(queue[4]) | (static_cast<size_t>(queue[5]) << 8);
    const size_t capacity = pMsg->payloadLen;
    const bool tooLarge = length > capacity;
    if (tooLarge)
        LlcLog("<ERROR> %s :Payload length in message structure is less than the actual payload in queue\n",
               "RemoveMsgFromQueue");
    if (queue.size() < kRecordHeader + length) {
        LlcLog("<ERROR> %s :Incomplete payload in the queue\n", "RemoveMsgFromQueue");
        m_syncObj.UnlockSyncObject();
        return RC(eVYRIX_FAILURE);
    }
    if (length != 0 && pMsg->pPayload == nullptr) {
        m_syncObj.UnlockSyncObject();
        return RC(eVYRIX_INVALID_ARGUMENT);
    }
    // The record leaves the queue whole; the caller gets what fits.
    const size_t copied = tooLarge ? capacity : length;
    queue.erase(queue.begin(), queue.begin() + kRecordHeader);
    std::copy(queue.begin(), queue.begin() + static_cast<std::ptrdiff_t>(copied), pMsg->pPayload);
    queue.erase(queue.begin(), queue.begin() + static_cast<std::ptrdiff_t>(length));
    pMsg->payloadLen = static_cast<WORD>(copied);
    const BYTE destination = pMsg->deviceID;
    m_syncObj.UnlockSyncObject();
    if (tooLarge) return RC(eVYRIX_PAYLOAD_TOO_LARGE);
    return destination == eBROADCAST_DEVICE_ID ? RC(eVYRIX_RETRY) : RC_OK;
}

void CCommHandler::ClearMsgQ(Queue& queue) {
    std::unique_ptr<BYTE[]> scratch(new BYTE[kScratchPayload]);
    for (unsigned i = 0; i < KT_QUEUE_FLUSH_RECORDS; ++i) {
        KtXlnkMsgS record{};
        record.payloadLen = static_cast<WORD>(kScratchPayload);
        record.pPayload = scratch.get();
        Vyrix_ReturnStatus r = RemoveMsgFromQueue(queue, &record);
        if (r != RC_OK && r != RC(eVYRIX_RETRY)) break;
    }
}

Vyrix_ReturnStatus CCommHandler::RemoveMsg(KtQueueTypeE queueType, KtXlnkMsgS* pMsg) {
    if ((queueType != eCONNECTION_ORIENTED && queueType != eCONNECTIONLESS) || pMsg == nullptr ||
        pMsg->pPayload == nullptr) {
        LlcLog("<ERROR> %s :Invalid argument\n", "RemoveMsg");
        return RC(eVYRIX_INVALID_ARGUMENT);
    }
    Queue& queue = Select(queueType);
    const WORD capacity = pMsg->payloadLen;
    Vyrix_ReturnStatus r = RemoveMsgFromQueue(queue, pMsg);
    if (r != RC(eVYRIX_RETRY)) return r;
    pMsg->payloadLen = capacity;
    r = RetryLastMessage(queue, pMsg);
    return r != RC(eVYRIX_RETRY) ? r : RC(eVYRIX_FAILURE);
}

Vyrix_ReturnStatus CCommHandler::RetryLastMessage(Queue& queue, KtXlnkMsgS* pMsg) {
    if (m_lastPacket == nullptr) {
        printf("<ERROR> %s :No last message to resend\n", "RetryLastMessage");
        fflush(stdout);
        LLCSleep(KT_NO_RETRY_COPY_PAUSE_MS);
        return RC(eVYRIX_FAILURE);
    }
    const KtQueueTypeE type = IndexOf(queue) == 1 ? eCONNECTIONLESS : eCONNECTION_ORIENTED;
    const WORD capacity = pMsg->payloadLen;
    Vyrix_ReturnStatus r = RC(eVYRIX_INCOMPLETE);
    for (unsigned retry = 0; retry < KT_RESEND_COUNT; ++retry) {
        ClearMsgQ(queue);
        LlcLog("<INFO> %s: Retry number :%d\n", "RetryLastMessage", static_cast<int>(retry));
        if (m_port == nullptr) {
            LlcLog("<ERROR> %s :Port not opened \n", "RetryLastMessage");
            return RC(eVYRIX_FAILURE);
        }
        uint64_t seen = QueuedRecords(type);
        Vyrix_ReturnStatus w = m_port->WritePort(m_lastPacket, static_cast<unsigned short>(m_LastPayloadLen + 6));
        if (HasCode(w, eVYRIX_NOT_CONNECTED)) {
            m_bConnected = false;
            LlcLog("<ERROR> %s :Error writing data to port\n", "RetryLastMessage");
            return w;
        }
        LLCSleep(KT_RESEND_SETTLE_MS);
        for (unsigned poll = 0; poll < KT_RESEND_MAX_POLLS; ++poll) {
            WaitForRecord(type, seen, KT_REMOVE_POLL_MS);
            seen = QueuedRecords(type);
            pMsg->payloadLen = capacity;
            r = RemoveMsgFromQueue(queue, pMsg);
            if (r != RC(eVYRIX_INCOMPLETE)) break;
        }
        if (r == RC_OK) {
            LlcLog("Retry success");
            return RC_OK;
        }
    }
    return r;
}

Vyrix_ReturnStatus CCommHandler::SendMsg(KtXlnkMsgS sMsg) {
    const size_t packetLen = static_cast<size_t>(sMsg.payloadLen) + 6;
    std::unique_ptr<BYTE[]> packet(new BYTE[packetLen]);
    Vyrix_ReturnStatus r = m_msgHandler.EncodePacket(sMsg, packet.get());
    if (r != RC_OK) return r;
    if (m_port == nullptr) {
        LlcLog("<ERROR> %s :Port not opened \n", "SendMsg");
        return RC(eVYRIX_FAILURE);
    }
    m_waitingReply = true;
    r = m_port->WritePort(packet.get(), static_cast<unsigned short>(packetLen));
    if (HasCode(r, eVYRIX_NOT_CONNECTED)) {
        m_waitingReply = false;
        m_bConnected = false;
        LlcLog("<ERROR> %s :Error writing data to port\n", "SendMsg");
        return r;
    }
    if (r != RC_OK) {
        m_waitingReply = false;
        return r;
    }
    delete[] m_lastPacket;
    m_lastPacket = packet.release();
    m_LastPayloadLen = sMsg.payloadLen;
    return RC_OK;
}

void CCommHandler::ClearRetryCache() {
    delete[] m_lastPacket;
    m_lastPacket = nullptr;
    m_LastPayloadLen = 0;
    m_waitingReply = false;
}

Vyrix_ReturnStatus CCommHandler::ClosePort() {
    m_bConnected = false;
    if (m_port == nullptr) {
        LlcLog("<ERROR> %s :Error closing port\n", "ClosePort");
        return RC(eVYRIX_FAILURE);
    }
    m_port->CancelRead();
    if (m_thread.CloseThread() != RC_OK) LlcLog("<ERROR> %s: Error closing Thread.\n", "ClosePort");
    Vyrix_ReturnStatus r = m_port->ClosePort();
    if (r != RC_OK) LlcLog("<ERROR> %s: Error closing port.\n", "ClosePort");
    m_syncObj.LockSyncObject();
    m_rxMsgQ.clear();
    m_rxMsgConnectionlessQ.clear();
    m_syncObj.UnlockSyncObject();
    delete m_port;
    m_port = nullptr;
    return r;
}

uint64_t CCommHandler::QueuedRecords(KtQueueTypeE queueType) {
    m_syncObj.LockSyncObject();
    uint64_t count = m_queuedRecords[queueType == eCONNECTIONLESS ? 1 : 0];
    m_syncObj.UnlockSyncObject();
    return count;
}

void CCommHandler::WaitForRecord(KtQueueTypeE queueType, uint64_t seen, unsigned ms) {
    const int index = queueType == eCONNECTIONLESS ? 1 : 0;
    const timespec deadline = DeadlineIn(ms);
    m_syncObj.LockSyncObject();
    while (m_queuedRecords[index] == seen) {
        if (pthread_cond_timedwait(&m_recordQueued, m_syncObj.NativeHandle(), &deadline) != 0) break;
    }
    m_syncObj.UnlockSyncObject();
}

Vyrix_ReturnStatus CCommHandler::CheckEnumerationArgs(unsigned* pNumDevices, void* pDeviceInfo, const char* function) {
    if (pNumDevices == nullptr || pDeviceInfo == nullptr) {
        LlcLog("<ERROR> %s:Invalid parameter\n", function);
        return RC(eVYRIX_INVALID_ARGUMENT);
    }
    return RC_OK;
}

Vyrix_ReturnStatus CCommHandler::EnumerateBTHDevices(unsigned numDevicesToEnumerate, unsigned* pNumDevices,
                                                     void* pDeviceInfo) {
    Vyrix_ReturnStatus r = CheckEnumerationArgs(pNumDevices, pDeviceInfo, "EnumerateBTHDevices");
    if (r != RC_OK) return r;
    m_port = new CBTPort();
    r = m_port->EnumerateDevices(numDevicesToEnumerate, pNumDevices, pDeviceInfo);
    delete m_port;
    m_port = nullptr;
    return r;
}

Vyrix_ReturnStatus CCommHandler::EnumerateUSBDevices(unsigned numDevicesToEnumerate, unsigned* pNumDevices,
                                                     void* pDeviceInfo) {
    Vyrix_ReturnStatus r = CheckEnumerationArgs(pNumDevices, pDeviceInfo, "EnumerateUSBDevices");
    if (r != RC_OK) return r;
    CUsbPort port;
    return port.EnumerateDevices(numDevicesToEnumerate, pNumDevices, pDeviceInfo);
}

Vyrix_ReturnStatus CCommHandler::EnumerateUARTDevices(unsigned /*numDevicesToEnumerate*/, unsigned* pNumDevices,
                                                      void* pDeviceInfo) {
    Vyrix_ReturnStatus r = CheckEnumerationArgs(pNumDevices, pDeviceInfo, "EnumerateUARTDevices");
    if (r != RC_OK) return r;
    m_port = new CSPort();
    delete m_port;
    m_port = nullptr;
    return RC_OK;
}
