// What capturing costs a command: Vyrix_GetBrightness round trips against
// the device simulator over a pseudo-terminal, with the connection's capture
// off and on, in alternating batches of the same run (so that a busy machine
// weighs on both alike).  Reports the median time per command of each and
// their ratio.
#include <benchmark/benchmark.h>
#include <ftw.h>
#include <unistd.h>

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

// Microseconds per command over one batch.
double Batch(void* connection) {
    uint8_t brightness = 0;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kCommandsPerBatch; ++i)
        if (Vyrix_GetBrightness(connection, &brightness, eVYRIX_STORAGE_CURRENT) != 0) return -1;
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count() /
           kCommandsPerBatch;
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
    std::vector<double> off, on;
    for (auto _ : state) {
        Batch(connection);  // warm up
        for (int round = 0; round < kRounds; ++round) {
            off.push_back(Batch(connection));
            Vyrix_StartCapture(connection, file.c_str());
            on.push_back(Batch(connection));
            Vyrix_StopCapture(connection);
        }
    }
    if (std::min(*std::min_element(off.begin(), off.end()), *std::min_element(on.begin(), on.end())) < 0)
        state.SkipWithError("a command failed");
    state.counters["us_off"] = Median(off);
    state.counters["us_on"] = Median(on);
    state.counters["ratio"] = Median(on) / Median(off);
    Vyrix_CloseLibrary(library);
    nftw(dir.c_str(), RemoveEntry, 8, FTW_DEPTH | FTW_PHYS);
}
BENCHMARK(BM_CommandRoundTripCaptureOffOn)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
