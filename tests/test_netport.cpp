// SPDX-License-Identifier: MIT
// Lines on other hosts: addresses, the Telnet layer byte by byte, and the
// whole library through a real ser2net in front of the simulator, raw and
// with RFC 2217, including the server dying under a command.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <future>
#include <random>

#include "ApiLink.h"
#include "LLC_Links.h"
#include "LLC_NetAddress.h"
#include "LLC_NetPort.h"
#include "LLC_TelnetFilter.h"
#include "NetServer.h"

namespace {

using vt::Bytes;
using TF = CTelnetFilter;

constexpr uint8_t IAC = TF::kIAC, WILL = TF::kWILL, WONT = TF::kWONT, DO = TF::kDO, DONT = TF::kDONT, SB = TF::kSB,
                  SE = TF::kSE;
constexpr uint8_t kEcho = 1, kNop = 241, kComPort = TF::kOptionComPort;

// ---- addresses -------------------------------------------------------------

TEST(NetAddress, FormsAndEndpoints) {
    struct Case {
        const char* text;
        CNetAddress::ParseResult result;
        const char* endpoint;
    };
    const Case cases[] = {
        {"rfc2217://lab-3.example.org:2001", CNetAddress::ePARSE_VALID, "lab-3.example.org:2001"},
        {"TCP://Engine7:65535", CNetAddress::ePARSE_VALID, "engine7:65535"},
        {"tcp://192.168.1.20:1", CNetAddress::ePARSE_VALID, "192.168.1.20:1"},
        {"rfc2217://[::1]:4000", CNetAddress::ePARSE_VALID, "[::1]:4000"},
        {"rfc2217://[FE80::1:2]:4000", CNetAddress::ePARSE_VALID, "[fe80::1:2]:4000"},
        {"/dev/ttyUSB0", CNetAddress::ePARSE_NOT_A_URL, ""},
        {"ttyS0", CNetAddress::ePARSE_NOT_A_URL, ""},
        {"/tmp/a://b", CNetAddress::ePARSE_NOT_A_URL, ""},
        {"ftp://host:21", CNetAddress::ePARSE_MALFORMED, ""},
        {"socket2://host:21", CNetAddress::ePARSE_MALFORMED, ""},
        {"tcp://", CNetAddress::ePARSE_MALFORMED, ""},
        {"tcp://host", CNetAddress::ePARSE_MALFORMED, ""},
        {"tcp://:4000", CNetAddress::ePARSE_MALFORMED, ""},
        {"tcp://host:", CNetAddress::ePARSE_MALFORMED, ""},
        {"tcp://host:0", CNetAddress::ePARSE_MALFORMED, ""},
        {"tcp://host:65536", CNetAddress::ePARSE_MALFORMED, ""},
        {"tcp://host:99999999999999999999", CNetAddress::ePARSE_MALFORMED, ""},
        {"tcp://host:40x", CNetAddress::ePARSE_MALFORMED, ""},
        {"tcp://host:4000/", CNetAddress::ePARSE_MALFORMED, ""},
        {"tcp://ho st:4000", CNetAddress::ePARSE_MALFORMED, ""},
        {"tcp://::1:4000", CNetAddress::ePARSE_MALFORMED, ""},
        {"rfc2217://[::1:4000", CNetAddress::ePARSE_MALFORMED, ""},
        {"rfc2217://[]:4000", CNetAddress::ePARSE_MALFORMED, ""},
        {"rfc2217://[not-v6]:4000", CNetAddress::ePARSE_MALFORMED, ""},
    };
    for (const Case& c : cases) {
        CNetAddress address;
        EXPECT_EQ(CNetAddress::Parse(c.text, &address), c.result) << c.text;
        EXPECT_EQ(CNetAddress::IsUrl(c.text), c.result != CNetAddress::ePARSE_NOT_A_URL) << c.text;
        if (c.result == CNetAddress::ePARSE_VALID) {
            EXPECT_EQ(address.Endpoint(), c.endpoint) << c.text;
        }
    }
    const std::string longName = "tcp://" + std::string(254, 'a') + ":1";
    CNetAddress address;
    EXPECT_EQ(CNetAddress::Parse(longName.c_str(), &address), CNetAddress::ePARSE_MALFORMED);
}

// ---- the Telnet layer ------------------------------------------------------

struct Filtered {
    Bytes data, replies;
    bool operator==(const Filtered& o) const { return data == o.data && replies == o.replies; }
};

// Feeds `stream` in the pieces that `cuts` (ascending offsets) make.
Filtered FeedInPieces(TF& filter, const Bytes& stream, const std::vector<size_t>& cuts) {
    Filtered out;
    size_t from = 0;
    std::vector<size_t> ends = cuts;
    ends.push_back(stream.size());
    for (size_t to : ends) {
        Bytes piece(stream.begin() + static_cast<long>(from), stream.begin() + static_cast<long>(to));
        const size_t n = filter.Feed(piece.data(), piece.size(), piece.data());  // in place, as the port does
        out.data.insert(out.data.end(), piece.begin(), piece.begin() + static_cast<long>(n));
        Bytes replies;
        filter.TakeReplies(&replies);
        out.replies.insert(out.replies.end(), replies.begin(), replies.end());
        from = to;
    }
    return out;
}

// What a server sends: negotiation, an answer to a control request (its
// value holding a doubled IAC), a long subnegotiation, commands, and data
// with IAC doubled.
const Bytes kServerStream = vt::Concat({
    {'a', IAC, IAC, 'b'},
    {IAC, WILL, kEcho, IAC, DO, 0, IAC, WILL, 0, IAC, DO, kComPort},
    {IAC, SB, kComPort, 101, 0, 0, IAC, IAC, 0, IAC, SE},
    {IAC, SB, kComPort, 100, 's', 'e', 'r', '2', 'n', 'e', 't', ' ', 'v', '4', '.', '3', '.', '1', '1', IAC, SE},
    {IAC, kNop, 0xC0, IAC, IAC, IAC, IAC, 0x00, IAC, DONT, 0},
    {IAC, SB, kComPort, 105, 1, IAC, SE, 'z'},
});

TEST(TelnetFilter, EverySplitGivesTheSameDataAndAnswers) {
    const Filtered expected{{'a', 0xFF, 'b', 0xC0, 0xFF, 0xFF, 0x00, 'z'},
                            {IAC, DONT, kEcho, IAC, WILL, 0, IAC, DO, 0, IAC, WILL, kComPort, IAC, WONT, 0}};
    TF whole;
    EXPECT_EQ(FeedInPieces(whole, kServerStream, {}), expected);
    EXPECT_TRUE(whole.Answered(1) && whole.Answered(0) && whole.Answered(5));
    EXPECT_FALSE(whole.Answered(2));
    EXPECT_EQ(whole.ComPort(), TF::eCOMPORT_AGREED);
    EXPECT_EQ(whole.GetState(), TF::eSTATE_DATA);
    std::vector<size_t> everyByte;
    for (size_t i = 1; i < kServerStream.size(); ++i) {
        TF split;
        EXPECT_EQ(FeedInPieces(split, kServerStream, {i}), expected) << "cut at " << i;
        everyByte.push_back(i);
    }
    TF bytes;
    EXPECT_EQ(FeedInPieces(bytes, kServerStream, everyByte), expected);
    EXPECT_TRUE(bytes.Answered(1) && bytes.Answered(0) && bytes.Answered(5));
}

// Each row: what the server says after our offer, and what we answer.
TEST(TelnetFilter, NegotiationAnswersOnlyChangesAndNeverLoops) {
    struct Case {
        Bytes server, answer;
        TF::ComPortE comPort;
    };
    const Case cases[] = {
        // Agreement to what we offered needs no answer, however often it comes.
        {{IAC, DO, 0, IAC, WILL, 0, IAC, DO, 3, IAC, WILL, 3, IAC, DO, kComPort, IAC, DO, kComPort},
         {},
         TF::eCOMPORT_AGREED},
        // Options we do not do, or do not let the server do, are refused.
        {{IAC, DO, kEcho, IAC, WILL, kEcho, IAC, WILL, kComPort},
         {IAC, WONT, kEcho, IAC, DONT, kEcho, IAC, DONT, kComPort},
         TF::eCOMPORT_PENDING},
        // A refusal of our offer ends it without an answer.
        {{IAC, DONT, kComPort, IAC, WONT, 0}, {}, TF::eCOMPORT_REFUSED},
        // Switching off what was on is acknowledged once.
        {{IAC, DO, kComPort, IAC, DONT, kComPort, IAC, DONT, kComPort}, {IAC, WONT, kComPort}, TF::eCOMPORT_REFUSED},
        // No answer at all.
        {{}, {}, TF::eCOMPORT_PENDING},
    };
    for (const Case& c : cases) {
        TF filter;
        Bytes offer;
        filter.Offer(&offer);
        EXPECT_EQ(offer, (Bytes{IAC, WILL, 0, IAC, DO, 0, IAC, WILL, 3, IAC, DO, 3, IAC, WILL, kComPort}));
        Filtered got = FeedInPieces(filter, c.server, {});
        EXPECT_TRUE(got.data.empty());
        EXPECT_EQ(got.replies, c.answer) << ::testing::PrintToString(c.server);
        EXPECT_EQ(filter.ComPort(), c.comPort) << ::testing::PrintToString(c.server);
    }
}

TEST(TelnetFilter, EscapedDataComesBackAsItWas) {
    const Bytes payloads[] = {Bytes(4101, 0xFF), {0x00, 0xFF, 0xFE, 0xFF, 0xF0, 0xFA}, {}};
    for (const Bytes& payload : payloads) {
        Bytes escaped;
        TF::Escape(payload.data(), payload.size(), &escaped);
        size_t iacs = 0;
        for (uint8_t b : payload) iacs += b == IAC;
        EXPECT_EQ(escaped.size(), payload.size() + iacs);
        TF filter;
        EXPECT_EQ(FeedInPieces(filter, escaped, {}), (Filtered{payload, {}}));
    }
    Bytes request;
    const uint8_t value[] = {0xFF, 1};
    TF::ComPortRequest(5, value, sizeof value, &request);
    EXPECT_EQ(request, (Bytes{IAC, SB, kComPort, 5, 0xFF, 0xFF, 1, IAC, SE}));
}

// ---- through ser2net -------------------------------------------------------

// The descriptors of the process's sockets.
std::vector<int> Sockets() {
    std::vector<int> fds;
    for (int fd = 0; fd < 1024; ++fd)
        if (vt::FdPath(fd).rfind("socket:", 0) == 0) fds.push_back(fd);
    return fds;
}

int IntOption(int fd, int level, int name) {
    int value = -1;
    socklen_t len = sizeof value;
    getsockopt(fd, level, name, &value, &len);
    return value;
}

bool HasLockFile(const std::string& dir) {
    bool found = false;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) found |= strncmp(e->d_name, "vyrix_llc_", strlen("vyrix_llc_")) == 0;
        closedir(d);
    }
    return found;
}

