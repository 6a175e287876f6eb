// SPDX-License-Identifier: MIT
#include "LLC_CommHandler.h"

#include <algorithm>
#include <cstdio>

#include "LLC_BTPort.h"
#include "LLC_CallbackDispatcher.h"
#include "LLC_ForkGuard.h"
#include "LLC_NetPort.h"
#include "LLC_PathWatch.h"
#include "LLC_SPort.h"
#include "LLC_UsbArrivalWatch.h"
#include "LLC_UsbPort.h"

std::atomic<KtEventCallbackFn> g_pfnParseEventCallbackFunction{nullptr};

CCommHandler::CCommHandler()
    : m_rxMsgQ(KT_MAX_QUEUED_MESSAGES, KT_MAX_QUEUED_BYTES),
      m_rxMsgConnectionlessQ(KT_MAX_QUEUED_MESSAGES, KT_MAX_QUEUED_BYTES),
      m_bConnected(false),
      m_closing(false),
      m_waitingReply(false),
      m_dispatching(false),
      m_started(false),
      m_LastPayloadLen(0),
      m_lastSequence(0),
      m_wentDown(false),
      m_generation(CForkGuard::Generation()),
      m_parserDiscards(0),
      m_reconnect(false),
      m_maxIntervalMs(KT_RECONNECT_DEFAULT_MAX_MS),
      m_opening(nullptr),
      m_receiving(false),
      m_resumeDown(false) {}

CCommHandler::~CCommHandler() {
    m_bConnected = false;
    if (m_started) ClosePort();
}

bool CCommHandler::IsInherited() const { return m_generation != CForkGuard::Generation(); }

KtLinkCountersS CCommHandler::Counters() const {
    const AtomicCounters& c = m_counters;
    return KtLinkCountersS{c.packetsSent, c.packetsReceived,  c.bytesSent,       c.bytesReceived,
                           c.resends,     c.packetsDiscarded, c.messagesDropped, c.linkDowns};
}

Vyrix_ReturnStatus CCommHandler::StartLink(CPort* port, PortFactory makePort, std::unique_ptr<CArrivalWatch> watch,
                                           const char* failMessage, bool logThreadFailure) {
    m_port.reset(port);
    Vyrix_ReturnStatus r = port->OpenPort();
    if (r != RC_OK) {
        LlcLog(failMessage, "OpenPort");
        m_port.reset();
        return r;
    }
    {
        std::lock_guard<std::mutex> lock(m_lifeMutex);
        m_makePort = std::move(makePort);
        m_receiving = true;
    }
    m_watch = std::move(watch);
    m_capture.Opened(*port);
    CCallbackDispatcher::Attach();
    m_dispatching = true;
    m_started = true;
    m_bConnected = true;
    r = m_thread.createThread(ReadThreadRoutine, this, "vyrix-receive");
    if (r != RC_OK) {
        if (logThreadFailure) LlcLog("<ERROR> %s: Read Thread Creation failed\n", "OpenPort");
        ClosePort();
        return r;
    }
    return RC_OK;
}

Vyrix_ReturnStatus CCommHandler::OpenPort(const char* preferredSerial) {
    auto* port = new CUsbPort(preferredSerial);
    // The device found again is the one with the serial number of the
    // device taken now, whichever was asked for.
    auto taken = std::make_shared<std::string>();
    PortFactory reopen = [taken] { return std::unique_ptr<CPort>(new CUsbPort(taken->c_str(), true)); };
    Vyrix_ReturnStatus r = StartLink(port, reopen, std::make_unique<CUsbArrivalWatch>(),
                                     "<ERROR> %s :Error during OSAL open USB port\n", true);
    if (r == RC_OK) {
        std::lock_guard<std::mutex> lock(m_lifeMutex);
        *taken = !port->SerialNumber().empty() || preferredSerial == nullptr ? port->SerialNumber() : preferredSerial;
    }
    return r;
}

