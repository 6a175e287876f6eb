// SPDX-License-Identifier: MIT
// Several devices driven at once: N = 1, 2, 4, 8 simulated devices paced at
// 57600 baud, each with a connection of its own and one thread issuing
// Vyrix_GetBrightness on it through the public interface.  Reported per N:
//   commands_per_s      every device's commands together, per second of wall
//                       time (a round ends when the last thread is done);
//   vs_n_times_one      commands_per_s / (N x the one-device rate measured in
//                       the same run): 1.0 when the devices never wait for
//                       each other;
//   cpu_us_per_command  CPU time of this process per command;
//   line_busy           the bytes the links counted, at 10 bits a byte, over
//                       N x the wall time: 1.0 when every line carries bytes
//                       all the time, so the wire alone sets the pace.
//
// The simulators run in a child process, so this process's CPU time holds
// the library (the calling threads inside it, its receive and callback
// threads) and the calling loops, which do nothing but call; the devices'
// pacing, parsing and answering are not in it.  It also holds starting N
// threads a round (tens of microseconds against about half a second).  Each
// command puts a caller and a receive thread to sleep and wakes them, so on
// a virtual machine the kernel's wake-ups weigh more than the library's own
// code: profile before reading the number as the library's work alone.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "DeviceSimulator.h"
#include "Vyrix_Api.h"

namespace {

constexpr unsigned kBaud = 57600;
// About 4.3 ms of wire time a command (its packet and the reply): a round
// takes about 0.4 s whatever N is.
constexpr int kCommandsPerRound = 100;
constexpr int kWarmUpCommands = 5;

double ProcessCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// N paced simulators in a child process.  The child sends its terminals'
// paths through one pipe and lives until the other reads end of file,
// which it does when this object closes its end (or this process dies).
class SimulatorProcess {
public:
    explicit SimulatorProcess(int n) {
        int paths[2], control[2];
        if (pipe(paths) != 0) return;
        if (pipe(control) != 0) {
            close(paths[0]);
            close(paths[1]);
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            close(paths[0]);
            close(control[1]);
            Serve(n, paths[1], control[0]);
        }
        close(paths[1]);
        close(control[0]);
        control_ = control[1];
        std::string text;
        char buf[512];
        for (ssize_t r; (r = read(paths[0], buf, sizeof buf)) != 0;)
            if (r > 0)
                text.append(buf, static_cast<size_t>(r));
            else if (errno != EINTR)
                break;
        close(paths[0]);
        std::istringstream lines(text);
        for (std::string path; std::getline(lines, path);) paths_.push_back(path);
    }
    ~SimulatorProcess() {
        if (control_ >= 0) close(control_);
        if (pid_ > 0) waitpid(pid_, nullptr, 0);
    }
    SimulatorProcess(const SimulatorProcess&) = delete;
    SimulatorProcess& operator=(const SimulatorProcess&) = delete;

    const std::vector<std::string>& Paths() const { return paths_; }

private:
    [[noreturn]] static void Serve(int n, int pathsFd, int controlFd) {
        std::vector<std::unique_ptr<vyrix::sim::DeviceSimulator>> sims;
        std::string text;
        for (int i = 0; i < n; ++i) {
            sims.push_back(vyrix::sim::DeviceSimulator::OverPty());
            sims.back()->SetBaud(kBaud);
            sims.back()->SetRecording(false);
            text += sims.back()->SlavePath() + "\n";
        }
        for (size_t done = 0; done < text.size();) {
            const ssize_t w = write(pathsFd, text.data() + done, text.size() - done);
            if (w > 0) done += static_cast<size_t>(w);
            if (w < 0 && errno != EINTR) _exit(1);
        }
        close(pathsFd);
        char c;
        while (read(controlFd, &c, 1) != 0 && errno == EINTR) {
        }
        _exit(0);  // the simulators' threads end with the process
    }

