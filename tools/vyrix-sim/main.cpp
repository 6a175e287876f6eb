// SPDX-License-Identifier: MIT
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
#include "ExitStatus.h"
#include "Numbers.h"
#include "Suggest.h"
#include "vyrix_version.h"

using namespace vyrix::tools;

namespace {
std::atomic<bool> g_stop{false};

constexpr long long kMaxBaud = 4000000;
constexpr long long kMaxEvery = 1000000000;
constexpr long long kMaxGarbage = 4096;  // bytes of noise before a reply
constexpr long long kMaxSplit = 65536;
constexpr long long kMaxSplitPauseMs = 10000;
constexpr double kMaxNotifySeconds = 86400;

// Removes the link only while it is still the one this program made.
void RemoveOwnLink(const std::string& link, const std::string& target) {
    char points[4096];
    const ssize_t n = readlink(link.c_str(), points, sizeof points);
    if (n > 0 && std::string(points, static_cast<size_t>(n)) == target) unlink(link.c_str());
}

int Usage(const std::string& message) {
    fprintf(stderr, "vyrix-sim: %s (see vyrix-sim --help)\n", message.c_str());
    return kExitUsage;
}

// The options as typed, checked by one parser each.
struct Typed {
    std::string baud, notifyEvery, resendEvery, errorEvery, silentEvery, garbage, split, splitPause, hangUpAfter,
        damageEvery;
};

std::string Whole(const char* option, const std::string& text, long long min, long long max, int& out) {
    if (text.empty()) return "";
    long long v = 0;
    std::string why = ParseInteger(option, text, min, max, v);
    out = static_cast<int>(v);
    return why;
}

std::string Check(const Typed& t, unsigned& baud, double& notifyEvery, size_t& garbage, vyrix::sim::Faults& f) {
    int value = 0;
    if (std::string why = Whole("--baud", t.baud, 50, kMaxBaud, value); !why.empty()) return why;
    baud = static_cast<unsigned>(value);
    if (!t.notifyEvery.empty())
        if (std::string why = ParseReal("--notify-every", t.notifyEvery, 0.001, kMaxNotifySeconds, notifyEvery);
            !why.empty())
            return why;
    for (const std::string& why : {Whole("--resend-every", t.resendEvery, 1, kMaxEvery, f.resendEvery),
                                   Whole("--error-every", t.errorEvery, 1, kMaxEvery, f.errorEvery),
                                   Whole("--silent-every", t.silentEvery, 1, kMaxEvery, f.silentEvery),
                                   Whole("--split-pause", t.splitPause, 0, kMaxSplitPauseMs, f.splitPauseMs),
                                   Whole("--hangup-after", t.hangUpAfter, 1, kMaxEvery, f.hangUpAfter),
                                   Whole("--damage-every", t.damageEvery, 1, kMaxEvery, f.damageEvery)})
        if (!why.empty()) return why;
    value = 0;
    if (std::string why = Whole("--split", t.split, 1, kMaxSplit, value); !why.empty()) return why;
    f.splitBytes = static_cast<size_t>(value);
    value = 0;
    if (std::string why = Whole("--garbage", t.garbage, 0, kMaxGarbage, value); !why.empty()) return why;
    garbage = static_cast<size_t>(value);
    if (!t.splitPause.empty() && t.split.empty()) return "--split-pause goes with --split";
    return "";
}

// The first option that is not one of the program's, with the nearest one.
std::string Unknown(const CLI::App& app, int argc, char** argv) {
    std::vector<std::string> names = {"--help", "--version"};
    for (const CLI::Option* o : app.get_options())
        for (const std::string& n : o->get_lnames()) names.push_back("--" + n);
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const std::string name = arg.substr(0, arg.find('='));
        if (std::find(names.begin(), names.end(), name) != names.end()) continue;
        if (arg.rfind("-", 0) == 0) return "unknown option '" + Printable(name) + "'" + DidYouMean(name, names);
    }
    return "";
}
}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"vyrix-sim - a simulated Vyrix display engine on a pseudo-terminal"};
    app.set_version_flag("--version", "vyrix-sim " VYRIX_VERSION_STRING);
    app.footer(std::string("Numbers are decimal. The simulator runs until SIGINT or SIGTERM, or until it hangs "
                           "up (--hangup-after).\n\n") +
               kExitStatusHelp);
    std::string link;
    bool trace = false;
    Typed typed;
    app.add_option("--link", link, "Make a symbolic link to the terminal at this path (which must not exist)");
    app.add_option("--baud", typed.baud,
                   "Send and read at the wire rate of N baud (50..4000000), 8N1 (default: as fast as possible)");
    app.add_flag("--trace", trace, "Print every packet received and sent");
    app.add_option("--notify-every", typed.notifyEvery,
                   "Send an unprompted status message every SECONDS (0.001..86400)");
    app.add_option("--resend-every", typed.resendEvery,
                   "Answer every N-th command (1..1000000000) with a resend request");
    app.add_option("--error-every", typed.errorEvery, "Answer every N-th command (1..1000000000) with an error reply");
    app.add_option("--silent-every", typed.silentEvery, "Leave every N-th command (1..1000000000) unanswered");
    app.add_option("--garbage", typed.garbage, "Write N noise bytes (0..4096) before every reply");
    app.add_option("--split", typed.split, "Write replies in pieces of N bytes (1..65536)");
    app.add_option("--split-pause", typed.splitPause, "Pause between the pieces, in ms (0..10000)");
    app.add_option("--hangup-after", typed.hangUpAfter, "Hang up after N commands (1..1000000000)");
    app.add_option("--damage-every", typed.damageEvery,
                   "Send every N-th reply (1..1000000000) once with a wrong checksum, then intact");
    std::string capture;
    app.add_option("--capture", capture, "Record this side's traffic into a pcap file (see vyrix.lua)");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
        std::string message = Unknown(app, argc, argv);
        if (message.empty()) {
            message = e.what();
            for (char& c : message)
                if (c == '\n') c = ' ';
        }
        return Usage(message);
    }
    unsigned baud = 0;
    double notifyEvery = 0;
    size_t garbage = 0;
    vyrix::sim::Faults faults;
    if (std::string why = Check(typed, baud, notifyEvery, garbage, faults); !why.empty()) return Usage(why);
    faults.garbage.assign(garbage, 0x55);

    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // every thread from here on

    std::unique_ptr<vyrix::sim::DeviceSimulator> sim;
    try {
        sim = vyrix::sim::DeviceSimulator::OverPty();
    } catch (const std::exception& e) {
        fprintf(stderr, "vyrix-sim: cannot make a pseudo-terminal: %s (%s)\n", e.what(), strerror(errno));
        return kExitFailed;
    }
    sim->SetFaults(faults);
    sim->SetTrace(trace);
    sim->SetBaud(baud);
    if (!capture.empty()) {
        std::string why;
        auto file = vyrix::sim::SimCapture::Create(capture, &why);
        if (!file) {
            fprintf(stderr, "vyrix-sim: --capture %s: %s\n", capture.c_str(), why.c_str());
            return kExitFailed;
        }
        sim->SetCapture(std::move(file));
    }
    if (!link.empty() && symlink(sim->SlavePath().c_str(), link.c_str()) != 0) {
        // Never replaces what is there: it is not ours.
        if (errno == EEXIST)
            fprintf(stderr, "vyrix-sim: --link %s: the path exists; remove it or choose another\n",
                    Printable(link).c_str());
        else
            fprintf(stderr, "vyrix-sim: --link %s: %s\n", Printable(link).c_str(), strerror(errno));
        return kExitFailed;
    }
    printf("Vyrix device simulator on %s%s%s\n", sim->SlavePath().c_str(), link.empty() ? "" : " (link ",
           link.empty() ? "" : (link + ")").c_str());
    printf("Try: vyrixctl --uart %s info\n", link.empty() ? sim->SlavePath().c_str() : link.c_str());
    fflush(stdout);

    std::atomic<bool> hungUp{false};
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
                hungUp = true;
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
    return hungUp ? kExitSuccess : kExitSignalBase + signal;
}
