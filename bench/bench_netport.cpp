// SPDX-License-Identifier: MIT
// A line on another host, through a real ser2net in front of the device
// simulator: one packet's round trip through the library (raw TCP and
// RFC 2217) against the same bytes written and read back over a bare TCP
// socket through the same ser2net; and a 200 kB firmware upgrade over a
// line paced at 57600 baud against the time its bytes need on the wire.
// The ratios are printed at the end.
#include <benchmark/benchmark.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "DeviceSimulator.h"
#include "LLC_XlnkMsgHandler.h"
#include "NetServer.h"
#include "Vyrix_Api.h"
#include "Vyrix_LLC_Api_Ex.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

const Bytes kCommand = {0x2A, 0x2A, 0x41, 0x2A, 1, 2, 3, 4};

// Mean seconds per iteration of each benchmark, for the ratios.
std::map<std::string, double>& Means() {
    static std::map<std::string, double> means;
    return means;
}

// One simulator behind one ser2net that exports it twice: raw TCP on
// line 0, Telnet with RFC 2217 on line 1 (one at a time).
struct Exported {
    explicit Exported(unsigned baud = 0) : sim(vyrix::sim::DeviceSimulator::OverPty()) {
        sim->SetBaud(baud);
        sim->SetRecording(false);
        server = std::make_unique<vt::Ser2Net>(
            std::vector<vt::Ser2Net::Line>{{sim->SlavePath(), false}, {sim->SlavePath(), true}});
        ok = server->Ready();
    }
    std::string Url(bool rfc2217) const { return server->Url(rfc2217 ? 1 : 0, rfc2217 ? "rfc2217" : "tcp"); }
    std::unique_ptr<vyrix::sim::DeviceSimulator> sim;
    std::unique_ptr<vt::Ser2Net> server;
    bool ok = false;
};

void Echo(vyrix::sim::DeviceSimulator& sim) {
    sim.SetResponder([](const vyrix::sim::HostPacket& p) {
        return std::optional<vyrix::sim::Reply>(vyrix::sim::Reply{2, 0, 1, p.payload});
    });
}

// The value below which `fraction` of the samples lie.
double Quantile(std::vector<double> v, double fraction) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[static_cast<size_t>(fraction * static_cast<double>(v.size() - 1))];
}

// A plain TCP connection to a loopback port, without Nagle's delay as the
// library's; -1 when refused.
int ConnectBare(const std::string& url) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(std::stoi(url.substr(url.rfind(':') + 1))));
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return fd;
    close(fd);
    return -1;
}

bool BareRoundTrip(int fd, const Bytes& packet, Bytes& reply) {
    if (write(fd, packet.data(), packet.size()) != static_cast<ssize_t>(packet.size())) return false;
    for (size_t got = 0; got < reply.size();) {
        const ssize_t n = read(fd, reply.data() + got, reply.size() - got);
        if (n <= 0) return false;
        got += static_cast<size_t>(n);
    }
    return true;
}

// Two simulators behind one ser2net: the library's packet and the device's
// echo through the library on one line, and the same bytes over a bare
// socket on the other, taken in turns so both meet the same load.  Returns
// the median library round trip over the median bare one (0 on failure).
double RoundTripSetup(bool rfc2217, int roundTrips, double* libraryUs, double* bareUs) {
    auto bareSim = vyrix::sim::DeviceSimulator::OverPty();
    auto librarySim = vyrix::sim::DeviceSimulator::OverPty();
    Echo(*bareSim);
    Echo(*librarySim);
    vt::Ser2Net server({{bareSim->SlavePath(), false}, {librarySim->SlavePath(), rfc2217}});
    const int fd = server.Ready() ? ConnectBare(server.Url(0, "tcp")) : -1;
    if (fd < 0 || KtOpenSerialPortByName(server.Url(1, rfc2217 ? "rfc2217" : "tcp").c_str(), 57600) != 0) {
        if (fd >= 0) close(fd);
        return 0;
    }
    Bytes command = kCommand, reply(4096);
    Bytes packet(command.size() + 6);
    CXlnkMsgHandler codec;
    codec.EncodePacket(KtXlnkMsgS{2, 0, 0, 1, static_cast<WORD>(command.size()), command.data()}, packet.data());
    Bytes bareReply(packet.size());
    std::vector<double> bare, library;
    bool ok = true;
    for (int i = 0; i < roundTrips && ok; ++i) {
        auto t0 = Clock::now();
        ok = BareRoundTrip(fd, packet, bareReply);
        auto t1 = Clock::now();
        KtXlnkMsgS msg{2, 0, 0, 1, static_cast<WORD>(command.size()), command.data()};
        KtSendMsg(msg);
        KtXlnkMsgS in{};
        in.pPayload = reply.data();
        ok = ok && KtRemoveMsg(&in, 50) == 0;
        auto t2 = Clock::now();
        bare.push_back(std::chrono::duration<double>(t1 - t0).count());
        library.push_back(std::chrono::duration<double>(t2 - t1).count());
    }
    KtCloseSerialPort();
    close(fd);
    *libraryUs = Quantile(library, 0.5) * 1e6;
    *bareUs = Quantile(bare, 0.5) * 1e6;
    return ok ? *libraryUs / *bareUs : 0;
}

