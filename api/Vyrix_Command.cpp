// SPDX-License-Identifier: MIT
// Command transport: typed parameters packed into a numbered command,
// stale replies dropped, the packet sent, the reply taken and checked.
#include <cstring>
#include <memory>
#include <new>

#include "LLC_LastError.h"
#include "LLC_Links.h"
#include "Vyrix_Internal.h"

namespace {
constexpr Vyrix_ReturnStatus Result(Vyrix_ReturnCodeE code) { return VYRIX_RESULT(code); }
constexpr uint8_t kReplyTypeShift = 6;
constexpr uint8_t kSequenceMask = 0x3F;
constexpr uint8_t kReplyTypeReply = 1;
constexpr uint8_t kReplyTypeError = 2;

// Writes one parameter, least significant byte first; returns its size.
unsigned EncodeParam(const Vyrix_DataS& param, unsigned char* out) {
    uint32_t bits = 0;
    switch (param.type) {
        case eDATA_INT8:
        case eDATA_UINT8: out[0] = param.value.u8; return 1;
        case eDATA_INT16:
        case eDATA_UINT16: PutLe16(out, param.value.u16); return 2;
        case eDATA_INT32:
        case eDATA_UINT32: bits = param.value.u32; break;
        case eDATA_FLOAT: memcpy(&bits, &param.value.f32, sizeof bits); break;
        case eDATA_BUFFER:
            if (param.value.pBuffer == nullptr) return 0;
            CopyMemory(out, param.value.pBuffer->pData, static_cast<int>(param.value.pBuffer->length));
            return param.value.pBuffer->length;
        default: return 0;
    }
    for (int i = 0; i < 4; ++i) out[i] = static_cast<unsigned char>(bits >> (8 * i));
    return 4;
}
}  // namespace

unsigned EncodedSize(const Vyrix_DataS& param) {
    switch (param.type) {
        case eDATA_INT8:
        case eDATA_UINT8: return 1;
        case eDATA_INT16:
        case eDATA_UINT16: return 2;
        case eDATA_INT32:
        case eDATA_UINT32:
        case eDATA_FLOAT: return 4;
        case eDATA_BUFFER: return param.value.pBuffer ? param.value.pBuffer->length : 0;
        default: return 0;
    }
}

void CopyMemory(void* pDst, void* pSrc, int count) {
    auto* dst = static_cast<unsigned char*>(pDst);
    const auto* src = static_cast<const unsigned char*>(pSrc);
    for (int i = 0; i < count; ++i) dst[i] = src[i];
}

