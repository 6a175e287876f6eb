// One open link to the device over one transport: the port, the codec, a
// receive thread that turns incoming bytes into queued messages, the reply
// and connectionless queues, and the resend of the last packet when the
// device asks for it by answering to the broadcast id.
#ifndef LLC_COMMHANDLER_H
#define LLC_COMMHANDLER_H

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <deque>

#include "LLC_Port.h"
#include "LLC_SyncObject.h"
#include "LLC_Thread.h"
#include "LLC_XlnkMsgHandler.h"

// The application's callback for connectionless messages; read by every
// receive thread.
extern std::atomic<KtEventCallbackFn> g_pfnParseEventCallbackFunction;

class CCommHandler {
public:
    CCommHandler();
    ~CCommHandler();
    CCommHandler(const CCommHandler&) = delete;
    CCommHandler& operator=(const CCommHandler&) = delete;

    Vyrix_ReturnStatus OpenPort();                                                // USB
    Vyrix_ReturnStatus OpenPort(const char* pPortName, DWORD dwBaud);             // serial
    Vyrix_ReturnStatus OpenPort(const char* m_uniqueID, const char* m_pass_Key);  // Bluetooth

    // 0 while the link is up, else 0x1000000.
    Vyrix_ReturnStatus IsDeviceConnected();

    // Encodes and writes one packet; from then on replies are accepted.
    Vyrix_ReturnStatus SendMsg(KtXlnkMsgS sMsg);

    // Takes one message without waiting (0x7000000 when none is queued).
    // A reply addressed to the broadcast id makes it resend the last packet
    // and take the next reply instead.
    Vyrix_ReturnStatus RemoveMsg(KtQueueTypeE queueType, KtXlnkMsgS* pMsg);

    // Drops the resend copy and ends the wait for a reply.
    void ClearRetryCache();

    Vyrix_ReturnStatus ClosePort();

    Vyrix_ReturnStatus EnumerateBTHDevices(unsigned numDevicesToEnumerate, unsigned* pNumDevices, void* pDeviceInfo);
    Vyrix_ReturnStatus EnumerateUSBDevices(unsigned numDevicesToEnumerate, unsigned* pNumDevices, void* pDeviceInfo);
    Vyrix_ReturnStatus EnumerateUARTDevices(unsigned numDevicesToEnumerate, unsigned* pNumDevices, void* pDeviceInfo);

    // How many records have been queued on a queue so far.
    uint64_t QueuedRecords(KtQueueTypeE queueType);
    // Waits until a record is queued after `seen` records, at most `ms`.
    void WaitForRecord(KtQueueTypeE queueType, uint64_t seen, unsigned ms);

private:
    using Queue = std::deque<BYTE>;

    static int ReadThreadRoutine(void* arg);
    void Deliver(const KtXlnkMsgS& sMsg);
    Vyrix_ReturnStatus StartLink(Vyrix_ReturnStatus openResult, const char* failMessage, bool logThreadFailure);
    Vyrix_ReturnStatus AddMsgToQueue(Queue& queue, KtXlnkMsgS sMsg);
    Vyrix_ReturnStatus RemoveMsgFromQueue(Queue& queue, KtXlnkMsgS* pMsg);
    void ClearMsgQ(Queue& queue);
    Vyrix_ReturnStatus RetryLastMessage(Queue& queue, KtXlnkMsgS* pMsg);
    Queue& Select(KtQueueTypeE queueType);
    int IndexOf(const Queue& queue) const;
    Vyrix_ReturnStatus CheckEnumerationArgs(unsigned* pNumDevices, void* pDeviceInfo, const char* function);

    CPort* m_port;
    CXlnkMsgHandler m_msgHandler;
    CSyncObject m_syncObj;
    CThreadObject m_thread;
    Queue m_rxMsgQ;
    Queue m_rxMsgConnectionlessQ;
    std::atomic<bool> m_bConnected;
    BYTE* m_lastPacket;
    WORD m_LastPayloadLen;
    std::atomic<bool> m_waitingReply;
    // Signalled (under m_syncObj) whenever a record is queued.
    pthread_cond_t m_recordQueued;
    uint64_t m_queuedRecords[2];
};

#endif  // LLC_COMMHANDLER_H