Vyrix_ReturnStatus CCommHandler::OpenPort(const char* pPortName, DWORD dwBaud) {
    if (pPortName == nullptr || dwBaud != KT_VYRIX_BAUDRATE) {
        LlcLog("<ERROR>%s: Invalid Arguments.\n", "OpenPort");
        return RC(eVYRIX_INVALID_ARGUMENT);
    }
    // A URL names a line that a server on another host exports; its return
    // is not announced, so reconnection waits out the back-off for it.
    const std::string name = pPortName;
    const bool remote = CNetAddress::IsUrl(pPortName);
    PortFactory reopen = [name, remote] {
        return remote ? std::unique_ptr<CPort>(new CNetPort(name.c_str()))
                      : std::unique_ptr<CPort>(new CSPort(name.c_str(), KT_VYRIX_BAUDRATE, 'n', 8, 1.0f));
    };
    std::unique_ptr<CArrivalWatch> watch =
        remote ? std::make_unique<CArrivalWatch>() : std::make_unique<CPathWatch>(pPortName);
    return StartLink(reopen().release(), reopen, std::move(watch), "<ERROR> %s :Error during OSAL open serial port\n",
                     false);
}

Vyrix_ReturnStatus CCommHandler::OpenPort(const char* m_uniqueID, const char* m_pass_Key) {
    if (m_uniqueID == nullptr || m_pass_Key == nullptr) {
        LlcLog("<ERROR>%s: Invalid Arguments.\n", "OpenPort");
        return RC(eVYRIX_INVALID_ARGUMENT);
    }
    const std::string id = m_uniqueID, key = m_pass_Key;
    PortFactory reopen = [id, key] { return std::unique_ptr<CPort>(new CBTPort(id.c_str(), key.c_str())); };
    return StartLink(reopen().release(), reopen, std::make_unique<CArrivalWatch>(),
                     "<ERROR> %s :Error during OSAL open bth socket \n", false);
}

Vyrix_ReturnStatus CCommHandler::IsDeviceConnected() { return m_bConnected ? RC_OK : RC(eVYRIX_FAILURE); }

int CCommHandler::ReadThreadRoutine(void* arg) {
    auto* self = static_cast<CCommHandler*>(arg);
    if (self != nullptr && self->m_port != nullptr) self->ReceiveLoop();
    return 0;
}

void CCommHandler::ReceiveLoop() {
    while (!m_closing) {
        if (!m_resumeDown) {
            const Vyrix_ReturnStatus reason = ReadUntilDown();
            if (m_closing) return;
            LinkDown(reason);
            if (!StayForReconnect()) return;
        }
        m_resumeDown = false;
        if (!Reconnect()) return;
    }
}

bool CCommHandler::StayForReconnect() {
    std::lock_guard<std::mutex> lock(m_lifeMutex);
    m_receiving = !m_closing && m_reconnect;
    return m_receiving;
}

void CCommHandler::ResumeReceiving() {
    std::lock_guard<std::mutex> threads(m_threadMutex);
    {
        std::lock_guard<std::mutex> lock(m_lifeMutex);
        if (m_receiving || m_closing || !m_started || !m_reconnect) return;
        m_receiving = true;
        m_resumeDown = true;
    }
    m_thread.CloseThread();  // the one that ended at the link's going down
    if (m_thread.createThread(ReadThreadRoutine, this, "vyrix-receive") != RC_OK) {
        std::lock_guard<std::mutex> lock(m_lifeMutex);
        m_receiving = false;
    }
}

// Sleeps in the port's read while the line is idle; inside a packet the
// read waits at most KT_PACKET_GAP_MS, after which the packet is given up
// and its bytes searched again.
Vyrix_ReturnStatus CCommHandler::ReadUntilDown() {
    BYTE buf[KT_XLNK_MAX_PACKET];
    while (!m_closing) {
        // A writer found the device gone and woke this read.
        if (!m_bConnected) return RC(eVYRIX_NOT_CONNECTED);
        const bool inPacket = m_msgHandler.InPacket();
        const CDeadline deadline = inPacket ? CDeadline::After(KT_PACKET_GAP_MS) : CDeadline::Never();
        int bytesRead = 0;
        Vyrix_ReturnStatus r = m_port->ReadPort(buf, &bytesRead, deadline);
        if (r == RC_OK) {
            m_counters.bytesReceived += static_cast<uint64_t>(bytesRead);
            Consume(buf, static_cast<DWORD>(bytesRead));
            CountParserDiscards();
            continue;
        }
        if (m_closing) return RC_OK;
        if (HasCode(r, eVYRIX_INCOMPLETE)) {
            if (inPacket && deadline.Expired()) {
                m_msgHandler.AbandonPacket();
                Consume(buf, 0);
                CountParserDiscards();
            }
            continue;
        }
        // The device is gone, or the port failed in a way reading again
        // would only repeat.
        return r;
    }
    return RC_OK;
}

