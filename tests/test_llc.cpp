// The communication handler and the LLC service functions, over a real
// pseudo-terminal with the device simulator on the other side.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "LLC_CommHandler.h"
#include "SimLink.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/hci.h>
#include <bluetooth/hci_lib.h>

extern CCommHandler* g_pSerialCommHandler;
extern CCommHandler* g_pBTHCommHandler;

namespace {

using vt::Bytes;
using vyrix::sim::Faults;
using vyrix::sim::HostPacket;
using vyrix::sim::Reply;

const Bytes kCommand = {0x2A, 0x2A, 0x05, 0x2A, 0x00, 0x00, 0x00, 0x00};

// Answers every command with its sequence number and the values 1 2 3.
std::optional<Reply> Echo(const HostPacket& p) { return vt::ReplyTo(p.payload[2] & 0x3F, {1, 2, 3}); }

class Llc : public vt::SimLink {
protected:
    void SetUp() override {
        vt::SimLink::SetUp();
        sim->SetResponder(Echo);
    }
    // Waits until the handler has queued `n` replies in all.
    bool RepliesQueued(uint64_t n) {
        return vt::Eventually([&] { return g_pSerialCommHandler->QueuedRecords(eCONNECTION_ORIENTED) >= n; });
    }
};

TEST_F(Llc, ReplyRoundTripWithTheRecordFilledIn) {
    ASSERT_EQ(Send(kCommand), 0u);
    Bytes reply;
    KtXlnkMsgS record{};
    ASSERT_EQ(Take(reply, 10, &record), 0u);
    EXPECT_EQ(reply, (Bytes{0x2A, 0x2A, 0x45, 0, 0, 0, 0, 1, 2, 3}));
    EXPECT_EQ(record.deviceID, 2);
    EXPECT_EQ(record.sourceID, 0);
    EXPECT_EQ(record.protocolID, 1);
    ASSERT_TRUE(sim->WaitForPackets(1, std::chrono::seconds(2)));
    EXPECT_EQ(sim->Received()[0].payload, kCommand);
}

TEST_F(Llc, RepliesAreQueuedOnlyWhileOneIsAwaited) {
    SendSettled(vt::ReplyTo(5));  // nobody asked
    EXPECT_EQ(g_pSerialCommHandler->QueuedRecords(eCONNECTION_ORIENTED), 0u);
    ASSERT_EQ(Send(kCommand), 0u);
    Bytes reply;
    ASSERT_EQ(Take(reply, 10), 0u);
    EXPECT_EQ(reply[7], 1);  // the answer to the command, not the stray one
    // The wait is over: a late reply is dropped, not kept for the next one.
    SendSettled(vt::ReplyTo(9));
    ASSERT_EQ(Send(kCommand), 0u);
    ASSERT_EQ(Take(reply, 10), 0u);
    EXPECT_EQ(reply[2] & 0x3F, 5);
    BYTE dev, pri, proto, buf[16];
    WORD len;
    EXPECT_EQ(KtRemoveMessage(&dev, &pri, &proto, &len, buf, sizeof buf), 0x07000000u);
}

TEST_F(Llc, LateReplyAfterGivingUpIsDropped) {
    Faults quiet;
    quiet.silent = true;
    sim->SetFaults(quiet);
    ASSERT_EQ(Send(kCommand), 0u);
    Bytes reply;
    EXPECT_EQ(Take(reply, 0), 0x07000000u);
    SendSettled(vt::ReplyTo(5));
    EXPECT_EQ(g_pSerialCommHandler->QueuedRecords(eCONNECTION_ORIENTED), 0u);
}

TEST_F(Llc, RemoveMsgPausesOncePerAttempt) {
    Bytes reply;
    vt::Stopwatch once;
    EXPECT_EQ(Take(reply, 0), 0x07000000u);
    EXPECT_GE(once.Ms(), 95);
    EXPECT_LT(once.Ms(), 190);
    vt::Stopwatch thrice;
    EXPECT_EQ(Take(reply, 2), 0x07000000u);
    EXPECT_GE(thrice.Ms(), 295);
    EXPECT_LT(thrice.Ms(), 450);
}

TEST_F(Llc, ReplyArrivingDuringAPauseIsTakenAtOnce) {
    Faults quiet;
    quiet.silent = true;
    sim->SetFaults(quiet);
    ASSERT_EQ(Send(kCommand), 0u);
    std::thread device([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(130));
        sim->SendPacket(vt::ReplyTo(5));
    });
    Bytes reply;
    vt::Stopwatch watch;
    EXPECT_EQ(Take(reply, 20), 0u);
    const long took = watch.Ms();
    device.join();
    EXPECT_GE(took, 120);
    EXPECT_LT(took, 195) << "the reply waited for the end of a 100 ms pause";
}

