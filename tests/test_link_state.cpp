// SPDX-License-Identifier: MIT
// A connection's lifecycle over a serial line to the device simulator: the
// state callback, the event descriptor, and reconnection to a device that
// is started again behind the same path (a symbolic link, as vyrix-sim
// --link makes).
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "ApiLink.h"
#include "StateRecorder.h"

namespace {

using vt::Bytes;
using Sim = vyrix::sim::DeviceSimulator;
using vt::Event;
using vt::kDown;
using vt::kReconnecting;
using vt::kUp;
using vt::Recorder;
constexpr uint32_t kGone = 0x16000000u;

bool Readable(int fd, int timeoutMs) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, timeoutMs) == 1 && (p.revents & POLLIN);
}

// A connection through a symbolic link to the simulator's terminal; the
// device can be "restarted": a new simulator, the link pointed at it.
class LinkState : public ::testing::Test {
protected:
    void SetUp() override {
        link = vt::RuntimeDir() + "/vyrix-device";
        sim = Sim::OverPty();
        PointLinkAt(*sim);
        ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
        ASSERT_EQ(Vyrix_OpenConnection(library, &conn, vt::UartRecord(link.c_str())), 0u);
        ASSERT_EQ(Vyrix_SetReplyTimeout(conn, 5000), 0u);
        ASSERT_EQ(Vyrix_SetLinkStateCallback(conn, Recorder::Callback, &recorder), 0u);
    }
    void TearDown() override {
        if (g_pLibCtx != nullptr) Vyrix_CloseLibrary(library);
        sim.reset();
        unlink(link.c_str());
    }
    // Replaces the link in one step, as a device manager would.
    void PointLinkAt(Sim& device) {
        const std::string next = link + ".new";
        unlink(next.c_str());
        ASSERT_EQ(symlink(device.SlavePath().c_str(), next.c_str()), 0);
        ASSERT_EQ(rename(next.c_str(), link.c_str()), 0);
    }
    // The device goes away; a new one is started behind the same path.
    void Restart() {
        sim->HangUp();
        ASSERT_TRUE(recorder.WaitFor(1));
        sim = Sim::OverPty();
        PointLinkAt(*sim);
    }
    uint32_t Brightness(uint8_t* value) { return Vyrix_GetBrightness(conn, value, eVYRIX_STORAGE_CURRENT); }

    std::string link;
    std::unique_ptr<Sim> sim;
    void* library = nullptr;
    void* conn = nullptr;
    Recorder recorder;
};

TEST_F(LinkState, ReconnectsToTheDeviceBackAtTheSamePath) {
    ASSERT_EQ(Vyrix_SetReconnect(conn, 1, 200), 0u);
    sim->HangUp();
    ASSERT_TRUE(recorder.WaitFor(2));
    uint8_t value = 0;
    EXPECT_EQ(Brightness(&value), kGone);  // during the gap, at once
    sim = Sim::OverPty();
    PointLinkAt(*sim);
    ASSERT_TRUE(recorder.WaitFor(3));
    EXPECT_EQ(recorder.Events(), (std::vector<Event>{kDown, kReconnecting, kUp}));
    EXPECT_EQ(recorder.Handles(), std::vector<void*>(3, conn));
    EXPECT_EQ(recorder.Threads(), std::vector<std::string>(3, "vyrix-callback"));
    // The first command after "up" goes to the new device, through the same
    // handle.
    ASSERT_EQ(Brightness(&value), 0u);
    ASSERT_EQ(sim->ReceivedCount(), 1u);
    EXPECT_EQ(sim->Received()[0].payload[3], 42u);  // the brightness read
    Vyrix_LinkStateE state = eVYRIX_LINK_DOWN;
    EXPECT_EQ(Vyrix_GetLinkState(conn, &state), 0u);
    EXPECT_EQ(state, eVYRIX_LINK_UP);
    Vyrix_LinkStatisticsS stats{};
    ASSERT_EQ(Vyrix_GetLinkStatistics(conn, &stats), 0u);
    EXPECT_EQ(stats.linkDowns, 1u);
}

TEST_F(LinkState, WithoutReconnectionTheLinkStaysDownUntilItIsSwitchedOn) {
    Restart();
    Vyrix_LinkStateE state = eVYRIX_LINK_UP;
    EXPECT_EQ(Vyrix_GetLinkState(conn, &state), 0u);
    EXPECT_EQ(state, eVYRIX_LINK_DOWN);
    uint8_t value = 0;
    EXPECT_EQ(Brightness(&value), kGone);
    EXPECT_EQ(sim->ReceivedCount(), 0u);
    // Switched on later, it looks for the device at once.
    ASSERT_EQ(Vyrix_SetReconnect(conn, 1, 100), 0u);
    ASSERT_TRUE(recorder.WaitFor(3));
    EXPECT_EQ(recorder.Events(), (std::vector<Event>{kDown, kReconnecting, kUp}));
    EXPECT_EQ(Brightness(&value), 0u);
}

TEST_F(LinkState, SwitchedOffWhileReconnectingGoesBackToDown) {
    ASSERT_EQ(Vyrix_SetReconnect(conn, 1, 100), 0u);
    sim->HangUp();
    ASSERT_TRUE(recorder.WaitFor(2));
    ASSERT_EQ(Vyrix_SetReconnect(conn, 0, 0), 0u);
    ASSERT_TRUE(recorder.WaitFor(3));
    EXPECT_EQ(recorder.Events(), (std::vector<Event>{kDown, kReconnecting, kDown}));
}

