// SPDX-License-Identifier: MIT
// What capturing costs a command: Vyrix_GetBrightness round trips against
// the device simulator over a pseudo-terminal, with the connection's capture
// off and on, in alternating batches of the same run (so that a busy machine
// weighs on both alike).  Reports the median time per command of each and
// their ratio, and the CPU time per command of each.
#include <benchmark/benchmark.h>
#include <ftw.h>
#include <unistd.h>

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "DeviceSimulator.h"
#include "Vyrix_Api.h"

namespace {

constexpr int kRounds = 15;
constexpr int kCommandsPerBatch = 200;

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double ProcessCpuMicroseconds() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e6 + static_cast<double>(ts.tv_nsec) / 1e3;
}

// Microseconds per command over one batch, of real time and of the
// process's CPU time (the simulator's included).
struct Cost {
    double real, cpu;
};
Cost Batch(void* connection) {
    uint8_t brightness = 0;
    const double cpu = ProcessCpuMicroseconds();
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kCommandsPerBatch; ++i)
        if (Vyrix_GetBrightness(connection, &brightness, eVYRIX_STORAGE_CURRENT) != 0) return {-1, -1};
    const double real = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
    return {real / kCommandsPerBatch, (ProcessCpuMicroseconds() - cpu) / kCommandsPerBatch};
}

void BM_CommandRoundTripCaptureOffOn(benchmark::State& state) {
    std::string dir = (getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp") + std::string("/vyrix-bench.XXXXXX");
    if (mkdtemp(&dir[0]) == nullptr) {
        state.SkipWithError("cannot make a directory for the capture");
        return;
    }
    setenv("VYRIX_RUNTIME_DIR", dir.c_str(), 1);
    auto sim = vyrix::sim::DeviceSimulator::OverPty();
    sim->SetRecording(false);
    void* library = nullptr;
    void* connection = nullptr;
    Vyrix_ConnectionInfoS info{};
    info.connectionType = eVYRIX_CONNECTION_UART;
    info.uartInfo = Vyrix_UartInfoS{sim->SlavePath().c_str(), 57600, 0, 1};
    if (Vyrix_OpenLibrary(&library) != 0 || Vyrix_OpenConnection(library, &connection, info) != 0) {
        state.SkipWithError("cannot open the simulator's terminal");
        return;
    }
    const std::string file = dir + "/bench.pcap";
    std::vector<double> off, on, cpuOff, cpuOn;
    bool failed = false;
    for (auto _ : state) {
        Batch(connection);  // warm up
        for (int round = 0; round < kRounds; ++round) {
            const Cost without = Batch(connection);
            Vyrix_StartCapture(connection, file.c_str());
            const Cost with = Batch(connection);
            Vyrix_StopCapture(connection);
            failed = failed || without.real < 0 || with.real < 0;
            off.push_back(without.real);
            on.push_back(with.real);
            cpuOff.push_back(without.cpu);
            cpuOn.push_back(with.cpu);
        }
    }
    if (failed) state.SkipWithError("a command failed");
    state.counters["us_off"] = Median(off);
    state.counters["us_on"] = Median(on);
    state.counters["ratio"] = Median(on) / Median(off);
    state.counters["cpu_us_off"] = Median(cpuOff);
    state.counters["cpu_us_on"] = Median(cpuOn);
    Vyrix_CloseLibrary(library);
    nftw(dir.c_str(), RemoveEntry, 8, FTW_DEPTH | FTW_PHYS);
}
BENCHMARK(BM_CommandRoundTripCaptureOffOn)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
