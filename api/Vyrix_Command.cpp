// Command transport: typed parameters packed into a numbered command,
// stale replies dropped, the packet sent, the reply taken and checked.
#include <cstring>
#include <memory>
#include <new>

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

Vyrix_ReturnStatus AlcSendCommandParamsGetReply(unsigned char opcode, Vyrix_DataS* pParams, int numParams,
                                                unsigned char** ppReply, unsigned short* pReplyLen,
                                                KtXlnkDeviceIdE deviceId) {
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
    Vyrix_ReturnStatus r = SendXlnkMsg(opcode, payload.get(), static_cast<unsigned short>(length), deviceId);
    payload.reset();
    if (r != eVYRIX_RETURN_SUCCESS) return r;
    if (ppReply != nullptr && pReplyLen != nullptr) {
        *pReplyLen = kReplyCapacity;
        return GetReply(ppReply, pReplyLen, ePROTOCOL_CONNECTION_ORIENTED);
    }
    return GetAck();
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
    if (deviceId != eEP_DEVICE && deviceId != eAP_DEVICE) return Result(eVYRIX_INVALID_ARGUMENT);
    if (pPayload == nullptr || payloadLen < kCommandHeader) return Result(eVYRIX_INVALID_ARGUMENT);
    if (g_pLibCtx == nullptr) return Result(eVYRIX_UNINITIALIZED);
    KtXlnkMsgS record{eHOST_DEVICE, static_cast<BYTE>(deviceId), 0, ePROTOCOL_CONNECTION_ORIENTED, payloadLen,
                      pPayload};
    pPayload[0] = kCommandMarker;
    pPayload[1] = kCommandMarker;
    const CommandRoute& route = ConnectionScope::Current();
    {
        // The numbers count on across connections; each connection
        // remembers its own last one, so two devices driven from two
        // threads never take each other's replies for their own.
        LibraryLock lock;
        uint8_t& sequence = g_pLibCtx->sequenceNumber;
        sequence = static_cast<uint8_t>(sequence + 1);
        if (sequence > kMaxSequenceNumber) sequence = 1;
        pPayload[2] = sequence & kSequenceMask;
        if (route.connection != nullptr) route.connection->sequenceNumber = sequence;
    }
    FlushMsgQueue();
    return route.link ? LlcSend(route.link, record) : KtSendMsg(record);
}

void FlushMsgQueue() { LlcDropReplies(ConnectionScope::Current().link); }

Vyrix_ReturnStatus GetReply(unsigned char** ppReply, unsigned short* pReplyLen, KtXlnkProtocolIdE protocolId) {
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
        r = LlcWaitReply(ConnectionScope::Current().link, &record, ConnectionScope::ReplyTimeoutMs());
    else if (protocolId == ePROTOCOL_CONNECTIONLESS)
        r = KtRemoveConnectionlessMsg(&record);
    else
        r = Result(eVYRIX_FAILURE);
    if (r != eVYRIX_RETURN_SUCCESS) return r;
    if (record.payloadLen > *pReplyLen) return Result(eVYRIX_FAILURE);
    r = ValidateReply(record);
    if (r == eVYRIX_RETURN_SUCCESS || r == Result(eVYRIX_COMMUNICATION_ERROR)) *pReplyLen = record.payloadLen;
    return r;
}

Vyrix_ReturnStatus ValidateReply(KtXlnkMsgS msg) {
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
    uint8_t expected;
    {
        LibraryLock lock;
        const Vyrix_Connection* connection = ConnectionScope::Current().connection;
        expected = connection != nullptr ? connection->sequenceNumber : g_pLibCtx ? g_pLibCtx->sequenceNumber : 0;
    }
    return (p[2] & kSequenceMask) == expected ? eVYRIX_RETURN_SUCCESS : Result(eVYRIX_FAILURE);
}

Vyrix_ReturnStatus GetAck() {
    unsigned char* reply = nullptr;
    unsigned short length = kReplyCapacity;
    Vyrix_ReturnStatus r = GetReply(&reply, &length, ePROTOCOL_CONNECTION_ORIENTED);
    delete[] reply;
    return r;
}
