/* SPDX-License-Identifier: MIT */
// The library context, its lock, and the functions of the command layer that
// the device operations are built on.  All of these are exported with C++
// linkage; applications use Vyrix_Api.h instead.
#ifndef VYRIX_INTERNAL_H
#define VYRIX_INTERNAL_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Vyrix_Api.h"
#include "Vyrix_LLC_Api_Ex.h"
#include "vyrix_version.h"

class CCommHandler;

// One open connection.  The application's record comes first, so the
// handle (the address of this) also points at the record.
struct Vyrix_Connection {
    Vyrix_ConnectionInfoS info;
    unsigned int replyTimeoutMs = 0;     // 0: the default
    std::shared_ptr<CCommHandler> link;  // the port its commands travel over
};

struct Vyrix_LibraryContext {
    std::vector<Vyrix_Connection*> connections;  // oldest first
    uint8_t sequenceNumber = 0;                  // of the last command sent
};

// Null while the library is closed.  Read without the library lock by the
// "is the library open" test of every operation, so atomic; the context
// itself is only used under the lock.
extern std::atomic<Vyrix_LibraryContext*> g_pLibCtx;
// The library lock while the library is open, else null.  The lock itself
// lives as long as the process, so a thread still in an operation when
// another closes the library never meets a destroyed lock.
extern void* g_pSyncObj;

constexpr uint8_t kLibraryMajor = VYRIX_VERSION_MAJOR;
constexpr uint8_t kLibraryMinor = VYRIX_VERSION_MINOR;
constexpr uint8_t kLibraryRevision = VYRIX_VERSION_PATCH;
constexpr uint32_t kLibraryBuild = 0;

// Command and reply payloads.
constexpr uint8_t kCommandMarker = 0x2A;
constexpr uint8_t kAltReplyMarker = 0x09;
constexpr uint8_t kMaxSequenceNumber = 63;
constexpr unsigned kCommandHeader = 4;      // markers, sequence, opcode
constexpr unsigned kReplyStatusOffset = 3;  // status word
constexpr unsigned kReplyValuesOffset = 7;  // first reply value
constexpr unsigned short kReplyCapacity = 4096;
constexpr int kReplyRetryCount = 7500;  // about 750 s of waiting: 7501 periods of 100 ms
// A closed connection's record is not handed out again for this many opens,
// so a stale handle never names a newer connection.
constexpr size_t kRetiredConnections = 65536;

// Holds the library lock for a scope; releases it on every exit path.
class LibraryLock {
public:
    LibraryLock();
    ~LibraryLock();
    LibraryLock(const LibraryLock&) = delete;
    LibraryLock& operator=(const LibraryLock&) = delete;
};

// Connections.
// The table entry behind a handle, or null when the handle is not an open
// connection.  The caller holds the library lock.
Vyrix_Connection* FindConnection(const void* handle);
// Puts a record that leaves the table aside (it is not freed for reuse).
void RetireConnection(Vyrix_Connection* record);

// Where one command goes and how long it may take: the link of the
// connection a handle names, with its reply time-out.  A handle that is not
// an open connection reaches the first open transport's port with the
// default time-out; with no port open the link is null and the command
// fails as the link layer says.
struct CommandRoute {
    std::shared_ptr<CCommHandler> link;
    unsigned long replyTimeoutMs = 0;
};
// 0, or 0x4000000 when the library was closed meanwhile.
Vyrix_ReturnStatus RouteFor(const void* handle, CommandRoute* pRoute);
CommandRoute DefaultRoute();
// How long a command waits for its reply unless its connection says else.
unsigned long DefaultReplyTimeoutMs();

VYRIX_API Vyrix_ReturnStatus GetConnectionHandleIndex(Vyrix_ConnectionInfoS connectionInfo, unsigned int* pIndex);
VYRIX_API Vyrix_ReturnStatus CloseConnection(unsigned int index);
VYRIX_API int GetCOMPortNumber(const char* pName, const char* pPrefix);

// Command transport.
VYRIX_API Vyrix_ReturnStatus AlcSendCommandParams(unsigned char opcode, Vyrix_DataS* pParams, int numParams,
                                                  KtXlnkDeviceIdE deviceId);
VYRIX_API Vyrix_ReturnStatus AlcSendCommandGetReply(unsigned char opcode, unsigned char** ppReply,
                                                    unsigned short* pReplyLen, KtXlnkDeviceIdE deviceId);
VYRIX_API Vyrix_ReturnStatus AlcSendCommandParamsGetReply(unsigned char opcode, Vyrix_DataS* pParams, int numParams,
                                                          unsigned char** ppReply, unsigned short* pReplyLen,
                                                          KtXlnkDeviceIdE deviceId);
