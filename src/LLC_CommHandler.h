/* SPDX-License-Identifier: MIT */
// One link: everything about one open port, and nothing about any other.
// It owns the port, the codec, a receive thread that turns incoming bytes
// into queued messages, the reply and unprompted-message queues (bounded),
// the copy of the last packet for a resend at the device's request, the
// gate that lets one command at a time through, the sequence number of the
// last command sent, the link's counters, and its lifecycle: the state the
// application sees (up, down, reconnecting), the event descriptor for event
// loops, and, when asked for, the reopening of the same device after it
// went away (on the receive thread, which stays after the device went away
// only while reconnection is on).
//
// Ownership: the link registry holds one reference per open link; a
// connection holds one, and so does every call working with the link, so a
// close on another thread never frees it under a caller.  ClosePort (or the
// device going away) marks both queues and the gate down, so every waiter
// returns 0x16000000 at once; the memory goes with the last reference.
// A link inherited by a forked child belongs to the parent: the child
// never touches it (IsInherited), not even to destroy it.
#ifndef LLC_COMMHANDLER_H
#define LLC_COMMHANDLER_H

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "LLC_ArrivalWatch.h"
#include "LLC_CommandGate.h"
#include "LLC_EventNotifier.h"
#include "LLC_LinkCapture.h"
#include "LLC_LinkState.h"
#include "LLC_MsgQueue.h"
#include "LLC_Port.h"
#include "LLC_Thread.h"
#include "LLC_XlnkMsgHandler.h"

// The application's callback for connectionless messages.
extern std::atomic<KtEventCallbackFn> g_pfnParseEventCallbackFunction;

// What a link has counted since it opened.
struct KtLinkCountersS {
    uint64_t packetsSent, packetsReceived;
    uint64_t bytesSent, bytesReceived;
    uint64_t resends;
    uint64_t packetsDiscarded;
    uint64_t messagesDropped;
    uint64_t linkDowns;
};

class CCommHandler : public std::enable_shared_from_this<CCommHandler> {
public:
    CCommHandler();
    ~CCommHandler();
    CCommHandler(const CCommHandler&) = delete;
    CCommHandler& operator=(const CCommHandler&) = delete;

    // USB: the first free device, the one with this serial number first.
    Vyrix_ReturnStatus OpenPort(const char* preferredSerial = nullptr);
    Vyrix_ReturnStatus OpenPort(const char* pPortName, DWORD dwBaud);             // serial
    Vyrix_ReturnStatus OpenPort(const char* m_uniqueID, const char* m_pass_Key);  // Bluetooth

    // 0 while the link is up, else 0x1000000.
    Vyrix_ReturnStatus IsDeviceConnected();

    // Encodes and writes one packet; from then on replies are accepted.
    // 0x16000000 once the link is down.
    Vyrix_ReturnStatus SendMsg(KtXlnkMsgS sMsg);

    // Takes one message without waiting (0x7000000 when none is queued).
    // A reply addressed to the broadcast id makes it resend the last packet
    // and take the next reply instead.
    Vyrix_ReturnStatus RemoveMsg(KtQueueTypeE queueType, KtXlnkMsgS* pMsg);

    // Waits until `deadline` for a reply (resending on the device's
    // request), then ends the exchange as ClearRetryCache does.  0;
    // 0x7000000 nothing came in time; 0x16000000 the link went down or is
    // being closed.
    Vyrix_ReturnStatus WaitReply(KtXlnkMsgS* pMsg, const CDeadline& deadline);

    // Drops every queued reply at once (stale replies before a command).
    void DropReplies();

    // Drops the resend copy and ends the wait for a reply.
    void ClearRetryCache();

    // One command at a time: a command holds the gate from its send to the
    // end of its reply.
    CCommandGate& Gate() { return m_gate; }
    // The sequence number of the last command sent on this link.
    void SetLastSequence(uint8_t sequence) { m_lastSequence = sequence; }
    uint8_t LastSequence() const { return m_lastSequence; }

    KtLinkCountersS Counters() const;

    // Records the link's traffic into capture files.
    CLinkCapture& Capture() { return m_capture; }

    // Belongs to the process this one was forked from.
    bool IsInherited() const;
    // Whether a close has started (messages still queued are not announced).
    bool IsClosing() const { return m_closing; }

    Vyrix_ReturnStatus ClosePort();

    // The state the application sees; ReadState marks every change so far
    // as read.
    Vyrix_LinkStateE ReadState();
    Vyrix_LinkStateE State() const { return m_state.Current(); }
    // Who is told of state changes (on the callback dispatcher's thread).
    void SetStateListener(const CLinkState::Listener& listener) { m_state.SetListener(listener); }
    CLinkState::Listener StateListener() const { return m_state.GetListener(); }
    // The descriptor readable while an unprompted message waits or a state
    // change is unread; -1 when none can be made.  From the first call on,
    // unprompted messages are queued even with no callback registered.
    int EventFd();
    // Reopen the same device after the link went down (maxIntervalMs: the
    // longest pause between attempts).
    void SetReconnect(bool enable, unsigned maxIntervalMs);

