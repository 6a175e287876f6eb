// SPDX-License-Identifier: MIT
#include "LLC_MsgQueue.h"

#include <algorithm>

CMsgQueue::PushResult CMsgQueue::Push(const KtXlnkMsgS& msg) {
    Message m{msg.deviceID, msg.sourceID, static_cast<BYTE>(msg.priority >> 6), msg.protocolID, {}};
    if (msg.payloadLen > 0 && msg.pPayload != nullptr) m.payload.assign(msg.pPayload, msg.pPayload + msg.payloadLen);
    PushResult result{0, false};
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        while (!m_messages.empty() && (m_messages.size() >= m_maxMessages || m_bytes + m.payload.size() > m_maxBytes)) {
            PopFront();
            ++result.dropped;
        }
        result.burstBegan = result.dropped > 0 && !m_dropping;
        m_dropping = result.dropped > 0;
        m_bytes += m.payload.size();
        m_messages.push_back(std::move(m));
    }
    m_changed.notify_one();
    return result;
}

void CMsgQueue::PopFront() {
    m_bytes -= m_messages.front().payload.size();
    m_messages.pop_front();
}

Vyrix_ReturnStatus CMsgQueue::TakeFront(KtXlnkMsgS* pMsg) {
    const Message& m = m_messages.front();
    const size_t length = m.payload.size();
    const size_t capacity = pMsg->payloadLen;
    if (length != 0 && pMsg->pPayload == nullptr) return RC(eVYRIX_INVALID_ARGUMENT);
    const bool tooLarge = length > capacity;
    if (tooLarge)
        LlcLog("<ERROR> %s :Payload length in message structure is less than the actual payload in queue\n",
               "RemoveMsgFromQueue");
    pMsg->deviceID = m.deviceID;
    pMsg->sourceID = m.sourceID;
    pMsg->priority = m.priority;
    pMsg->protocolID = m.protocolID;
    // The message leaves the queue whole; the caller gets what fits.
    const size_t copied = std::min(length, capacity);
    std::copy(m.payload.begin(), m.payload.begin() + static_cast<std::ptrdiff_t>(copied), pMsg->pPayload);
    pMsg->payloadLen = static_cast<WORD>(copied);
    const bool resend = m.deviceID == eBROADCAST_DEVICE_ID;
    PopFront();
    m_dropping = false;
    if (tooLarge) return RC(eVYRIX_PAYLOAD_TOO_LARGE);
    return resend ? RC(eVYRIX_RETRY) : RC_OK;
}

Vyrix_ReturnStatus CMsgQueue::WaitPop(KtXlnkMsgS* pMsg, const CDeadline& deadline) {
    std::unique_lock<std::mutex> lock(m_mutex);
    auto ready = [this] { return !m_messages.empty() || m_down != RC_OK; };
    if (deadline.IsNever())
        m_changed.wait(lock, ready);
    else
        m_changed.wait_until(lock, deadline.When(), ready);
    if (!m_messages.empty()) return TakeFront(pMsg);
    return m_down != RC_OK ? m_down : RC(eVYRIX_INCOMPLETE);
}

size_t CMsgQueue::DrainNow() {
    std::lock_guard<std::mutex> lock(m_mutex);
    const size_t dropped = m_messages.size();
    m_messages.clear();
    m_bytes = 0;
    m_dropping = false;
    return dropped;
}

bool CMsgQueue::Empty() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_messages.empty();
}

void CMsgQueue::MarkDown(Vyrix_ReturnStatus result) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_down = result;
    }
    m_changed.notify_all();
}
