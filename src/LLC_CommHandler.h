// One link: everything about one open port, and nothing about any other.
// It owns the port, the codec, a receive thread that turns incoming bytes
// into queued messages, the reply and unprompted-message queues (bounded),
// the copy of the last packet for a resend at the device's request, the
// gate that lets one command at a time through, the sequence number of the
// last command sent, and the link's counters.
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
#include <memory>
#include <mutex>
#include <vector>

#include "LLC_CommandGate.h"
#include "LLC_LinkCapture.h"
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

    Vyrix_ReturnStatus EnumerateBTHDevices(unsigned numDevicesToEnumerate, unsigned* pNumDevices, void* pDeviceInfo);
    Vyrix_ReturnStatus EnumerateUSBDevices(unsigned numDevicesToEnumerate, unsigned* pNumDevices, void* pDeviceInfo);
    Vyrix_ReturnStatus EnumerateUARTDevices(unsigned numDevicesToEnumerate, unsigned* pNumDevices, void* pDeviceInfo);

private:
    friend class CCallbackDispatcher;
    // Messages queued but not yet announced to the callback; guarded by the
    // dispatcher's lock.
    struct Announcements {
        size_t pending = 0;
        bool listed = false;
    };

    static int ReadThreadRoutine(void* arg);
    void ReceiveLoop();
    void Consume(BYTE* buf, DWORD length);
    void Deliver(const KtXlnkMsgS& sMsg);
    void LinkDown();
    void QueueUnprompted(const KtXlnkMsgS& sMsg);
    void CountParserDiscards();
    Vyrix_ReturnStatus StartLink(CPort* port, const char* failMessage, bool logThreadFailure);
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
    // Serialises writes and guards the port's lifetime and the retry copy.
    std::mutex m_writeLock;
    std::vector<BYTE> m_lastPacket;
    WORD m_LastPayloadLen;
    CCommandGate m_gate;
    std::atomic<uint8_t> m_lastSequence;
    std::atomic<bool> m_wentDown;
    const unsigned m_generation;  // of the process that opened it
    size_t m_parserDiscards;      // receive thread only
    Announcements m_announce;
    CLinkCapture m_capture;

    struct AtomicCounters {
        std::atomic<uint64_t> packetsSent{0}, packetsReceived{0}, bytesSent{0}, bytesReceived{0}, resends{0},
            packetsDiscarded{0}, messagesDropped{0}, linkDowns{0};
    } m_counters;
};

#endif  // LLC_COMMHANDLER_H