Bytes RandomBytes(size_t n, unsigned seed) {
    std::mt19937 random(seed);
    Bytes bytes(n);
    for (uint8_t& b : bytes) b = static_cast<uint8_t>(random());
    return bytes;
}

// The simulator behind ser2net; the library connects by URL.  The
// parameter is the scheme.
class Remote : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        sim = vyrix::sim::DeviceSimulator::OverPty();
        server = std::make_unique<vt::Ser2Net>(std::vector<vt::Ser2Net::Line>{{sim->SlavePath(), Rfc2217()}});
        ASSERT_TRUE(server->Ready()) << server->Output();
        url = server->Url(0, GetParam());
        ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
    }
    void TearDown() override {
        if (g_pLibCtx != nullptr) Vyrix_CloseLibrary(library);
        KtCloseSerialPort();
        server.reset();  // SIGKILL, by its pid
        sim.reset();
    }
    bool Rfc2217() const { return GetParam() == "rfc2217"; }
    void Connect() { ASSERT_EQ(Vyrix_OpenConnection(library, &connection, vt::UartRecord(url.c_str())), 0u); }

    std::unique_ptr<vyrix::sim::DeviceSimulator> sim;
    std::unique_ptr<vt::Ser2Net> server;
    std::string url;
    void* library = nullptr;
    void* connection = nullptr;
};

