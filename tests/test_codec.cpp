// SPDX-License-Identifier: MIT
// The packet codec: encoding checks and worked examples, and the
// incremental parser fed in every possible split.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "DeviceCodec.h"
#include "LLC_XlnkMsgHandler.h"
#include "SimLink.h"

namespace {

using vt::Bytes;
using vt::Concat;

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
    std::vector<Vyrix_ReturnStatus> results;  // each chunk's last result
    std::vector<size_t> counts;               // packets delivered after each chunk
};

// Feeds the chunks in order as the receive loop does: the rest of a chunk
// goes back to the parser until it needs more bytes.  Keeps what is
// delivered (payload buffers freed) and each chunk's last result.
Parsed Feed(CXlnkMsgHandler& parser, const std::vector<Bytes>& chunks) {
    Parsed out;
    for (Bytes chunk : chunks) {
        chunk.push_back(0);  // a valid address even for an empty chunk
        DWORD offset = 0;
        const DWORD size = static_cast<DWORD>(chunk.size() - 1);
        for (;;) {
            KtXlnkMsgS msg{};
            Vyrix_ReturnStatus r = parser.ParsePacket(chunk.data() + offset, size - offset, &msg);
            if (r != 0) {
                out.results.push_back(r);
                out.counts.push_back(out.records.size());
                break;
            }
            offset += parser.ConsumedBytes();
            out.records.push_back(msg);
            out.payloads.emplace_back(msg.pPayload, msg.pPayload + msg.payloadLen);
            delete[] msg.pPayload;
        }
    }
    return out;
}

// `bytes` cut into chunks of 1 (or 0) to `most` bytes at random.
std::vector<Bytes> RandomChunks(const Bytes& bytes, std::mt19937& rng, size_t least, size_t most) {
    std::vector<Bytes> chunks;
    for (size_t at = 0; at < bytes.size();) {
        const size_t n = std::min<size_t>(least + rng() % (most - least + 1), bytes.size() - at);
        chunks.emplace_back(bytes.begin() + at, bytes.begin() + at + n);
        at += n;
    }
    return chunks;
}

class Codec : public vt::Logged {
protected:
    static std::string Log() { return vt::Log(); }
};

TEST_F(Codec, EncodesTheWorkedExamples) {
    Bytes payload = {0x10, 0x20, 0x30};
    Vyrix_ReturnStatus r;
    EXPECT_EQ(Encode(HostRecord(eEP_DEVICE, 1, payload), &r),
              (Bytes{0xC0, 0x00, 0x02, 0x10, 0x03, 0x10, 0x20, 0x30, 0x8B}));
    EXPECT_EQ(r, 0u);
    Bytes big(0x123, 0x55), largest(4095, 0xC0);  // no escaping: 0xC0 stands in the payload as it is
    Bytes packet = Encode(HostRecord(eAP_DEVICE, 0, big));
    EXPECT_EQ(Bytes(packet.begin(), packet.begin() + 5), (Bytes{0xC0, 0x03, 0x02, 0x01, 0x23}));
    uint8_t sum = 0;
    for (size_t i = 1; i < packet.size(); ++i) sum = static_cast<uint8_t>(sum + packet[i]);
    EXPECT_EQ(sum, 0);  // a sound packet sums to zero after the start byte
    packet = Encode(HostRecord(0, 1, largest), &r);
    EXPECT_EQ(r, 0u);
    EXPECT_EQ(Bytes(packet.begin(), packet.begin() + 5), (Bytes{0xC0, 0x00, 0x02, 0x1F, 0xFF}));
}

