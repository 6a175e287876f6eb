// SPDX-License-Identifier: MIT
// The device operations: bytes on the wire, decoded replies, argument
// bounds, storage types and the reply rules they all share.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <tuple>

#include "ApiLink.h"

namespace {

using vt::Answering;
using vt::Bytes;
const auto& Cat = vt::Concat;

Bytes Le(uint32_t v, int n = 4) {
    Bytes b;
    for (int i = 0; i < n; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
    return b;
}
Bytes F(float f) {
    uint32_t bits;
    memcpy(&bits, &f, 4);
    return Le(bits);
}

using S = Vyrix_ValueStorageTypeE;
constexpr S kCur = eVYRIX_STORAGE_CURRENT, kSaved = eVYRIX_STORAGE_SAVED, kFactory = eVYRIX_STORAGE_FACTORY;

// An operation called on the handle `h`, named by its text; NO(call) is one
// that must be refused.
#define OP(call) #call, [&]([[maybe_unused]] void* h) { return call; }
#define NO(call) \
    Refused { OP(call) }

struct Sent {
    const char* name;
    std::function<Vyrix_ReturnStatus(void*)> call;
    uint8_t opcode;
    Bytes params;
    Bytes reply = {};  // the values the device answers with
};
struct Refused {
    const char* name;
    std::function<Vyrix_ReturnStatus(void*)> call;
};

class Operations : public vt::ApiLink {
protected:
    // Each operation sends one command, with the opcode and parameters
    // given, and succeeds on the reply.
    void ExpectSent(const std::vector<Sent>& cases) {
        for (const Sent& c : cases) {
            sim->SetResponder(Answering(c.reply));
            const size_t before = sim->ReceivedCount();
            EXPECT_EQ(c.call(connection), 0u) << c.name;
            ASSERT_EQ(sim->ReceivedCount(), before + 1) << c.name;
            const Bytes sent = sim->Received().back().payload;
            EXPECT_EQ(sent[3], c.opcode) << c.name;
            EXPECT_EQ(Bytes(sent.begin() + 4, sent.end()), c.params) << c.name;
        }
    }
    // Each is refused with `result` and sends nothing.
    void ExpectRefused(const std::vector<Refused>& cases, uint32_t result = 0x05000000u) {
        for (const Refused& c : cases) {
            const size_t before = sim->ReceivedCount();
            EXPECT_EQ(c.call(connection), result) << c.name;
            EXPECT_EQ(sim->ReceivedCount(), before) << c.name << " sent something";
        }
    }
};

TEST_F(Operations, SetCommandsOnTheWire) {
    ExpectSent({
        {OP(Vyrix_SetInputVideoState(h, 1, 7)), 10, Cat({Le(1), Le(7)})},
        {OP(Vyrix_SetInputVideoState(h, 0, 0xFFFFFFFFu)), 10, Cat({Le(0), Le(0xFFFFFFFFu)})},
        {OP(Vyrix_SetBrightness(h, 100, kSaved)), 41, Cat({{100}, Le(1)})},
        {OP(Vyrix_SetColorMode(h, -3, kCur)), 12, Cat({Le(0xFFFFFFFD), Le(0)})},
        {OP(Vyrix_SetGamma(h, 9, 2.5f, kSaved)), 37, Cat({Le(9), F(2.5f), Le(1)})},
        {OP(Vyrix_SetGamma(h, 0, 1.0f, kCur)), 37, Cat({Le(0), F(1.0f), Le(0)})},
        {OP(Vyrix_SetGamma(h, 0, 3.0f, kCur)), 37, Cat({Le(0), F(3.0f), Le(0)})},
        {OP(Vyrix_SetVideoGammaBoostMode(h, 2, 1, kCur)), 27, Cat({Le(2), Le(1), Le(0)})},
        {OP(Vyrix_SetMicroWeaveMode(h, 1, kSaved)), 69, Cat({Le(1), Le(1)})},
        {OP(Vyrix_SetFlipState(h, 3, kCur)), 14, Cat({Le(3), Le(0)})},
        {OP(Vyrix_SetOutputVideoState(h, 0, 9)), 16, Cat({Le(0), Le(9)})},
        {OP(Vyrix_SetBiPhase(h, -100, kCur)), 43, Cat({Le(0xFF9C, 2), Le(0)})},
        {OP(Vyrix_SetBiPhase(h, 100, kCur)), 43, Cat({Le(100, 2), Le(0)})},
        {OP(Vyrix_SetColorAlignment(h, 1, 4, -32, kSaved)), 19, Cat({Le(1), Le(4), F(-32.0f), Le(1)})},
        {OP(Vyrix_SetColorAlignment(h, 0, 0, 32, kCur)), 19, Cat({Le(0), Le(0), F(32.0f), Le(0)})},
        {OP(Vyrix_SetColorConverter(h, 8, -65536, kCur)), 21, Cat({Le(8), Le(0xFFFF0000u), Le(0)})},
        {OP(Vyrix_SetColorConverter(h, 0, 65535, kCur)), 21, Cat({Le(0), Le(65535), Le(0)})},
        {OP(Vyrix_SetFrameRateMode(h, Vyrix_FrameRateS{2, 11, 22}, 5)), 76, Cat({Le(2), Le(11), Le(22), Le(5)})},
        {OP(Vyrix_SetSensingState(h, 1, kSaved)), 46, Cat({Le(1), Le(1)})},
        {OP(Vyrix_DrawTestPattern(h, 4, 0xDEAD, 7)), 45, Cat({Le(4), Le(0xDEAD), Le(7)})},
        {OP(Vyrix_DrawTestPattern(h, -7, 0, 0)), 45, Cat({Le(0xFFFFFFF9u), Le(0), Le(0)})},
        {OP(Vyrix_CommitAll(h)), 33, {}},
        {OP(Vyrix_RestoreFactorySettings(h)), 31, {}},
    });
}

TEST_F(Operations, GetCommandsDecodeTheirReplies) {
    uint16_t w = 0, ht = 0;
    float rate = 0, gamma = 0;
    uint32_t u[6] = {};
    uint8_t b = 0;
    int32_t mode = 0, conv = 0;
    int16_t biphase = 0, down = 0, up = 0;
    Vyrix_VideoPropertiesS props{};
    Vyrix_FrameRateS fr{};
    Vyrix_SystemStatusS st{};
    Vyrix_SystemInfoS info;
    memset(&info, 0x55, sizeof info);
    const Bytes text = {'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K', 'L', 'M', 'N', 'O', 'P', 'Q'};
    ExpectSent({
        {OP(Vyrix_GetInputVideoProperties(h, &w, &ht, &rate)), 60, {}, Cat({Le(1920, 2), Le(1080, 2), F(59.94f)})},
        {OP(Vyrix_GetInputVideoState(h, &u[0], 6)), 11, Le(6), Le(0xA1B2C3D4)},
        {OP(Vyrix_GetBrightness(h, &b, kFactory)), 42, Le(2), {77}},
        {OP(Vyrix_GetColorMode(h, &mode, kCur)), 13, Le(0), Le(3)},
        {OP(Vyrix_GetGamma(h, 5, &gamma, kSaved)), 38, Cat({Le(5), Le(1)}), F(2.2f)},
        {OP(Vyrix_GetVideoGammaBoostMode(h, 1, &u[1], kCur)), 28, Cat({Le(1), Le(0)}), Le(1)},
        {OP(Vyrix_GetMicroWeaveMode(h, &u[2], kCur)), 70, Le(0), Le(2)},
        {OP(Vyrix_GetFlipState(h, &u[3], kCur)), 15, Le(0), Le(3)},
        {OP(Vyrix_GetOutputVideoState(h, &u[4], kFactory)), 17, Le(2), Le(4)},
        {OP(Vyrix_GetSensingState(h, &u[5], kSaved)), 47, Le(1), Le(5)},
        {OP(Vyrix_GetOutputVideoProperties(h, &props)), 71, {}, Cat({Le(1440, 2), Le(810, 2), F(60.0f)})},
        {OP(Vyrix_GetBiPhase(h, &biphase, kCur)), 44, Le(0), Le(0xFF9C, 2)},
        {OP(Vyrix_GetColorAlignment(h, 0, 3, &down, kSaved)), 20, Cat({Le(0), Le(3), Le(1)}), F(-2.7f)},
        {OP(Vyrix_GetColorAlignment(h, 1, 4, &up, kCur)), 20, Cat({Le(1), Le(4), Le(0)}), F(2.7f)},
        {OP(Vyrix_GetColorConverter(h, 8, &conv, kCur)), 22, Cat({Le(8), Le(0)}), Le(0xFFFF0000u)},
        {OP(Vyrix_GetFrameRateMode(h, &fr, kCur)), 77, Le(0), Cat({Le(2), Le(30), Le(40)})},
        {OP(Vyrix_GetSystemStatus(h, &st)), 40, {}, Cat({Le(1), Le(2), F(41.5f), Le(3), Le(4), Le(5), Le(6), Le(7)})},
        {OP(Vyrix_GetInputVideoState(h, &u[0], 42)), 11, Le(42), Le(0xA1B2C3D4)},
        {OP(Vyrix_GetSystemInfo(h, &info)), 39, {}, Cat({text, Le(1), Le(2), Le(3), Le(4), Le(5), Le(6), Le(7)})},
    });
    EXPECT_EQ(std::tie(w, ht, b, mode, biphase, conv), std::make_tuple(1920, 1080, 77, 3, -100, -65536));
    EXPECT_EQ(std::vector<uint32_t>(u, u + 6), (std::vector<uint32_t>{0xA1B2C3D4u, 1, 2, 3, 4, 5}));
    EXPECT_EQ(std::tie(down, up), std::make_tuple(-2, 2));  // truncated toward zero
    EXPECT_EQ(std::tie(props.width, props.height, fr.mode, fr.param1, fr.param2),
              std::make_tuple(1440, 810, 2u, 30u, 40u));
    EXPECT_EQ(std::tie(st.statusWord1, st.statusWord2, st.statusWord7), std::make_tuple(1u, 2u, 7u));
    EXPECT_FLOAT_EQ(rate, 59.94f);
    EXPECT_FLOAT_EQ(gamma, 2.2f);
    EXPECT_FLOAT_EQ(props.frameRate, 60.0f);
    EXPECT_FLOAT_EQ(st.statusValue, 41.5f);
    EXPECT_STREQ(info.infoText, "ABCDEFGHIJKLMNOP");  // sixteen characters and a NUL
    EXPECT_EQ(std::tie(info.infoWord1, info.infoWord4, info.infoWord7), std::make_tuple(1u, 4u, 7u));
}

TEST_F(Operations, ArgumentsOutOfBoundsAndNullHandlesAreRefused) {
    uint8_t b;
    int16_t off;
    int32_t v;
    Vyrix_SystemInfoS info;
    Vyrix_FrameRateS fr, badMode{3, 0, 0};
    Vyrix_EventLogEntryS entries[1];
    Bytes chunk(4001);
    // Values out of range, and storage types a Set cannot write.
    ExpectRefused({NO(Vyrix_SetBrightness(h, 101, kCur)), NO(Vyrix_SetBiPhase(h, -101, kCur)),
                   NO(Vyrix_SetBiPhase(h, 101, kCur)), NO(Vyrix_SetColorAlignment(h, 0, 0, -33, kCur)),
                   NO(Vyrix_SetColorAlignment(h, 0, 0, 33, kCur)), NO(Vyrix_SetColorConverter(h, 0, -65537, kCur)),
                   NO(Vyrix_SetColorConverter(h, 0, 65536, kCur)), NO(Vyrix_SetGamma(h, 0, 0.99f, kCur)),
                   NO(Vyrix_SetGamma(h, 0, 3.01f, kCur)), NO(Vyrix_SetBrightness(h, 1, kFactory)),
                   NO(Vyrix_SetGamma(h, 0, 2.0f, kFactory))});
    // Indexes, modes and states out of range.
    ExpectRefused({NO(Vyrix_SetColorAlignment(h, 0, -1, 0, kCur)), NO(Vyrix_SetColorAlignment(h, 0, 5, 0, kCur)),
                   NO(Vyrix_SetColorAlignment(h, 2, 0, 0, kCur)), NO(Vyrix_GetColorAlignment(h, 0, -1, &off, kCur)),
                   NO(Vyrix_GetColorAlignment(h, 0, 5, &off, kCur)), NO(Vyrix_SetColorConverter(h, -1, 0, kCur)),
                   NO(Vyrix_SetColorConverter(h, 9, 0, kCur)), NO(Vyrix_GetColorConverter(h, -1, &v, kCur)),
                   NO(Vyrix_GetColorConverter(h, 9, &v, kCur)), NO(Vyrix_SetColorMode(h, 5, kCur)),
                   NO(Vyrix_SetVideoGammaBoostMode(h, 3, 0, kCur)), NO(Vyrix_SetVideoGammaBoostMode(h, 0, 2, kCur)),
                   NO(Vyrix_SetFlipState(h, 4, kCur)), NO(Vyrix_SetMicroWeaveMode(h, 2, kCur)),
                   NO(Vyrix_SetInputVideoState(h, 2, 0)), NO(Vyrix_SetOutputVideoState(h, 2, 0)),
                   NO(Vyrix_SetFrameRateMode(h, badMode, 0)), NO(Vyrix_SetSensingState(h, 2, kCur)),
                   NO(Vyrix_DrawTestPattern(h, 5, 0, 0))});
    // Missing pointers, storage types or counts out of range, and no connection.
    ExpectRefused({NO(Vyrix_GetBrightness(h, nullptr, kCur)), NO(Vyrix_GetBrightness(h, &b, static_cast<S>(3))),
                   NO(Vyrix_GetEventLog(h, 256, entries)), NO(Vyrix_GetEventLog(h, 1, nullptr)),
                   NO(Vyrix_UpgradeSoftware(h, 0, 4001, 0, chunk.data())),
                   NO(Vyrix_UpgradeSoftware(h, 0, 10, 0, nullptr)), NO(Vyrix_SetBrightness(nullptr, 1, kCur)),
                   NO(Vyrix_GetBrightness(nullptr, &b, kCur)), NO(Vyrix_GetSystemInfo(nullptr, &info)),
                   NO(Vyrix_DrawTestPattern(nullptr, 0, 0, 0)), NO(Vyrix_CommitAll(nullptr)),
                   NO(Vyrix_GetFrameRateMode(nullptr, &fr, kCur))});
}

TEST_F(Operations, LibraryCheckComesFirst) {
    ASSERT_EQ(Vyrix_CloseLibrary(library), 0u);
    uint8_t b;
    ExpectRefused({NO(Vyrix_SetBrightness(nullptr, 101, kFactory)), NO(Vyrix_GetBrightness(nullptr, nullptr, kCur)),
                   NO(Vyrix_GetBrightness(&b, &b, kCur)), NO(Vyrix_UpgradeSoftware(nullptr, 0, 5000, 0, nullptr)),
                   NO(Vyrix_GetEventLog(nullptr, 300, nullptr)), NO(Vyrix_DrawTestPattern(nullptr, 9, 0, 0))},
                  0x04000000u);
}

TEST_F(Operations, StatusWordErrorReplyAndShortReply) {
    uint8_t b = 33;
    sim->SetResponder(Answering({77}, 0x01000000u));
    EXPECT_EQ(Vyrix_GetBrightness(connection, &b, kCur), 0x01000000u);
    EXPECT_EQ(b, 33);  // untouched
    sim->SetResponder(Answering({77}, 0x0A00BEEFu));
    EXPECT_EQ(Vyrix_GetBrightness(connection, &b, kCur), 0x0A00BEEFu);  // low bits reach the caller too
    sim->SetResponder(Answering({77}, 0, 2));
    EXPECT_EQ(Vyrix_GetBrightness(connection, &b, kCur), 0x17000000u);
    EXPECT_EQ(b, 77);  // an error reply with status 0 still delivers its values
    b = 33;
    sim->SetResponder(Answering({77}, 0x0C000000u, 2));
    EXPECT_EQ(Vyrix_GetBrightness(connection, &b, kCur), 0x0C000000u);
    EXPECT_EQ(b, 33);
    sim->SetResponder(Answering({}, 0x0B000000u));
    EXPECT_EQ(Vyrix_RestoreFactorySettings(connection), 0x0B000000u);
    EXPECT_EQ(Vyrix_CommitAll(connection), 0x0B000000u);
    EXPECT_EQ(Vyrix_SetBrightness(connection, 5, kCur), 0u);  // a Set does not look at it

    Vyrix_VideoPropertiesS props{1, 1, 1.0f};
    sim->SetResponder(Answering(Cat({Le(640, 2), Le(480, 2)})));
    EXPECT_EQ(Vyrix_GetOutputVideoProperties(connection, &props), 0u);
    EXPECT_EQ(props.width, 640);
    EXPECT_EQ(props.frameRate, 0.0f);  // what the reply lacks reads as zero
}

TEST_F(Operations, EventLogEntries) {
    Vyrix_EventLogEntryS entries[256];
    memset(entries, 0x5A, sizeof entries);
    const Vyrix_EventLogEntryS untouched = entries[0];
    Bytes three;
    for (uint16_t i = 1; i <= 3; ++i)
        three = Cat({three, Le(i, 2), Le(i * 10, 2), Le(i * 100), Le(i * 1000), Le(i + 5, 2), Le(i + 6, 2)});
    ExpectSent({{OP(Vyrix_GetEventLog(h, 0, entries)), 85, Le(0, 2)}});
    EXPECT_EQ(memcmp(&entries[0], &untouched, sizeof untouched), 0);
    ExpectSent({{OP(Vyrix_GetEventLog(h, 3, entries)), 85, Le(3, 2), three}});
    for (uint16_t i = 0; i < 3; ++i) {
        const Vyrix_EventLogEntryS& e = entries[i];
        EXPECT_EQ(std::tie(e.field1, e.field2, e.field3, e.field4, e.field5, e.field6),
                  std::make_tuple(i + 1, (i + 1) * 10, (i + 1) * 100u, (i + 1) * 1000u, i + 6, i + 7));
    }
    EXPECT_EQ(memcmp(&entries[3], &untouched, sizeof untouched), 0);  // nothing beyond
    ExpectSent({{OP(Vyrix_GetEventLog(h, 255, entries)), 85, Le(255, 2), three}});
    EXPECT_EQ(entries[2].field1, 3);
    EXPECT_EQ(entries[254].field1, 0);  // the device sent three: the rest reads as zeros
    EXPECT_EQ(memcmp(&entries[255], &untouched, sizeof untouched), 0);
}

TEST_F(Operations, UpgradeAlwaysSendsTheWholeChunk) {
    Bytes chunk(4000);
    for (size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<uint8_t>(i * 7);
    ExpectSent(
        {{OP(Vyrix_UpgradeSoftware(h, 3, 10, 99, chunk.data())), 30, Cat({Le(3), Le(10), Le(99), chunk})},
         {OP(Vyrix_UpgradeSoftware(nullptr, 0, 4000, 0, chunk.data())), 30, Cat({Le(0), Le(4000), Le(0), chunk})}});
}

TEST_F(Operations, TheSimulatedDeviceKeepsCopiesPerStorageType) {
    sim->SetResponder(
        [this](const vyrix::sim::HostPacket& p) { return vyrix::sim::DeviceSimulator::ModelReply(sim->Model(), p); });
    uint8_t b[4] = {};
    float gamma[2] = {};
    ASSERT_EQ(Vyrix_SetBrightness(connection, 55, kCur), 0u);
    ASSERT_EQ(Vyrix_GetBrightness(connection, &b[0], kCur), 0u);
    ASSERT_EQ(Vyrix_GetBrightness(connection, &b[1], kSaved), 0u);
    ASSERT_EQ(Vyrix_CommitAll(connection), 0u);
    ASSERT_EQ(Vyrix_GetBrightness(connection, &b[2], kSaved), 0u);
    ASSERT_EQ(Vyrix_RestoreFactorySettings(connection), 0u);
    ASSERT_EQ(Vyrix_GetBrightness(connection, &b[3], kCur), 0u);
    EXPECT_EQ(Bytes(b, b + 4), (Bytes{55, 80, 55, 80}));
    ASSERT_EQ(Vyrix_SetGamma(connection, 1, 2.8f, kCur), 0u);
    ASSERT_EQ(Vyrix_GetGamma(connection, 1, &gamma[0], kCur), 0u);
    ASSERT_EQ(Vyrix_GetGamma(connection, 0, &gamma[1], kCur), 0u);  // another channel
    EXPECT_EQ(std::make_pair(gamma[0], gamma[1]), std::make_pair(2.8f, 2.2f));
    uint32_t state;
    EXPECT_EQ(Vyrix_GetInputVideoState(connection, &state, 7), 0x05000000u);  // the device says no
    ASSERT_EQ(Vyrix_DrawTestPattern(connection, 3, 10, 20), 0u);
    EXPECT_EQ(sim->Model().LastPattern().select, 3u);
    Vyrix_EventLogEntryS events[4] = {};
    ASSERT_EQ(Vyrix_GetEventLog(connection, 4, events), 0u);
    EXPECT_EQ(events[0].field1, vyrix::sim::kEventTestPattern);  // newest first
}

}  // namespace
