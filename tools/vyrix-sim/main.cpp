// vyrix-sim: a whole simulated display engine on a pseudo-terminal, for
// trying the library, vyrixctl or an application without hardware.
#include <signal.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "DeviceSimulator.h"
#include "vyrix_version.h"

namespace {
std::atomic<bool> g_stop{false};

// Removes the link only while it is still the one this program made.
void RemoveOwnLink(const std::string& link, const std::string& target) {
    char points[4096];
    const ssize_t n = readlink(link.c_str(), points, sizeof points);
    if (n > 0 && std::string(points, static_cast<size_t>(n)) == target) unlink(link.c_str());
}
}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"vyrix-sim - a simulated Vyrix display engine on a pseudo-terminal"};
    app.set_version_flag("--version", "vyrix-sim " VYRIX_VERSION_STRING);
    unsigned baud = 0;
    std::string link;
    bool trace = false;
    double notifyEvery = 0;
    vyrix::sim::Faults faults;
    size_t garbage = 0;
    app.add_option("--link", link, "Make a symbolic link to the terminal at this path (which must not exist)");
    app.add_option("--baud", baud, "Send and read at the wire rate of N baud, 8N1 (default: as fast as possible)");
    app.add_flag("--trace", trace, "Print every packet received and sent");
    app.add_option("--notify-every", notifyEvery, "Send an unprompted status message every SECONDS");
    app.add_option("--resend-every", faults.resendEvery, "Answer every N-th command with a resend request");
    app.add_option("--error-every", faults.errorEvery, "Answer every N-th command with an error reply");
    app.add_option("--silent-every", faults.silentEvery, "Leave every N-th command unanswered");
    app.add_option("--garbage", garbage, "Write N noise bytes before every reply");
    app.add_option("--split", faults.splitBytes, "Write replies in pieces of N bytes");
    app.add_option("--split-pause", faults.splitPauseMs, "Pause between the pieces, in ms");
    app.add_option("--hangup-after", faults.hangUpAfter, "Hang up after N commands");
    app.add_option("--damage-every", faults.damageEvery,
                   "Send every N-th reply once with a wrong checksum, then intact");
    std::string capture;
    app.add_option("--capture", capture, "Record this side's traffic into a pcap file (see vyrix.lua)");
    CLI11_PARSE(app, argc, argv);
    faults.garbage.assign(garbage, 0x55);

    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // every thread from here on

    auto sim = vyrix::sim::DeviceSimulator::OverPty();
    sim->SetFaults(faults);
    sim->SetTrace(trace);
    sim->SetBaud(baud);
    if (!capture.empty()) {
        std::string why;
        auto file = vyrix::sim::SimCapture::Create(capture, &why);
        if (!file) {
            fprintf(stderr, "vyrix-sim: --capture %s: %s\n", capture.c_str(), why.c_str());
            return 1;
        }
        sim->SetCapture(std::move(file));
    }
    if (!link.empty() && symlink(sim->SlavePath().c_str(), link.c_str()) != 0) {
        // Never replaces what is there: it is not ours.
        if (errno == EEXIST)
            fprintf(stderr, "vyrix-sim: --link %s: the path exists; remove it or choose another\n", link.c_str());
        else
            fprintf(stderr, "vyrix-sim: --link %s: %s\n", link.c_str(), strerror(errno));
        return 1;
    }
    printf("Vyrix device simulator on %s%s%s\n", sim->SlavePath().c_str(), link.empty() ? "" : " (link ",
           link.empty() ? "" : (link + ")").c_str());
    printf("Try: vyrixctl --uart %s info\n", link.empty() ? sim->SlavePath().c_str() : link.c_str());
    fflush(stdout);

    std::thread watcher([&] {
        uint32_t notice = 0;
        bool reported = false;
        auto nextNotice = std::chrono::steady_clock::now() + std::chrono::duration<double>(notifyEvery);
        while (!g_stop) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            if (notifyEvery > 0 && std::chrono::steady_clock::now() >= nextNotice) {
                sim->SendUnsolicited(sim->Model().Notification(vyrix::sim::kEventSettingChanged, ++notice));
                nextNotice += std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                    std::chrono::duration<double>(notifyEvery));
            }
            auto fw = sim->Model().FirmwareState();
            if (fw.complete && !reported) {
                printf("firmware image received: %u bytes in %u chunks, crc32 %08X\n", fw.receivedBytes, fw.chunks,
                       fw.crc32);
                fflush(stdout);
            }
            reported = fw.complete;
            if (sim->HungUp()) {
                printf("hung up\n");
                fflush(stdout);
                kill(getpid(), SIGTERM);
                return;
            }
        }
    });
    int signal = 0;
    sigwait(&signals, &signal);
    g_stop = true;
    watcher.join();
    if (!link.empty()) RemoveOwnLink(link, sim->SlavePath());
    return 0;
}