void CCommHandler::Consume(BYTE* buf, DWORD length) {
    DWORD offset = 0;
    m_msgHandler.KeepDropped(m_capture.On());
    for (;;) {
        KtXlnkMsgS sMsg{};
        const bool accepted = m_msgHandler.ParsePacket(buf + offset, length - offset, &sMsg) == RC_OK;
        m_capture.Parsed(m_msgHandler, accepted ? &sMsg : nullptr);
        if (!accepted) return;
        offset += m_msgHandler.ConsumedBytes();
        Deliver(sMsg);
        delete[] sMsg.pPayload;
    }
}

void CCommHandler::CountParserDiscards() {
    const size_t abandoned = m_msgHandler.Abandoned();
    m_counters.packetsDiscarded += abandoned - m_parserDiscards;
    m_parserDiscards = abandoned;
}

void CCommHandler::Deliver(const KtXlnkMsgS& sMsg) {
    CountParserDiscards();  // what was given up before this packet, counted before anyone sees it
    ++m_counters.packetsReceived;
    if (sMsg.protocolID == ePROTOCOL_CONNECTION_ORIENTED) {
        // Replies that nobody waits for would be taken for the next one's.
        if (m_waitingReply) m_counters.packetsDiscarded += m_rxMsgQ.Push(sMsg).dropped;
        return;
    }
    if (sMsg.protocolID != ePROTOCOL_CONNECTIONLESS) {
        LlcLog("<ERROR> %s: Invalid Protocol ID.\n", "ReadThreadRoutine");
        return;
    }
    // Nobody listens (no callback, no event descriptor): dropped.
    if (g_pfnParseEventCallbackFunction.load() == nullptr && !m_events.Active()) return;
    QueueUnprompted(sMsg);
}

void CCommHandler::QueueUnprompted(const KtXlnkMsgS& sMsg) {
    const CMsgQueue::PushResult pushed = m_rxMsgConnectionlessQ.Push(sMsg);
    if (pushed.dropped > 0) {
        m_counters.messagesDropped += pushed.dropped;
        if (pushed.burstBegan)
            LlcLog("<INFO> %s: Unprompted message queue full, dropping the oldest messages.\n", "ReadThreadRoutine");
    }
    CCallbackDispatcher::Post(*this, pushed.dropped);
    RefreshEvents();
}

void CCommHandler::LinkDown(Vyrix_ReturnStatus reason) {
    m_gate.Close();
    m_bConnected = false;
    m_rxMsgQ.MarkDown(RC(eVYRIX_NOT_CONNECTED));
    m_rxMsgConnectionlessQ.MarkDown(RC(eVYRIX_NOT_CONNECTED));
    if (m_closing || m_wentDown.exchange(true)) return;
    ++m_counters.linkDowns;
    ReportState(eVYRIX_LINK_DOWN, reason);
}

void CCommHandler::ReportState(Vyrix_LinkStateE state, Vyrix_ReturnStatus reason) {
    if (!m_state.Change(state)) return;
    CCallbackDispatcher::PostState(*this, state, reason);
    RefreshEvents();
}

void CCommHandler::RefreshEvents() {
    if (!m_events.Active()) return;
    m_events.Update([this] { return !m_rxMsgConnectionlessQ.Empty() || m_state.Unread(); });
}

Vyrix_LinkStateE CCommHandler::ReadState() {
    const Vyrix_LinkStateE state = m_state.Read();
    RefreshEvents();
    return state;
}

int CCommHandler::EventFd() {
    const int fd = m_events.Fd();
    RefreshEvents();
    return fd;
}