TEST_F(Llc, RemoveMsgCapacityRules) {
    ASSERT_EQ(Send(kCommand), 0u);
    Bytes buffer(4096, 0);
    KtXlnkMsgS msg{};
    msg.payloadLen = 100;
    msg.pPayload = buffer.data();
    ASSERT_TRUE(RepliesQueued(1));
    ASSERT_EQ(KtRemoveMsg(&msg, 0), 0u);
    EXPECT_EQ(msg.payloadLen, 10);  // taken with a capacity of 4095, whatever was asked

    KtXlnkMsgS small{};
    small.payloadLen = 100;
    small.pPayload = buffer.data();
    EXPECT_EQ(KtRemoveConnectionlessMsg(&small), 0x07000000u);
    EXPECT_EQ(small.payloadLen, 100);  // kept: a non-zero capacity stands

    BYTE dev, pri, proto;
    WORD len;
    vt::Stopwatch watch;
    EXPECT_EQ(KtRemoveMessage(&dev, &pri, &proto, &len, buffer.data(), 4095), 0x07000000u);
    EXPECT_LT(watch.Ms(), 50);  // no waiting
    EXPECT_EQ(KtRemoveMessage(&dev, &pri, &proto, &len, buffer.data(), 4096), 0x1A000000u);
    EXPECT_EQ(KtRemoveMessage(nullptr, &pri, &proto, &len, buffer.data(), 10), 0x05000000u);
    EXPECT_EQ(KtRemoveConnectionlessMessage(&dev, &pri, &proto, &len, nullptr, 10), 0x05000000u);
    const std::string log = Log();
    EXPECT_NE(log.find("<ERROR> KtRemoveMessage :Payload length greater than max payload 4096\n"), std::string::npos);
    EXPECT_NE(log.find("<INFO> KtRemoveMessage Payload length : 4095\n"), std::string::npos);
    EXPECT_NE(log.find("<ERROR> KtRemoveMessage :Invalid argument\n"), std::string::npos);
}

TEST_F(Llc, RemoveMsgArgumentErrors) {
    Bytes buffer(16);
    KtXlnkMsgS msg{0, 0, 0, 0, 16, buffer.data()};
    EXPECT_EQ(g_pSerialCommHandler->RemoveMsg(static_cast<KtQueueTypeE>(2), &msg), 0x05000000u);
    EXPECT_EQ(g_pSerialCommHandler->RemoveMsg(eCONNECTIONLESS, nullptr), 0x05000000u);
    KtXlnkMsgS noBuffer{0, 0, 0, 0, 16, nullptr};
    EXPECT_EQ(g_pSerialCommHandler->RemoveMsg(eCONNECTION_ORIENTED, &noBuffer), 0x05000000u);
    EXPECT_EQ(g_pSerialCommHandler->RemoveMsg(eCONNECTION_ORIENTED, &msg), 0x07000000u);
    EXPECT_NE(Log().find("<ERROR> RemoveMsg :Invalid argument\n"), std::string::npos);
}

TEST_F(Llc, ResendRequestRepeatsTheSameBytesAndTakesTheNextReply) {
    Faults faults;
    faults.resendRequests = 1;
    sim->SetFaults(faults);
    ASSERT_EQ(Send(kCommand), 0u);
    Bytes reply;
    ASSERT_EQ(Take(reply, 50), 0u);
    EXPECT_EQ(reply, (Bytes{0x2A, 0x2A, 0x45, 0, 0, 0, 0, 1, 2, 3}));
    std::vector<HostPacket> got = sim->Received();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[1].raw, got[0].raw);
    const std::string log = Log();
    EXPECT_NE(log.find("<INFO> RetryLastMessage: Retry number :0\n"), std::string::npos);
    EXPECT_NE(log.find("Retry success"), std::string::npos);
    EXPECT_EQ(log.find("Retry number :1"), std::string::npos);
}

TEST_F(Llc, ElevenResendRequestsInARowFail) {
    Faults faults;
    faults.resendRequests = 12;  // the first answer and every one of the 11 resends
    sim->SetFaults(faults);
    ASSERT_EQ(Send(kCommand), 0u);
    ASSERT_TRUE(RepliesQueued(1));
    Bytes reply;
    EXPECT_EQ(Take(reply, 0), 0x01000000u);  // one attempt: its result is the resend verdict
    EXPECT_EQ(sim->ReceivedCount(), 12u);
    const std::string log = Log();
    EXPECT_NE(log.find("Retry number :10\n"), std::string::npos);
    EXPECT_EQ(log.find("Retry number :11"), std::string::npos);
    EXPECT_EQ(log.find("Retry success"), std::string::npos);
}

