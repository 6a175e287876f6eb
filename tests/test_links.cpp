// SPDX-License-Identifier: MIT
// Every connection owns its link: threads sharing a connection, the library
// closed under running commands, fork and exit with connections open, a
// flood of unprompted messages, and the counters of a link.
#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <future>
#include <thread>

#include "ApiLink.h"
#include "LLC_Links.h"
#include "LLC_LogFile.h"
#include "LLC_MsgQueue.h"

namespace {
using vt::ApiLink;
using vt::Bytes;
using vt::Contains;
using vyrix::sim::DeviceSimulator;
using vyrix::sim::HostPacket;
using vyrix::sim::Reply;

constexpr uint32_t kNotConnected = 0x16000000u;
constexpr Vyrix_ValueStorageTypeE kCurrent = eVYRIX_STORAGE_CURRENT;

Vyrix_ReturnStatus Ignore(void*) { return eVYRIX_RETURN_SUCCESS; }

// Every command is answered with four bytes of its own opcode, so a reply
// read by the wrong command shows.
vyrix::sim::Responder EchoOpcode() {
    return [](const HostPacket& p) -> std::optional<Reply> {
        return Reply{2, 0, 1, vyrix::sim::ReplyPayload(1, p.payload[2] & 0x3F, 0, Bytes(4, p.payload[3]))};
    };
}

// Waits for a child process without blocking past `limit`; -1 when it did
// not end in time (it is killed then).
int WaitChild(pid_t pid, int limitMs = 10000) {
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (pidfd >= 0) {
        pollfd p{pidfd, POLLIN, 0};
        const int ready = poll(&p, 1, limitMs);
        close(pidfd);
        if (ready != 1) kill(pid, SIGKILL);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool SameLine(const termios& a, const termios& b) {
    return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_cflag == b.c_cflag && a.c_lflag == b.c_lflag &&
           cfgetispeed(&a) == cfgetispeed(&b);
}

termios LineOf(const std::string& path) {
    termios t{};
    const int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    tcgetattr(fd, &t);
    close(fd);
    return t;
}

class Links : public ApiLink {
protected:
    Vyrix_LinkStatisticsS Stats(void* handle = nullptr) {
        Vyrix_LinkStatisticsS s{};
        EXPECT_EQ(Vyrix_GetLinkStatistics(handle ? handle : connection, &s), 0u);
        return s;
    }
};

// Eight threads issue eight different commands on one connection: each
// gets its own reply, never another command's.
TEST_F(Links, ThreadsSharingAConnectionEachGetTheirOwnReply) {
    sim->SetResponder(EchoOpcode());
    struct Get {
        uint8_t opcode;
        std::function<Vyrix_ReturnStatus(void*, uint32_t*)> call;
    };
    const std::vector<Get> gets = {
        {11, [](void* h, uint32_t* v) { return Vyrix_GetInputVideoState(h, v, 0); }},
        {13, [](void* h, uint32_t* v) { return Vyrix_GetColorMode(h, reinterpret_cast<int32_t*>(v), kCurrent); }},
        {15, [](void* h, uint32_t* v) { return Vyrix_GetFlipState(h, v, kCurrent); }},
        {17, [](void* h, uint32_t* v) { return Vyrix_GetOutputVideoState(h, v, kCurrent); }},
        {22,
         [](void* h, uint32_t* v) { return Vyrix_GetColorConverter(h, 1, reinterpret_cast<int32_t*>(v), kCurrent); }},
        {28, [](void* h, uint32_t* v) { return Vyrix_GetVideoGammaBoostMode(h, 0, v, kCurrent); }},
        {47, [](void* h, uint32_t* v) { return Vyrix_GetSensingState(h, v, kCurrent); }},
        {70, [](void* h, uint32_t* v) { return Vyrix_GetMicroWeaveMode(h, v, kCurrent); }},
    };
    constexpr int kCalls = 200;
    std::atomic<int> wrong{0}, failed{0};
    std::vector<std::thread> threads;
    for (const Get& get : gets)
        threads.emplace_back([&, get] {
            for (int i = 0; i < kCalls; ++i) {
                uint32_t value = 0;
                if (get.call(connection, &value) != 0)
                    ++failed;
                else if (value != get.opcode * 0x01010101u)
                    ++wrong;
            }
        });
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(failed.load(), 0);
    EXPECT_EQ(sim->ReceivedCount(), gets.size() * kCalls);  // each command sent once
}

// A command that cannot get its turn within its reply time-out gives up
// without sending anything.
TEST_F(Links, CommandWaitingForItsTurnEndsAtItsDeadline) {
    sim->SetFaults(vt::Quiet());
    ASSERT_EQ(Vyrix_SetReplyTimeout(connection, 1500), 0u);
    auto first = std::async(std::launch::async, [&] {
        uint8_t b;
        return Vyrix_GetBrightness(connection, &b, eVYRIX_STORAGE_CURRENT);
    });
    ASSERT_TRUE(sim->WaitForPackets(1, std::chrono::seconds(5)));
    ASSERT_EQ(Vyrix_SetReplyTimeout(connection, 200), 0u);
    uint8_t b;
    EXPECT_EQ(Vyrix_GetBrightness(connection, &b, eVYRIX_STORAGE_CURRENT), 0x07000000u);
    EXPECT_EQ(first.get(), 0x07000000u);
    EXPECT_EQ(sim->ReceivedCount(), 1u);
}

// The library closed while another thread runs commands: those commands
// end with a defined result, never a crash or a hang.  (A device of its own
// each round: a reply still on its way when the library closes would be a
// stale reply for the next round.)
TEST_F(Links, CloseLibraryWhileAnotherThreadRunsCommands) {
    constexpr int kRounds = 200;
    ASSERT_EQ(Vyrix_CloseLibrary(library), 0u);
    for (int round = 0; round < kRounds; ++round) {
        auto device = DeviceSimulator::OverPty();
        const std::string line = device->SlavePath();
        unlink(vt::SerialLockName(line).c_str());
        ASSERT_EQ(Vyrix_OpenLibrary(&library), 0u);
        ASSERT_EQ(Vyrix_OpenConnection(library, &connection, vt::UartRecord(line.c_str())), 0u);
        std::promise<void> running;
        std::vector<Vyrix_ReturnStatus> results;
        std::thread worker([&] {
            uint8_t b;
            Vyrix_ReturnStatus r = Vyrix_GetBrightness(connection, &b, eVYRIX_STORAGE_CURRENT);
            running.set_value();
            for (results.push_back(r); r == 0; results.push_back(r))
                r = Vyrix_GetBrightness(connection, &b, eVYRIX_STORAGE_CURRENT);
        });
        running.get_future().wait();
        ASSERT_EQ(Vyrix_CloseLibrary(library), 0u);
        worker.join();
        const Vyrix_ReturnStatus last = results.back();
        results.pop_back();
        EXPECT_EQ(std::count(results.begin(), results.end(), eVYRIX_RETURN_SUCCESS), static_cast<long>(results.size()))
            << "round " << round;
        EXPECT_TRUE(last == kNotConnected || last == 0x04000000u) << std::hex << last << " round " << std::dec << round;
        EXPECT_FALSE(vt::FileExists(vt::SerialLockName(line)));
    }
}

// A child that forks with a connection open leaves the parent's link alone,
// whichever way it exits; it sees the inherited connection as not
// connected and may open a device of its own.  A normal exit closes that
// device (lock file gone, line restored); _exit leaves a stale lock file.
TEST_F(Links, ForkedChildLeavesTheParentsLinkAlone) {
    VT_SKIP_THREADED_FORK_UNDER_SANITIZERS();
    for (const bool normalExit : {true, false}) {
        SCOPED_TRACE(normalExit ? "exit" : "_exit");
        auto own = DeviceSimulator::OverPty();
        const std::string ownPath = own->SlavePath();
        unlink(vt::SerialLockName(ownPath).c_str());
        const termios before = LineOf(ownPath);
        const size_t parentCommands = sim->ReceivedCount();
        const pid_t pid = fork();
        if (pid == 0) {
            uint8_t b;
            void* mine = nullptr;
            int code = 10;
            if (Vyrix_GetBrightness(connection, &b, eVYRIX_STORAGE_CURRENT) == kNotConnected) code += 1;
            if (KtCheckSerialPort() != 0) code += 2;  // the parent's port is not the child's
            if (Vyrix_OpenConnection(library, &mine, vt::UartRecord(ownPath.c_str())) == 0 &&
                Vyrix_GetBrightness(mine, &b, eVYRIX_STORAGE_CURRENT) == 0)
                code += 4;
            if (normalExit) exit(code);
            _exit(code);
        }
        EXPECT_EQ(WaitChild(pid), 17);
        EXPECT_EQ(own->ReceivedCount(), 1u);
        EXPECT_EQ(sim->ReceivedCount(), parentCommands);  // nothing reached the parent's device
        EXPECT_EQ(KtCheckSerialPort(), 0u);
        uint8_t b;
        EXPECT_EQ(Vyrix_GetBrightness(connection, &b, eVYRIX_STORAGE_CURRENT), 0u);
        EXPECT_EQ(sim->ReceivedCount(), parentCommands + 1);
        EXPECT_EQ(vt::FileExists(vt::SerialLockName(ownPath)), !normalExit);
        if (normalExit) {
            EXPECT_TRUE(SameLine(before, LineOf(ownPath)));
        }
        // A stale lock of the child's is taken over.
        void* after = nullptr;
        ASSERT_EQ(Vyrix_OpenConnection(library, &after, vt::UartRecord(ownPath.c_str())), 0u);
        EXPECT_EQ(Vyrix_CloseConnection(after), 0u);
    }
}

// A process that exits with its connection open exits with its own status:
// no abort, lock file removed, line restored.
TEST_F(Links, ExitWithAConnectionOpenClosesItOnTheWayOut) {
    VT_SKIP_THREADED_FORK_UNDER_SANITIZERS();
    ASSERT_EQ(Vyrix_CloseLibrary(library), 0u);
    const termios before = LineOf(path);
    const pid_t pid = fork();
    if (pid == 0) {
        void* lib = nullptr;
        void* conn = nullptr;
        uint8_t b;
        if (Vyrix_OpenLibrary(&lib) != 0 || Vyrix_OpenConnection(lib, &conn, vt::UartRecord(path.c_str())) != 0 ||
            KtRegisterCallback(Ignore) != 0 || Vyrix_GetBrightness(conn, &b, eVYRIX_STORAGE_CURRENT) != 0)
            _exit(1);
        exit(42);  // connection, receive and callback threads still there
    }
    EXPECT_EQ(WaitChild(pid), 42);
    EXPECT_FALSE(vt::FileExists(vt::SerialLockName(path)));
    EXPECT_TRUE(SameLine(before, LineOf(path)));
}

// A device flooding unprompted messages that nobody takes: the queue holds
// the newest messages up to its bound, in order; the rest are counted.
TEST_F(Links, FloodBeyondTheBoundKeepsTheNewestInOrder) {
    ASSERT_EQ(KtRegisterCallback(Ignore), 0u);
    constexpr uint32_t kExtra = 1000;
    const uint32_t sent = static_cast<uint32_t>(KT_MAX_QUEUED_MESSAGES) + kExtra;
    Bytes flood;
    for (uint32_t i = 0; i < sent; ++i) {
        Bytes payload = {0x2A, 0x2A, uint8_t(i), uint8_t(i >> 8), uint8_t(i >> 16)};
        Bytes packet = vyrix::sim::EncodeDevicePacket(2, 0, 0, payload);
        flood.insert(flood.end(), packet.begin(), packet.end());
    }
    sim->SendRaw(flood);
    ASSERT_TRUE(vt::Eventually([&] { return Stats().packetsReceived == sent; }, std::chrono::seconds(30)));
    EXPECT_EQ(Stats().messagesDropped, kExtra);
    uint32_t taken = 0;
    bool inOrder = true;
    uint8_t payload[16];
    uint16_t length = 0;
    while (Vyrix_TakeUnpromptedMessage(connection, payload, sizeof payload, &length, nullptr) == 0) {
        const uint32_t number = payload[2] | (payload[3] << 8) | (payload[4] << 16);
        inOrder = inOrder && number == kExtra + taken;
        ++taken;
    }
    EXPECT_EQ(taken + kExtra, sent);
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(vt::Occurrences(vt::Log(), "Unprompted message queue full"), 1u);
}

// Both bounds of a queue, whichever comes first.
TEST(MessageQueue, DropsTheOldestAtEitherBound) {
    struct Case {
        size_t maxMessages, maxBytes, payload, pushes, kept;
    };
    for (const Case& c : {Case{3, 1000, 10, 5, 3}, Case{100, 25, 10, 5, 2}, Case{3, 30, 10, 3, 3}}) {
        CMsgQueue queue(c.maxMessages, c.maxBytes);
        size_t dropped = 0, bursts = 0;
        for (size_t i = 0; i < c.pushes; ++i) {
            Bytes payload(c.payload, static_cast<uint8_t>(i));
            const CMsgQueue::PushResult r = queue.Push(KtXlnkMsgS{0, 2, 0, 0, WORD(payload.size()), payload.data()});
            dropped += r.dropped;
            bursts += r.burstBegan;
        }
        EXPECT_EQ(dropped, c.pushes - c.kept) << c.maxMessages << "/" << c.maxBytes;
        EXPECT_EQ(bursts, dropped > 0 ? 1u : 0u);
        Bytes out(64);
        KtXlnkMsgS msg{0, 0, 0, 0, WORD(out.size()), out.data()};
        ASSERT_EQ(queue.WaitPop(&msg, CDeadline::After(0)), 0u);
        EXPECT_EQ(out[0], c.pushes - c.kept);  // the oldest kept
        EXPECT_EQ(queue.DrainNow(), c.kept - 1);
    }
}

// The counters of a link: a command answered after a resend request and a
// false start, then the device hanging up.
TEST_F(Links, StatisticsCountWhatCrossedTheLink) {
    vt::Faults faults;
    faults.resendRequests = 1;
    faults.garbage = {0xC0, 0x3F};  // a start byte whose header is refused
    sim->SetFaults(faults);
    uint8_t b;
    ASSERT_EQ(Vyrix_GetBrightness(connection, &b, eVYRIX_STORAGE_CURRENT), 0u);
    const Bytes command = Command(0);
    ASSERT_EQ(sim->ReceivedCount(), 2u);
    Vyrix_LinkStatisticsS s = Stats();
    EXPECT_EQ(s.packetsSent, 2u);
    EXPECT_EQ(s.resends, 1u);
    EXPECT_EQ(s.bytesSent, 2 * (command.size() + 6));
    EXPECT_EQ(s.packetsReceived, 2u);
    EXPECT_GE(s.packetsDiscarded, 2u);  // one false start before each answer
    EXPECT_GT(s.bytesReceived, 0u);
    EXPECT_EQ(std::make_tuple(s.messagesDropped, s.linkDowns), std::make_tuple(0u, 0u));
    sim->HangUp();
    EXPECT_EQ(Vyrix_GetBrightness(connection, &b, eVYRIX_STORAGE_CURRENT), kNotConnected);
    EXPECT_EQ(Stats().linkDowns, 1u);

    EXPECT_EQ(Vyrix_GetLinkStatistics(connection, nullptr), 0x05000000u);
    EXPECT_EQ(Vyrix_GetLinkStatistics(&s, &s), 0x05000000u);
    ASSERT_EQ(Vyrix_CloseConnection(connection), 0u);
    EXPECT_EQ(Vyrix_GetLinkStatistics(connection, &s), 0x05000000u);
    ASSERT_EQ(Vyrix_CloseLibrary(library), 0u);
    EXPECT_EQ(Vyrix_GetLinkStatistics(connection, &s), 0x04000000u);
}

// With two devices open, the log lives until the last one closes, and a
// take inside the callback reaches the device whose message it announces.
TEST_F(Links, SecondDeviceKeepsTheLogAndTheCallbackKnowsItsLink) {
    auto second = DeviceSimulator::OverPty();
    unlink(vt::SerialLockName(second->SlavePath()).c_str());
    void* other = nullptr;
    ASSERT_EQ(Vyrix_OpenConnection(library, &other, vt::UartRecord(second->SlavePath().c_str())), 0u);
    static std::promise<Bytes>* taken;
    std::promise<Bytes> result;
    taken = &result;
    ASSERT_EQ(KtRegisterCallback([](void*) -> Vyrix_ReturnStatus {
                  Bytes payload(64);
                  KtXlnkMsgS msg{0, 0, 0, 0, 0, payload.data()};
                  if (KtRemoveConnectionlessMsg(&msg) == 0) payload.resize(msg.payloadLen);
                  taken->set_value(payload);
                  return eVYRIX_RETURN_SUCCESS;
              }),
              0u);
    second->SendUnsolicited({0x2A, 0x2A, 0x77});
    auto future = result.get_future();
    ASSERT_EQ(future.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(future.get(), (Bytes{0x2A, 0x2A, 0x77}));  // from the second device, not the first

    ASSERT_EQ(Vyrix_CloseConnection(other), 0u);
    EXPECT_TRUE(LogExists());
    KtWriteLogFile("<INFO> %s: still logging\n", "test");
    const std::string log = vt::LogPath();
    ASSERT_EQ(Vyrix_CloseConnection(connection), 0u);
    EXPECT_FALSE(LogExists());
    EXPECT_TRUE(Contains(vt::ReadFile(log), "<INFO> test: still logging\n"));
}

}  // namespace