namespace {
// Fills the markers and the next sequence number into a command payload.
// 0, or 0x4000000 when the library is closed.
Vyrix_ReturnStatus StampCommand(unsigned char* pPayload, uint8_t* pSequence) {
    pPayload[0] = kCommandMarker;
    pPayload[1] = kCommandMarker;
    LibraryLock lock;
    Vyrix_LibraryContext* context = g_pLibCtx;
    if (context == nullptr) return Result(eVYRIX_UNINITIALIZED);
    uint8_t& sequence = context->sequenceNumber;
    sequence = static_cast<uint8_t>(sequence + 1);
    if (sequence > kMaxSequenceNumber) sequence = 1;
    pPayload[2] = sequence & kSequenceMask;
    *pSequence = sequence;
    return eVYRIX_RETURN_SUCCESS;
}

// Sends one command on the link (null: the first open transport's port, as
// KtSendMsg chooses), after dropping the stale replies queued there.
Vyrix_ReturnStatus SendOn(const KtHandlerRef& link, unsigned char* pPayload, unsigned short payloadLen,
                          KtXlnkDeviceIdE deviceId) {
    if (deviceId != eEP_DEVICE && deviceId != eAP_DEVICE) return Result(eVYRIX_INVALID_ARGUMENT);
    if (pPayload == nullptr || payloadLen < kCommandHeader) return Result(eVYRIX_INVALID_ARGUMENT);
    uint8_t sequence = 0;
    Vyrix_ReturnStatus r = StampCommand(pPayload, &sequence);
    if (r != eVYRIX_RETURN_SUCCESS) return r;
    if (link) link->SetLastSequence(sequence);
    LlcDropReplies(link);
    KtXlnkMsgS record{eHOST_DEVICE, static_cast<BYTE>(deviceId), 0, ePROTOCOL_CONNECTION_ORIENTED, payloadLen,
                      pPayload};
    return link ? LlcSend(link, record) : KtSendMsg(record);
}

// The checks of a reply, against the sequence number of the command it
// answers.
Vyrix_ReturnStatus CheckReply(const KtXlnkMsgS& msg, uint8_t expected) {
    if ((msg.deviceID != eHOST_DEVICE && msg.deviceID != eAP_DEVICE) || msg.priority != 0 ||
        msg.protocolID > ePROTOCOL_CONNECTION_ORIENTED)
        return Result(eVYRIX_FAILURE);
    const unsigned char* p = msg.pPayload;
    if (p == nullptr || msg.payloadLen < 2) return Result(eVYRIX_FAILURE);
    const bool markers =
        (p[0] == kCommandMarker && p[1] == kCommandMarker) || (p[0] == kAltReplyMarker && p[1] == kAltReplyMarker);
    if (!markers) return Result(eVYRIX_FAILURE);
    if (msg.protocolID == ePROTOCOL_CONNECTIONLESS) return eVYRIX_RETURN_SUCCESS;
    if (msg.payloadLen < 3) return Result(eVYRIX_FAILURE);
    const uint8_t type = p[2] >> kReplyTypeShift;
    if (type == kReplyTypeError) return Result(eVYRIX_COMMUNICATION_ERROR);
    if (type != kReplyTypeReply) return Result(eVYRIX_FAILURE);
    return (p[2] & kSequenceMask) == expected ? eVYRIX_RETURN_SUCCESS : Result(eVYRIX_FAILURE);
}

// The sequence number a reply that names no command is checked against:
// the last one sent on the first open transport's port, or in the library.
uint8_t DefaultExpectedSequence() {
    KtHandlerRef link = LlcDefaultLink();
    if (link) return link->LastSequence();
    LibraryLock lock;
    Vyrix_LibraryContext* context = g_pLibCtx;
    return context != nullptr ? context->sequenceNumber : 0;
}

// Takes the reply from the link into a new buffer and checks it.
Vyrix_ReturnStatus ReplyOn(const KtHandlerRef& link, uint8_t expected, const CDeadline& deadline,
                           unsigned char** ppReply, unsigned short* pReplyLen, KtXlnkProtocolIdE protocolId) {
    if (ppReply == nullptr || pReplyLen == nullptr) return Result(eVYRIX_INVALID_ARGUMENT);
    // The receive functions may fill up to a whole payload, whatever the
    // capacity asked for: the buffer always has room for it.
    const size_t room = *pReplyLen > kReplyCapacity ? *pReplyLen : kReplyCapacity;
    *ppReply = new unsigned char[room]();
    KtXlnkMsgS record{};
    record.payloadLen = *pReplyLen;
    record.pPayload = *ppReply;
    Vyrix_ReturnStatus r;
    if (protocolId == ePROTOCOL_CONNECTION_ORIENTED)
        r = LlcWaitReply(link, &record, deadline);
    else if (protocolId == ePROTOCOL_CONNECTIONLESS)
        r = LlcTakeMessage(link, &record);
    else
        r = Result(eVYRIX_FAILURE);
    if (r != eVYRIX_RETURN_SUCCESS) return r;
    if (record.payloadLen > *pReplyLen) return Result(eVYRIX_FAILURE);
    r = CheckReply(record, expected);
    if (r == eVYRIX_RETURN_SUCCESS || r == Result(eVYRIX_COMMUNICATION_ERROR)) *pReplyLen = record.payloadLen;
    return r;
}
}  // namespace

namespace {
// Puts in words why a command got no reply: the wait ran out, or the link
// ended under it.
void ExplainNoReply(Vyrix_ReturnStatus r, const CommandRoute& route) {
    if (HasCode(r, eVYRIX_INCOMPLETE))
        CLastError::Set("no answer from the device within %.3g s", static_cast<double>(route.replyTimeoutMs) / 1000.0);
    else if (HasCode(r, eVYRIX_NOT_CONNECTED) && route.link && route.link->IsClosing())
        CLastError::Set("the connection was closed while the command waited for the device");
    else if (HasCode(r, eVYRIX_NOT_CONNECTED))
        CLastError::Set("the device went away: the line hung up, or the device was unplugged or switched off");
}
}  // namespace

unsigned long DefaultReplyTimeoutMs() { return (static_cast<unsigned long>(kReplyRetryCount) + 1) * KT_REMOVE_POLL_MS; }

