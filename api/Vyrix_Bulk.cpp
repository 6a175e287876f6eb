// SPDX-License-Identifier: MIT
// Bulk data in numbered, acknowledged chunks, and text drawing.
#include <atomic>
#include <cstring>
#include <memory>
#include <new>

#include "Vyrix_Internal.h"

namespace {
constexpr Vyrix_ReturnStatus Result(Vyrix_ReturnCodeE code) { return VYRIX_RESULT(code); }
constexpr unsigned kChunkBufferSize = 4095;
constexpr unsigned kChunkData = 2548;    // data bytes of every chunk but the first
constexpr unsigned kFirstChunkData = 4;  // the first chunk carries exactly these
constexpr int kChunkAttempts = 10;
constexpr unsigned kIncompletePauseMs = 300;
constexpr unsigned kLastChunkPauseMs = 20000;
constexpr unsigned char kImageOpcode = 0x60;
constexpr unsigned char kDrawTextOpcode = 0x61;
constexpr unsigned char kTextBoxOpcode = 0x62;
constexpr unsigned kImageHeader = 13;  // opcode 0x60: target, x, y, width, height follow the opcode
constexpr unsigned kTextLimit = 1008;
constexpr unsigned kDrawTextHeader = 19;
constexpr unsigned kTextBoxHeader = 6;
constexpr int kStopTransfer = eVYRIX_INCOMPLETE;

// Progress of the current (or last) transfer, readable from any thread.
std::atomic<unsigned short> curIndexFlag{0};
std::atomic<unsigned short> maxIndexFlag{0};
std::atomic<unsigned short> UpdateType{0};

unsigned short ChunkLimit(unsigned int dataSize) {
    const uint32_t rest = dataSize - 1u;
    return static_cast<unsigned short>(rest / kChunkData + (rest % kChunkData != 0 ? 1 : 0));
}

// Lays out one chunk; returns the payload length.
unsigned BuildChunk(unsigned char* buf, unsigned char opcode, unsigned short index, const unsigned char* data,
                    unsigned length, Vyrix_RenderTargetE target, Vyrix_PointS position, Vyrix_RectSizeS size) {
    buf[3] = opcode;
    unsigned h = kCommandHeader;
    if (opcode == kImageOpcode) {
        buf[4] = static_cast<unsigned char>(target);
        PutLe16(buf + 5, position.x);
        PutLe16(buf + 7, position.y);
        PutLe16(buf + 9, size.width);
        PutLe16(buf + 11, size.height);
        h = kImageHeader;
    }
    PutLe16(buf + h, index);
    PutLe16(buf + h + 2, maxIndexFlag.load());
    PutLe16(buf + h + 4, static_cast<uint16_t>(length));
    memcpy(buf + h + 6, data, length);
    return h + 6 + length;
}

size_t TextLength(const unsigned char* text, unsigned short maxLen) {
    size_t limit = maxLen < kTextLimit ? maxLen : kTextLimit;
    return strnlen(reinterpret_cast<const char*>(text), limit);
}
}  // namespace