void CCommHandler::SetReconnect(bool enable, unsigned maxIntervalMs) {
    {
        std::lock_guard<std::mutex> lock(m_lifeMutex);
        m_maxIntervalMs = maxIntervalMs;
        m_reconnect = enable;
    }
    if (m_watch) m_watch->Wake();
    if (enable) ResumeReceiving();
}

bool CCommHandler::Reconnect() {
    ReleasePort();
    ReportState(eVYRIX_LINK_RECONNECTING, RC_OK);
    unsigned pauseMs = KT_RECONNECT_FIRST_MS;
    for (;;) {
        if (m_closing) return false;
        if (!m_reconnect) {
            // Switched off while looking: down again, and this thread ends
            // (under the lock, so a switch back on starts the next one
            // after this change is reported).
            std::lock_guard<std::mutex> lock(m_lifeMutex);
            if (!m_reconnect) {
                m_receiving = false;
                if (!m_closing) ReportState(eVYRIX_LINK_DOWN, RC(eVYRIX_NOT_CONNECTED));
                return false;
            }
        }
        if (TryReopen()) return true;
        if (m_closing) return false;
        // A device that has just arrived may need a moment before it
        // answers: after an arrival the back-off starts again.
        if (m_watch->Wait(CDeadline::After(pauseMs)) == CArrivalWatch::kArrived)
            pauseMs = KT_RECONNECT_FIRST_MS;
        else
            pauseMs = std::min(pauseMs * 2, std::max(m_maxIntervalMs.load(), KT_RECONNECT_FIRST_MS));
    }
}

// The old port goes first: it holds the device's lock file and the device.
void CCommHandler::ReleasePort() {
    std::unique_ptr<CPort> old;
    {
        std::lock_guard<std::mutex> write(m_writeLock);
        std::lock_guard<std::mutex> lock(m_portMutex);
        old.swap(m_port);
    }
    if (old != nullptr && old->ClosePort() != RC_OK) LlcLog("<ERROR> %s: Error closing port.\n", "ClosePort");
}

bool CCommHandler::TryReopen() {
    std::unique_ptr<CPort> port;
    {
        std::lock_guard<std::mutex> lock(m_lifeMutex);
        if (m_closing || !m_makePort) return false;
        port = m_makePort();
        m_opening = port.get();
    }
    const Vyrix_ReturnStatus r = port->OpenPort();
    {
        std::lock_guard<std::mutex> lock(m_lifeMutex);
        m_opening = nullptr;
    }
    if (r != RC_OK) return false;
    if (m_msgHandler.InPacket()) m_msgHandler.AbandonPacket();  // the old device's last words
    {
        std::lock_guard<std::mutex> write(m_writeLock);
        std::lock_guard<std::mutex> lock(m_portMutex);
        // A close that began meanwhile has marked the link down: it stays so.
        if (m_closing) return false;
        m_port.swap(port);
        m_rxMsgQ.MarkUp();
        m_rxMsgConnectionlessQ.MarkUp();
        m_gate.Reopen();
        m_wentDown = false;
        m_bConnected = true;
    }
    ReportState(eVYRIX_LINK_UP, RC_OK);
    return true;
}

CMsgQueue& CCommHandler::Select(KtQueueTypeE queueType) {
    return queueType == eCONNECTIONLESS ? m_rxMsgConnectionlessQ : m_rxMsgQ;
}

Vyrix_ReturnStatus CCommHandler::RemoveMsg(KtQueueTypeE queueType, KtXlnkMsgS* pMsg) {
    if ((queueType != eCONNECTION_ORIENTED && queueType != eCONNECTIONLESS) || pMsg == nullptr ||
        pMsg->pPayload == nullptr) {
        LlcLog("<ERROR> %s :Invalid argument\n", "RemoveMsg");
        return RC(eVYRIX_INVALID_ARGUMENT);
    }
    CMsgQueue& queue = Select(queueType);
    const WORD capacity = pMsg->payloadLen;
    Vyrix_ReturnStatus r = queue.WaitPop(pMsg, CDeadline::After(0));
    if (queueType == eCONNECTIONLESS) RefreshEvents();
    if (r != RC(eVYRIX_RETRY)) return r;
    pMsg->payloadLen = capacity;
    r = RetryLastMessage(queue, pMsg);
    return r != RC(eVYRIX_RETRY) ? r : RC(eVYRIX_FAILURE);
}