Vyrix_ReturnStatus PayloadExchange(const CommandRoute& route, unsigned char* pPayload, unsigned short payloadLen,
                                   KtXlnkDeviceIdE deviceId, unsigned char** ppReply, unsigned short* pReplyLen,
                                   unsigned long pauseBeforeReplyMs, bool* pSent) {
    if (pSent != nullptr) *pSent = false;
    const KtHandlerRef& link = route.link;
    const CDeadline deadline = CDeadline::After(route.replyTimeoutMs);
    // A link inherited across fork() is the parent's: its gate may be held by
    // a thread the child does not have.  The send below refuses it at once.
    const bool ours = link && !link->IsInherited();
    const CCommandTurn turn(ours ? &link->Gate() : nullptr, deadline);
    // A link that is down lets the send below report it, as it always has.
    if (turn.Result() != eVYRIX_RETURN_SUCCESS && !HasCode(turn.Result(), eVYRIX_NOT_CONNECTED)) return turn.Result();
    Vyrix_ReturnStatus r = SendOn(link, pPayload, payloadLen, deviceId);
    if (r != eVYRIX_RETURN_SUCCESS) {
        ExplainNoReply(r, route);
        return r;
    }
    if (pSent != nullptr) *pSent = true;
    const uint8_t expected = static_cast<uint8_t>(pPayload[2] & kSequenceMask);
    if (pauseBeforeReplyMs > 0) {
        // The reply wait below reports a link that went down during it.
        if (link)
            link->Gate().Pause(CDeadline::After(pauseBeforeReplyMs));
        else
            KtSleep(pauseBeforeReplyMs);
    }
    unsigned char* ack = nullptr;
    unsigned short ackLength = kReplyCapacity;
    if (ppReply == nullptr) {
        r = ReplyOn(link, expected, deadline, &ack, &ackLength, ePROTOCOL_CONNECTION_ORIENTED);
        delete[] ack;
    } else {
        *pReplyLen = kReplyCapacity;
        r = ReplyOn(link, expected, deadline, ppReply, pReplyLen, ePROTOCOL_CONNECTION_ORIENTED);
    }
    ExplainNoReply(r, route);
    return r;
}

Vyrix_ReturnStatus CommandExchange(const CommandRoute& route, unsigned char opcode, Vyrix_DataS* pParams, int numParams,
                                   unsigned char** ppReply, unsigned short* pReplyLen, KtXlnkDeviceIdE deviceId) {
    if (ppReply != nullptr) *ppReply = nullptr;
    if (pReplyLen != nullptr) *pReplyLen = 0;
    size_t length = kCommandHeader;
    if (pParams != nullptr)
        for (int i = 0; i < numParams; ++i) length += EncodedSize(pParams[i]);
    // What would not fit a packet is refused before anything is built.
    if (length > KT_XLNK_MAX_PAYLOAD) return Result(eVYRIX_PAYLOAD_TOO_LARGE);
    std::unique_ptr<unsigned char[]> payload(new (std::nothrow) unsigned char[length]());
    if (!payload) return Result(eVYRIX_FAILURE);
    payload[3] = opcode;
    unsigned char* at = payload.get() + kCommandHeader;
    if (pParams != nullptr)
        for (int i = 0; i < numParams; ++i) at += EncodeParam(pParams[i], at);
    const bool wantReply = ppReply != nullptr && pReplyLen != nullptr;
    return PayloadExchange(route, payload.get(), static_cast<unsigned short>(length), deviceId,
                           wantReply ? ppReply : nullptr, wantReply ? pReplyLen : nullptr);
}

Vyrix_ReturnStatus AlcSendCommandParamsGetReply(unsigned char opcode, Vyrix_DataS* pParams, int numParams,
                                                unsigned char** ppReply, unsigned short* pReplyLen,
                                                KtXlnkDeviceIdE deviceId) {
    return CommandExchange(DefaultRoute(), opcode, pParams, numParams, ppReply, pReplyLen, deviceId);
}

Vyrix_ReturnStatus AlcSendCommandParams(unsigned char opcode, Vyrix_DataS* pParams, int numParams,
                                        KtXlnkDeviceIdE deviceId) {
    return AlcSendCommandParamsGetReply(opcode, pParams, numParams, nullptr, nullptr, deviceId);
}

Vyrix_ReturnStatus AlcSendCommandGetReply(unsigned char opcode, unsigned char** ppReply, unsigned short* pReplyLen,
                                          KtXlnkDeviceIdE deviceId) {
    return AlcSendCommandParamsGetReply(opcode, nullptr, 0, ppReply, pReplyLen, deviceId);
}

Vyrix_ReturnStatus SendXlnkMsg(unsigned char /*opcode*/, unsigned char* pPayload, unsigned short payloadLen,
                               KtXlnkDeviceIdE deviceId) {
    return SendOn(LlcDefaultLink(), pPayload, payloadLen, deviceId);
}

void FlushMsgQueue() { LlcDropReplies(nullptr); }

Vyrix_ReturnStatus GetReply(unsigned char** ppReply, unsigned short* pReplyLen, KtXlnkProtocolIdE protocolId) {
    KtHandlerRef link = LlcDefaultLink();
    const uint8_t expected = DefaultExpectedSequence();
    return ReplyOn(link, expected, CDeadline::After(DefaultReplyTimeoutMs()), ppReply, pReplyLen, protocolId);
}

Vyrix_ReturnStatus ValidateReply(KtXlnkMsgS msg) { return CheckReply(msg, DefaultExpectedSequence()); }

Vyrix_ReturnStatus GetAck() {
    unsigned char* reply = nullptr;
    unsigned short length = kReplyCapacity;
    Vyrix_ReturnStatus r = GetReply(&reply, &length, ePROTOCOL_CONNECTION_ORIENTED);
    delete[] reply;
    return r;
}