VYRIX_API Vyrix_ReturnStatus SendXlnkMsg(unsigned char opcode, unsigned char* pPayload, unsigned short payloadLen,
                                         KtXlnkDeviceIdE deviceId);
VYRIX_API Vyrix_ReturnStatus GetReply(unsigned char** ppReply, unsigned short* pReplyLen, KtXlnkProtocolIdE protocolId);
VYRIX_API Vyrix_ReturnStatus ValidateReply(KtXlnkMsgS msg);
VYRIX_API void FlushMsgQueue();
VYRIX_API Vyrix_ReturnStatus GetAck();
VYRIX_API void CopyMemory(void* pDst, void* pSrc, int count);

// Encoded size of one parameter record (0 for tags that contribute nothing).
unsigned EncodedSize(const Vyrix_DataS& param);

// The command layer on a route.  One command at a time per link: each holds
// the link's gate from its send to the end of its reply, waiting for its
// turn within its reply time-out.
// Builds the command payload from typed parameters and exchanges it; with
// ppReply null only the acknowledgement is awaited.
Vyrix_ReturnStatus CommandExchange(const CommandRoute& route, unsigned char opcode, Vyrix_DataS* pParams, int numParams,
                                   unsigned char** ppReply, unsigned short* pReplyLen, KtXlnkDeviceIdE deviceId);
// Sends a built payload (its first four bytes are filled in here) and waits
// for its reply; `pauseBeforeReplyMs` passes between the two with the gate
// held.  ppReply null: the acknowledgement only.  *pSent (if given) tells
// whether the command went out, so a failure is the reply's.
Vyrix_ReturnStatus PayloadExchange(const CommandRoute& route, unsigned char* pPayload, unsigned short payloadLen,
                                   KtXlnkDeviceIdE deviceId, unsigned char** ppReply, unsigned short* pReplyLen,
                                   unsigned long pauseBeforeReplyMs = 0, bool* pSent = nullptr);

// The steps every device operation takes with a reply: a command-layer
// failure other than an error reply is returned; a non-zero reply status
// word is returned unchanged; otherwise `store` reads the values (from the
// first value byte) and the command layer's result is returned.  The reply
// buffer is freed on every path.
template <typename Store>
Vyrix_ReturnStatus ReadReply(Vyrix_ReturnStatus result, unsigned char* reply, Store store);

// Bulk image and text transfer.
typedef int (*VyrixProgressFn)(unsigned short*, unsigned short*, unsigned char*);
VYRIX_API Vyrix_ReturnStatus AlcSendImageCommandGeneric(unsigned char opcode, unsigned char* pData,
                                                        unsigned int dataSize, Vyrix_RenderTargetE target,
                                                        Vyrix_PointS position, Vyrix_RectSizeS size,
                                                        KtXlnkDeviceIdE deviceId, VyrixProgressFn pfnProgress);
VYRIX_API Vyrix_ReturnStatus AlcDrawText(Vyrix_RenderTargetE target, const unsigned char* pText, unsigned short maxLen,
                                         Vyrix_PointS position, Vyrix_ColorS foreground, Vyrix_ColorS background);
VYRIX_API Vyrix_ReturnStatus AlcGetTextBoxInfo(unsigned char* pText, unsigned short maxLen, Vyrix_RectSizeS* pSize);
VYRIX_API void GetIndexStatus(unsigned short* pUpdateType, unsigned short* pCurIndex, unsigned short* pMaxIndex);

// Little-endian field access in payloads.
inline uint16_t Le16(const unsigned char* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline uint32_t Le32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
           (static_cast<uint32_t>(p[3]) << 24);
}
inline void PutLe16(unsigned char* p, uint16_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}

template <typename Store>
Vyrix_ReturnStatus ReadReply(Vyrix_ReturnStatus result, unsigned char* reply, Store store) {
    const bool errorReply = VYRIX_CODE(result) == eVYRIX_COMMUNICATION_ERROR;
    if ((result != eVYRIX_RETURN_SUCCESS && !errorReply) || reply == nullptr) {
        delete[] reply;
        return result;
    }
    const uint32_t status = Le32(reply + kReplyStatusOffset);
    if (status != 0) {
        delete[] reply;
        return static_cast<Vyrix_ReturnStatus>(status);
    }
    store(static_cast<const unsigned char*>(reply + kReplyValuesOffset));
    delete[] reply;
    return result;
}

#endif  // VYRIX_INTERNAL_H
