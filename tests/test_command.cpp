// SPDX-License-Identifier: MIT
// The command transport: parameter encoding, sequence numbers, reply
// validation, acknowledgements and the flush of stale replies.
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

#include "ApiLink.h"
#include "LLC_CommHandler.h"
#include "LLC_SyncObject.h"

namespace {

using vt::Answering;
using vt::ApiLink;
using vt::Bytes;

Vyrix_DataS Param(Vyrix_DataTypeE type, uint32_t bits) {
    Vyrix_DataS d{};
    d.type = type;
    d.value.u32 = bits;
    return d;
}

bool LibraryLockIsFree() {
    auto* lock = static_cast<CSyncObject*>(g_pSyncObj);
    if (pthread_mutex_trylock(lock->NativeHandle()) != 0) return false;
    pthread_mutex_unlock(lock->NativeHandle());
    return true;
}

class Transport : public ApiLink {};

TEST_F(Transport, EveryTagEncodesLeastSignificantByteFirst) {
    Vyrix_DataBufferS buffer{};
    uint8_t bytes[3] = {0xB1, 0xB2, 0xB3};
    buffer.pData = bytes;
    buffer.length = 3;
    float one = 1.0f;
    uint32_t oneBits;
    memcpy(&oneBits, &one, 4);
    Vyrix_DataS withBuffer{};
    withBuffer.type = eDATA_BUFFER;
    withBuffer.value.pBuffer = &buffer;
    Vyrix_DataS params[] = {Param(eDATA_UINT8, 50),
                            Param(eDATA_UINT32, 1),
                            Param(eDATA_INT8, 0xFF),
                            Param(eDATA_INT16, 0xFFFE),
                            Param(eDATA_UINT16, 0x1234),
                            Param(eDATA_INT32, 0xFFFFFFFD),
                            Param(eDATA_FLOAT, oneBits),
                            Param(static_cast<Vyrix_DataTypeE>(0), 0xAA),
                            Param(static_cast<Vyrix_DataTypeE>(9), 0xBB),
                            withBuffer};
    ASSERT_EQ(AlcSendCommandParams(0x21, params, 10, eAP_DEVICE), 0u);
    EXPECT_EQ(Command(0), (Bytes{0x2A, 0x2A, 0x01, 0x21, 0x32, 0x01, 0x00, 0x00, 0x00, 0xFF, 0xFE, 0xFF, 0x34,
                                 0x12, 0xFD, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x80, 0x3F, 0xB1, 0xB2, 0xB3}));
    EXPECT_EQ(sim->Received()[0].destination, 3);
}

TEST_F(Transport, SequenceNumbersRunOneToSixtyThreeAndReopenStartsAtOne) {
    g_pLibCtx.load()->sequenceNumber = 61;
    for (int i = 0; i < 3; ++i) ASSERT_EQ(AlcSendCommandParams(0x21, nullptr, 0, eEP_DEVICE), 0u);
    EXPECT_EQ(Command(0)[2], 62);
    EXPECT_EQ(Command(1)[2], 63);
    EXPECT_EQ(Command(2)[2], 1);
    ASSERT_EQ(Vyrix_CloseLibrary(library), 0u);
    ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
    ASSERT_EQ(Vyrix_OpenConnection(library, &connection, vt::UartRecord(path.c_str())), 0u);
    ASSERT_EQ(AlcSendCommandParams(0x21, nullptr, 0, eEP_DEVICE), 0u);
    EXPECT_EQ(Command(3)[2], 1);
}

TEST_F(Transport, ErrorReplyIsReportedWithItsReplyHandedBack) {
    sim->SetResponder(Answering({7, 8}, 0, 2));
    unsigned char* reply = nullptr;
    unsigned short length = 0;
    EXPECT_EQ(AlcSendCommandGetReply(0x27, &reply, &length, eEP_DEVICE), 0x17000000u);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(length, 9);
    EXPECT_EQ(reply[7], 7);
    EXPECT_EQ(reply[2] >> 6, 2);
    delete[] reply;
}

TEST_F(Transport, ReplyMarkersAndTypes) {
    unsigned char* reply = nullptr;
    unsigned short length = 0;
    sim->SetResponder(Answering({5}, 0, 1, {0x09, 0x09}));
    EXPECT_EQ(AlcSendCommandGetReply(0x27, &reply, &length, eEP_DEVICE), 0u);
    EXPECT_EQ(length, 8);
    delete[] reply;
    for (auto [type, second] : {std::make_pair(1, 0x09), {0, 0x2A}, {3, 0x2A}}) {
        sim->SetResponder(Answering({5}, 0, static_cast<uint8_t>(type), {0x2A, static_cast<uint8_t>(second)}));
        EXPECT_EQ(AlcSendCommandGetReply(0x27, &reply, &length, eEP_DEVICE), 0x01000000u) << type;
        delete[] reply;
    }
}

TEST_F(Transport, WrongSequenceNumberFailsAndLeavesTheLockFree) {
    sim->SetResponder([](const vyrix::sim::HostPacket& p) -> std::optional<vyrix::sim::Reply> {
        return vt::ReplyTo(static_cast<uint8_t>((p.payload[2] - 1) & 0x3F));
    });
    EXPECT_EQ(AlcSendCommandParams(0x21, nullptr, 0, eEP_DEVICE), 0x01000000u);
    EXPECT_TRUE(LibraryLockIsFree());
}

TEST_F(Transport, HostDestinationIsRefusedWithoutSending) {
    EXPECT_EQ(AlcSendCommandParams(0x21, nullptr, 0, eHOST_DEVICE), 0x05000000u);
    EXPECT_EQ(g_pLibCtx.load()->sequenceNumber, 0);  // no number was used up
    ASSERT_EQ(AlcSendCommandParams(0x1F, nullptr, 0, eEP_DEVICE), 0u);
    EXPECT_EQ(Command(0), (Bytes{0x2A, 0x2A, 0x01, 0x1F}));  // the first thing the device saw
    EXPECT_EQ(std::make_tuple(sim->Received()[0].destination, sim->Received()[0].protocol), std::make_tuple(0, 1));
}

TEST_F(Transport, AcknowledgementDoesNotLookAtTheStatusWord) {
    sim->SetResponder(Answering({}, 0x0A000042u));
    EXPECT_EQ(AlcSendCommandParams(0x21, nullptr, 0, eEP_DEVICE), 0u);
}

TEST_F(Transport, StaleRepliesAreFlushedBeforeACommand) {
    // An exchange started through the link layer and never finished leaves
    // its reply in the queue; the next command must not take it.
    sim->SetFaults(vt::Quiet());
    Bytes raw = {0x2A, 0x2A, 0x3F, 0x01};
    KtXlnkMsgS msg{2, 0, 0, 1, 4, raw.data()};
    ASSERT_EQ(KtSendMsg(msg), 0u);
    ASSERT_TRUE(sim->WaitForPackets(1, std::chrono::seconds(5)));  // taken, and left unanswered
    sim->SendPacket(vt::ReplyTo(0x3F, {0x55}));
    vt::Fence(*sim);  // the stale reply is queued
    sim->SetFaults(vyrix::sim::Faults{});
    sim->SetResponder(Answering({0x77}));
    unsigned char* reply = nullptr;
    unsigned short length = 0;
    ASSERT_EQ(AlcSendCommandGetReply(0x27, &reply, &length, eEP_DEVICE), 0u);
    EXPECT_EQ(reply[2] & 0x3F, 1);
    EXPECT_EQ(reply[7], 0x77);
    delete[] reply;
}

TEST_F(Transport, FailuresOfTheLinkAreReturnedUnchanged) {
    ASSERT_EQ(Vyrix_CloseConnection(connection), 0u);
    unsigned char* reply = reinterpret_cast<unsigned char*>(0x1);
    unsigned short length = 9;
    EXPECT_EQ(AlcSendCommandGetReply(0x27, &reply, &length, eEP_DEVICE), 0x16000000u);
    EXPECT_EQ(reply, nullptr);
    EXPECT_EQ(length, 0);
    Vyrix_DataBufferS huge{nullptr, 4092};
    Vyrix_DataS param{};
    param.type = eDATA_BUFFER;
    param.value.pBuffer = &huge;
    EXPECT_EQ(AlcSendCommandParams(0x21, &param, 1, eEP_DEVICE), 0x1A000000u);
}

TEST(CommandHelpers, ValidateReply) {
    void* library = nullptr;
    ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
    g_pLibCtx.load()->sequenceNumber = 9;
    const struct {
        uint8_t destination, priority, protocol, third;
        uint32_t result;
    } cases[] = {
        {2, 0, 1, 0x49, 0u},          {3, 0, 1, 0x49, 0u}, {0, 0, 1, 0x49, 0x01000000u},  // to the host
        {2, 1, 1, 0x49, 0x01000000u},                                                     // priority
        {2, 0, 1, 0x88, 0x17000000u},  // error reply: no sequence test
        {2, 0, 0, 0x00, 0u},           // connectionless: the markers are enough
    };
    for (const auto& c : cases) {
        Bytes payload = {0x2A, 0x2A, c.third};
        KtXlnkMsgS msg{0, c.destination, c.priority, c.protocol, 3, payload.data()};
        EXPECT_EQ(ValidateReply(msg), c.result) << int{c.destination} << "/" << int{c.priority} << "/" << int{c.third};
    }
    Vyrix_CloseLibrary(library);
}

}  // namespace
