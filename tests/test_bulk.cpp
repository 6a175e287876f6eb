// SPDX-License-Identifier: MIT
// Bulk data in acknowledged chunks, and text drawing and measuring.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <numeric>
#include <tuple>

#include "ApiLink.h"

namespace {

using vt::Answering;
using vt::ApiLink;
using vt::Bytes;

uint16_t At16(const Bytes& b, size_t i) { return static_cast<uint16_t>(b[i] | (b[i + 1] << 8)); }

Bytes Data(size_t n) {
    Bytes d(n);
    std::iota(d.begin(), d.end(), uint8_t{1});
    return d;
}

class Bulk : public ApiLink {
protected:
    void SetUp() override {
        ApiLink::SetUp();
        sim->SetResponder(Answering({}));  // acknowledge every chunk
    }
    Vyrix_ReturnStatus SendImage(uint8_t opcode, Bytes& data, KtXlnkDeviceIdE destination = eEP_DEVICE,
                                 VyrixProgressFn progress = nullptr) {
        return AlcSendImageCommandGeneric(opcode, data.data(), static_cast<unsigned>(data.size()),
                                          eVYRIX_RENDER_TARGET_1, Vyrix_PointS{0x0102, 0x0304},
                                          Vyrix_RectSizeS{0x0506, 0x0708}, destination, progress);
    }
};

TEST_F(Bulk, ImageChunksCarryTargetPositionAndSize) {
    Bytes data = Data(100);
    ASSERT_EQ(SendImage(0x60, data), 0u);
    Bytes first = Command(0), second = Command(1);
    ASSERT_EQ(first.size(), 23u);
    ASSERT_EQ(second.size(), 115u);
    EXPECT_EQ(std::make_tuple(first[3], first[4]), std::make_tuple(0x60, eVYRIX_RENDER_TARGET_1));
    // x, y, width, height, index, maxIndexFlag, bytes in this chunk
    EXPECT_EQ(
        std::vector<uint16_t>({At16(first, 5), At16(first, 7), At16(first, 9), At16(first, 11), At16(first, 13),
                               At16(first, 15), At16(first, 17), At16(second, 13), At16(second, 15), At16(second, 17)}),
        std::vector<uint16_t>({0x0102, 0x0304, 0x0506, 0x0708, 0, 1, 4, 1, 1, 96}));
    EXPECT_EQ(vt::Concat({Bytes(first.begin() + 19, first.end()), Bytes(second.begin() + 19, second.end())}), data);
    unsigned short type, cur, max;
    GetIndexStatus(&type, &cur, &max);
    EXPECT_EQ(cur, 2);
    EXPECT_EQ(max, 1);
}

// Other opcodes: each chunk carries its index, the flag 2 and its length;
// only a transfer to the EP with a chunk at the limit pauses twenty seconds
// before the last acknowledgement.
TEST_F(Bulk, OtherOpcodesHaveTheShortHeader) {
    const struct {
        size_t size;
        KtXlnkDeviceIdE destination;
        std::vector<size_t> lengths;
        long leastMs;
    } cases[] = {
        {5000, eAP_DEVICE, {4, 2548, 2448}, 0},  // to the AP: no final pause
        {2, eAP_DEVICE, {2}, 0},                 // one chunk with only its bytes
        {2552, eEP_DEVICE, {4, 2548}, 0},        // no chunk reaches the limit
        {5000, eEP_DEVICE, {4, 2548, 2448}, 20000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        Bytes data = Data(c.size);
        const size_t first = sim->ReceivedCount();
        vt::Stopwatch watch;
        ASSERT_EQ(SendImage(0x70, data, c.destination), 0u);
        EXPECT_GE(watch.Ms(), c.leastMs);
        EXPECT_LT(watch.Ms(), c.leastMs > 0 ? 30000 : 5000);
        ASSERT_EQ(sim->ReceivedCount(), first + c.lengths.size());
        size_t offset = 0;
        for (size_t i = 0; i < c.lengths.size(); ++i) {
            Bytes chunk = Command(first + i);
            EXPECT_EQ(chunk.size(), 10 + c.lengths[i]);
            EXPECT_EQ(std::make_tuple(At16(chunk, 4), At16(chunk, 8)), std::make_tuple(i, c.lengths[i]));
            if (c.lengths.size() > 1) {
                EXPECT_EQ(At16(chunk, 6), 2);
            }
            EXPECT_EQ(Bytes(chunk.begin() + 10, chunk.end()),
                      Bytes(data.begin() + static_cast<long>(offset),
                            data.begin() + static_cast<long>(offset + c.lengths[i])));
            offset += c.lengths[i];
        }
    }
    const size_t sent = sim->ReceivedCount();
    EXPECT_EQ(AlcSendImageCommandGeneric(0x70, nullptr, 0, eVYRIX_RENDER_TARGET_0, {}, {}, eEP_DEVICE, nullptr), 0u);
    EXPECT_EQ(sim->ReceivedCount(), sent);  // no data: nothing sent
}

// The twenty-second pause ends when the device goes away during it.
TEST_F(Bulk, DeviceGoneDuringTheFinalPauseEndsTheTransferAtOnce) {
    const vyrix::sim::Responder acknowledge = Answering({});
    sim->SetResponder([&](const vyrix::sim::HostPacket& p) {
        return At16(p.payload, 4) < 2 ? acknowledge(p) : std::nullopt;  // the last chunk goes unanswered
    });
    Bytes data = Data(5000);
    vt::Stopwatch watch;
    auto transfer = std::async(std::launch::async, [&] { return SendImage(0x70, data); });
    ASSERT_TRUE(sim->WaitForPackets(3, std::chrono::seconds(5)));
    sim->HangUp();
    EXPECT_EQ(transfer.get(), 0x16000000u);
    EXPECT_LT(watch.Ms(), 10000);
}

std::atomic<int> g_progressCalls{0};
int StopAfterFirst(unsigned short* cur, unsigned short* max, unsigned char* destination) {
    ++g_progressCalls;
    EXPECT_EQ(*cur, 1);
    EXPECT_EQ(*max, 1);
    EXPECT_EQ(*destination, eAP_DEVICE);
    return 7;
}

TEST_F(Bulk, ProgressCallbackCanStopTheTransfer) {
    Bytes data = Data(100);
    EXPECT_EQ(SendImage(0x70, data, eAP_DEVICE, StopAfterFirst), 0x07000000u);
    EXPECT_EQ(g_progressCalls, 1);
    EXPECT_EQ(sim->ReceivedCount(), 1u);
}

TEST_F(Bulk, UnacknowledgedChunkIsTriedTenTimesWithANewNumberEachTime) {
    sim->SetResponder([](const vyrix::sim::HostPacket& p) -> std::optional<vyrix::sim::Reply> {
        return vt::ReplyTo(static_cast<uint8_t>((p.payload[2] + 5) & 0x3F));  // never the right number
    });
    Bytes data = Data(100);
    EXPECT_EQ(SendImage(0x70, data, eAP_DEVICE), 0x01000000u);
    ASSERT_EQ(sim->ReceivedCount(), 10u);  // the first chunk ten times, then the transfer stops
    for (size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(Command(i)[2], i + 1);
        EXPECT_EQ(At16(Command(i), 4), 0);
    }
    unsigned short type, cur, max;
    GetIndexStatus(&type, &cur, &max);
    EXPECT_EQ(cur, 1);  // counted, although it failed
}

TEST_F(Bulk, DrawTextLengthRule) {
    std::string text(2000, 'T');
    ASSERT_EQ(AlcDrawText(eVYRIX_RENDER_TARGET_1, reinterpret_cast<const unsigned char*>(text.c_str()), 5000,
                          Vyrix_PointS{10, 20}, Vyrix_ColorS{1, 2, 3, 4}, Vyrix_ColorS{5, 6, 7, 8}),
              0u);
    Bytes payload = Command(0);
    ASSERT_EQ(payload.size(), 1027u);
    EXPECT_EQ(payload[3], 0x61);
    EXPECT_EQ(payload[4], 1);
    EXPECT_EQ(std::make_tuple(At16(payload, 5), At16(payload, 7), At16(payload, 9)), std::make_tuple(1008, 10, 20));
    EXPECT_EQ(Bytes(payload.begin() + 11, payload.begin() + 19), (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    ASSERT_EQ(AlcDrawText(eVYRIX_RENDER_TARGET_1, reinterpret_cast<const unsigned char*>(text.c_str()), 10, {}, {}, {}),
              0u);
    EXPECT_EQ(Command(1).size(), 29u);
    ASSERT_EQ(AlcDrawText(eVYRIX_RENDER_TARGET_0, reinterpret_cast<const unsigned char*>("abc"), 100, {}, {}, {}), 0u);
    EXPECT_EQ(At16(Command(2), 5), 3);
}

TEST_F(Bulk, TextBoxSizeFromTheReply) {
    unsigned char text[] = "hello";
    Vyrix_RectSizeS size{};
    sim->SetResponder(Answering({0x28, 0x00, 0x10, 0x00}));
    ASSERT_EQ(AlcGetTextBoxInfo(text, 100, &size), 0u);
    EXPECT_EQ(std::make_tuple(size.width, size.height), std::make_tuple(40, 16));
    Bytes payload = Command(0);
    EXPECT_EQ(payload, (Bytes{0x2A, 0x2A, 1, 0x62, 5, 0, 'h', 'e', 'l', 'l', 'o'}));
    Vyrix_RectSizeS untouched{7, 7};
    sim->SetResponder(Answering({0x28, 0x00, 0x10, 0x00}, 0x0B000000u));
    EXPECT_EQ(AlcGetTextBoxInfo(text, 2, &untouched), 0x0B000000u);
    EXPECT_EQ(untouched.width, 7);
    sim->SetResponder(Answering({0x28, 0x00, 0x10, 0x00}, 0, 2));
    EXPECT_EQ(AlcGetTextBoxInfo(text, 2, &untouched), 0x17000000u);
    EXPECT_EQ(untouched.width, 7);  // an error reply is not read
}

}  // namespace