TEST_F(Llc, ResendRequestWithoutACopyFailsAfterASecond) {
    Faults faults;
    faults.resendRequests = 1;
    sim->SetFaults(faults);
    ASSERT_EQ(Send(kCommand), 0u);
    ASSERT_TRUE(RepliesQueued(1));
    g_pSerialCommHandler->ClearRetryCache();  // the request stays queued; the copy is gone
    BYTE dev, pri, proto, buf[64];
    WORD len;
    testing::internal::CaptureStdout();
    vt::Stopwatch watch;
    EXPECT_EQ(KtRemoveMessage(&dev, &pri, &proto, &len, buf, sizeof buf), 0x01000000u);
    EXPECT_GE(watch.Ms(), 990);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "<ERROR> RetryLastMessage :No last message to resend\n");
}

TEST_F(Llc, OversizedQueuedMessageIsRemovedWholeAndCut) {
    static std::atomic<int> calls{0};
    KtRegisterCallback([](void*) -> Vyrix_ReturnStatus {
        ++calls;
        return eVYRIX_RETURN_SUCCESS;
    });
    sim->SendUnsolicited({0x2A, 0x2A, 1, 2, 3, 4, 5, 6});
    ASSERT_TRUE(vt::Eventually([] { return calls == 1; }));
    Bytes buffer(8, 0);
    KtXlnkMsgS msg{0, 0, 0, 0, 2, buffer.data()};
    EXPECT_EQ(KtRemoveConnectionlessMsg(&msg), 0x1A000000u);
    EXPECT_EQ(msg.payloadLen, 2);
    EXPECT_EQ(buffer, (Bytes{0x2A, 0x2A, 0, 0, 0, 0, 0, 0}));
    KtXlnkMsgS next{0, 0, 0, 0, 8, buffer.data()};
    EXPECT_EQ(KtRemoveConnectionlessMsg(&next), 0x07000000u);
    EXPECT_NE(Log().find("<ERROR> RemoveMsgFromQueue :Payload length in message structure is less than the actual "
                         "payload in queue\n"),
              std::string::npos);
}

TEST_F(Llc, SendRefusesAnOversizedPayloadWithoutWriting) {
    Bytes big(4096, 0x2A);
    EXPECT_EQ(Send(big), 0x1A000000u);
    Bytes none;
    EXPECT_EQ(Send(none), 0x05000000u);
    EXPECT_EQ(Send(kCommand, 2), 0x05000000u);
    EXPECT_EQ(KtSendMessage(2, 0, 0, 1, 0, nullptr), 0x05000000u);
    ASSERT_EQ(Send(kCommand), 0u);  // this one goes out
    ASSERT_TRUE(sim->WaitForPackets(1, std::chrono::seconds(2)));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(sim->ReceivedCount(), 1u);
}

TEST_F(Llc, SecondOpenIsRefusedAndTheFirstKeepsWorking) {
    auto other = vyrix::sim::DeviceSimulator::OverPty();
    EXPECT_EQ(KtOpenSerialPortByName(other->SlavePath().c_str(), 57600), 0x18000000u);
    EXPECT_EQ(KtOpenSerialPort(0, 57600), 0x18000000u);
    EXPECT_EQ(KtOpenSerialPort(-1, 57600), 0x18000000u);  // the open port is found first
    EXPECT_NE(Log().find("<ERROR> KtOpenSerialPortByName :Serial port already opened\n"), std::string::npos);
    ASSERT_EQ(Send(kCommand), 0u);
    Bytes reply;
    EXPECT_EQ(Take(reply, 10), 0u);
    EXPECT_EQ(KtCheckSerialPort(), 0u);
    EXPECT_EQ(KtCheckUsbPort(), 0x01000000u);
    EXPECT_EQ(KtCheckBthSocket(), 0x01000000u);
}

TEST_F(Llc, CloseEndsTheLogAndTheLockFile) {
    const std::string lock = vt::SerialLockName(sim->SlavePath());
    EXPECT_TRUE(vt::FileExists(lock));
    EXPECT_TRUE(LogExists());
    ASSERT_EQ(KtCloseSerialPort(), 0u);
    EXPECT_FALSE(LogExists());
    EXPECT_FALSE(vt::FileExists(lock));
    EXPECT_EQ(g_pSerialCommHandler, nullptr);
    EXPECT_EQ(KtCloseSerialPort(), 0x16000000u);
    EXPECT_EQ(Send(kCommand), 0x16000000u);
    Bytes reply;
    EXPECT_EQ(Take(reply, 5), 0x16000000u);
    EXPECT_EQ(KtCheckSerialPort(), 0x01000000u);
}

