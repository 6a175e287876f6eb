// SPDX-License-Identifier: MIT
// Feeds arbitrary bytes to the packet parser in arbitrary chunks, the way a
// receive loop does: the first input byte chooses the chunk sizes and how
// often the line goes quiet inside a packet (which abandons it, so its bytes
// are searched again).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "LLC_XlnkMsgHandler.h"

namespace {
void CheckAndFree(KtXlnkMsgS& msg) {
    if (msg.payloadLen > KT_XLNK_MAX_PAYLOAD) abort();
    if (msg.deviceID != eHOST_DEVICE && msg.deviceID != eBROADCAST_DEVICE_ID) abort();
    if (msg.sourceID != eEP_DEVICE && msg.sourceID != eAP_DEVICE) abort();
    if (msg.payloadLen > 0) {
        volatile BYTE last = msg.pPayload[msg.payloadLen - 1];  // the whole buffer is there
        (void)last;
    }
    delete[] msg.pPayload;
}

// Every packet the bytes (and what the parser holds back) complete.
void Drain(CXlnkMsgHandler& parser, BYTE* bytes, size_t n) {
    size_t offset = 0;
    for (;;) {
        KtXlnkMsgS msg{};
        if (parser.ParsePacket(bytes + offset, static_cast<DWORD>(n - offset), &msg) != 0) return;
        offset += parser.ConsumedBytes();
        if (offset > n) abort();
        CheckAndFree(msg);
    }
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const size_t chunk = 1 + data[0] % 97;
    const bool quietLine = data[0] & 0x80;
    CXlnkMsgHandler parser;
    std::vector<BYTE> buffer;
    for (size_t at = 1; at < size; at += chunk) {
        const size_t n = size - at < chunk ? size - at : chunk;
        buffer.assign(data + at, data + at + n);
        buffer.push_back(0);  // a valid address past the chunk, for the empty rest
        Drain(parser, buffer.data(), n);
        if (quietLine && parser.InPacket()) {
            parser.AbandonPacket();
            Drain(parser, buffer.data(), 0);
        }
    }
    return 0;
}