TEST_F(LinkState, CloseEndsTheAttemptsAtOnce) {
    ASSERT_EQ(Vyrix_SetReconnect(conn, 1, 600000), 0u);
    sim->HangUp();
    ASSERT_TRUE(recorder.WaitFor(2));
    EXPECT_EQ(Vyrix_CloseConnection(conn), 0u);
    EXPECT_EQ(vt::ContextSwitches("vyrix-receive"), -1);  // joined
    std::string lock = "vyrix_llc_com_" + link + ".lock";
    std::replace(lock.begin(), lock.end(), '/', '_');
    EXPECT_FALSE(vt::FileExists(vt::RuntimeDir() + "/" + lock));
    // Nothing is reported for a closed connection, not even when the device
    // comes back.
    sim = Sim::OverPty();
    PointLinkAt(*sim);
    EXPECT_EQ(recorder.Events().size(), 2u);
    Vyrix_LinkStateE state;
    EXPECT_EQ(Vyrix_GetLinkState(conn, &state), 0x05000000u);
}

// What a callback that closes its own connection reports.  It outlives the
// test: nothing waits for a callback that closed its own connection to
// return, so it may still be unwinding when the test ends.
struct SelfClose {
    std::mutex mutex;
    std::condition_variable done;
    bool closed = false;
    uint32_t result = 0;

    static void Callback(void* handle, Vyrix_LinkStateE state, uint32_t, void* user) {
        if (state != eVYRIX_LINK_DOWN) return;
        const uint32_t result = Vyrix_CloseConnection(handle);
        auto* self = static_cast<SelfClose*>(user);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->result = result;
        self->closed = true;
        self->done.notify_all();
    }
};

TEST_F(LinkState, TheCallbackMayCloseItsConnection) {
    static SelfClose* const report = new SelfClose();
    ASSERT_EQ(Vyrix_SetLinkStateCallback(conn, SelfClose::Callback, report), 0u);
    sim->HangUp();
    std::unique_lock<std::mutex> lock(report->mutex);
    ASSERT_TRUE(report->done.wait_for(lock, std::chrono::seconds(10), [] { return report->closed; }));
    EXPECT_EQ(report->result, 0u);
    EXPECT_EQ(Vyrix_SetReconnect(conn, 1, 0), 0x05000000u);
}

TEST_F(LinkState, EventDescriptorIsReadableExactlyWhileSomethingWaits) {
    int fd = -1;
    ASSERT_EQ(Vyrix_GetEventFd(conn, &fd), 0u);
    int again = -1;
    ASSERT_EQ(Vyrix_GetEventFd(conn, &again), 0u);
    EXPECT_EQ(again, fd);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_FALSE(Readable(fd, 0));

    // A command and its reply are not an event.
    uint8_t value = 0;
    ASSERT_EQ(Brightness(&value), 0u);
    EXPECT_FALSE(Readable(fd, 0));

    // Unprompted messages (no connectionless callback registered): readable
    // until the last is taken.
    const Bytes first = {0x2A, 0x2A, 0x01}, second = {0x2A, 0x2A, 0x02, 0x07};
    sim->SendUnsolicited(first);
    sim->SendUnsolicited(second);
    Bytes got(4095);
    uint16_t length = 0;
    for (const Bytes& sent : {first, second}) {
        ASSERT_TRUE(Readable(fd, 10000));
        ASSERT_EQ(Vyrix_TakeUnpromptedMessage(conn, got.data(), 0, &length, nullptr), 0u);
        EXPECT_EQ(Bytes(got.begin(), got.begin() + length), sent);
    }
    EXPECT_FALSE(Readable(fd, 0));
    EXPECT_EQ(Vyrix_TakeUnpromptedMessage(conn, got.data(), 0, &length, nullptr), 0x07000000u);

    // A state change: readable until the state is read.
    sim->HangUp();
    ASSERT_TRUE(Readable(fd, 10000));
    EXPECT_TRUE(Readable(fd, 0));
    Vyrix_LinkStateE state = eVYRIX_LINK_UP;
    ASSERT_EQ(Vyrix_GetLinkState(conn, &state), 0u);
    EXPECT_EQ(state, eVYRIX_LINK_DOWN);
    EXPECT_FALSE(Readable(fd, 0));

    // Closed with the connection.
    ASSERT_EQ(Vyrix_CloseConnection(conn), 0u);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(LinkState, ArgumentsAndHandles) {
    Vyrix_LinkStateE state;
    int fd;
    const std::vector<std::tuple<const char*, uint32_t, uint32_t>> cases = {
        {"state, null pointer", Vyrix_GetLinkState(conn, nullptr), 0x05000000u},
        {"state, foreign handle", Vyrix_GetLinkState(library, &state), 0x05000000u},
        {"fd, null pointer", Vyrix_GetEventFd(conn, nullptr), 0x05000000u},
        {"fd, null handle", Vyrix_GetEventFd(nullptr, &fd), 0x05000000u},
        {"callback removed", Vyrix_SetLinkStateCallback(conn, nullptr, nullptr), 0u},
        {"reconnect, null handle", Vyrix_SetReconnect(nullptr, 1, 0), 0x05000000u},
    };
    for (const auto& [what, got, want] : cases) EXPECT_EQ(got, want) << what;
    ASSERT_EQ(Vyrix_CloseLibrary(library), 0u);
    EXPECT_EQ(Vyrix_GetLinkState(conn, &state), 0x04000000u);
    EXPECT_EQ(Vyrix_SetReconnect(conn, 1, 0), 0x04000000u);
}

}  // namespace