// Sound packets parse into their records: the worked example, a packet
// without payload, and a broadcast (always connection-oriented).
TEST_F(Codec, ParsesSoundPackets) {
    const struct {
        Bytes packet;
        std::tuple<int, int, int, int> record;  // destination, source, priority, protocol
        Bytes payload;
    } cases[] = {
        {{0xC0, 0x02, 0x00, 0x10, 0x02, 0xAA, 0xBB, 0x87}, {2, 0, 0, 1}, {0xAA, 0xBB}},
        {{0xC0, 0x02, 0x03, 0x10, 0x00, 0xEB}, {2, 3, 0, 1}, {}},
        {DevicePacket(63, 0, {0x2A, 0x2A, 0}), {63, 0, 0, 1}, {0x2A, 0x2A, 0}},
        {DevicePacket(2, 0, {1}), {2, 0, 0, 0}, {1}},
    };
    for (const auto& c : cases) {
        CXlnkMsgHandler parser;
        Parsed p = Feed(parser, {c.packet});
        ASSERT_EQ(p.records.size(), 1u);
        const KtXlnkMsgS& r = p.records[0];
        EXPECT_EQ(std::make_tuple(int{r.deviceID}, int{r.sourceID}, int{r.priority}, int{r.protocolID}), c.record);
        EXPECT_EQ(p.payloads[0], c.payload);
    }
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
        EXPECT_TRUE(vt::Contains(vt::Log(), c.message)) << c.message;
    }
}