TEST_F(Llc, DeviceHangingUpMidExchangeEndsNothingBadly) {
    Faults faults;
    faults.silent = true;
    faults.hangUpAfter = 1;
    sim->SetFaults(faults);
    const int threadsOpen = vt::Threads();
    ASSERT_EQ(Send(kCommand), 0u);
    ASSERT_TRUE(vt::Eventually([&] { return sim->HungUp(); }));
    Bytes reply;
    EXPECT_EQ(Take(reply, 2), 0x07000000u);
    EXPECT_EQ(Send(kCommand), 0x01000000u);  // the line is gone
    const double cpu = vt::CpuSeconds();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_LT(vt::CpuSeconds() - cpu, 0.1) << "the receive loop spins on the hung-up line";
    vt::Stopwatch watch;
    EXPECT_EQ(KtCloseSerialPort(), 0u);
    EXPECT_LT(watch.Ms(), 1000);
    EXPECT_FALSE(vt::FileExists(vt::SerialLockName(sim->SlavePath())));
    EXPECT_TRUE(vt::Eventually([&] { return vt::Threads() < threadsOpen; }));
}

TEST_F(Llc, IdlePortCostsNoCpu) {
    const double cpu = vt::CpuSeconds();
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    EXPECT_LT(vt::CpuSeconds() - cpu, 0.05);
}

TEST_F(Llc, HandlerEdgeCases) {
    CCommHandler handler;
    EXPECT_EQ(handler.ClosePort(), 0x01000000u);
    EXPECT_NE(Log().find("<ERROR> ClosePort :Error closing port\n"), std::string::npos);
    EXPECT_EQ(handler.OpenPort(sim->SlavePath().c_str(), 115200), 0x05000000u);
    EXPECT_EQ(handler.OpenPort(static_cast<const char*>(nullptr), 57600), 0x05000000u);
    EXPECT_EQ(handler.IsDeviceConnected(), 0x01000000u);
    unsigned count = 77;
    Vyrix_BTHDiscoveryInfo info[1];
    EXPECT_EQ(handler.EnumerateUARTDevices(1, &count, info), 0u);
    EXPECT_EQ(count, 77u);
    EXPECT_EQ(KtEnumerateUARTDevices(1, nullptr, info), 0x05000000u);
    EXPECT_EQ(KtEnumerateBTHDevices(1, &count, nullptr), 0x05000000u);
    EXPECT_EQ(KtRegisterCallback(nullptr), 0x05000000u);
}

// Connectionless messages: dropped without a callback; with one, the
// callback runs on the receive thread, once per message, after queueing.
struct CallbackProbe {
    std::atomic<int> calls{0};
    std::atomic<int> queuedWhenCalled{0};
    std::atomic<bool> onCallerThread{false};
    std::thread::id caller;
    Vyrix_ReturnStatus result = eVYRIX_RETURN_SUCCESS;
};
std::atomic<CallbackProbe*> g_probe{nullptr};

Vyrix_ReturnStatus Probe(void* arg) {
    EXPECT_EQ(arg, nullptr);
    CallbackProbe* probe = g_probe.load();
    if (probe == nullptr) return eVYRIX_RETURN_SUCCESS;
    if (std::this_thread::get_id() == probe->caller) probe->onCallerThread = true;
    probe->queuedWhenCalled = static_cast<int>(g_pSerialCommHandler->QueuedRecords(eCONNECTIONLESS));
    const Vyrix_ReturnStatus result = probe->result;
    ++probe->calls;  // last: the test may let the probe go once it sees the count
    return result;
}

TEST_F(Llc, ConnectionlessMessagesWithoutCallbackAreDropped) {
    SendSettled(vyrix::sim::Reply{2, 0, 0, {0x2A, 0x2A, 7, 7}});
    ASSERT_EQ(Send(kCommand), 0u);
    Bytes reply;
    ASSERT_EQ(Take(reply, 10), 0u);
    EXPECT_EQ(g_pSerialCommHandler->QueuedRecords(eCONNECTIONLESS), 0u);
}

