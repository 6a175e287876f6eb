// One open link to the device over one transport: the port, the codec, a
// receive thread that turns incoming bytes into queued messages, the reply
// and connectionless queues, and the resend of the last packet when the
// device asks for it by answering to the broadcast id.
//
// Lifetime: whoever may still wait on a handler holds a shared reference.
// ClosePort (or the device going away) marks both queues down, so every
// waiter returns 0x16000000 at once, and the handler is destroyed only when
// the last reference goes.
#ifndef LLC_COMMHANDLER_H
#define LLC_COMMHANDLER_H

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "LLC_MsgQueue.h"
#include "LLC_Port.h"
#include "LLC_Thread.h"
#include "LLC_XlnkMsgHandler.h"

// The application's callback for connectionless messages.
extern std::atomic<KtEventCallbackFn> g_pfnParseEventCallbackFunction;

class CCommHandler {
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

    Vyrix_ReturnStatus ClosePort();

    Vyrix_ReturnStatus EnumerateBTHDevices(unsigned numDevicesToEnumerate, unsigned* pNumDevices, void* pDeviceInfo);
    Vyrix_ReturnStatus EnumerateUSBDevices(unsigned numDevicesToEnumerate, unsigned* pNumDevices, void* pDeviceInfo);
    Vyrix_ReturnStatus EnumerateUARTDevices(unsigned numDevicesToEnumerate, unsigned* pNumDevices, void* pDeviceInfo);

private:
    static int ReadThreadRoutine(void* arg);
    void ReceiveLoop();
    void Consume(BYTE* buf, DWORD length);
    void Deliver(const KtXlnkMsgS& sMsg);
    void LinkDown();
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
};

#endif  // LLC_COMMHANDLER_H
