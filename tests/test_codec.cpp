// The packet codec: encoding checks and worked examples, and the
// incremental parser fed in every possible split.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "DeviceCodec.h"
#include "LLC_XlnkMsgHandler.h"
#include "TestSupport.h"

namespace {

using Bytes = std::vector<uint8_t>;

KtXlnkMsgS HostRecord(uint8_t destination, uint8_t protocol, Bytes& payload) {
    return KtXlnkMsgS{eHOST_DEVICE, destination, 0, protocol, static_cast<WORD>(payload.size()), payload.data()};
}

Bytes Encode(KtXlnkMsgS record, Vyrix_ReturnStatus* result = nullptr) {
    CXlnkMsgHandler codec;
    Bytes out(record.payloadLen + 6u, 0xEE);
    Vyrix_ReturnStatus r = codec.EncodePacket(record, out.data());
    if (result) *result = r;
    return out;
}

// A device packet as the parser receives it.
Bytes DevicePacket(uint8_t destination, uint8_t protocol, const Bytes& payload, uint8_t source = 0) {
    return vyrix::sim::EncodeDevicePacket(destination, source, protocol, payload);
}

struct Parsed {
    std::vector<KtXlnkMsgS> records;
    std::vector<Bytes> payloads;
    std::vector<Vyrix_ReturnStatus> results;
};

// Feeds the chunks in order, one ParsePacket call each, and keeps what is
// delivered (payload buffers freed).
Parsed Feed(CXlnkMsgHandler& parser, const std::vector<Bytes>& chunks) {
    Parsed out;
    for (Bytes chunk : chunks) {
        KtXlnkMsgS msg{};
        Vyrix_ReturnStatus r = parser.ParsePacket(chunk.data(), static_cast<DWORD>(chunk.size()), &msg);
        out.results.push_back(r);
        if (r == 0) {
            out.records.push_back(msg);
            out.payloads.emplace_back(msg.pPayload, msg.pPayload + msg.payloadLen);
            delete[] msg.pPayload;
        }
    }
    return out;
}

class Codec : public ::testing::Test {
protected:
    void SetUp() override { LogStart(); }
    void TearDown() override { LogEnd(); }
    std::string Log() { return vt::ReadFile(vt::LogPath()); }
};

TEST_F(Codec, EncodesTheWorkedExamples) {
    Bytes payload = {0x10, 0x20, 0x30};
    Vyrix_ReturnStatus r;
    EXPECT_EQ(Encode(HostRecord(eEP_DEVICE, 1, payload), &r),
              (Bytes{0xC0, 0x00, 0x02, 0x10, 0x03, 0x10, 0x20, 0x30, 0x8B}));
    EXPECT_EQ(r, 0u);
    Bytes big(0x123, 0x55);
    Bytes packet = Encode(HostRecord(eAP_DEVICE, 0, big));
    EXPECT_EQ(Bytes(packet.begin(), packet.begin() + 5), (Bytes{0xC0, 0x03, 0x02, 0x01, 0x23}));
    uint8_t sum = 0;
    for (size_t i = 1; i < packet.size(); ++i) sum = static_cast<uint8_t>(sum + packet[i]);
    EXPECT_EQ(sum, 0);  // a sound packet sums to zero after the start byte
}

TEST_F(Codec, ParsesTheWorkedExample) {
    CXlnkMsgHandler parser;
    Parsed p = Feed(parser, {{0xC0, 0x02, 0x00, 0x10, 0x02, 0xAA, 0xBB, 0x87}});
    ASSERT_EQ(p.records.size(), 1u);
    EXPECT_EQ(p.records[0].deviceID, 2);
    EXPECT_EQ(p.records[0].sourceID, 0);
    EXPECT_EQ(p.records[0].priority, 0);
    EXPECT_EQ(p.records[0].protocolID, 1);
    EXPECT_EQ(p.payloads[0], (Bytes{0xAA, 0xBB}));
}

TEST_F(Codec, EncodingRefusalsInOrderWithTheirMessages) {
    Bytes payload = {1};
    struct Case {
        KtXlnkMsgS record;
        uint32_t result;
        const char* message;
    } cases[] = {
        {{2, 1, 1, 5, 0, nullptr}, 0x05000000u, "<ERROR> EncodePacket :Invalid destination ID in the XLNK packet\n"},
        {{0, 0, 1, 5, 0, nullptr}, 0x05000000u, "<ERROR> EncodePacket :Invalid source ID in the XLNK packet\n"},
        {{2, 3, 1, 5, 0, nullptr}, 0x05000000u, "<ERROR> EncodePacket :Invalid priority in the XLNK packet\n"},
        {{2, 3, 0, 2, 0, nullptr}, 0x05000000u, "<ERROR> EncodePacket :Invalid protocol ID in the XLNK packet\n"},
        {{2, 3, 0, 1, 4096, nullptr}, 0x1A000000u, "<ERROR> EncodePacket :Payload length greater than max payload \n"},
        {{2, 3, 0, 1, 0, nullptr}, 0x05000000u, "<ERROR> EncodePacket :Invalid payload length in the XLNK packet\n"},
        {{2, 3, 0, 1, 1, nullptr}, 0x05000000u, "<ERROR>  EncodePacket :NULL pointer for payload in the XLNK packet\n"},
    };
    for (const Case& c : cases) {
        Vyrix_ReturnStatus r;
        Bytes out = Encode(c.record, &r);
        EXPECT_EQ(r, c.result) << c.message;
        EXPECT_EQ(out, Bytes(out.size(), 0xEE)) << "written before the checks passed: " << c.message;
        EXPECT_NE(Log().find(c.message), std::string::npos) << c.message;
    }
}

TEST_F(Codec, PayloadBounds) {
    Bytes one = {7};
    EXPECT_EQ(Encode(HostRecord(0, 1, one)).size(), 7u);
    Bytes largest(4095, 0xC0);  // no escaping: 0xC0 stands in the payload as it is
    Vyrix_ReturnStatus r;
    Bytes packet = Encode(HostRecord(0, 1, largest), &r);
    EXPECT_EQ(r, 0u);
    EXPECT_EQ(packet.size(), 4101u);
    EXPECT_EQ(packet[3], 0x1F);
    EXPECT_EQ(packet[4], 0xFF);
    Bytes tooLarge(4096, 1);
    Encode(HostRecord(0, 1, tooLarge), &r);
    EXPECT_EQ(r, 0x1A000000u);
}

TEST_F(Codec, PacketSplitAnywhereIsDeliveredOnceWhenItsChecksumArrives) {
    const Bytes packet = DevicePacket(2, 1, {0x2A, 0x2A, 0x41, 0xC0, 0x00, 0x12, 0x34});
    for (size_t cut = 1; cut < packet.size(); ++cut) {
        CXlnkMsgHandler parser;
        Parsed p =
            Feed(parser, {Bytes(packet.begin(), packet.begin() + cut), Bytes(packet.begin() + cut, packet.end())});
        ASSERT_EQ(p.records.size(), 1u) << "cut after " << cut;
        EXPECT_EQ(p.results[0], 0x01000000u);
        EXPECT_EQ(p.results[1], 0u);
        EXPECT_EQ(p.payloads[0], Bytes(packet.begin() + 5, packet.end() - 1));
    }
    for (size_t a = 1; a < packet.size(); ++a) {
        for (size_t b = a + 1; b < packet.size(); ++b) {
            CXlnkMsgHandler parser;
            Parsed p =
                Feed(parser, {Bytes(packet.begin(), packet.begin() + a), Bytes(packet.begin() + a, packet.begin() + b),
                              Bytes(packet.begin() + b, packet.end())});
            ASSERT_EQ(p.records.size(), 1u) << a << "/" << b;
            EXPECT_EQ(p.results[2], 0u);
        }
    }
}

TEST_F(Codec, SplitMessagesAreInfoEntries) {
    const Bytes packet = DevicePacket(2, 1, {1, 2, 3, 4});
    CXlnkMsgHandler parser;
    Feed(parser, {Bytes(packet.begin(), packet.begin() + 3), Bytes(packet.begin() + 3, packet.begin() + 7),
                  Bytes(packet.begin() + 7, packet.end())});
    EXPECT_NE(Log().find("<INFO> ParseHeader :Header not completely present in the current buffer\n"),
              std::string::npos);
    EXPECT_NE(Log().find("<INFO> ParsePayload :Payload not completely present in the current buffer\n"),
              std::string::npos);
}

TEST_F(Codec, NoiseWithoutStartByteIsSkippedSilently) {
    CXlnkMsgHandler parser;
    const std::string before = Log();
    Bytes noise = {0x00, 0x11, 0x22, 0xBF, 0xC1, 0xFF};
    Bytes packet = DevicePacket(2, 1, {9});
    noise.insert(noise.end(), packet.begin(), packet.end());
    Parsed p = Feed(parser, {noise});
    ASSERT_EQ(p.records.size(), 1u);
    EXPECT_EQ(p.payloads[0], Bytes{9});
    EXPECT_EQ(Log(), before);
}

TEST_F(Codec, StrayStartByteLosesTheRealPacket) {
    CXlnkMsgHandler parser;
    Bytes chunk = {0xC0};
    Bytes packet = DevicePacket(2, 1, {9});
    chunk.insert(chunk.end(), packet.begin(), packet.end());
    Parsed p = Feed(parser, {chunk});
    EXPECT_TRUE(p.records.empty());
    EXPECT_EQ(p.results[0], 0x01000000u);
    const std::string log = Log();
    size_t invalid = log.find("<ERROR> ParseHeader :Invalid destination id in buffer\n");
    size_t notFound = log.find("<ERROR> ParseHeader :Valid header not found in buffer\n");
    ASSERT_NE(invalid, std::string::npos);
    ASSERT_NE(notFound, std::string::npos);
    EXPECT_LT(invalid, notFound);
    // The parser is seeking again: the next packet comes through.
    Parsed next = Feed(parser, {packet});
    EXPECT_EQ(next.records.size(), 1u);
}

TEST_F(Codec, PriorityBitsRejectTheHeaderWithOneMessage) {
    CXlnkMsgHandler parser;
    Parsed p = Feed(parser, {{0xC0, 0x02, 0x00, 0x50, 0x01, 0x09, 0x00}});
    EXPECT_TRUE(p.records.empty());
    const std::string log = Log();
    EXPECT_NE(log.find("<ERROR> ParseHeader :Valid header not found in buffer\n"), std::string::npos);
    EXPECT_EQ(log.find("Invalid"), std::string::npos);
}

TEST_F(Codec, InvalidSourceAndProtocolAreRejected) {
    CXlnkMsgHandler parser;
    Feed(parser, {{0xC0, 0x02, 0x02, 0x10, 0x01, 0x09, 0x00}});
    Feed(parser, {{0xC0, 0x02, 0x00, 0x20, 0x01, 0x09, 0x00}});
    EXPECT_NE(Log().find("<ERROR> ParseHeader :Invalid source id in buffer\n"), std::string::npos);
    EXPECT_NE(Log().find("<ERROR> ParseHeader :Invalid protocol id in buffer\n"), std::string::npos);
}

TEST_F(Codec, BroadcastIsAlwaysConnectionOriented) {
    CXlnkMsgHandler parser;
    Parsed p = Feed(parser, {DevicePacket(63, 0, {0x2A, 0x2A, 0})});
    ASSERT_EQ(p.records.size(), 1u);
    EXPECT_EQ(p.records[0].deviceID, 63);
    EXPECT_EQ(p.records[0].protocolID, 1);
    Parsed q = Feed(parser, {DevicePacket(2, 0, {1})});
    EXPECT_EQ(q.records[0].protocolID, 0);
}

TEST_F(Codec, ZeroLengthPacketIsAccepted) {
    CXlnkMsgHandler parser;
    Parsed p = Feed(parser, {{0xC0, 0x02, 0x03, 0x10, 0x00, 0xEB}});
    ASSERT_EQ(p.records.size(), 1u);
    EXPECT_EQ(p.records[0].payloadLen, 0);
    EXPECT_EQ(p.records[0].sourceID, 3);
}

TEST_F(Codec, OneCallDeliversOnePacket) {
    CXlnkMsgHandler parser;
    Bytes chunk = DevicePacket(2, 1, {1});
    Bytes second = DevicePacket(2, 1, {2});
    chunk.insert(chunk.end(), second.begin(), second.end());
    Parsed p = Feed(parser, {chunk});
    ASSERT_EQ(p.records.size(), 1u);
    EXPECT_EQ(p.payloads[0], Bytes{1});
    EXPECT_EQ(parser.ConsumedBytes(), 7u);
    EXPECT_EQ(parser.State(), ePARSE_START);
}

TEST_F(Codec, BadChecksumIsNeverDeliveredAndParsingGoesOn) {
    Bytes bad = DevicePacket(2, 1, {1, 2, 3});
    bad.back() ^= 0x01;
    CXlnkMsgHandler parser;
    Parsed alone = Feed(parser, {bad});
    EXPECT_EQ(alone.results[0], 0x01000000u);
    EXPECT_TRUE(alone.records.empty());
    EXPECT_NE(Log().find("<ERROR> ParsePacket :Invalid checksum in buffer\n"), std::string::npos);

    Bytes chunk = bad;
    Bytes good = DevicePacket(2, 1, {4, 5});
    chunk.insert(chunk.end(), good.begin(), good.end());
    Parsed both = Feed(parser, {chunk});
    ASSERT_EQ(both.records.size(), 1u);  // found in the same call
    EXPECT_EQ(both.payloads[0], (Bytes{4, 5}));
}

TEST_F(Codec, NullArgumentsAndEmptyChunk) {
    CXlnkMsgHandler parser;
    KtXlnkMsgS msg{};
    BYTE byte = 0xC0;
    EXPECT_EQ(parser.ParsePacket(nullptr, 1, &msg), 0x05000000u);
    EXPECT_EQ(parser.ParsePacket(&byte, 1, nullptr), 0x05000000u);
    EXPECT_EQ(parser.ParsePacket(&byte, 0, &msg), 0x01000000u);
    EXPECT_EQ(parser.State(), ePARSE_START);
    BYTE sum = 5;
    EXPECT_EQ(parser.FindChecksum(nullptr, 1, &sum), 0x05000000u);
    EXPECT_EQ(parser.FindChecksum(&byte, 0, &sum), 0u);
    EXPECT_EQ(sum, 5);
    EXPECT_NE(Log().find("<ERROR> FindChecksum :Invalid argument\n"), std::string::npos);
}

TEST(CodecRoundTrip, RandomRecordsUnderRandomChunking) {
    std::mt19937 rng(20261122);
    for (int round = 0; round < 200; ++round) {
        // The host's encoder and a device-side parser agree...
        Bytes payload(1 + rng() % 4095);
        for (auto& b : payload) b = static_cast<uint8_t>(rng());
        const uint8_t destination = (rng() & 1) ? eAP_DEVICE : eEP_DEVICE;
        const uint8_t protocol = rng() & 1;
        Bytes packet = Encode(HostRecord(destination, protocol, payload));
        vyrix::sim::HostPacketParser device;
        std::vector<vyrix::sim::HostPacket> got;
        for (size_t at = 0; at < packet.size();) {
            size_t n = std::min<size_t>(1 + rng() % 300, packet.size() - at);
            device.Feed(packet.data() + at, n, got);
            at += n;
        }
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0].payload, payload);
        EXPECT_EQ(got[0].destination, destination);
        EXPECT_EQ(got[0].protocol, protocol);

        // ...and so do a device-side encoder and the host's parser.
        Bytes reply = DevicePacket(2, protocol, payload, 3);
        CXlnkMsgHandler parser;
        std::vector<Bytes> chunks;
        for (size_t at = 0; at < reply.size();) {
            size_t n = std::min<size_t>(1 + rng() % 300, reply.size() - at);
            chunks.emplace_back(reply.begin() + at, reply.begin() + at + n);
            at += n;
        }
        Parsed p = Feed(parser, chunks);
        ASSERT_EQ(p.records.size(), 1u);
        EXPECT_EQ(p.payloads[0], payload);
        EXPECT_EQ(p.records[0].sourceID, 3);
    }
}

}  // namespace