#define OP(opcode, call)                             \
    {                                                \
        opcode, #call, [&](void* h) { return call; } \
    }

TEST_P(Remote, EveryDeviceOperationOverAnOrdinarySocket) {
    Connect();
    const std::vector<int> sockets = Sockets();
    ASSERT_EQ(sockets.size(), 1u);
    const int fd = sockets[0];
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(IntOption(fd, IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(IntOption(fd, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_FALSE(HasLockFile(vt::RuntimeDir())) << "a network line takes no lock file";
    EXPECT_FALSE(vt::Contains(vt::Log(), "<INFO> OpenPort " + url + " ")) << "ser2net answers every control request";

    uint8_t b = 0;
    uint16_t w = 0, ht = 0;
    int16_t s16 = 0;
    int32_t s32 = 0;
    uint32_t u = 0;
    float f = 0;
    Vyrix_VideoPropertiesS props{};
    Vyrix_FrameRateS fr{};
    Vyrix_SystemStatusS st{};
    Vyrix_SystemInfoS info{};
    Vyrix_EventLogEntryS events[4];
    const auto kCur = eVYRIX_STORAGE_CURRENT, kSaved = eVYRIX_STORAGE_SAVED;
    const struct {
        uint8_t opcode;
        const char* name;
        std::function<Vyrix_ReturnStatus(void*)> call;
    } operations[] = {
        OP(10, Vyrix_SetInputVideoState(h, 1, 7)),
        OP(11, Vyrix_GetInputVideoState(h, &u, kCur)),
        OP(60, Vyrix_GetInputVideoProperties(h, &w, &ht, &f)),
        OP(41, Vyrix_SetBrightness(h, 100, kSaved)),
        OP(42, Vyrix_GetBrightness(h, &b, kSaved)),
        OP(12, Vyrix_SetColorMode(h, 3, kCur)),
        OP(13, Vyrix_GetColorMode(h, &s32, kCur)),
        OP(37, Vyrix_SetGamma(h, 9, 2.5f, kCur)),
        OP(38, Vyrix_GetGamma(h, 9, &f, kCur)),
        OP(27, Vyrix_SetVideoGammaBoostMode(h, 2, 1, kCur)),
        OP(28, Vyrix_GetVideoGammaBoostMode(h, 2, &u, kCur)),
        OP(69, Vyrix_SetMicroWeaveMode(h, 1, kCur)),
        OP(70, Vyrix_GetMicroWeaveMode(h, &u, kCur)),
        OP(14, Vyrix_SetFlipState(h, 3, kCur)),
        OP(15, Vyrix_GetFlipState(h, &u, kCur)),
        OP(16, Vyrix_SetOutputVideoState(h, 1, 9)),
        OP(17, Vyrix_GetOutputVideoState(h, &u, kCur)),
        OP(71, Vyrix_GetOutputVideoProperties(h, &props)),
        OP(43, Vyrix_SetBiPhase(h, -100, kCur)),
        OP(44, Vyrix_GetBiPhase(h, &s16, kCur)),
        OP(19, Vyrix_SetColorAlignment(h, 1, 4, -32, kCur)),
        OP(20, Vyrix_GetColorAlignment(h, 1, 4, &s16, kCur)),
        OP(21, Vyrix_SetColorConverter(h, 8, -65536, kCur)),
        OP(22, Vyrix_GetColorConverter(h, 8, &s32, kCur)),
        OP(76, Vyrix_SetFrameRateMode(h, (Vyrix_FrameRateS{2, 11, 22}), 5)),
        OP(77, Vyrix_GetFrameRateMode(h, &fr, kCur)),
        OP(46, Vyrix_SetSensingState(h, 1, kCur)),
        OP(47, Vyrix_GetSensingState(h, &u, kCur)),
        OP(45, Vyrix_DrawTestPattern(h, 4, 0xFFFF, 0xFFFFFFFF)),
        OP(40, Vyrix_GetSystemStatus(h, &st)),
        OP(39, Vyrix_GetSystemInfo(h, &info)),
        OP(33, Vyrix_CommitAll(h)),
        OP(85, Vyrix_GetEventLog(h, 4, events)),
        OP(31, Vyrix_RestoreFactorySettings(h)),
    };
    for (const auto& op : operations) {
        const size_t before = sim->ReceivedCount();
        EXPECT_EQ(op.call(connection), 0u) << op.name;
        ASSERT_EQ(sim->ReceivedCount(), before + 1) << op.name;
        EXPECT_EQ(sim->Received().back().payload[3], op.opcode) << op.name;
    }
    EXPECT_EQ(sim->BadPackets(), 0u);
}

TEST_P(Remote, FirmwareUpgradeArrivesByteExact) {
    Connect();
    constexpr uint32_t kChunk = 4000, kImage = 200000;
    Bytes image = RandomBytes(kImage, 24);
    std::fill(image.begin() + 1000, image.begin() + 9000, 0xFF);  // IAC runs, on chunk edges too
    for (uint32_t at = 0, n = 0; at < kImage; at += kChunk, ++n)
        ASSERT_EQ(Vyrix_UpgradeSoftware(connection, n, kChunk, kImage, image.data() + at), 0u) << "chunk " << n;
    EXPECT_TRUE(sim->Model().FirmwareState().complete);
    EXPECT_EQ(sim->Model().FirmwareImage(), image);
}

// Payloads of 0xFF both ways, the device's answer whole or cut into single
// bytes: what each side sent is what the other received.
TEST_P(Remote, PayloadsOfIacBytesWholeOrCutIntoSingleBytes) {
    ASSERT_EQ(KtOpenSerialPortByName(url.c_str(), 57600), 0u);
    sim->SetResponder([](const vyrix::sim::HostPacket& p) {
        return std::optional<vyrix::sim::Reply>(vyrix::sim::Reply{2, 0, 1, p.payload});
    });
    for (size_t split : {size_t{0}, size_t{1}}) {
        sim->SetFaults(vt::With(&vyrix::sim::Faults::splitBytes, split));
        for (const Bytes& payload : {Bytes(KT_XLNK_MAX_PAYLOAD, 0xFF), Bytes(300, 0xFF), RandomBytes(2000, 7)}) {
            const size_t before = sim->ReceivedCount();
            ASSERT_EQ(vt::Send(payload), 0u);
            Bytes got;
            ASSERT_EQ(vt::Take(got, 100), 0u) << "split " << split;
            ASSERT_EQ(sim->ReceivedCount(), before + 1);
            EXPECT_EQ(sim->Received().back().payload, payload) << "split " << split;
            EXPECT_EQ(got, payload) << "split " << split;
        }
    }
    EXPECT_EQ(sim->BadPackets(), 0u);
}

TEST_P(Remote, ServerKilledUnderACommandEndsItAsAHangUp) {
    Connect();
    sim->SetFaults(vt::Quiet());
    auto command = std::async(std::launch::async, [&] {
        uint8_t b = 0;
        return static_cast<uint32_t>(Vyrix_GetBrightness(connection, &b, eVYRIX_STORAGE_CURRENT));
    });
    ASSERT_TRUE(sim->WaitForPackets(1, std::chrono::seconds(5)));
    vt::Stopwatch sinceKill;
    server->Kill();
    ASSERT_EQ(command.wait_for(std::chrono::seconds(1)), std::future_status::ready)
        << "still waiting after the server died";
    EXPECT_EQ(command.get(), 0x16000000u);
    EXPECT_LE(sinceKill.Ms(), 1000);
    uint8_t b = 0;
    EXPECT_EQ(Vyrix_GetBrightness(connection, &b, eVYRIX_STORAGE_CURRENT), 0x16000000u);
    Vyrix_LinkStatisticsS stats{};
    ASSERT_EQ(Vyrix_GetLinkStatistics(connection, &stats), 0u);
    EXPECT_EQ(stats.linkDowns, 1u);
    EXPECT_EQ(Vyrix_CloseConnection(connection), 0u);
}

// The same server port twice in one process, however it is spelled, is one
// device open twice.
TEST_P(Remote, SecondConnectionToTheSameServerPortIsRefused) {
    Connect();
    const std::string port = url.substr(url.rfind(':'));
    void* second = nullptr;
    for (const std::string& again : {url, std::string("RFC2217://127.0.0.1") + port, "tcp://127.0.0.1" + port})
        EXPECT_EQ(Vyrix_OpenConnection(library, &second, vt::UartRecord(again.c_str())), 0x18000000u) << again;
    // Below the connection table, as a lock file would.
    KtHandlerRef link;
    EXPECT_EQ(LlcOpenLink(KtLinkRequestS{eTRANSPORT_SERIAL, url.c_str(), nullptr, 57600}, &link), 0x16000000u);
    uint8_t b = 0;
    EXPECT_EQ(Vyrix_GetBrightness(connection, &b, eVYRIX_STORAGE_CURRENT), 0u);
    ASSERT_EQ(Vyrix_CloseConnection(connection), 0u);
    EXPECT_EQ(Vyrix_OpenConnection(library, &connection, vt::UartRecord(url.c_str())), 0u) << "released at close";
}

TEST_P(Remote, TwoLinesThroughTwoServerPortsAtOnce) {
    auto other = vyrix::sim::DeviceSimulator::OverPty();
    vt::Ser2Net two({{sim->SlavePath(), Rfc2217()}, {other->SlavePath(), Rfc2217()}});
    ASSERT_TRUE(two.Ready()) << two.Output();
    void* handles[2] = {};
    const std::string urls[2] = {two.Url(0, GetParam()), two.Url(1, GetParam())};  // kept while open
    for (size_t i = 0; i < 2; ++i)
        ASSERT_EQ(Vyrix_OpenConnection(library, &handles[i], vt::UartRecord(urls[i].c_str())), 0u);
    std::vector<std::future<uint32_t>> runs;
    for (size_t i = 0; i < 2; ++i)
        runs.push_back(std::async(std::launch::async, [&, i]() -> uint32_t {
            for (uint8_t level = 0; level < 50; ++level) {
                uint8_t back = 0;
                const uint8_t value = static_cast<uint8_t>(level + 50 * i);
                uint32_t r = Vyrix_SetBrightness(handles[i], value, eVYRIX_STORAGE_CURRENT);
                if (r == 0) r = Vyrix_GetBrightness(handles[i], &back, eVYRIX_STORAGE_CURRENT);
                if (r == 0 && back != value) r = 0xBAD;
                if (r != 0) return r;
            }
            return 0;
        }));
    for (auto& run : runs) EXPECT_EQ(run.get(), 0u);
    EXPECT_EQ(sim->ReceivedCount(), 100u);
    EXPECT_EQ(other->ReceivedCount(), 100u);
}

INSTANTIATE_TEST_SUITE_P(Schemes, Remote, ::testing::Values("rfc2217", "tcp"));

// ---- servers that do not help, and addresses that lead nowhere -------------

class Unreachable : public vt::Logged {};

// A server that refuses serial-port control, or never answers it, is used
// as it is; what was sent arrives with IAC doubled.
TEST_F(Unreachable, ServerThatRefusesOrIgnoresLineControl) {
    struct Case {
        Bytes answer;
        const char* logged;
    };
    const Case cases[] = {{{IAC, DONT, kComPort}, "refuses serial-port control"},
                          {{}, "did not answer serial-port control within"}};
    for (const Case& c : cases) {
        vt::BoundSocket server(true);
        const std::string url = "rfc2217://127.0.0.1:" + std::to_string(server.Port());
        auto opened = std::async(std::launch::async, [&] { return KtOpenSerialPortByName(url.c_str(), 57600); });
        ASSERT_GE(server.Accept(), 0);
        // Our options, then 57600 baud, 8 data bits, no parity, 1 stop bit, no flow control.
        const Bytes opening = vt::Concat({{IAC, WILL, 0, IAC, DO, 0, IAC, WILL, 3, IAC, DO, 3, IAC, WILL, kComPort},
                                          {IAC, SB, kComPort, 1, 0x00, 0x00, 0xE1, 0x00, IAC, SE},
                                          {IAC, SB, kComPort, 2, 8, IAC, SE},
                                          {IAC, SB, kComPort, 3, 1, IAC, SE},
                                          {IAC, SB, kComPort, 4, 1, IAC, SE},
                                          {IAC, SB, kComPort, 5, 1, IAC, SE}});
        EXPECT_EQ(server.Receive(opening.size()), opening);
        if (!c.answer.empty()) {
            ASSERT_TRUE(server.Send(c.answer));
        }
        ASSERT_EQ(opened.get(), 0u) << c.logged;
        EXPECT_TRUE(vt::Contains(vt::Log(), std::string("<INFO> OpenPort ") + url + " " + c.logged));
        const Bytes payload = {0xFF, 0x2A, 0xFF};
        ASSERT_EQ(vt::Send(payload), 0u);
        const Bytes escaped = {0xFF, 0xFF, 0x2A, 0xFF, 0xFF};
        const Bytes packet = server.Receive(6 + escaped.size());
        EXPECT_NE(std::search(packet.begin(), packet.end(), escaped.begin(), escaped.end()), packet.end())
            << ::testing::PrintToString(packet);
        EXPECT_EQ(KtCloseSerialPort(), 0u);
    }
}

// Nothing is opened for a malformed address; a refused port or a name that
// does not resolve fails the open with the reason in the log.
TEST_F(Unreachable, AddressesThatLeadNowhere) {
    vt::BoundSocket closedPort(false);  // bound, never listening: connections are refused
    const std::string refused = "tcp://127.0.0.1:" + std::to_string(closedPort.Port());
    const struct {
        std::string url;
        uint32_t result;
        const char* reason;
    } cases[] = {
        {"rfc2217://engine:0", 0x05000000u, "Invalid argument"},
        {"tcp://[::1:4000", 0x05000000u, "Invalid argument"},
        {"telnet://engine:23", 0x05000000u, "Invalid argument"},
        {refused, 0x01000000u, "Connection refused"},
        {"rfc2217://" + refused.substr(6), 0x01000000u, "Connection refused"},
        {"rfc2217://no-such-host.invalid:4000", 0x01000000u, "no-such-host.invalid:4000: "},
    };
    void* library = nullptr;
    ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
    const int fds = vt::OpenFds();
    for (const auto& c : cases) {
        void* connection = nullptr;
        EXPECT_EQ(Vyrix_OpenConnection(library, &connection, vt::UartRecord(c.url.c_str())), c.result) << c.url;
        EXPECT_EQ(KtOpenSerialPortByName(c.url.c_str(), 57600), c.result) << c.url;
        EXPECT_TRUE(vt::Contains(vt::Log(), c.reason));
        EXPECT_EQ(vt::OpenFds(), fds) << c.url;
    }
    EXPECT_NE(KtCheckSerialPort(), 0u);
    EXPECT_EQ(Vyrix_CloseLibrary(library), 0u);
}

#ifdef VYRIXCTL
// vyrixctl takes the address where it takes a device path.
TEST(RemoteTool, VyrixctlTakesAnAddress) {
    auto sim = vyrix::sim::DeviceSimulator::OverPty();
    vt::Ser2Net server({{sim->SlavePath(), true}});
    ASSERT_TRUE(server.Ready());
    const std::string command = std::string(VYRIXCTL) + " --uart " + server.Url(0, "rfc2217") + " set brightness 42";
    EXPECT_EQ(std::system(command.c_str()), 0);
    ASSERT_EQ(sim->ReceivedCount(), 1u);
    EXPECT_EQ(sim->Received()[0].payload[3], 41);
    EXPECT_EQ(sim->Received()[0].payload[4], 42);
}
#endif

}  // namespace
