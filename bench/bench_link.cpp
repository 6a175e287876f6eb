// SPDX-License-Identifier: MIT
// The link over a pseudo-terminal against the device simulator: one
// packet's round trip through KtSendMsg and KtRemoveMsg, and one command
// through Vyrix_GetBrightness, beside the same bytes written and read back
// through two bare descriptors of a pseudo-terminal pair; the time one
// resend adds; the time a close takes; a 200 kB firmware upgrade over a line
// paced at 57600 baud against the time its bytes need on the wire; and what
// an idle open port costs (CPU, wake-ups of its receive thread).
#include <benchmark/benchmark.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <dirent.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "DeviceSimulator.h"
#include "Vyrix_Api.h"
#include "Vyrix_LLC_Api_Ex.h"

namespace {

using Bytes = std::vector<uint8_t>;

double ProcessCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

void ReadExactly(int fd, uint8_t* out, size_t n) {
    size_t got = 0;
    while (got < n) {
        struct pollfd p = {fd, POLLIN, 0};
        poll(&p, 1, 1000);
        ssize_t r = read(fd, out + got, n - got);
        if (r > 0) got += static_cast<size_t>(r);
    }
}

void BM_LibraryRoundTrip(benchmark::State& state) {
    auto sim = vyrix::sim::DeviceSimulator::OverPty();
    sim->SetResponder([](const vyrix::sim::HostPacket& p) {
        return vyrix::sim::Reply{2, 0, 1, p.payload};  // echo
    });
    if (KtOpenSerialPortByName(sim->SlavePath().c_str(), 57600) != 0) {
        state.SkipWithError("cannot open the simulator's terminal");
        return;
    }
    Bytes command = {0x2A, 0x2A, 0x41, 0x2A, 1, 2, 3, 4};
    Bytes reply(4096);
    for (auto _ : state) {
        KtXlnkMsgS msg{2, 0, 0, 1, static_cast<WORD>(command.size()), command.data()};
        KtSendMsg(msg);
        KtXlnkMsgS in{};
        in.pPayload = reply.data();
        if (KtRemoveMsg(&in, 50) != 0) state.SkipWithError("no reply");
    }
    KtCloseSerialPort();
}
BENCHMARK(BM_LibraryRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_BarePtyRoundTrip(benchmark::State& state) {
    int master = -1, slave = -1;
    openpty(&master, &slave, nullptr, nullptr, nullptr);
    termios tio{};
    tcgetattr(slave, &tio);
    cfmakeraw(&tio);
    tcsetattr(slave, TCSANOW, &tio);
    // The same bytes as the library's packet and the device's answer.
    Bytes packet = {0xC0, 0x00, 0x02, 0x10, 0x08, 0x2A, 0x2A, 0x41, 0x2A, 1, 2, 3, 4, 0};
    Bytes buf(packet.size());
    for (auto _ : state) {
        if (write(slave, packet.data(), packet.size()) < 0) break;
        ReadExactly(master, buf.data(), buf.size());
        if (write(master, buf.data(), buf.size()) < 0) break;
        ReadExactly(slave, buf.data(), buf.size());
    }
    close(master);
    close(slave);
}
BENCHMARK(BM_BarePtyRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_IdleOpenPortCpu(benchmark::State& state) {
    auto sim = vyrix::sim::DeviceSimulator::OverPty();
    KtOpenSerialPortByName(sim->SlavePath().c_str(), 57600);
    double cpu = 0;
    for (auto _ : state) {
        const double before = ProcessCpuSeconds();
        std::this_thread::sleep_for(std::chrono::seconds(5));
        cpu = ProcessCpuSeconds() - before;
    }
    state.counters["cpu_ms_per_5s"] = cpu * 1000.0;
    KtCloseSerialPort();
}
BENCHMARK(BM_IdleOpenPortCpu)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// Voluntary context switches so far (each a wait the thread went into) of
// the threads named `name`.
long ContextSwitches(const std::string& name) {
    long total = 0;
    if (DIR* d = opendir("/proc/self/task")) {
        while (dirent* e = readdir(d)) {
            const std::string task = std::string("/proc/self/task/") + e->d_name;
            std::ifstream comm(task + "/comm");
            std::string line;
            if (!std::getline(comm, line) || line != name) continue;
            std::ifstream status(task + "/status");
            while (std::getline(status, line))
                if (line.rfind("voluntary_ctxt_switches:", 0) == 0) total += std::stol(line.substr(line.find(':') + 1));
        }
        closedir(d);
    }
    return total;
}

// The library opened with one serial connection to a simulator.
struct Connected {
    explicit Connected(unsigned baud = 0) : sim(vyrix::sim::DeviceSimulator::OverPty()) {
        sim->SetBaud(baud);
        sim->SetRecording(false);
        Vyrix_OpenLibrary(&library);
        Vyrix_ConnectionInfoS info{};
        info.connectionType = eVYRIX_CONNECTION_UART;
        info.uartInfo = Vyrix_UartInfoS{sim->SlavePath().c_str(), 57600, 0, 1};
        ok = Vyrix_OpenConnection(library, &connection, info) == 0;
    }
    ~Connected() { Vyrix_CloseLibrary(library); }
    std::unique_ptr<vyrix::sim::DeviceSimulator> sim;
    void* library = nullptr;
    void* connection = nullptr;
    bool ok = false;
};

void BM_GetBrightness(benchmark::State& state) {
    Connected link;
    if (!link.ok) return state.SkipWithError("cannot connect to the simulator");
    uint8_t brightness = 0;
    for (auto _ : state)
        if (Vyrix_GetBrightness(link.connection, &brightness, eVYRIX_STORAGE_CURRENT) != 0)
            state.SkipWithError("command failed");
}
BENCHMARK(BM_GetBrightness)->Unit(benchmark::kMicrosecond)->UseRealTime();

// Every command is first answered with a resend request: the difference to
// BM_GetBrightness is what one resend costs.
void BM_GetBrightnessWithOneResend(benchmark::State& state) {
    Connected link;
    if (!link.ok) return state.SkipWithError("cannot connect to the simulator");
    vyrix::sim::Faults faults;
    faults.resendRequests = 1;
    uint8_t brightness = 0;
    for (auto _ : state) {
        link.sim->SetFaults(faults);
        if (Vyrix_GetBrightness(link.connection, &brightness, eVYRIX_STORAGE_CURRENT) != 0)
            state.SkipWithError("command failed");
    }
}
BENCHMARK(BM_GetBrightnessWithOneResend)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_CloseIdlePort(benchmark::State& state) {
    auto sim = vyrix::sim::DeviceSimulator::OverPty();
    for (auto _ : state) {
        state.PauseTiming();
        if (KtOpenSerialPortByName(sim->SlavePath().c_str(), 57600) != 0) state.SkipWithError("open failed");
        state.ResumeTiming();
        KtCloseSerialPort();
    }
}
BENCHMARK(BM_CloseIdlePort)->Unit(benchmark::kMicrosecond)->UseRealTime();

// 200 kB in 4000-byte chunks over a line paced at 57600 baud 8N1: the wall
// time against the time the bytes of both directions need on the wire.
void BM_Upgrade200kAt57600Baud(benchmark::State& state) {
    constexpr unsigned kBaud = 57600;
    constexpr uint32_t kChunk = 4000, kImage = 200000;
    Connected link(kBaud);
    if (!link.ok) return state.SkipWithError("cannot connect to the simulator");
    std::vector<uint8_t> chunk(kChunk, 0x5A);
    double ratio = 0;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        for (uint32_t sent = 0, n = 0; sent < kImage; sent += kChunk, ++n)
            if (Vyrix_UpgradeSoftware(link.connection, n, kChunk, kImage, chunk.data()) != 0)
                state.SkipWithError("upgrade failed");
        const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        // Each chunk: a packet of 6 + 4 + 3 * 4 + 4000 bytes out, an
        // acknowledgement of 6 + 7 bytes back.
        const double bytes = (kImage / kChunk) * ((6.0 + 4 + 12 + kChunk) + 13.0);
        ratio = wall / (bytes * 10.0 / kBaud);
    }
    state.counters["wall_over_wire"] = ratio;
}
BENCHMARK(BM_Upgrade200kAt57600Baud)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_IdleWakeups(benchmark::State& state) {
    auto sim = vyrix::sim::DeviceSimulator::OverPty();
    KtOpenSerialPortByName(sim->SlavePath().c_str(), 57600);
    double perSecond = 0;
    for (auto _ : state) {
        const long before = ContextSwitches("vyrix-receive") + ContextSwitches("vyrix-callback");
        std::this_thread::sleep_for(std::chrono::seconds(5));
        perSecond = (ContextSwitches("vyrix-receive") + ContextSwitches("vyrix-callback") - before) / 5.0;
    }
    state.counters["wakeups_per_s"] = perSecond;
    KtCloseSerialPort();
}
BENCHMARK(BM_IdleWakeups)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