    Vyrix_ReturnStatus EnumerateBTHDevices(unsigned numDevicesToEnumerate, unsigned* pNumDevices, void* pDeviceInfo);
    Vyrix_ReturnStatus EnumerateUSBDevices(unsigned numDevicesToEnumerate, unsigned* pNumDevices, void* pDeviceInfo);
    Vyrix_ReturnStatus EnumerateUARTDevices(unsigned numDevicesToEnumerate, unsigned* pNumDevices, void* pDeviceInfo);

private:
    friend class CCallbackDispatcher;
    // Messages queued but not yet announced to the callback; guarded by the
    // dispatcher's lock.
    struct Announcements {
        // One unprompted message or a run of them, or one state change, in
        // the order they happened.
        struct Item {
            size_t messages;
            Vyrix_LinkStateE state;
            Vyrix_ReturnStatus reason;
        };
        std::deque<Item> items;
        size_t states = 0;  // state changes among the items
        bool listed = false;
    };
    using PortFactory = std::function<std::unique_ptr<CPort>()>;

    static int ReadThreadRoutine(void* arg);
    void ReceiveLoop();
    // Reads until the link goes down (its reason) or closes (0).
    Vyrix_ReturnStatus ReadUntilDown();
    void Consume(BYTE* buf, DWORD length);
    void Deliver(const KtXlnkMsgS& sMsg);
    void LinkDown(Vyrix_ReturnStatus reason);
    void ReportState(Vyrix_LinkStateE state, Vyrix_ReturnStatus reason);
    void RefreshEvents();
    void QueueUnprompted(const KtXlnkMsgS& sMsg);
    void CountParserDiscards();
    // After the link went down: releases the port, then reopens the same
    // device while reconnection is on.  False when the receive thread ends:
    // the link closes, or reconnection is off (the link stays down).
    bool Reconnect();
    // Whether the receive thread stays after the link went down (only to
    // reconnect); otherwise it ends, as a link without reconnection does.
    bool StayForReconnect();
    // Reconnection switched on for a link that is down without a receive
    // thread: one starts, to reconnect.
    void ResumeReceiving();
    bool TryReopen();
    void ReleasePort();
    Vyrix_ReturnStatus StartLink(CPort* port, PortFactory makePort, std::unique_ptr<CArrivalWatch> watch,
                                 const char* failMessage, bool logThreadFailure);
    Vyrix_ReturnStatus WriteLocked(const BYTE* packet, size_t length, const char* function);
    Vyrix_ReturnStatus RetryLastMessage(CMsgQueue& queue, KtXlnkMsgS* pMsg);
    CMsgQueue& Select(KtQueueTypeE queueType);
    Vyrix_ReturnStatus Enumerate(CPort& port, unsigned count, unsigned* pNumDevices, void* pDeviceInfo,
                                 const char* function);

    std::unique_ptr<CPort> m_port;
    CXlnkMsgHandler m_msgHandler;
    CThreadObject m_thread;
    CMsgQueue m_rxMsgQ;
    CMsgQueue m_rxMsgConnectionlessQ;
    std::atomic<bool> m_bConnected;
    std::atomic<bool> m_closing;
    std::atomic<bool> m_waitingReply;
    bool m_dispatching;
    bool m_started;  // a port was opened and the link is not yet closed
    // Serialises writes and guards the port's lifetime and the retry copy.
    std::mutex m_writeLock;
    // Guards which port m_port is, so a close can cancel its read without
    // waiting for a write in progress; taken after m_writeLock.
    std::mutex m_portMutex;
    std::vector<BYTE> m_lastPacket;
    WORD m_LastPayloadLen;
    CCommandGate m_gate;
    std::atomic<uint8_t> m_lastSequence;
    std::atomic<bool> m_wentDown;
    const unsigned m_generation;  // of the process that opened it
    size_t m_parserDiscards;      // receive thread only
    Announcements m_announce;
    CLinkCapture m_capture;

    CLinkState m_state;
    CEventNotifier m_events;
    std::atomic<bool> m_reconnect;
    std::atomic<unsigned> m_maxIntervalMs;
    // Guards m_makePort, m_opening, m_receiving and the reconnection switch.
    std::mutex m_lifeMutex;
    PortFactory m_makePort;
    CPort* m_opening;   // a port being reopened, for a close to cancel
    bool m_receiving;   // a receive thread runs (guarded by m_lifeMutex)
    bool m_resumeDown;  // the next receive thread starts by reconnecting
    // Serialises starting a receive thread again with joining it.
    std::mutex m_threadMutex;
    std::unique_ptr<CArrivalWatch> m_watch;

    struct AtomicCounters {
        std::atomic<uint64_t> packetsSent{0}, packetsReceived{0}, bytesSent{0}, bytesReceived{0}, resends{0},
            packetsDiscarded{0}, messagesDropped{0}, linkDowns{0};
    } m_counters;
};

#endif  // LLC_COMMHANDLER_H