Vyrix_ReturnStatus CCommHandler::WaitReply(KtXlnkMsgS* pMsg, const CDeadline& deadline) {
    Vyrix_ReturnStatus r;
    if (pMsg == nullptr || pMsg->pPayload == nullptr) {
        LlcLog("<ERROR> %s :Invalid argument\n", "RemoveMsg");
        r = RC(eVYRIX_INVALID_ARGUMENT);
    } else {
        const WORD capacity = pMsg->payloadLen;
        r = m_rxMsgQ.WaitPop(pMsg, deadline);
        if (r == RC(eVYRIX_RETRY)) {
            pMsg->payloadLen = capacity;
            r = RetryLastMessage(m_rxMsgQ, pMsg);
            if (r == RC(eVYRIX_RETRY)) r = RC(eVYRIX_FAILURE);
        }
    }
    ClearRetryCache();
    return r;
}

void CCommHandler::DropReplies() {
    m_rxMsgQ.DrainNow();
    ClearRetryCache();
}

Vyrix_ReturnStatus CCommHandler::WriteLocked(const BYTE* packet, size_t length, const char* function) {
    if (m_port == nullptr) {
        LlcLog("<ERROR> %s :Port not opened \n", function);
        // A sender that still held this handler when its port was closed,
        // or that came while the device is being looked for.
        return m_closing || m_wentDown ? RC(eVYRIX_NOT_CONNECTED) : RC(eVYRIX_FAILURE);
    }
    Vyrix_ReturnStatus r =
        m_bConnected ? m_port->WritePort(packet, static_cast<unsigned short>(length)) : RC(eVYRIX_NOT_CONNECTED);
    if (HasCode(r, eVYRIX_NOT_CONNECTED)) {
        LinkDown(r);
        m_port->CancelRead();  // the receive thread learns of it at once
        LlcLog("<ERROR> %s :Error writing data to port\n", function);
    }
    return r;
}

Vyrix_ReturnStatus CCommHandler::RetryLastMessage(CMsgQueue& queue, KtXlnkMsgS* pMsg) {
    std::vector<BYTE> packet;
    {
        std::lock_guard<std::mutex> lock(m_writeLock);
        packet = m_lastPacket;
    }
    if (packet.empty()) {
        printf("<ERROR> %s :No last message to resend\n", "RetryLastMessage");
        fflush(stdout);
        LLCSleep(KT_NO_RETRY_COPY_PAUSE_MS);
        return RC(eVYRIX_FAILURE);
    }
    const WORD capacity = pMsg->payloadLen;
    Vyrix_ReturnStatus r = RC(eVYRIX_INCOMPLETE);
    for (unsigned retry = 0; retry < KT_RESEND_COUNT; ++retry) {
        queue.DrainNow();
        LlcLog("<INFO> %s: Retry number :%d\n", "RetryLastMessage", static_cast<int>(retry));
        {
            std::lock_guard<std::mutex> lock(m_writeLock);
            m_capture.Sent(packet.data(), packet.size(), true);
            Vyrix_ReturnStatus w = WriteLocked(packet.data(), packet.size(), "RetryLastMessage");
            // Other write failures are not examined: the wait below decides.
            if (m_port == nullptr || HasCode(w, eVYRIX_NOT_CONNECTED)) return w;
            if (w == RC_OK) {
                ++m_counters.resends;
                ++m_counters.packetsSent;
                m_counters.bytesSent += packet.size();
            }
        }
        pMsg->payloadLen = capacity;
        r = queue.WaitPop(pMsg, CDeadline::After(static_cast<unsigned long>(KT_RESEND_MAX_POLLS) * KT_REMOVE_POLL_MS));
        if (r == RC_OK) {
            LlcLog("Retry success");
            return RC_OK;
        }
        if (HasCode(r, eVYRIX_NOT_CONNECTED)) return r;
    }
    return r;
}

