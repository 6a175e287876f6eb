/* SPDX-License-Identifier: MIT */
/*
 * Vyrix_LLC_Api_Ex.h - packet-level service functions of libVyrix_Api.
 *
 * These functions exchange XLNK packets with the device directly.  The
 * Vyrix_ operations of Vyrix_Api.h are built on them; an application may use
 * them instead, but should not mix both styles on one transport at the same
 * time (both take replies from the same queue).
 *
 * Transports.  These functions open at most one port per transport (USB,
 * serial, Bluetooth); connections of Vyrix_Api.h may hold more.  Every send
 * and receive goes to the first port opened on the first open transport in
 * the fixed order USB, serial, Bluetooth; no argument selects the transport.
 *
 * Waiting.  Every wait ends on an event: a reply arriving, the device going
 * away (a hang-up, end of stream or unplug: the transport's check function
 * then reports it and waits end with 0x16000000), or the port being closed.
 * An idle port's receive thread sleeps in the kernel.  A close wakes and
 * joins the receive thread and returns within milliseconds.
 *
 * Thread safety.  All functions may be called from any thread; a close on
 * one thread ends the waits of others on that port with 0x16000000.  The
 * handler serves one exchange (send, then receive) at a time: callers
 * serialise their exchanges.  The connectionless callback runs on a thread
 * of the library's own (not a receive thread), one call per message, so it
 * may send a command and wait for its reply, take messages, or close the
 * port it came from.
 *
 * Files.  Opening a port starts the log /tmp/Vyrix_SDK.log (or a time-stamped
 * /tmp/Vyrix_SDK_<stamp>.log while another process logs to the shared file);
 * closing any port ends it.  Each open port holds a lock file under /tmp
 * (/tmp/vyrix_llc_com_*, /tmp/vyrix_llc_usb_*, /tmp/vyrix_llc_bth_*).
 *
 * Environment (extensions).  VYRIX_RUNTIME_DIR, when set, names the
 * directory that holds the log and the lock files instead of /tmp (same file
 * names).  VYRIX_LOG chooses where log entries go: "file" (the default, the
 * files above), "stderr" (standard error) or "off" (no log).  VYRIX_LOG_TIME=1
 * puts the local time (ISO 8601 with milliseconds) in front of every log
 * line.  A lock file left by a process that died is taken over by the next
 * open.
 *
 * Every function returns a result word; see vyrix_rc.h.  No exception leaves
 * any of them: an unexpected one becomes eVYRIX_FAILURE (0x01000000).
 */
#ifndef VYRIX_LLC_API_EX_H
#define VYRIX_LLC_API_EX_H

#include <stddef.h>

#include "vyrix_rc.h"

typedef unsigned char BYTE;
typedef unsigned short WORD;
typedef unsigned long DWORD;
typedef int BOOL;

/* Largest payload of one packet (the length field is 12 bits wide). */
#define KT_XLNK_MAX_PAYLOAD 4095

typedef enum KtXlnkDeviceIdE {
    eEP_DEVICE = 0,
    eRESERVED = 1,
    eHOST_DEVICE = 2,
    eAP_DEVICE = 3,
    eBROADCAST_DEVICE_ID = 63
} KtXlnkDeviceIdE;

typedef enum KtXlnkProtocolIdE {
    ePROTOCOL_CONNECTIONLESS = 0,
    ePROTOCOL_CONNECTION_ORIENTED = 1,
    ePROTOCOL_RESERVED_2 = 2,
    ePROTOCOL_RESERVED_3 = 3,
    ePROTOCOL_INVALID = 4
} KtXlnkProtocolIdE;

/* Receive queues of a port: replies, and messages sent unprompted. */
typedef enum KtQueueTypeE { eCONNECTION_ORIENTED = 0, eCONNECTIONLESS = 1 } KtQueueTypeE;

/*
 * One packet as a record.  To send, pPayload holds payloadLen bytes.  To
 * receive, pPayload is the caller's buffer and payloadLen its capacity on
 * entry; on return payloadLen is the length received.
 */
typedef struct KtXlnkMsgS {
    BYTE sourceID;
    BYTE deviceID; /* the destination */
    BYTE priority;
    BYTE protocolID;
    WORD payloadLen;
    BYTE* pPayload;
} KtXlnkMsgS;
VYRIX_LAYOUT(offsetof(KtXlnkMsgS, deviceID) == 1 && offsetof(KtXlnkMsgS, protocolID) == 3);
VYRIX_LAYOUT(offsetof(KtXlnkMsgS, payloadLen) == 4 && sizeof(((KtXlnkMsgS*)0)->payloadLen) == 2);