// Two lines of one ser2net are not alike on a loaded machine (which core
// their threads meet), so each setup is new, and the ratio is the median
// over the setups.
void RoundTrip(benchmark::State& state, bool rfc2217) {
    constexpr int kSetups = 7, kRoundTrips = 300;
    std::vector<double> ratios, libraryUs, bareUs;
    for (auto _ : state) {
        for (int i = 0; i < kSetups; ++i) {
            double lib = 0, bare = 0;
            const double ratio = RoundTripSetup(rfc2217, kRoundTrips, &lib, &bare);
            if (ratio == 0) return state.SkipWithError("round trip through ser2net failed");
            ratios.push_back(ratio);
            libraryUs.push_back(lib);
            bareUs.push_back(bare);
        }
    }
    const double ratio = Quantile(ratios, 0.5);
    state.counters["library_us"] = Quantile(libraryUs, 0.5);
    state.counters["bare_tcp_us"] = Quantile(bareUs, 0.5);
    state.counters["library_over_bare"] = ratio;
    state.counters["lowest"] = Quantile(ratios, 0);
    state.counters["highest"] = Quantile(ratios, 1);
    Means()[rfc2217 ? "round trip rfc2217:// / bare TCP" : "round trip tcp:// / bare TCP"] = ratio;
}
void BM_RoundTripTcpAgainstBare(benchmark::State& state) { RoundTrip(state, false); }
void BM_RoundTripRfc2217AgainstBare(benchmark::State& state) { RoundTrip(state, true); }
BENCHMARK(BM_RoundTripTcpAgainstBare)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RoundTripRfc2217AgainstBare)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// 200 kB in 4000-byte chunks over a line paced at 57600 baud 8N1: the wall
// time against the time the bytes of both directions need on the wire.
void Upgrade(benchmark::State& state, bool rfc2217) {
    constexpr unsigned kBaud = 57600;
    constexpr uint32_t kChunk = 4000, kImage = 200000;
    Exported line(kBaud);
    void* library = nullptr;
    void* connection = nullptr;
    Vyrix_OpenLibrary(&library);
    const std::string url = line.Url(rfc2217);
    Vyrix_ConnectionInfoS info{};
    info.connectionType = eVYRIX_CONNECTION_UART;
    info.uartInfo = Vyrix_UartInfoS{url.c_str(), kBaud, 0, 1};
    if (!line.ok || Vyrix_OpenConnection(library, &connection, info) != 0) {
        Vyrix_CloseLibrary(library);
        return state.SkipWithError("cannot connect through ser2net");
    }
    Bytes chunk(kChunk, 0x5A);
    double ratio = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        for (uint32_t sent = 0, n = 0; sent < kImage; sent += kChunk, ++n)
            if (Vyrix_UpgradeSoftware(connection, n, kChunk, kImage, chunk.data()) != 0)
                state.SkipWithError("upgrade failed");
        const double wall = std::chrono::duration<double>(Clock::now() - start).count();
        // Each chunk: a packet of 6 + 4 + 3 * 4 + 4000 bytes out, an
        // acknowledgement of 6 + 7 bytes back.
        const double bytes = (kImage / kChunk) * ((6.0 + 4 + 12 + kChunk) + 13.0);
        ratio = wall / (bytes * 10.0 / kBaud);
    }
    state.counters["wall_over_wire"] = ratio;
    Means()[rfc2217 ? "200 kB upgrade at 57600 baud, rfc2217:// wall / wire"
                    : "200 kB upgrade at 57600 baud, tcp:// wall / wire"] = ratio;
    Vyrix_CloseLibrary(library);
}
void BM_Upgrade200kAt57600BaudTcp(benchmark::State& state) { Upgrade(state, false); }
void BM_Upgrade200kAt57600BaudRfc2217(benchmark::State& state) { Upgrade(state, true); }
BENCHMARK(BM_Upgrade200kAt57600BaudTcp)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Upgrade200kAt57600BaudRfc2217)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void PrintRatios() {
    for (const auto& m : Means()) printf("%s = %.3f\n", m.first.c_str(), m.second);
    printf("goals: round trip <= 1.5, upgrade <= 1.05\n");
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    PrintRatios();
    return 0;
}