Vyrix_ReturnStatus AlcSendImageCommandGeneric(unsigned char opcode, unsigned char* pData, unsigned int dataSize,
                                              Vyrix_RenderTargetE target, Vyrix_PointS position, Vyrix_RectSizeS size,
                                              KtXlnkDeviceIdE deviceId, VyrixProgressFn pfnProgress) {
    if (pData == nullptr && dataSize > 0) return Result(eVYRIX_INVALID_ARGUMENT);
    std::unique_ptr<unsigned char[]> buf(new (std::nothrow) unsigned char[kChunkBufferSize]);
    if (!buf) return Result(eVYRIX_FAILURE);
    const CommandRoute route = DefaultRoute();
    maxIndexFlag = ChunkLimit(dataSize);
    unsigned int offset = 0;
    unsigned short index = 0;
    Vyrix_ReturnStatus result = eVYRIX_RETURN_SUCCESS;
    while (offset < dataSize && result == eVYRIX_RETURN_SUCCESS) {
        memset(buf.get(), 0, kChunkBufferSize);
        const unsigned remaining = dataSize - offset;
        const unsigned want = index == 0 ? kFirstChunkData : kChunkData;
        const unsigned length = remaining < want ? remaining : want;
        const unsigned payloadLen =
            BuildChunk(buf.get(), opcode, index, pData + offset, length, target, position, size);
        const bool lastDeviceChunk = opcode != kImageOpcode && index == maxIndexFlag.load() && deviceId == eEP_DEVICE;
        for (int attempt = 0; attempt < kChunkAttempts; ++attempt) {
            bool sent = false;
            result = PayloadExchange(route, buf.get(), static_cast<unsigned short>(payloadLen), deviceId, nullptr,
                                     nullptr, lastDeviceChunk ? kLastChunkPauseMs : 0, &sent);
            if (result == eVYRIX_RETURN_SUCCESS) break;
            if (!sent) return result;
            if (VYRIX_CODE(result) == eVYRIX_INCOMPLETE) KtSleep(kIncompletePauseMs);
        }
        offset += length;
        ++index;
        curIndexFlag = index;
        if (pfnProgress != nullptr) {
            unsigned short current = curIndexFlag.load();
            unsigned short limit = maxIndexFlag.load();
            if (pfnProgress(&current, &limit, reinterpret_cast<unsigned char*>(&deviceId)) == kStopTransfer)
                return Result(eVYRIX_INCOMPLETE);
        }
    }
    return result;
}

Vyrix_ReturnStatus AlcDrawText(Vyrix_RenderTargetE target, const unsigned char* pText, unsigned short maxLen,
                               Vyrix_PointS position, Vyrix_ColorS foreground, Vyrix_ColorS background) {
    if (pText == nullptr) return Result(eVYRIX_INVALID_ARGUMENT);
    std::unique_ptr<unsigned char[]> buf(new (std::nothrow) unsigned char[kChunkBufferSize]());
    if (!buf) return Result(eVYRIX_FAILURE);
    const size_t n = TextLength(pText, maxLen);
    buf[3] = kDrawTextOpcode;
    buf[4] = static_cast<unsigned char>(target);
    PutLe16(buf.get() + 5, static_cast<uint16_t>(n));
    PutLe16(buf.get() + 7, position.x);
    PutLe16(buf.get() + 9, position.y);
    memcpy(buf.get() + 11, &foreground, sizeof foreground);
    memcpy(buf.get() + 15, &background, sizeof background);
    memcpy(buf.get() + kDrawTextHeader, pText, n);
    return PayloadExchange(DefaultRoute(), buf.get(), static_cast<unsigned short>(kDrawTextHeader + n), eEP_DEVICE,
                           nullptr, nullptr);
}

Vyrix_ReturnStatus AlcGetTextBoxInfo(unsigned char* pText, unsigned short maxLen, Vyrix_RectSizeS* pSize) {
    if (pText == nullptr || pSize == nullptr) return Result(eVYRIX_INVALID_ARGUMENT);
    std::unique_ptr<unsigned char[]> buf(new (std::nothrow) unsigned char[kChunkBufferSize]());
    if (!buf) return Result(eVYRIX_FAILURE);
    const size_t n = TextLength(pText, maxLen);
    buf[3] = kTextBoxOpcode;
    PutLe16(buf.get() + 4, static_cast<uint16_t>(n));
    memcpy(buf.get() + kTextBoxHeader, pText, n);
    unsigned char* reply = nullptr;
    unsigned short length = 0;
    Vyrix_ReturnStatus r = PayloadExchange(DefaultRoute(), buf.get(), static_cast<unsigned short>(kTextBoxHeader + n),
                                           eEP_DEVICE, &reply, &length);
    buf.reset();
    if (r != eVYRIX_RETURN_SUCCESS) {
        delete[] reply;  // an error reply is returned unread
        return r;
    }
    return ReadReply(r, reply, [pSize](const unsigned char* values) {
        pSize->width = Le16(values);
        pSize->height = Le16(values + 2);
    });
}

void GetIndexStatus(unsigned short* pUpdateType, unsigned short* pCurIndex, unsigned short* pMaxIndex) {
    if (pUpdateType != nullptr) *pUpdateType = UpdateType.load();
    if (pCurIndex != nullptr) *pCurIndex = curIndexFlag.load();
    if (pMaxIndex != nullptr) *pMaxIndex = maxIndexFlag.load();
}