TEST_F(Codec, PacketSplitAnywhereIsDeliveredOnceWhenItsChecksumArrives) {
    const Bytes packet = DevicePacket(2, 1, {0x2A, 0x2A, 0x41, 0xC0, 0x00, 0x12, 0x34});
    for (size_t cut = 1; cut < packet.size(); ++cut) {
        CXlnkMsgHandler parser;
        Parsed p =
            Feed(parser, {Bytes(packet.begin(), packet.begin() + cut), Bytes(packet.begin() + cut, packet.end())});
        ASSERT_EQ(p.records.size(), 1u) << "cut after " << cut;
        EXPECT_EQ(p.counts, (std::vector<size_t>{0, 1}));
        EXPECT_EQ(p.payloads[0], Bytes(packet.begin() + 5, packet.end() - 1));
    }
    for (size_t a = 1; a < packet.size(); ++a) {
        for (size_t b = a + 1; b < packet.size(); ++b) {
            CXlnkMsgHandler parser;
            Parsed p =
                Feed(parser, {Bytes(packet.begin(), packet.begin() + a), Bytes(packet.begin() + a, packet.begin() + b),
                              Bytes(packet.begin() + b, packet.end())});
            ASSERT_EQ(p.records.size(), 1u) << a << "/" << b;
            EXPECT_EQ(p.counts, (std::vector<size_t>{0, 0, 1}));
        }
    }
    EXPECT_TRUE(vt::Contains(Log(), "<INFO> ParseHeader :Header not completely present in the current buffer\n"));
    EXPECT_TRUE(vt::Contains(Log(), "<INFO> ParsePayload :Payload not completely present in the current buffer\n"));
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

// A false start never costs the packet behind it: parsing resumes at the
// byte after the abandoned start byte, in the same chunk or the next.
TEST_F(Codec, PacketBehindAFalseStartIsFound) {
    const Bytes packet = DevicePacket(2, 1, {9});
    const Bytes shortBogus = {0xC0, 0x02, 0x00, 0x10, 0x03};  // its payload swallows the real start
    const struct {
        const char* what;
        std::vector<Bytes> chunks;
    } cases[] = {
        {"stray start byte", {Concat({{0xC0}, packet})}},
        {"stray start byte, split", {{0xC0, 0xC0}, Bytes(packet.begin() + 1, packet.end())}},
        {"checksum mismatch inside", {Concat({shortBogus, packet, packet})}},
        {"two false starts", {Concat({{0xC0, 0xC0, 0xC0}, packet})}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        CXlnkMsgHandler parser;
        Parsed p = Feed(parser, c.chunks);
        ASSERT_GE(p.records.size(), 1u);
        for (const Bytes& payload : p.payloads) EXPECT_EQ(payload, Bytes{9});
        EXPECT_EQ(parser.State(), ePARSE_START);
    }
    const std::string log = Log();
    size_t invalid = log.find("<ERROR> ParseHeader :Invalid destination id in buffer\n");
    size_t notFound = log.find("<ERROR> ParseHeader :Valid header not found in buffer\n");
    ASSERT_NE(invalid, std::string::npos);
    ASSERT_NE(notFound, std::string::npos);
    EXPECT_LT(invalid, notFound);
}

// A header that claims more bytes than come: once the line goes quiet the
// receive loop abandons it, and the packets it swallowed come out in order.
TEST_F(Codec, AbandonedPacketGivesBackWhatItSwallowed) {
    CXlnkMsgHandler parser;
    Parsed p =
        Feed(parser, {Concat({{0xC0, 0x02, 0x00, 0x0F, 0xFF}, DevicePacket(2, 1, {1}), DevicePacket(2, 0, {2})})});
    EXPECT_TRUE(p.records.empty());
    EXPECT_TRUE(parser.InPacket());
    parser.AbandonPacket();
    Parsed after = Feed(parser, {{}});
    ASSERT_EQ(after.payloads, (std::vector<Bytes>{{1}, {2}}));
    EXPECT_EQ(after.records[1].protocolID, 0);
    EXPECT_FALSE(parser.InPacket());
    parser.AbandonPacket();  // nothing started: nothing happens
    EXPECT_TRUE(Feed(parser, {{}}).records.empty());
}

// A damaged header or checksum: nothing is delivered, one message says
// why, and a sound packet in the same chunk behind it is still found.
TEST_F(Codec, DamagedPacketsAreRejectedWithTheirMessage) {
    Bytes badSum = DevicePacket(2, 1, {1, 2, 3});
    badSum.back() ^= 0x01;
    const std::string notFound = "<ERROR> ParseHeader :Valid header not found in buffer\n";
    const struct {
        Bytes packet;
        std::string messages;
    } cases[] = {
        {{0xC0, 0x02, 0x00, 0x50, 0x01, 0x09, 0x00}, notFound},  // priority bits
        {{0xC0, 0x02, 0x02, 0x10, 0x01, 0x09, 0x00}, "<ERROR> ParseHeader :Invalid source id in buffer\n" + notFound},
        {{0xC0, 0x02, 0x00, 0x20, 0x01, 0x09, 0x00}, "<ERROR> ParseHeader :Invalid protocol id in buffer\n" + notFound},
        {{0xC0, 0x05, 0x00, 0x10, 0x01, 0x09, 0x00},
         "<ERROR> ParseHeader :Invalid destination id in buffer\n" + notFound},
        {badSum, "<ERROR> ParsePacket :Invalid checksum in buffer\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.messages);
        const size_t mark = Log().size();
        CXlnkMsgHandler parser;
        Parsed alone = Feed(parser, {c.packet});
        EXPECT_TRUE(alone.records.empty());
        ASSERT_EQ(alone.results.size(), 1u);
        EXPECT_EQ(alone.results[0], 0x01000000u);
        EXPECT_EQ(Log().substr(mark), c.messages);  // these messages and no others
        Parsed both = Feed(parser, {Concat({c.packet, DevicePacket(2, 1, {4, 5})})});
        EXPECT_EQ(both.payloads, std::vector<Bytes>{(Bytes{4, 5})});  // found in the same chunk
    }
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
    EXPECT_TRUE(vt::Contains(vt::Log(), "<ERROR> FindChecksum :Invalid argument\n"));
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
        for (const Bytes& chunk : RandomChunks(packet, rng, 1, 300)) device.Feed(chunk.data(), chunk.size(), got);
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0].payload, payload);
        EXPECT_EQ(got[0].destination, destination);
        EXPECT_EQ(got[0].protocol, protocol);

        // ...and so do a device-side encoder and the host's parser.
        Bytes reply = DevicePacket(2, protocol, payload, 3);
        CXlnkMsgHandler parser;
        Parsed p = Feed(parser, RandomChunks(reply, rng, 1, 300));
        ASSERT_EQ(p.records.size(), 1u);
        EXPECT_EQ(p.payloads[0], payload);
        EXPECT_EQ(p.records[0].sourceID, 3);
    }
}