/* One USB device found by KtEnumerateUSBDevices. */
typedef struct Vyrix_EnumerateUSBInfo {
    unsigned int productID;
    char serialNumber[255]; /* NUL-terminated, or "NULL" when unreadable */
} Vyrix_EnumerateUSBInfo;
VYRIX_LAYOUT(offsetof(Vyrix_EnumerateUSBInfo, serialNumber) == 4);

/* One Bluetooth device found by KtEnumerateBTHDevices. */
typedef struct Vyrix_BTHDiscoveryInfo {
    char uniqueID[25];      /* "XX:XX:XX:XX:XX:XX" */
    char friendlyName[249]; /* remote name, or "[unknown]" */
} Vyrix_BTHDiscoveryInfo;
VYRIX_LAYOUT(offsetof(Vyrix_BTHDiscoveryInfo, friendlyName) == 25 && sizeof(Vyrix_BTHDiscoveryInfo) == 274);

/* Callback for connectionless messages; called with a null argument. */
typedef Vyrix_ReturnStatus (*KtEventCallbackFn)(void*);

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Open the transport's port: creates its handler, takes the device's lock
 * file and starts the receive thread.
 *   KtOpenUsbPort: the first free device with the product's USB identity.
 *   KtOpenSerialPort: /dev/ttyS<nCom>; KtOpenSerialPortByName: a device
 *     path.  dwBaud must be 57600; the line is 57600 8N1 raw.
 *   KtOpenBTHSocket: RFCOMM channel 1 of the device at macID
 *     ("00:11:22:33:44:55"); passKey must not be null (pairing is the host
 *     stack's business).
 * Results: 0; 0x18000000 the transport's port is open already; 0x05000000 bad
 * argument (negative nCom, null name, baud not 57600, name of 100 characters
 * or more); 0x16000000 no free device or its lock file exists; 0x19000000 no
 * Bluetooth adapter; 0x01000000 the device could not be opened.
 * Blocking: a Bluetooth open waits for the connection attempt.
 */
VYRIX_API Vyrix_ReturnStatus KtOpenUsbPort(void);
VYRIX_API Vyrix_ReturnStatus KtOpenSerialPort(int nCom, DWORD dwBaud);
VYRIX_API Vyrix_ReturnStatus KtOpenSerialPortByName(const char* pPortName, DWORD dwBaud);
VYRIX_API Vyrix_ReturnStatus KtOpenBTHSocket(const char* macID, const char* passKey);

/* 0 while the transport's device is connected; 0x01000000 when it went away
 * or no port is open.  Never blocks. */
VYRIX_API Vyrix_ReturnStatus KtCheckUsbPort(void);
VYRIX_API Vyrix_ReturnStatus KtCheckSerialPort(void);
VYRIX_API Vyrix_ReturnStatus KtCheckBthSocket(void);

/*
 * Send one packet (sourceID 2, deviceID 0 or 3, priority 0, protocolID 0 or
 * 1, payloadLen 1..4095).  The handler keeps the encoded packet to resend it
 * when the device asks for it, and accepts replies until the next
 * KtRemoveMsg ends.  Results: 0; 0x16000000 no port open; 0x05000000 bad
 * header field or null payload; 0x1A000000 payload over 4095 bytes; the
 * port's write error.  Blocking: until the packet is written.
 */
VYRIX_API Vyrix_ReturnStatus KtSendMsg(KtXlnkMsgS sMsg);
VYRIX_API Vyrix_ReturnStatus KtSendMessage(BYTE ucSourceID, BYTE ucDeviceID, BYTE ucPriority, BYTE ucProtocolID,
                                           WORD wPayloadLen, BYTE* pPayload);

/*
 * Take the oldest reply.  The caller's buffer must hold 4095 bytes (the
 * capacity is set to 4095 whatever payloadLen says).  Waits retryCount + 1
 * periods of 100 ms at most: a reply ends the wait as soon as it arrives.
 * Ends the exchange: the resend copy is dropped and later replies are
 * discarded.  A reply addressed to the broadcast id makes the handler resend
 * the last packet and wait for the answer to it (up to 11 times, up to 100 s
 * each).  Results: 0; 0x07000000 nothing arrived; 0x16000000 no port open,
 * the device went away or the port was closed meanwhile; 0x01000000 resends
 * exhausted or nothing to resend.
 */
VYRIX_API Vyrix_ReturnStatus KtRemoveMsg(KtXlnkMsgS* pMsg, int retryCount);

/* Take the oldest connectionless message, one attempt, no wait.  A
 * payloadLen of 0 means a capacity of 4095.  Results: 0; 0x07000000 none
 * queued; 0x1A000000 the message was longer than the capacity (it is removed
 * and its payload cut to the capacity); 0x05000000 null record or buffer. */
VYRIX_API Vyrix_ReturnStatus KtRemoveConnectionlessMsg(KtXlnkMsgS* pMsg);

/* As KtRemoveMsg / KtRemoveConnectionlessMsg with separate out-arguments and
 * an explicit capacity cbPayload (at most 4095, else 0x1A000000); one
 * attempt, no wait.  0x05000000 when a pointer is null.  The out-arguments
 * are written only on success. */
VYRIX_API Vyrix_ReturnStatus KtRemoveMessage(BYTE* pDeviceID, BYTE* pPriority, BYTE* pProtocolID, WORD* pPayloadLen,
                                             BYTE* pPayload, WORD cbPayload);
VYRIX_API Vyrix_ReturnStatus KtRemoveConnectionlessMessage(BYTE* pDeviceID, BYTE* pPriority, BYTE* pProtocolID,
                                                           WORD* pPayloadLen, BYTE* pPayload, WORD cbPayload);

/* Close the transport's port and destroy its handler; ends the log (of every
 * transport).  Wakes the receive thread and joins it ("Thread still active!!"
 * is logged every 250 ms it takes); waits of other threads on this port end
 * with 0x16000000.  Results: 0; 0x16000000 the port was not open; the port's
 * close error. */
VYRIX_API Vyrix_ReturnStatus KtCloseUsbPort(void);
VYRIX_API Vyrix_ReturnStatus KtCloseSerialPort(void);
VYRIX_API Vyrix_ReturnStatus KtCloseBTHSocket(void);

/* Register the callback for connectionless messages (replaces any earlier
 * one; it cannot be removed).  While none is registered, connectionless
 * messages are dropped.  0x05000000 for a null function. */
VYRIX_API Vyrix_ReturnStatus KtRegisterCallback(KtEventCallbackFn pfnParseEventCallbackFunction);

/*
 * List the devices of a transport into pBtDeviceInfo, an array of
 * numDevicesToEnumerate records (Vyrix_EnumerateUSBInfo for USB,
 * Vyrix_BTHDiscoveryInfo for Bluetooth); *pNumDevices receives the number
 * filled.  Open ports are not touched.  Results: 0; 0x05000000 null pointer;
 * USB 0x16000000 when none is found; Bluetooth 0x19000000 without adapter.
 * KtEnumerateUARTDevices lists nothing and returns 0 without writing.
 * Blocking: the Bluetooth inquiry takes about 10.24 s plus a name request per
 * device.
 */
VYRIX_API Vyrix_ReturnStatus KtEnumerateUSBDevices(unsigned int numDevicesToEnumerate, unsigned int* pNumDevices,
                                                   void* pBtDeviceInfo);
VYRIX_API Vyrix_ReturnStatus KtEnumerateBTHDevices(unsigned int numDevicesToEnumerate, unsigned int* pNumDevices,
                                                   void* pBtDeviceInfo);
VYRIX_API Vyrix_ReturnStatus KtEnumerateUARTDevices(unsigned int numDevicesToEnumerate, unsigned int* pNumDevices,
                                                    void* pBtDeviceInfo);

/* Runs when the library is unloaded: closes whatever ports are left and
 * ends the log.  Applications do not call it. */
VYRIX_API void LibraryCleanUpRoutine(void);

/* A plain (non-recursive) mutex as an opaque handle.  0x05000000 for a null
 * argument; 0x01000000 if creation fails. */
VYRIX_API Vyrix_ReturnStatus KtCreateSyncObject(void** pObj);
VYRIX_API Vyrix_ReturnStatus KtLockSyncObject(void* pObj);
VYRIX_API Vyrix_ReturnStatus KtUnlockSyncObject(void* pObj);
VYRIX_API Vyrix_ReturnStatus KtDestroySyncObj(void* pObj);

/* printf-style entry into the log while one exists (a port is open). */
VYRIX_API void KtWriteLogFile(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

/* Sleep for dwMilliSecs milliseconds. */
VYRIX_API void KtSleep(DWORD dwMilliSecs);

#ifdef __cplusplus
}
#endif

#endif /* VYRIX_LLC_API_EX_H */
