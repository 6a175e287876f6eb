// One packet's round trip through KtSendMsg and KtRemoveMsg against the
// device simulator over a pseudo-terminal, beside the same bytes written and
// read back through two bare descriptors of a pseudo-terminal pair; and the
// CPU time a process spends holding an open serial port idle for 5 s.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "DeviceSimulator.h"
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

}  // namespace

BENCHMARK_MAIN();