TEST_F(Llc, ConnectionlessMessagesReachTheCallbackAfterQueueing) {
    CallbackProbe probe;
    probe.caller = std::this_thread::get_id();
    g_probe = &probe;
    ASSERT_EQ(KtRegisterCallback(Probe), 0u);
    EXPECT_EQ(KtRegisterCallback(nullptr), 0x05000000u);  // the registered one stays
    sim->SendUnsolicited({0x2A, 0x2A, 7});
    ASSERT_TRUE(vt::Eventually([&] { return probe.calls == 1; }));
    sim->SendUnsolicited({0x2A, 0x2A, 8, 9});
    ASSERT_TRUE(vt::Eventually([&] { return probe.calls == 2; }));
    EXPECT_EQ(probe.queuedWhenCalled, 2);
    EXPECT_FALSE(probe.onCallerThread);
    BYTE dev, pri, proto, buf[16];
    WORD len;
    ASSERT_EQ(KtRemoveConnectionlessMessage(&dev, &pri, &proto, &len, buf, sizeof buf), 0u);
    EXPECT_EQ(len, 3);
    EXPECT_EQ(buf[2], 7);
    EXPECT_EQ(proto, 0);
    EXPECT_EQ(dev, 2);
    Bytes second(16);
    KtXlnkMsgS msg{0, 0, 0, 0, 0, second.data()};
    ASSERT_EQ(KtRemoveConnectionlessMsg(&msg), 0u);
    EXPECT_EQ(msg.payloadLen, 4);
    EXPECT_EQ(second[3], 9);
    g_probe = nullptr;
}

TEST_F(Llc, FailingCallbackIsLoggedAndItsMessageStays) {
    CallbackProbe probe;
    probe.result = VYRIX_RESULT(eVYRIX_FAILURE);
    g_probe = &probe;
    ASSERT_EQ(KtRegisterCallback(Probe), 0u);
    sim->SendUnsolicited({0x2A, 0x2A, 7});
    ASSERT_TRUE(vt::Eventually([&] { return probe.calls == 1; }));
    ASSERT_TRUE(vt::Eventually([&] { return Log().find("Error in ALC Callback") != std::string::npos; }));
    EXPECT_NE(Log().find("<ERROR> ReadThreadRoutine: Error in ALC Callback.\n"), std::string::npos);
    Bytes buffer(16);
    KtXlnkMsgS msg{0, 0, 0, 0, 0, buffer.data()};
    EXPECT_EQ(KtRemoveConnectionlessMsg(&msg), 0u);
    g_probe = nullptr;
}

TEST(LlcWithoutPort, EverythingSaysNotConnected) {
    Bytes payload = kCommand;
    KtXlnkMsgS msg{2, 0, 0, 1, static_cast<WORD>(payload.size()), payload.data()};
    EXPECT_EQ(KtSendMsg(msg), 0x16000000u);
    EXPECT_EQ(KtRemoveMsg(&msg, 0), 0x16000000u);
    EXPECT_EQ(KtRemoveConnectionlessMsg(&msg), 0x16000000u);
    EXPECT_EQ(KtCloseSerialPort(), 0x16000000u);
    EXPECT_EQ(KtCloseUsbPort(), 0x16000000u);
    EXPECT_EQ(KtCloseBTHSocket(), 0x16000000u);
    EXPECT_EQ(KtOpenSerialPort(-1, 57600), 0x05000000u);
    EXPECT_EQ(g_pSerialCommHandler, nullptr);              // -1 left nothing open
    EXPECT_EQ(KtOpenSerialPort(999, 57600), 0x01000000u);  // /dev/ttyS999: no such device
    EXPECT_EQ(KtOpenSerialPortByName("/dev/vyrix-none", 9600), 0x05000000u);
    EXPECT_EQ(g_pSerialCommHandler, nullptr);
}

}  // namespace

namespace {

// Without the test double: this machine has no Bluetooth in its kernel,
// which is the real stack's "no adapter" case.
TEST(LlcRealBluetooth, NoAdapterThroughTheServiceFunctions) {
    if (hci_get_route(nullptr) >= 0) GTEST_SKIP() << "this host has a Bluetooth adapter";
    EXPECT_EQ(KtOpenBTHSocket("00:11:22:33:44:55", "0000"), 0x19000000u);
    EXPECT_EQ(g_pBTHCommHandler, nullptr);
    unsigned count = 5;
    Vyrix_BTHDiscoveryInfo found[2];
    EXPECT_EQ(KtEnumerateBTHDevices(2, &count, found), 0x19000000u);
    EXPECT_EQ(count, 5u);
    EXPECT_FALSE(vt::FileExists(vt::RuntimeDir() + "/vyrix_llc_bth_00:11:22:33:44:55.lock"));
}

}  // namespace
