// SPDX-License-Identifier: MIT
// Feeds arbitrary replies to the code that reads them: the reply checks,
// and the decoding of every reply layout the device operations use, on a
// reply buffer exactly as the command layer allocates it.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Vyrix_Internal.h"
#include "Vyrix_Operation.h"

namespace {

struct Library {
    Library() { Vyrix_OpenLibrary(&handle); }
    void* handle = nullptr;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Library library;
    if (size < 6) return 0;
    // Header of the received packet, the sequence number last sent, the
    // layout to decode, then the payload.
    KtXlnkMsgS msg{data[1], data[0], data[2], data[3], 0, nullptr};
    g_pLibCtx.load()->sequenceNumber = data[4] & 0x3F;
    const uint8_t layout = data[5];
    const size_t length = size - 6 > KT_XLNK_MAX_PAYLOAD ? KT_XLNK_MAX_PAYLOAD : size - 6;
    unsigned char* reply = new unsigned char[kReplyCapacity]();
    memcpy(reply, data + 6, length);
    msg.payloadLen = static_cast<WORD>(length);
    msg.pPayload = reply;
    Vyrix_ReturnStatus r = ValidateReply(msg);

    using namespace op;
    uint8_t u8;
    uint16_t u16a, u16b;
    uint32_t words[8];
    float f;
    int16_t i16;
    Vyrix_EventLogEntryS entries[kEventLogMaxCount];
    switch (layout % 6) {
        case 0: r = ReadReply(r, reply, [&](const unsigned char* at) { StoreValues(at, {Out(&u8)}); }); break;
        case 1:
            r = ReadReply(r, reply, [&](const unsigned char* at) {
                StoreValues(at, {Out(&u16a), Out(&u16b), Out(&f)});
            });
            break;
        case 2: r = ReadReply(r, reply, [&](const unsigned char* at) { StoreValues(at, {OutTruncated(&i16)}); }); break;
        case 3:
            r = ReadReply(r, reply, [&](const unsigned char* at) {
                for (uint32_t& w : words) StoreValues(at, {Out(&w)}), at += 4;
            });
            break;
        default: {
            // Event log: the largest count reads the furthest into the buffer.
            const uint16_t count = static_cast<uint16_t>(layout % kEventLogMaxCount + 1);
            r = ReadReply(r, reply, [&](const unsigned char* at) {
                for (uint16_t i = 0; i < count; ++i, at += kEventLogEntryBytes) {
                    Vyrix_EventLogEntryS& e = entries[i];
                    StoreValues(at, {Out(&e.field1), Out(&e.field2), Out(&e.field3), Out(&e.field4), Out(&e.field5),
                                     Out(&e.field6)});
                }
            });
            break;
        }
    }
    (void)r;
    return 0;
}
