// SPDX-License-Identifier: MIT
// Faults, bad input and resources over the serial line: for each fault the
// promised result, no hang past the defined time-outs, the port closes, the
// lock file goes, no thread stays behind, and the next connection works.
#include <dirent.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <random>
#include <sstream>
#include <thread>

#include "ApiLink.h"
#include "LLC_CommHandler.h"
#include "Upgrade.h"

namespace {

using vt::Bytes;
using vt::Contains;
using vt::With;
using vyrix::sim::Faults;

// Resident memory in KiB.
long RssKiB() {
    std::istringstream statm(vt::ReadFile("/proc/self/statm"));
    long pages = 0, resident = -1;
    statm >> pages >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

class Faulty : public vt::ApiLink {
protected:
    void SetUp() override {
        ApiLink::SetUp();
        threadsWithPort = vt::Threads();
    }
    // The aftermath every fault must leave: the connection closes, the lock
    // file and the receive thread are gone, and a new device works.
    void ExpectCleanRecovery() {
        vt::Stopwatch watch;
        EXPECT_EQ(Vyrix_CloseConnection(connection), 0u);
        EXPECT_LT(watch.Ms(), 1500);
        EXPECT_FALSE(vt::FileExists(vt::SerialLockName(path)));
        EXPECT_TRUE(vt::Eventually([&] { return vt::Threads() <= threadsWithPort - 1; }))  // the receive thread is gone
            << vt::ThreadNames();
        auto fresh = vyrix::sim::DeviceSimulator::OverPty();
        void* again = nullptr;
        ASSERT_EQ(Vyrix_OpenConnection(library, &again, vt::UartRecord(fresh->SlavePath().c_str())), 0u);
        uint8_t b = 0;
        EXPECT_EQ(Vyrix_GetBrightness(again, &b, eVYRIX_STORAGE_CURRENT), 0u);
        EXPECT_EQ(b, 80);
        EXPECT_EQ(Vyrix_CloseConnection(again), 0u);
        unlink(vt::SerialLockName(fresh->SlavePath()).c_str());
    }
    Vyrix_ReturnStatus Brightness() {
        uint8_t b;
        return Vyrix_GetBrightness(connection, &b, eVYRIX_STORAGE_CURRENT);
    }
    int threadsWithPort = 0;
};

// The device hangs up while a command waits for its reply: the command
// (which would wait 750 s for a reply) ends at once, and so does the next.
TEST_F(Faulty, HangUpInTheMiddleOfACommand) {
    sim->SetFaults(With(&Faults::hangUpAfter, 1, vt::Quiet()));
    vt::Stopwatch watch;
    EXPECT_EQ(Brightness(), 0x16000000u);
    EXPECT_LT(watch.Ms(), 2000);
    EXPECT_EQ(std::make_tuple(Brightness(), KtCheckSerialPort()), std::make_tuple(0x16000000u, 0x01000000u));
    EXPECT_TRUE(vt::Eventually([] { return vt::ContextSwitches("vyrix-receive") == -1; }))
        << "the receive loop goes on after the hang-up";
    ExpectCleanRecovery();
}

TEST_F(Faulty, HangUpInTheMiddleOfAFirmwareUpgrade) {
    sim->SetFaults(With(&Faults::hangUpAfter, 3));
    const auto fill = [](uint8_t* into, size_t length) {
        memset(into, 0x5A, length);
        return std::string();
    };
    const std::atomic<bool> never{false};
    uint64_t done = 0;
    vt::Stopwatch watch;
    EXPECT_EQ(vyrix::tools::SendFirmware(connection, 40000, fill, never,
                                         [&](uint64_t d, uint64_t) {
                                             done = d;
                                             // the line is gone before the next chunk is written
                                             if (d == 12000) {
                                                 EXPECT_TRUE(vt::Eventually([&] { return sim->HungUp(); }));
                                             }
                                         })
                  .result,
              0x16000000u);
    EXPECT_EQ(done, 12000u);  // three chunks acknowledged, the fourth could not be written
    EXPECT_LT(watch.Ms(), 5000);
    ExpectCleanRecovery();
}

TEST_F(Faulty, HangUpInTheMiddleOfABulkTransfer) {
    sim->SetResponder(vt::Answering({}));
    sim->SetFaults(With(&Faults::hangUpAfter, 2));
    Bytes data(10000, 1);
    EXPECT_EQ(AlcSendImageCommandGeneric(0x70, data.data(), static_cast<unsigned>(data.size()), eVYRIX_RENDER_TARGET_0,
                                         {}, {}, eAP_DEVICE, nullptr),
              0x16000000u);
    unsigned short type, cur, max;
    GetIndexStatus(&type, &cur, &max);
    EXPECT_EQ(cur, 2);
    ExpectCleanRecovery();
}

TEST_F(Faulty, NoiseAndDamagedPacketsDoNotBreakTheLink) {
    std::mt19937 rng(11);
    for (int round = 0; round < 50; ++round) {
        Bytes noise(1 + rng() % 300);
        for (auto& b : noise) b = static_cast<uint8_t>(rng() % 0xC0);  // never a start byte
        sim->SendRaw(noise);
        Bytes bad = vyrix::sim::EncodeDevicePacket(2, 0, round & 1, {0x2A, 0x2A, 0x41, 0, 0, 0, 0});
        bad.back() ^= 0x5A;
        sim->SendRaw(bad);
    }
    // Each damaged packet is found and dropped, also where several share a read.
    ASSERT_TRUE(vt::Eventually([&] { return vt::Occurrences(vt::Log(), "Invalid checksum") == 50; }))
        << vt::Occurrences(vt::Log(), "Invalid checksum");
    EXPECT_EQ(Brightness(), 0u);
    // Arbitrary bytes, start bytes among them: a header made of noise may
    // claim up to 4095 payload bytes and swallow the reply; the line going
    // quiet gives it back.
    Bytes noise(20000);
    for (auto& b : noise) b = static_cast<uint8_t>(rng());
    sim->SendRaw(noise);
    EXPECT_EQ(Brightness(), 0u);
    ExpectCleanRecovery();
}

TEST_F(Faulty, RepliesSplitByteByByteWithPauses) {
    sim->SetFaults(With(&Faults::garbage, {0x55, 0x00, 0x13},
                        With(&Faults::splitPauseMs, 3, With<size_t>(&Faults::splitBytes, 1))));
    Vyrix_SystemInfoS info{};
    EXPECT_EQ(Vyrix_GetSystemInfo(connection, &info), 0u);
    EXPECT_STREQ(info.infoText, "VYRIX-LSE-SIM-01");
    EXPECT_TRUE(Contains(vt::Log(), "Payload not completely present"));
    ExpectCleanRecovery();
}

TEST_F(Faulty, DeviceStopsAnsweringAndComesBack) {
    sim->SetFaults(vt::Quiet());
    vt::Stopwatch watch;
    EXPECT_EQ(vt::Exchange(4), 0x07000000u);
    EXPECT_GE(watch.Ms(), 450);
    EXPECT_LT(watch.Ms(), 1500);
    ASSERT_TRUE(sim->WaitForPackets(1, std::chrono::seconds(5)));  // left unanswered for good
    sim->SetFaults(Faults{});
    EXPECT_EQ(Brightness(), 0u);
    ExpectCleanRecovery();
}

// Messages of the device's own accord keep coming while commands run:
// every one the device sent arrives, in order, and every command gets its
// own reply.
TEST_F(Faulty, UnpromptedMessagesFloodWhileCommandsRun) {
    ASSERT_EQ(KtRegisterCallback(vt::CallbackCounter::Callback), 0u);
    std::atomic<bool> stop{false};
    std::atomic<uint32_t> sent{0};
    std::thread flood([&] {
        for (; !stop; ++sent) sim->SendUnsolicited(sim->Model().Notification(7, sent));
    });
    for (int i = 0; i < 40; ++i) {
        EXPECT_EQ(Vyrix_SetBrightness(connection, static_cast<uint8_t>(i), eVYRIX_STORAGE_CURRENT), 0u);
        uint8_t b = 0;
        EXPECT_EQ(Vyrix_GetBrightness(connection, &b, eVYRIX_STORAGE_CURRENT), 0u);
        EXPECT_EQ(b, i);
    }
    stop = true;
    flood.join();
    ASSERT_GT(sent.load(), 0u);
    ASSERT_TRUE(vt::CallbackCounter::Instance().WaitFor(static_cast<int>(sent.load())));
    for (uint32_t n = 0; n < sent.load(); ++n) ASSERT_EQ(vt::TakeMessage(), sim->Model().Notification(7, n)) << n;
    EXPECT_EQ(vt::TakeMessage(), Bytes{});
    ExpectCleanRecovery();
}

TEST_F(Faulty, ThrowingCallbackDoesNotEndTheReceiveThread) {
    KtRegisterCallback([](void*) -> Vyrix_ReturnStatus { throw std::runtime_error("application bug"); });
    sim->SendUnsolicited({0x2A, 0x2A, 1});
    ASSERT_TRUE(vt::Eventually([&] { return Contains(vt::Log(), "Error in ALC Callback"); }));
    EXPECT_EQ(Brightness(), 0u);
    ExpectCleanRecovery();
}

// A second process opening the same line is refused by the lock file and
// logs to a file of its own; the first keeps working.
TEST_F(Faulty, SecondProcessIsRefusedAndLogsApart) {
    const std::string before = vt::ReadFile(vt::LogPath());
    const std::string command = "VYRIX_LOG=file " + std::string(VYRIXCTL) + " --json --uart " + path + " status 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    char buf[1024] = {0};
    size_t n = fread(buf, 1, sizeof buf - 1, pipe);
    const int status = pclose(pipe);
    const std::string out(buf, n);
    EXPECT_EQ(WEXITSTATUS(status), 3) << out;  // the device could not be opened
    EXPECT_TRUE(Contains(out, "\"result\":\"eVYRIX_NOT_CONNECTED\""));
    EXPECT_TRUE(Contains(out, "is in use by process " + std::to_string(getpid()))) << out;
    // Its entries went to a time-stamped file, not into ours.
    EXPECT_FALSE(Contains(vt::Log(), "Lockfile create failed"));
    bool found = false;
    if (DIR* dir = opendir(vt::RuntimeDir().c_str())) {
        while (dirent* e = readdir(dir)) {
            const std::string name = e->d_name;
            if (name.rfind("Vyrix_SDK_", 0) != 0) continue;
            const std::string file = vt::RuntimeDir() + "/" + name;
            found = found || Contains(vt::ReadFile(file), "Lockfile create failed");
            unlink(file.c_str());
        }
        closedir(dir);
    }
    EXPECT_TRUE(found);
    EXPECT_EQ(Brightness(), 0u);
    EXPECT_TRUE(vt::FileExists(vt::SerialLockName(path)));
    ExpectCleanRecovery();
}

TEST_F(Faulty, MemoryStaysFlatOverTenThousandCommands) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer holds freed memory back; LeakSanitizer checks for leaks in this build";
#endif
    sim->SetRecording(false);  // the simulator would keep every packet
    sim->SetResponder([](const vyrix::sim::HostPacket& p) -> std::optional<vyrix::sim::Reply> {
        return vt::ReplyTo(p.payload[2] & 0x3F, {1, 2, 3, 4});
    });
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(vt::Exchange(50), 0u);  // warm up
    const long before = RssKiB();
    for (int i = 0; i < 10000; ++i) ASSERT_EQ(vt::Exchange(50), 0u);
    const long growth = RssKiB() - before;
    RecordProperty("rss_growth_kib", static_cast<int>(growth));
    EXPECT_LT(growth, 256) << "resident memory grew by " << growth << " KiB over 10,000 commands";
}

}  // namespace