Vyrix_ReturnStatus CCommHandler::SendMsg(KtXlnkMsgS sMsg) {
    std::vector<BYTE> packet(static_cast<size_t>(sMsg.payloadLen) + 6);
    Vyrix_ReturnStatus r = m_msgHandler.EncodePacket(sMsg, packet.data());
    if (r != RC_OK) return r;
    std::lock_guard<std::mutex> lock(m_writeLock);
    m_waitingReply = true;
    m_capture.Sent(packet.data(), packet.size(), false);
    r = WriteLocked(packet.data(), packet.size(), "SendMsg");
    if (r != RC_OK) {
        m_waitingReply = false;
        return r;
    }
    ++m_counters.packetsSent;
    m_counters.bytesSent += packet.size();
    m_lastPacket.swap(packet);
    m_LastPayloadLen = sMsg.payloadLen;
    return RC_OK;
}

void CCommHandler::ClearRetryCache() {
    std::lock_guard<std::mutex> lock(m_writeLock);
    m_lastPacket.clear();
    m_LastPayloadLen = 0;
    m_waitingReply = false;
}

Vyrix_ReturnStatus CCommHandler::ClosePort() {
    m_bConnected = false;
    if (!m_started) {
        LlcLog("<ERROR> %s :Error closing port\n", "ClosePort");
        return RC(eVYRIX_FAILURE);
    }
    // Waiters leave first, a reconnection stops; then the receive thread is
    // woken and joined.
    {
        std::lock_guard<std::mutex> lock(m_lifeMutex);
        m_closing = true;
        if (m_opening != nullptr) m_opening->CancelRead();
    }
    if (m_watch) m_watch->Wake();
    {
        std::lock_guard<std::mutex> lock(m_portMutex);
        m_gate.Close();
        m_rxMsgQ.MarkDown(RC(eVYRIX_NOT_CONNECTED));
        m_rxMsgConnectionlessQ.MarkDown(RC(eVYRIX_NOT_CONNECTED));
        if (m_port != nullptr) m_port->CancelRead();
    }
    {
        std::lock_guard<std::mutex> threads(m_threadMutex);
        if (m_thread.CloseThread() != RC_OK) LlcLog("<ERROR> %s: Error closing Thread.\n", "ClosePort");
    }
    m_capture.Stop();
    Vyrix_ReturnStatus r = RC_OK;
    {
        std::lock_guard<std::mutex> lock(m_writeLock);
        if (m_port != nullptr) r = m_port->ClosePort();  // none while the device was being looked for
        if (r != RC_OK) LlcLog("<ERROR> %s: Error closing port.\n", "ClosePort");
        m_port.reset();
    }
    m_rxMsgQ.DrainNow();
    m_rxMsgConnectionlessQ.DrainNow();
    m_events.Close();
    if (m_dispatching) CCallbackDispatcher::Detach();
    m_dispatching = false;
    m_started = false;
    return r;
}

Vyrix_ReturnStatus CCommHandler::Enumerate(CPort& port, unsigned count, unsigned* pNumDevices, void* pDeviceInfo,
                                           const char* function) {
    if (pNumDevices == nullptr || pDeviceInfo == nullptr) {
        LlcLog("<ERROR> %s:Invalid parameter\n", function);
        return RC(eVYRIX_INVALID_ARGUMENT);
    }
    return port.EnumerateDevices(count, pNumDevices, pDeviceInfo);
}

Vyrix_ReturnStatus CCommHandler::EnumerateBTHDevices(unsigned numDevicesToEnumerate, unsigned* pNumDevices,
                                                     void* pDeviceInfo) {
    CBTPort port;
    return Enumerate(port, numDevicesToEnumerate, pNumDevices, pDeviceInfo, "EnumerateBTHDevices");
}

Vyrix_ReturnStatus CCommHandler::EnumerateUSBDevices(unsigned numDevicesToEnumerate, unsigned* pNumDevices,
                                                     void* pDeviceInfo) {
    CUsbPort port;
    return Enumerate(port, numDevicesToEnumerate, pNumDevices, pDeviceInfo, "EnumerateUSBDevices");
}

Vyrix_ReturnStatus CCommHandler::EnumerateUARTDevices(unsigned numDevicesToEnumerate, unsigned* pNumDevices,
                                                      void* pDeviceInfo) {
    CSPort port;
    return Enumerate(port, numDevicesToEnumerate, pNumDevices, pDeviceInfo, "EnumerateUARTDevices");
}
