/* SPDX-License-Identifier: MIT */
// A queue of received messages with one waiting primitive: the receive
// thread pushes, callers take with a deadline, and a link that goes down or
// closes wakes every waiter at once.  The device fills it, so it is
// bounded: beyond the bound the oldest messages make room for the newest.
#ifndef LLC_MSGQUEUE_H
#define LLC_MSGQUEUE_H

#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>

#include "LLC_Common.h"
#include "LLC_Deadline.h"

class CMsgQueue {
public:
    // At most `maxMessages` messages and `maxBytes` payload bytes queued.
    CMsgQueue(size_t maxMessages, size_t maxBytes) : m_maxMessages(maxMessages), m_maxBytes(maxBytes) {}
    CMsgQueue(const CMsgQueue&) = delete;
    CMsgQueue& operator=(const CMsgQueue&) = delete;

    struct PushResult {
        size_t dropped;   // oldest messages dropped to make room
        bool burstBegan;  // the first drop since the queue last had room
    };
    // Appends a copy of the message and wakes one waiter.
    PushResult Push(const KtXlnkMsgS& msg);

    // Takes the oldest message into *pMsg, whose pPayload is the caller's
    // buffer and payloadLen its capacity; waits until `deadline` for one.
    // 0, or 0x1B000000 for a message addressed to the broadcast id;
    // 0x7000000 nothing came in time; the down result once the queue is
    // down and empty; 0x1A000000 the payload was cut to the capacity;
    // 0x5000000 a payload but no buffer (the message stays queued).
    Vyrix_ReturnStatus WaitPop(KtXlnkMsgS* pMsg, const CDeadline& deadline);

    // Drops everything queued; returns how many messages went.
    size_t DrainNow();

    // From now on waits end with `result` once the queue is empty.
    void MarkDown(Vyrix_ReturnStatus result);
    // The link is up again: waits wait for messages once more.
    void MarkUp() { MarkDown(RC_OK); }

    bool Empty();

private:
    struct Message {
        BYTE deviceID;
        BYTE sourceID;
        BYTE priority;
        BYTE protocolID;
        std::vector<BYTE> payload;
    };
    Vyrix_ReturnStatus TakeFront(KtXlnkMsgS* pMsg);
    void PopFront();

    const size_t m_maxMessages;
    const size_t m_maxBytes;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Message> m_messages;
    size_t m_bytes = 0;
    bool m_dropping = false;
    Vyrix_ReturnStatus m_down = RC_OK;
};

#endif  // LLC_MSGQUEUE_H
