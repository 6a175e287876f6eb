// SPDX-License-Identifier: MIT
// How long a connection with reconnection switched on takes to be "up"
// again once its device is back, median of 20 returns, for a serial device
// (the simulator started again behind the same symbolic link) and a USB
// device (unplugged and plugged in again under umockdev, with the same
// serial number at a new address).  Each device stays away for
// kAwayMs first, so the back-off has grown as it would in use; the time
// runs from the moment the device is back (the link renamed into place,
// the udev "add" event sent) to the state callback reporting "up".
//
//   bench_reconnect           both
//   bench_reconnect serial    or one of them
//
// It runs under libumockdev-preload (it restarts itself under it) and keeps
// the library's files in a directory of its own.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "DeviceSimulator.h"
#include "Vyrix_Api.h"
#include "usb/UsbEmulator.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRounds = 20;
constexpr auto kAwayMs = std::chrono::milliseconds(300);
constexpr uint32_t kMaxIntervalMs = 5000;  // the library's default

class States {
public:
    static void Callback(void*, Vyrix_LinkStateE state, uint32_t, void* self) {
        auto* s = static_cast<States*>(self);
        std::lock_guard<std::mutex> lock(s->mutex_);
        s->last_ = state;
        s->at_ = Clock::now();
        s->changed_.notify_all();
    }
    // The time the link reached `state`; false after 30 s without it.
    bool WaitFor(Vyrix_LinkStateE state, Clock::time_point* at) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!changed_.wait_for(lock, std::chrono::seconds(30), [&] { return last_ == state; })) return false;
        *at = at_;
        return true;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    Vyrix_LinkStateE last_ = eVYRIX_LINK_UP;
    Clock::time_point at_;
};

// One device away and back per round: `away` takes it, `back` returns it
// (and gives the moment it was back).
bool Measure(const char* name, void* library, Vyrix_ConnectionInfoS info, const std::function<void()>& away,
             const std::function<Clock::time_point()>& back) {
    void* conn = nullptr;
    States states;
    if (Vyrix_OpenConnection(library, &conn, info) != 0) {
        fprintf(stderr, "%s: cannot open\n", name);
        return false;
    }
    Vyrix_SetLinkStateCallback(conn, States::Callback, &states);
    Vyrix_SetReconnect(conn, 1, kMaxIntervalMs);
    std::vector<double> ms;
    for (int round = 0; round < kRounds; ++round) {
        Clock::time_point at;
        away();
        if (!states.WaitFor(eVYRIX_LINK_RECONNECTING, &at)) break;
        std::this_thread::sleep_for(kAwayMs);
        const Clock::time_point returned = back();
        if (!states.WaitFor(eVYRIX_LINK_UP, &at)) break;
        ms.push_back(std::chrono::duration<double, std::milli>(at - returned).count());
    }
    Vyrix_CloseConnection(conn);
    if (ms.size() != kRounds) {
        fprintf(stderr, "%s: the link did not come back\n", name);
        return false;
    }
    std::sort(ms.begin(), ms.end());
    printf("%-7s back -> up, %d returns: median %.1f ms, min %.1f ms, max %.1f ms\n", name, kRounds,
           (ms[kRounds / 2 - 1] + ms[kRounds / 2]) / 2, ms.front(), ms.back());
    return true;
}

bool Serial(void* library, const std::string& dir) {
    const std::string link = dir + "/device";
    std::unique_ptr<vyrix::sim::DeviceSimulator> sim = vyrix::sim::DeviceSimulator::OverPty();
    auto point = [&] {
        const std::string next = link + ".new";
        if (symlink(sim->SlavePath().c_str(), next.c_str()) != 0 || rename(next.c_str(), link.c_str()) != 0)
            perror("link");
    };
    point();
    Vyrix_ConnectionInfoS info{};
    info.connectionType = eVYRIX_CONNECTION_UART;
    info.uartInfo = Vyrix_UartInfoS{link.c_str(), 57600, 0, 1};
    return Measure(
        "serial", library, info, [&] { sim->HangUp(); },
        [&] {
            sim = vyrix::sim::DeviceSimulator::OverPty();
            const Clock::time_point now = Clock::now();
            point();
            return now;
        });
}

bool Usb(void* library, vt::UsbEmulator& usb) {
    int address = 2;
    vt::UsbEmulator::Device* device = &usb.Add(vt::UsbDeviceSpec(address, "BENCH1"));
    Vyrix_ConnectionInfoS info{};
    info.connectionType = eVYRIX_CONNECTION_USB;
    info.usbInfo = Vyrix_USBInfoS{4, "BENCH1"};
    return Measure(
        "usb", library, info, [&] { device->Unplug(); },
        [&] {
            const Clock::time_point now = Clock::now();
            device = &usb.Plug(vt::UsbDeviceSpec(++address, "BENCH1"));
            return now;
        });
}

}  // namespace

int main(int argc, char** argv) {
    vt::UsbEmulator::EnsurePreload(argv);
    vt::UsbEmulator usb;  // before any thread starts
    char dir[] = "/tmp/vyrix-bench.XXXXXX";
    if (mkdtemp(dir) == nullptr) return 1;
    setenv("VYRIX_RUNTIME_DIR", dir, 1);
    setenv("VYRIX_LOG", "off", 1);
    const std::string only = argc > 1 ? argv[1] : "";
    void* library = nullptr;
    Vyrix_OpenLibrary(&library);
    bool ok = true;
    if (only.empty() || only == "serial") ok = Serial(library, dir) && ok;
    if (only.empty() || only == "usb") ok = Usb(library, usb) && ok;
    Vyrix_CloseLibrary(library);
    if (system((std::string("rm -rf ") + dir).c_str()) != 0) ok = false;
    return ok ? 0 : 1;
}
