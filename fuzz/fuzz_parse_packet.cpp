// Feeds arbitrary bytes to the packet parser in arbitrary chunks, the way a
// port delivers them: the first input byte chooses the chunk sizes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "LLC_XlnkMsgHandler.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const size_t chunk = 1 + data[0] % 97;
    CXlnkMsgHandler parser;
    std::vector<BYTE> buffer;
    for (size_t at = 1; at < size; at += chunk) {
        const size_t n = size - at < chunk ? size - at : chunk;
        buffer.assign(data + at, data + at + n);
        // Keep parsing what follows a delivered packet, as a reader that
        // loses nothing would.
        for (size_t offset = 0; offset < n;) {
            KtXlnkMsgS msg{};
            Vyrix_ReturnStatus r = parser.ParsePacket(buffer.data() + offset, static_cast<DWORD>(n - offset), &msg);
            const size_t used = parser.ConsumedBytes();
            if (r == 0) {
                if (msg.payloadLen > KT_XLNK_MAX_PAYLOAD) abort();
                if (msg.deviceID != eHOST_DEVICE && msg.deviceID != eBROADCAST_DEVICE_ID) abort();
                if (msg.sourceID != eEP_DEVICE && msg.sourceID != eAP_DEVICE) abort();
                if (msg.payloadLen > 0) {
                    volatile BYTE last = msg.pPayload[msg.payloadLen - 1];  // the whole buffer is there
                    (void)last;
                }
                delete[] msg.pPayload;
            }
            if (used == 0 || r != 0) break;
            offset += used;
        }
    }
    return 0;
}
