// The device operations: bytes on the wire, decoded replies, argument
// bounds, storage types and the reply rules they all share.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>

#include "ApiLink.h"
#include "Vyrix_Opcodes.h"

namespace {

using vt::Answering;
using vt::ApiLink;
using vt::Bytes;

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
Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

class Operations : public ApiLink {
protected:
    void SetUp() override {
        ApiLink::SetUp();
        sim->SetResponder(Answering({}));
    }
    // Runs an operation and checks the command it sent.
    void ExpectSent(const char* name, const std::function<Vyrix_ReturnStatus()>& op, uint8_t opcode,
                    const Bytes& params, uint32_t result = 0) {
        const size_t before = sim->ReceivedCount();
        EXPECT_EQ(op(), result) << name;
        ASSERT_EQ(sim->ReceivedCount(), before + 1) << name;
        Bytes sent = sim->Received().back().payload;
        EXPECT_EQ(sent[3], opcode) << name;
        EXPECT_EQ(Bytes(sent.begin() + 4, sent.end()), params) << name;
    }
    void ExpectRefused(const char* name, const std::function<Vyrix_ReturnStatus()>& op) {
        const size_t before = sim->ReceivedCount();
        EXPECT_EQ(op(), 0x05000000u) << name;
        EXPECT_EQ(sim->ReceivedCount(), before) << name << " sent something";
    }
    void* h() { return connection; }
};

using S = Vyrix_ValueStorageTypeE;
constexpr S kCur = eVYRIX_STORAGE_CURRENT, kSaved = eVYRIX_STORAGE_SAVED, kFactory = eVYRIX_STORAGE_FACTORY;

TEST_F(Operations, SetCommandsOnTheWire) {
    ExpectSent(
        "InputVideoState", [&] { return Vyrix_SetInputVideoState(h(), 1, 7); }, 10, Cat({Le(1), Le(7)}));
    ExpectSent(
        "Brightness", [&] { return Vyrix_SetBrightness(h(), 100, kSaved); }, 41, Cat({{100}, Le(1)}));
    ExpectSent(
        "ColorMode", [&] { return Vyrix_SetColorMode(h(), -3, kCur); }, 12, Cat({Le(0xFFFFFFFD), Le(0)}));
    ExpectSent(
        "Gamma", [&] { return Vyrix_SetGamma(h(), 9, 2.5f, kSaved); }, 37, Cat({Le(9), F(2.5f), Le(1)}));
    ExpectSent(
        "GammaBoost", [&] { return Vyrix_SetVideoGammaBoostMode(h(), 2, 1, kCur); }, 27, Cat({Le(2), Le(1), Le(0)}));
    ExpectSent(
        "MicroWeave", [&] { return Vyrix_SetMicroWeaveMode(h(), 1, kSaved); }, 69, Cat({Le(1), Le(1)}));
    ExpectSent(
        "FlipState", [&] { return Vyrix_SetFlipState(h(), 3, kCur); }, 14, Cat({Le(3), Le(0)}));
    ExpectSent(
        "OutputVideoState", [&] { return Vyrix_SetOutputVideoState(h(), 0, 9); }, 16, Cat({Le(0), Le(9)}));
    ExpectSent(
        "BiPhase", [&] { return Vyrix_SetBiPhase(h(), -100, kCur); }, 43, Cat({Le(0xFF9C, 2), Le(0)}));
    ExpectSent(
        "ColorAlignment", [&] { return Vyrix_SetColorAlignment(h(), 1, 4, -32, kSaved); }, 19,
        Cat({Le(1), Le(4), F(-32.0f), Le(1)}));
    ExpectSent(
        "ColorConverter", [&] { return Vyrix_SetColorConverter(h(), 8, -65536, kCur); }, 21,
        Cat({Le(8), Le(0xFFFF0000u), Le(0)}));
    ExpectSent(
        "FrameRateMode",
        [&] {
            return Vyrix_SetFrameRateMode(h(), Vyrix_FrameRateS{2, 11, 22}, 5);
        },
        76, Cat({Le(2), Le(11), Le(22), Le(5)}));
    ExpectSent(
        "SensingState", [&] { return Vyrix_SetSensingState(h(), 1, kSaved); }, 46, Cat({Le(1), Le(1)}));
    ExpectSent(
        "TestPattern", [&] { return Vyrix_DrawTestPattern(h(), 4, 0xDEAD, 7); }, 45, Cat({Le(4), Le(0xDEAD), Le(7)}));
    ExpectSent("Commit", [&] { return Vyrix_CommitAll(h()); }, 33, {});
    ExpectSent("Factory", [&] { return Vyrix_RestoreFactorySettings(h()); }, 31, {});
}

TEST_F(Operations, GetCommandsDecodeTheirReplies) {
    uint16_t w = 0, hgt = 0;
    float rate = 0;
    sim->SetResponder(Answering(Cat({Le(1920, 2), Le(1080, 2), F(59.94f)})));
    ExpectSent("InputVideoProperties", [&] { return Vyrix_GetInputVideoProperties(h(), &w, &hgt, &rate); }, 60, {});
    EXPECT_EQ(w, 1920);
    EXPECT_EQ(hgt, 1080);
    EXPECT_FLOAT_EQ(rate, 59.94f);

    uint32_t u = 0;
    sim->SetResponder(Answering(Le(0xA1B2C3D4)));
    ExpectSent(
        "InputVideoState", [&] { return Vyrix_GetInputVideoState(h(), &u, 6); }, 11, Le(6));
    EXPECT_EQ(u, 0xA1B2C3D4u);

    uint8_t b = 0;
    sim->SetResponder(Answering({77}));
    ExpectSent(
        "Brightness", [&] { return Vyrix_GetBrightness(h(), &b, kFactory); }, 42, Le(2));
    EXPECT_EQ(b, 77);

    int32_t i = 0;
    sim->SetResponder(Answering(Le(3)));
    ExpectSent(
        "ColorMode", [&] { return Vyrix_GetColorMode(h(), &i, kCur); }, 13, Le(0));
    EXPECT_EQ(i, 3);

    float g = 0;
    sim->SetResponder(Answering(F(2.2f)));
    ExpectSent(
        "Gamma", [&] { return Vyrix_GetGamma(h(), 5, &g, kSaved); }, 38, Cat({Le(5), Le(1)}));
    EXPECT_FLOAT_EQ(g, 2.2f);

    sim->SetResponder(Answering(Le(1)));
    ExpectSent(
        "GammaBoost", [&] { return Vyrix_GetVideoGammaBoostMode(h(), 1, &u, kCur); }, 28, Cat({Le(1), Le(0)}));
    EXPECT_EQ(u, 1u);
    ExpectSent(
        "MicroWeave", [&] { return Vyrix_GetMicroWeaveMode(h(), &u, kCur); }, 70, Le(0));
    ExpectSent(
        "FlipState", [&] { return Vyrix_GetFlipState(h(), &u, kCur); }, 15, Le(0));
    ExpectSent(
        "OutputVideoState", [&] { return Vyrix_GetOutputVideoState(h(), &u, kFactory); }, 17, Le(2));
    ExpectSent(
        "SensingState", [&] { return Vyrix_GetSensingState(h(), &u, kSaved); }, 47, Le(1));

    Vyrix_VideoPropertiesS props{};
    sim->SetResponder(Answering(Cat({Le(1440, 2), Le(810, 2), F(60.0f)})));
    ExpectSent("OutputVideoProperties", [&] { return Vyrix_GetOutputVideoProperties(h(), &props); }, 71, {});
    EXPECT_EQ(props.width, 1440);
    EXPECT_EQ(props.height, 810);
    EXPECT_FLOAT_EQ(props.frameRate, 60.0f);

    int16_t s16 = 0;
    sim->SetResponder(Answering(Le(0xFF9C, 2)));
    ExpectSent(
        "BiPhase", [&] { return Vyrix_GetBiPhase(h(), &s16, kCur); }, 44, Le(0));
    EXPECT_EQ(s16, -100);

    sim->SetResponder(Answering(F(-2.7f)));
    ExpectSent(
        "ColorAlignment", [&] { return Vyrix_GetColorAlignment(h(), 0, 3, &s16, kSaved); }, 20,
        Cat({Le(0), Le(3), Le(1)}));
    EXPECT_EQ(s16, -2);  // truncated toward zero
    sim->SetResponder(Answering(F(2.7f)));
    ASSERT_EQ(Vyrix_GetColorAlignment(h(), 0, 3, &s16, kSaved), 0u);
    EXPECT_EQ(s16, 2);

    sim->SetResponder(Answering(Le(0xFFFF0000u)));
    ExpectSent(
        "ColorConverter", [&] { return Vyrix_GetColorConverter(h(), 8, &i, kCur); }, 22, Cat({Le(8), Le(0)}));
    EXPECT_EQ(i, -65536);

    Vyrix_FrameRateS fr{};
    sim->SetResponder(Answering(Cat({Le(2), Le(30), Le(40)})));
    ExpectSent(
        "FrameRateMode", [&] { return Vyrix_GetFrameRateMode(h(), &fr, kCur); }, 77, Le(0));
    EXPECT_EQ(fr.mode, 2u);
    EXPECT_EQ(fr.param1, 30u);
    EXPECT_EQ(fr.param2, 40u);

    Vyrix_SystemStatusS status{};
    sim->SetResponder(Answering(Cat({Le(1), Le(2), F(41.5f), Le(3), Le(4), Le(5), Le(6), Le(7)})));
    ExpectSent("SystemStatus", [&] { return Vyrix_GetSystemStatus(h(), &status); }, 40, {});
    EXPECT_EQ(status.statusWord1, 1u);
    EXPECT_EQ(status.statusWord2, 2u);
    EXPECT_FLOAT_EQ(status.statusValue, 41.5f);
    EXPECT_EQ(status.statusWord7, 7u);
}

TEST_F(Operations, ArgumentBounds) {
    uint8_t b;
    ExpectSent(
        "brightness 100", [&] { return Vyrix_SetBrightness(h(), 100, kCur); }, 41, Cat({{100}, Le(0)}));
    ExpectRefused("brightness 101", [&] { return Vyrix_SetBrightness(h(), 101, kCur); });
    for (int16_t v : {-100, 100})
        ExpectSent(
            "biphase", [&] { return Vyrix_SetBiPhase(h(), v, kCur); }, 43,
            Cat({Le(static_cast<uint16_t>(v), 2), Le(0)}));
    for (int16_t v : {-101, 101}) ExpectRefused("biphase", [&] { return Vyrix_SetBiPhase(h(), v, kCur); });
    for (int16_t v : {-32, 32})
        ExpectSent(
            "alignment", [&] { return Vyrix_SetColorAlignment(h(), 0, 0, v, kCur); }, 19,
            Cat({Le(0), Le(0), F(v), Le(0)}));
    for (int16_t v : {-33, 33}) ExpectRefused("alignment", [&] { return Vyrix_SetColorAlignment(h(), 0, 0, v, kCur); });
    for (int32_t s2 : {-1, 5}) {
        ExpectRefused("selector2", [&] { return Vyrix_SetColorAlignment(h(), 0, s2, 0, kCur); });
        int16_t off;
        ExpectRefused("selector2 get", [&] { return Vyrix_GetColorAlignment(h(), 0, s2, &off, kCur); });
    }
    ExpectRefused("selector1", [&] { return Vyrix_SetColorAlignment(h(), 2, 0, 0, kCur); });
    for (int32_t v : {-65536, 65535})
        ExpectSent(
            "converter", [&] { return Vyrix_SetColorConverter(h(), 0, v, kCur); }, 21,
            Cat({Le(0), Le(static_cast<uint32_t>(v)), Le(0)}));
    for (int32_t v : {-65537, 65536})
        ExpectRefused("converter", [&] { return Vyrix_SetColorConverter(h(), 0, v, kCur); });
    for (int32_t idx : {-1, 9}) {
        ExpectRefused("converter index", [&] { return Vyrix_SetColorConverter(h(), idx, 0, kCur); });
        int32_t v;
        ExpectRefused("converter index get", [&] { return Vyrix_GetColorConverter(h(), idx, &v, kCur); });
    }
    for (float g : {1.0f, 3.0f})
        ExpectSent(
            "gamma", [&] { return Vyrix_SetGamma(h(), 0, g, kCur); }, 37, Cat({Le(0), F(g), Le(0)}));
    for (float g : {0.99f, 3.01f}) ExpectRefused("gamma", [&] { return Vyrix_SetGamma(h(), 0, g, kCur); });
    ExpectRefused("color mode 5", [&] { return Vyrix_SetColorMode(h(), 5, kCur); });
    ExpectRefused("boost channel 3", [&] { return Vyrix_SetVideoGammaBoostMode(h(), 3, 0, kCur); });
    ExpectRefused("boost mode 2", [&] { return Vyrix_SetVideoGammaBoostMode(h(), 0, 2, kCur); });
    ExpectRefused("flip 4", [&] { return Vyrix_SetFlipState(h(), 4, kCur); });
    ExpectRefused("microweave 2", [&] { return Vyrix_SetMicroWeaveMode(h(), 2, kCur); });
    ExpectRefused("input state 2", [&] { return Vyrix_SetInputVideoState(h(), 2, 0); });
    ExpectRefused("output state 2", [&] { return Vyrix_SetOutputVideoState(h(), 2, 0); });
    ExpectRefused("frame rate mode 3", [&] { return Vyrix_SetFrameRateMode(h(), Vyrix_FrameRateS{3, 0, 0}, 0); });
    ExpectRefused("sensing 2", [&] { return Vyrix_SetSensingState(h(), 2, kCur); });
    ExpectSent(
        "pattern 4", [&] { return Vyrix_DrawTestPattern(h(), 4, 0, 0); }, 45, Cat({Le(4), Le(0), Le(0)}));
    ExpectRefused("pattern 5", [&] { return Vyrix_DrawTestPattern(h(), 5, 0, 0); });
    ExpectSent(
        "pattern -7", [&] { return Vyrix_DrawTestPattern(h(), -7, 0, 0); }, 45, Cat({Le(0xFFFFFFF9u), Le(0), Le(0)}));
    ExpectRefused("null out", [&] { return Vyrix_GetBrightness(h(), nullptr, kCur); });
    ExpectRefused("brightness get storage 3", [&] { return Vyrix_GetBrightness(h(), &b, static_cast<S>(3)); });
}

TEST_F(Operations, StorageTypeRules) {
    uint8_t b;
    ExpectRefused("set storage 2", [&] { return Vyrix_SetBrightness(h(), 1, kFactory); });
    ExpectRefused("set gamma storage 2", [&] { return Vyrix_SetGamma(h(), 0, 2.0f, kFactory); });
    sim->SetResponder(Answering({9}));
    ExpectSent(
        "get storage 2", [&] { return Vyrix_GetBrightness(h(), &b, kFactory); }, 42, Le(2));
    uint32_t u;
    sim->SetResponder(Answering(Le(0)));
    ExpectSent(
        "input state any", [&] { return Vyrix_SetInputVideoState(h(), 0, 0xFFFFFFFFu); }, 10,
        Cat({Le(0), Le(0xFFFFFFFFu)}));
    ExpectSent(
        "output state any", [&] { return Vyrix_SetOutputVideoState(h(), 1, 42); }, 16, Cat({Le(1), Le(42)}));
    ExpectSent(
        "input state get any", [&] { return Vyrix_GetInputVideoState(h(), &u, 42); }, 11, Le(42));
    ExpectSent(
        "frame rate any",
        [&] {
            return Vyrix_SetFrameRateMode(h(), Vyrix_FrameRateS{0, 0, 0}, 3);
        },
        76, Cat({Le(0), Le(0), Le(0), Le(3)}));
}

TEST_F(Operations, NullHandleIsRefusedEvenWithAConnectionOpen) {
    uint8_t b;
    Vyrix_SystemInfoS info;
    ExpectRefused("set", [&] { return Vyrix_SetBrightness(nullptr, 1, kCur); });
    ExpectRefused("get", [&] { return Vyrix_GetBrightness(nullptr, &b, kCur); });
    ExpectRefused("info", [&] { return Vyrix_GetSystemInfo(nullptr, &info); });
    ExpectRefused("pattern", [&] { return Vyrix_DrawTestPattern(nullptr, 0, 0, 0); });
    ExpectRefused("commit", [&] { return Vyrix_CommitAll(nullptr); });
    Vyrix_FrameRateS fr;
    ExpectRefused("frame rate", [&] { return Vyrix_GetFrameRateMode(nullptr, &fr, kCur); });
}

TEST_F(Operations, LibraryCheckComesFirst) {
    ASSERT_EQ(Vyrix_CloseLibrary(library), 0u);
    uint8_t b;
    EXPECT_EQ(Vyrix_SetBrightness(nullptr, 101, kFactory), 0x04000000u);
    EXPECT_EQ(Vyrix_GetBrightness(nullptr, nullptr, kCur), 0x04000000u);
    EXPECT_EQ(Vyrix_GetBrightness(&b, &b, kCur), 0x04000000u);
    EXPECT_EQ(Vyrix_UpgradeSoftware(nullptr, 0, 5000, 0, nullptr), 0x04000000u);
    EXPECT_EQ(Vyrix_GetEventLog(nullptr, 300, nullptr), 0x04000000u);
    EXPECT_EQ(Vyrix_DrawTestPattern(nullptr, 9, 0, 0), 0x04000000u);
}

TEST_F(Operations, StatusWordErrorReplyAndShortReply) {
    uint8_t b = 33;
    sim->SetResponder(Answering({77}, 0x01000000u));
    EXPECT_EQ(Vyrix_GetBrightness(h(), &b, kCur), 0x01000000u);
    EXPECT_EQ(b, 33);  // untouched
    sim->SetResponder(Answering({77}, 0x0A00BEEFu));
    EXPECT_EQ(Vyrix_GetBrightness(h(), &b, kCur), 0x0A00BEEFu);  // low bits reach the caller too
    sim->SetResponder(Answering({77}, 0, 2));
    EXPECT_EQ(Vyrix_GetBrightness(h(), &b, kCur), 0x17000000u);
    EXPECT_EQ(b, 77);  // an error reply with status 0 still delivers its values
    b = 33;
    sim->SetResponder(Answering({77}, 0x0C000000u, 2));
    EXPECT_EQ(Vyrix_GetBrightness(h(), &b, kCur), 0x0C000000u);
    EXPECT_EQ(b, 33);
    sim->SetResponder(Answering({}, 0x0B000000u));
    EXPECT_EQ(Vyrix_RestoreFactorySettings(h()), 0x0B000000u);
    EXPECT_EQ(Vyrix_CommitAll(h()), 0x0B000000u);
    EXPECT_EQ(Vyrix_SetBrightness(h(), 5, kCur), 0u);  // a Set does not look at it

    Vyrix_VideoPropertiesS props{1, 1, 1.0f};
    sim->SetResponder(Answering(Cat({Le(640, 2), Le(480, 2)})));
    EXPECT_EQ(Vyrix_GetOutputVideoProperties(h(), &props), 0u);
    EXPECT_EQ(props.width, 640);
    EXPECT_EQ(props.frameRate, 0.0f);  // what the reply lacks reads as zero
}

TEST_F(Operations, SystemInfoKeepsSixteenCharactersAndANul) {
    Bytes text(17, 'A');
    for (int i = 0; i < 17; ++i) text[i] = static_cast<uint8_t>('A' + i);
    sim->SetResponder(Answering(Cat({text, Le(1), Le(2), Le(3), Le(4), Le(5), Le(6), Le(7)})));
    Vyrix_SystemInfoS info;
    memset(&info, 0x55, sizeof info);
    ASSERT_EQ(Vyrix_GetSystemInfo(h(), &info), 0u);
    EXPECT_STREQ(info.infoText, "ABCDEFGHIJKLMNOP");
    EXPECT_EQ(info.infoWord1, 1u);
    EXPECT_EQ(info.infoWord4, 4u);
    EXPECT_EQ(info.infoWord7, 7u);
    EXPECT_EQ(Command(0)[3], 39);
}

TEST_F(Operations, EventLogEntries) {
    Vyrix_EventLogEntryS entries[256];
    memset(entries, 0x5A, sizeof entries);
    const Vyrix_EventLogEntryS untouched = entries[0];
    ExpectSent(
        "count 0", [&] { return Vyrix_GetEventLog(h(), 0, entries); }, 85, Le(0, 2));
    EXPECT_EQ(memcmp(&entries[0], &untouched, sizeof untouched), 0);

    Bytes three;
    for (uint16_t i = 1; i <= 3; ++i)
        three = Cat({three, Le(i, 2), Le(i * 10, 2), Le(i * 100), Le(i * 1000), Le(i + 5, 2), Le(i + 6, 2)});
    sim->SetResponder(Answering(three));
    ExpectSent(
        "count 3", [&] { return Vyrix_GetEventLog(h(), 3, entries); }, 85, Le(3, 2));
    for (uint16_t i = 0; i < 3; ++i) {
        EXPECT_EQ(entries[i].field1, i + 1);
        EXPECT_EQ(entries[i].field2, (i + 1) * 10);
        EXPECT_EQ(entries[i].field3, (i + 1) * 100u);
        EXPECT_EQ(entries[i].field4, (i + 1) * 1000u);
        EXPECT_EQ(entries[i].field5, i + 6);
        EXPECT_EQ(entries[i].field6, i + 7);
    }
    EXPECT_EQ(memcmp(&entries[3], &untouched, sizeof untouched), 0);  // nothing beyond

    ExpectSent(
        "count 255", [&] { return Vyrix_GetEventLog(h(), 255, entries); }, 85, Le(255, 2));
    EXPECT_EQ(entries[2].field1, 3);
    EXPECT_EQ(entries[254].field1, 0);  // the device sent three: the rest reads as zeros
    EXPECT_EQ(memcmp(&entries[255], &untouched, sizeof untouched), 0);
    ExpectRefused("count 256", [&] { return Vyrix_GetEventLog(h(), 256, entries); });
    ExpectRefused("null entries", [&] { return Vyrix_GetEventLog(h(), 1, nullptr); });
}

TEST_F(Operations, UpgradeAlwaysSendsTheWholeChunk) {
    Bytes chunk(4000);
    for (size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<uint8_t>(i * 7);
    ExpectSent(
        "chunk 10", [&] { return Vyrix_UpgradeSoftware(h(), 3, 10, 99, chunk.data()); }, 30,
        Cat({Le(3), Le(10), Le(99), chunk}));
    ExpectSent(
        "chunk 4000, null handle", [&] { return Vyrix_UpgradeSoftware(nullptr, 0, 4000, 0, chunk.data()); }, 30,
        Cat({Le(0), Le(4000), Le(0), chunk}));
    ExpectRefused("chunk 4001", [&] { return Vyrix_UpgradeSoftware(h(), 0, 4001, 0, chunk.data()); });
    ExpectRefused("null chunk", [&] { return Vyrix_UpgradeSoftware(h(), 0, 10, 0, nullptr); });
    EXPECT_EQ(sim->Received().back().payload.size(), 4016u);
}

TEST_F(Operations, TheSimulatedDeviceKeepsCopiesPerStorageType) {
    sim->SetResponder(
        [this](const vyrix::sim::HostPacket& p) { return vyrix::sim::DeviceSimulator::ModelReply(sim->Model(), p); });
    uint8_t b = 0;
    ASSERT_EQ(Vyrix_SetBrightness(h(), 55, kCur), 0u);
    ASSERT_EQ(Vyrix_GetBrightness(h(), &b, kCur), 0u);
    EXPECT_EQ(b, 55);
    ASSERT_EQ(Vyrix_GetBrightness(h(), &b, kSaved), 0u);
    EXPECT_EQ(b, 80);
    ASSERT_EQ(Vyrix_CommitAll(h()), 0u);
    ASSERT_EQ(Vyrix_GetBrightness(h(), &b, kSaved), 0u);
    EXPECT_EQ(b, 55);
    ASSERT_EQ(Vyrix_RestoreFactorySettings(h()), 0u);
    ASSERT_EQ(Vyrix_GetBrightness(h(), &b, kCur), 0u);
    EXPECT_EQ(b, 80);
    float gamma = 0;
    ASSERT_EQ(Vyrix_SetGamma(h(), 1, 2.8f, kCur), 0u);
    ASSERT_EQ(Vyrix_GetGamma(h(), 1, &gamma, kCur), 0u);
    EXPECT_FLOAT_EQ(gamma, 2.8f);
    ASSERT_EQ(Vyrix_GetGamma(h(), 0, &gamma, kCur), 0u);
    EXPECT_FLOAT_EQ(gamma, 2.2f);                                                                   // another channel
    EXPECT_EQ(Vyrix_GetInputVideoState(h(), reinterpret_cast<uint32_t*>(&gamma), 7), 0x05000000u);  // device says no
    ASSERT_EQ(Vyrix_DrawTestPattern(h(), 3, 10, 20), 0u);
    EXPECT_EQ(sim->Model().LastPattern().select, 3u);
    Vyrix_EventLogEntryS events[4] = {};
    ASSERT_EQ(Vyrix_GetEventLog(h(), 4, events), 0u);
    EXPECT_EQ(events[0].field1, vyrix::sim::kEventTestPattern);  // newest first
}

}  // namespace