    pid_t pid_ = -1;
    int control_ = -1;
    std::vector<std::string> paths_;
};

// The library opened with one serial connection to each of N simulators.
struct Fleet {
    explicit Fleet(int n) : sims(n) {
        if (static_cast<int>(sims.Paths().size()) != n || Vyrix_OpenLibrary(&library) != 0) return;
        for (const std::string& path : sims.Paths()) {
            Vyrix_ConnectionInfoS info{};
            info.connectionType = eVYRIX_CONNECTION_UART;
            info.uartInfo = Vyrix_UartInfoS{path.c_str(), kBaud, 0, 1};
            void* connection = nullptr;
            if (Vyrix_OpenConnection(library, &connection, info) != 0) return;
            connections.push_back(connection);
        }
        ok = true;
    }
    // Closes the connections before the simulators go.
    ~Fleet() {
        if (library != nullptr) Vyrix_CloseLibrary(library);
    }
    SimulatorProcess sims;
    void* library = nullptr;
    std::vector<void*> connections;
    bool ok = false;
};

// Every connection runs `commands` commands in a thread of its own.  The
// wall time until the last is done, or a negative time if any failed.
double Round(const Fleet& fleet, int commands) {
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    const auto start = std::chrono::steady_clock::now();
    for (void* connection : fleet.connections)
        threads.emplace_back([connection, commands, &failed] {
            uint8_t brightness = 0;
            for (int i = 0; i < commands; ++i)
                if (Vyrix_GetBrightness(connection, &brightness, eVYRIX_STORAGE_CURRENT) != 0) ++failed;
        });
    for (std::thread& t : threads) t.join();
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return failed == 0 ? wall : -1;
}

// The bytes every link of the fleet has sent and received so far.
double LinkBytes(const Fleet& fleet) {
    double bytes = 0;
    for (void* connection : fleet.connections) {
        Vyrix_LinkStatisticsS s{};
        if (Vyrix_GetLinkStatistics(connection, &s) == 0) bytes += static_cast<double>(s.bytesSent + s.bytesReceived);
    }
    return bytes;
}

double g_oneDevicePerSecond = 0;  // measured by the N = 1 case of this run

void BM_ParallelDevices(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    if (n > 1 && g_oneDevicePerSecond == 0) {  // N = 1 was filtered out: measure it now
        Fleet one(1);
        const double wall = one.ok ? Round(one, kCommandsPerRound) : -1;
        if (wall <= 0) return state.SkipWithError("one device alone failed");
        g_oneDevicePerSecond = kCommandsPerRound / wall;
    }
    Fleet fleet(n);
    if (!fleet.ok) return state.SkipWithError("cannot start or connect to the simulators");
    if (Round(fleet, kWarmUpCommands) < 0) return state.SkipWithError("a command failed");
    double wall = 0, cpu = 0;
    long commands = 0;
    const double bytesBefore = LinkBytes(fleet);
    for (auto _ : state) {
        const double cpuBefore = ProcessCpuSeconds();
        const double round = Round(fleet, kCommandsPerRound);
        cpu += ProcessCpuSeconds() - cpuBefore;
        if (round < 0) return state.SkipWithError("a command failed");
        state.SetIterationTime(round);
        wall += round;
        commands += static_cast<long>(n) * kCommandsPerRound;
    }
    const double perSecond = static_cast<double>(commands) / wall;
    if (n == 1) g_oneDevicePerSecond = perSecond;
    state.counters["commands_per_s"] = perSecond;
    state.counters["vs_n_times_one"] = perSecond / (n * g_oneDevicePerSecond);
    state.counters["cpu_us_per_command"] = cpu / static_cast<double>(commands) * 1e6;
    state.counters["line_busy"] = (LinkBytes(fleet) - bytesBefore) * 10.0 / kBaud / (n * wall);
}
BENCHMARK(BM_ParallelDevices)
    ->Arg(1)
    ->Arg(2)
    ->Arg(4)
    ->Arg(8)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