// A long stream of packets cut at random points and glued in random groups:
// every packet comes out once, in order.
TEST(CodecRoundTrip, TenThousandPacketsInRandomChunksArriveInOrder) {
    std::mt19937 rng(20261123);
    Bytes stream;
    std::vector<Bytes> sent;
    for (int i = 0; i < 10000; ++i) {
        Bytes payload(rng() % 64);
        for (auto& b : payload) b = static_cast<uint8_t>(rng());
        const Bytes packet = DevicePacket(rng() % 4 ? 2 : 63, rng() & 1, payload, rng() & 1 ? 3 : 0);
        stream.insert(stream.end(), packet.begin(), packet.end());
        sent.push_back(payload);
    }
    CXlnkMsgHandler parser;
    Parsed p = Feed(parser, RandomChunks(stream, rng, 0, 4100));
    EXPECT_EQ(p.payloads, sent);
}

}  // namespace

namespace {

// What the parser gave up and what it accepted, in stream order, with the
// dropped bytes kept: each accepted packet as its bytes (start byte, header
// as received, payload, checksum), each dropped piece as it is.
std::vector<Bytes> Pieces(const std::vector<Bytes>& chunks) {
    CXlnkMsgHandler parser;
    parser.KeepDropped(true);
    std::vector<Bytes> out;
    std::vector<std::vector<BYTE>> dropped;
    for (Bytes chunk : chunks) {
        chunk.push_back(0);
        DWORD offset = 0;
        const DWORD size = static_cast<DWORD>(chunk.size() - 1);
        for (;;) {
            KtXlnkMsgS msg{};
            const bool accepted = parser.ParsePacket(chunk.data() + offset, size - offset, &msg) == 0;
            parser.TakeDropped(&dropped);
            out.insert(out.end(), dropped.begin(), dropped.end());
            if (!accepted) break;
            offset += parser.ConsumedBytes();
            Bytes packet = {0xC0};
            packet.insert(packet.end(), parser.LastHeader(), parser.LastHeader() + 4);
            packet.insert(packet.end(), msg.pPayload, msg.pPayload + msg.payloadLen);
            uint8_t sum = 0;
            for (size_t i = 1; i < packet.size(); ++i) sum = static_cast<uint8_t>(sum - packet[i]);
            packet.push_back(sum);
            out.push_back(packet);
            delete[] msg.pPayload;
        }
    }
    return out;
}

}  // namespace

// Kept for a capture: every byte received ends in exactly one piece, a
// packet or what was given up (each false start, damaged packet and noise
// run its own piece), however the bytes are cut.
TEST_F(Codec, DroppedBytesAndPacketsPutTogetherAreTheStream) {
    const Bytes packet = DevicePacket(2, 1, {9});
    Bytes damaged = packet;
    damaged.back() = vyrix::sim::DeviceSimulator::DamagedChecksum(damaged.back());
    const Bytes bogus = {0xC0, 0x02, 0x00, 0x10, 0x03};  // its payload swallows the real start
    const Bytes noise = {0x55, 0x55, 0x55};
    const struct {
        const char* what;
        std::vector<Bytes> pieces;
    } cases[] = {
        {"stray start byte", {{0xC0}, packet}},
        {"three false starts", {{0xC0}, {0xC0}, {0xC0}, packet}},
        {"checksum mismatch swallowing a start", {bogus, packet, packet}},
        {"noise, damaged, sound", {noise, damaged, packet}},
        {"damaged, noise, sound", {damaged, noise, packet}},
        {"broadcast-addressed, connectionless bits", {DevicePacket(63, 0, {0x2A, 0x2A, 0})}},
    };
    std::mt19937 rng(20261124);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bytes stream;
        for (const Bytes& piece : c.pieces) stream = Concat({stream, piece});
        EXPECT_EQ(Pieces({stream}), c.pieces);
        for (int round = 0; round < 20; ++round) {
            Bytes joined;
            for (const Bytes& piece : Pieces(RandomChunks(stream, rng, 1, 8))) joined = Concat({joined, piece});
            EXPECT_EQ(joined, stream);
        }
    }
}
