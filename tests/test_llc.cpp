// SPDX-License-Identifier: MIT
// The communication handler and the LLC service functions, over a real
// pseudo-terminal with the device simulator on the other side.
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "LLC_HandlerTable.h"
#include "PtyPair.h"
#include "SimLink.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/hci.h>
#include <bluetooth/hci_lib.h>

namespace {

using vt::Bytes;
using vt::Concat;
using vt::Contains;
using vt::kCommand;
using vt::Log;
using vt::Send;
using vt::Take;
using vt::TakeMessage;
using vt::With;
using vyrix::sim::EncodeDevicePacket;
using vyrix::sim::Faults;
using vyrix::sim::HostPacket;
using vyrix::sim::Reply;

const Bytes kEchoReply = {0x2A, 0x2A, 0x45, 0, 0, 0, 0, 1, 2, 3};

// Answers every command with its sequence number and the values 1 2 3.
std::optional<Reply> Echo(const HostPacket& p) { return vt::ReplyTo(p.payload[2] & 0x3F, {1, 2, 3}); }

Bytes Packet(const Reply& r) { return EncodeDevicePacket(r.destination, r.source, r.protocol, r.payload); }
Bytes Message(Bytes payload) { return EncodeDevicePacket(2, 0, 0, payload); }

// KtRemoveMessage into `buffer`, declared to hold `capacity` bytes.
Vyrix_ReturnStatus RemoveMessage(BYTE* buffer, WORD capacity) {
    BYTE dev, pri, proto;
    WORD len;
    return KtRemoveMessage(&dev, &pri, &proto, &len, buffer, capacity);
}

class Llc : public vt::SimLink {
protected:
    void SetUp() override {
        vt::SimLink::SetUp();
        sim->SetResponder(Echo);
    }
    // The device answers nothing by itself: the test writes its bytes.
    void Quiet() { sim->SetFaults(vt::Quiet()); }
    static KtHandlerRef Handler() { return CHandlerTable::Instance().First(eTRANSPORT_SERIAL); }
};

// A reply is queued only while one is awaited: one that comes before the
// command or after its wait is dropped.
TEST_F(Llc, RepliesAreQueuedOnlyWhileOneIsAwaited) {
    sim->SendPacket(vt::ReplyTo(5));  // nobody asked
    Fence();
    ASSERT_EQ(Send(), 0u);
    Bytes reply;
    KtXlnkMsgS r{};
    ASSERT_EQ(Take(reply, 10, &r), 0u);
    EXPECT_EQ(reply, kEchoReply);  // the answer to the command, not the stray one
    EXPECT_EQ(std::tie(r.deviceID, r.sourceID, r.protocolID), std::make_tuple(2, 0, 1));
    EXPECT_EQ(sim->Received()[0].payload, kCommand);
    sim->SendPacket(vt::ReplyTo(9));
    Fence();
    BYTE buffer[16];
    EXPECT_EQ(RemoveMessage(buffer, sizeof buffer), 0x07000000u);
}

// A reply that arrives ends the wait at once (the periods themselves are
// timed in DeviceStopsAnsweringAndComesBack).
TEST_F(Llc, ReplyEndsTheWaitAtOnce) {
    Quiet();
    ASSERT_EQ(Send(), 0u);
    std::thread device([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        sim->SendPacket(vt::ReplyTo(5));
    });
    vt::Stopwatch watch;
    EXPECT_EQ(Take(100), 0u);  // 10 s at most
    device.join();
    EXPECT_LT(watch.Ms(), 2000);
}

// Several packets in one read are all delivered, in order.
TEST_F(Llc, PacketsSharingAWriteAreAllDelivered) {
    const Bytes reply = Packet(vt::ReplyTo(5, {7}));
    const struct {
        const char* what;
        Bytes bytes;
        std::vector<Bytes> messages;
    } cases[] = {
        {"reply, then message", Concat({reply, Message({0x2A, 0x2A, 1})}), {{0x2A, 0x2A, 1}}},
        {"message, then reply", Concat({Message({0x2A, 0x2A, 2}), reply}), {{0x2A, 0x2A, 2}}},
        {"three messages around the reply",
         Concat({Message({0x2A, 0x2A, 3}), Message({0x2A, 0x2A, 4}), reply, Message({0x2A, 0x2A, 5})}),
         {{0x2A, 0x2A, 3}, {0x2A, 0x2A, 4}, {0x2A, 0x2A, 5}}},
    };
    vt::CallbackCounter& counter = vt::CallbackCounter::Instance();
    ASSERT_EQ(KtRegisterCallback(vt::CallbackCounter::Callback), 0u);
    Quiet();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const int calls = counter.Calls();
        ASSERT_EQ(Send(), 0u);
        sim->SendRaw(c.bytes);
        Bytes got;
        ASSERT_EQ(Take(got, 50), 0u);
        EXPECT_EQ(got, vt::ReplyTo(5, {7}).payload);
        ASSERT_TRUE(counter.WaitFor(calls + static_cast<int>(c.messages.size())));
        for (const Bytes& m : c.messages) EXPECT_EQ(TakeMessage(), m);
        EXPECT_EQ(TakeMessage(), Bytes{});
    }
}

// A false start never costs the real packet after it: parsing resumes at
// the byte after the abandoned packet's start byte.
TEST_F(Llc, RealPacketAfterNoiseIsFound) {
    const Bytes reply = Packet(vt::ReplyTo(5, {9}));
    const Bytes bogusLongHeader = {0xC0, 0x02, 0x00, 0x0F, 0xFF};  // claims 4095 bytes
    const struct {
        const char* what;
        std::vector<Bytes> writes;
    } cases[] = {
        {"stray start byte", {Concat({{0xC0}, reply})}},
        {"bad checksum before", {Concat({{0xC0, 0x02, 0x00, 0x10, 0x01, 0x2A, 0x00}, reply})}},
        {"long header in the same write", {Concat({bogusLongHeader, reply})}},
        {"long header, then silence", {bogusLongHeader, {}, reply}},
    };
    Quiet();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(Send(), 0u);
        for (const Bytes& w : c.writes) {
            if (w.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the line is quiet
            sim->SendRaw(w);
        }
        Bytes got;
        ASSERT_EQ(Take(got, 50), 0u);
        EXPECT_EQ(got, vt::ReplyTo(5, {9}).payload);
    }
    EXPECT_TRUE(Contains(Log(), "<ERROR> ParseHeader :Valid header not found in buffer\n"));
}

// One resend request: the same bytes again, and the next reply is taken.
// Eleven in a row: given up after the tenth resend.
TEST_F(Llc, ResendRequestsRepeatTheSameBytesTenTimesAtMost) {
    for (int requests : {1, 12}) {
        SCOPED_TRACE(requests);
        const size_t mark = Log().size();
        const size_t before = sim->ReceivedCount();
        sim->SetFaults(With(&Faults::resendRequests, requests));
        ASSERT_EQ(Send(), 0u);
        Bytes reply;
        vt::Stopwatch watch;
        EXPECT_EQ(Take(reply, 50), requests == 1 ? 0u : 0x01000000u);
        EXPECT_LT(watch.Ms(), 15000);
        std::vector<HostPacket> got = sim->Received();
        ASSERT_EQ(got.size() - before, requests == 1 ? 2u : 12u);
        EXPECT_EQ(got.back().raw, got[before].raw);
        const std::string log = Log().substr(mark);
        EXPECT_EQ(Contains(log, "Retry success"), requests == 1);
        EXPECT_TRUE(Contains(log, requests == 1 ? "<INFO> RetryLastMessage: Retry number :0\n" : "Retry number :10\n"));
        EXPECT_FALSE(Contains(log, requests == 1 ? "Retry number :1" : "Retry number :11"));
        if (requests == 1) {
            EXPECT_EQ(reply, kEchoReply);
        }
    }
}

TEST_F(Llc, ResendRequestWithoutACopyFailsAfterASecond) {
    Quiet();
    ASSERT_EQ(Send(), 0u);
    sim->SendPacket(Reply{eBROADCAST_DEVICE_ID, 0, 1, {0x2A, 0x2A, 0x45}});
    Fence();                       // the resend request is queued
    Handler()->ClearRetryCache();  // ...and the copy is gone
    BYTE buffer[64];
    testing::internal::CaptureStdout();
    vt::Stopwatch watch;
    EXPECT_EQ(RemoveMessage(buffer, sizeof buffer), 0x01000000u);
    EXPECT_GE(watch.Ms(), 990);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "<ERROR> RetryLastMessage :No last message to resend\n");
}

TEST_F(Llc, OversizedQueuedMessageIsRemovedWholeAndCut) {
    ASSERT_EQ(KtRegisterCallback(vt::CallbackCounter::Callback), 0u);
    sim->SendUnsolicited({0x2A, 0x2A, 1, 2, 3, 4, 5, 6});
    ASSERT_TRUE(vt::CallbackCounter::Instance().WaitFor(1));
    Bytes buffer(8, 0);
    KtXlnkMsgS msg{0, 0, 0, 0, 2, buffer.data()};
    EXPECT_EQ(KtRemoveConnectionlessMsg(&msg), 0x1A000000u);
    EXPECT_EQ(msg.payloadLen, 2);
    EXPECT_EQ(buffer, (Bytes{0x2A, 0x2A, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(TakeMessage(), Bytes{});
    EXPECT_TRUE(Contains(Log(),
                         "<ERROR> RemoveMsgFromQueue :Payload length in message structure is less than the "
                         "actual payload in queue\n"));
}

// Capacities, bad arguments and a second open are refused; nothing reaches
// the device, and the open port keeps working.
TEST_F(Llc, RefusedCallsWriteNothing) {
    ASSERT_EQ(Send(), 0u);
    Bytes buffer(4096, 0);
    KtXlnkMsgS msg{0, 0, 0, 0, 100, buffer.data()}, small = msg, noBuffer{0, 0, 0, 0, 16, nullptr};
    ASSERT_EQ(KtRemoveMsg(&msg, 50), 0u);
    EXPECT_EQ(msg.payloadLen, 10);  // taken with a capacity of 4095, whatever was asked
    EXPECT_EQ(KtRemoveConnectionlessMsg(&small), 0x07000000u);
    EXPECT_EQ(small.payloadLen, 100);  // kept: a non-zero capacity stands
    BYTE b;
    WORD w;
    EXPECT_EQ(RemoveMessage(buffer.data(), 4095), 0x07000000u);
    EXPECT_EQ(RemoveMessage(buffer.data(), 4096), 0x1A000000u);
    EXPECT_EQ(KtRemoveMessage(nullptr, &b, &b, &w, buffer.data(), 10), 0x05000000u);
    EXPECT_EQ(KtRemoveConnectionlessMessage(&b, &b, &b, &w, nullptr, 10), 0x05000000u);
    EXPECT_EQ(Handler()->RemoveMsg(eCONNECTION_ORIENTED, &noBuffer), 0x05000000u);
    EXPECT_EQ(Handler()->RemoveMsg(static_cast<KtQueueTypeE>(2), &msg), 0x05000000u);
    EXPECT_EQ(Send(Bytes(4096, 0x2A)), 0x1A000000u);
    EXPECT_EQ(Send(Bytes{}), 0x05000000u);
    EXPECT_EQ(Send(kCommand, 2), 0x05000000u);
    EXPECT_EQ(KtSendMessage(2, 0, 0, 1, 0, nullptr), 0x05000000u);
    auto other = vyrix::sim::DeviceSimulator::OverPty();
    EXPECT_EQ(KtOpenSerialPortByName(other->SlavePath().c_str(), 57600), 0x18000000u);
    EXPECT_EQ(KtOpenSerialPort(0, 57600), 0x18000000u);
    EXPECT_EQ(KtOpenSerialPort(-1, 57600), 0x18000000u);  // the open port is found first
    CCommHandler handler;
    EXPECT_EQ(handler.ClosePort(), 0x01000000u);
    EXPECT_EQ(handler.OpenPort(sim->SlavePath().c_str(), 115200), 0x05000000u);
    EXPECT_EQ(handler.OpenPort(static_cast<const char*>(nullptr), 57600), 0x05000000u);
    EXPECT_EQ(handler.IsDeviceConnected(), 0x01000000u);
    unsigned count = 77;
    Vyrix_BTHDiscoveryInfo info[1];
    EXPECT_EQ(handler.EnumerateUARTDevices(1, &count, info), 0u);
    EXPECT_EQ(count, 77u);
    EXPECT_EQ(KtEnumerateUARTDevices(1, nullptr, info), 0x05000000u);
    EXPECT_EQ(KtEnumerateBTHDevices(1, &count, nullptr), 0x05000000u);
    for (const char* entry :
         {"<ERROR> KtRemoveMessage :Payload length greater than max payload 4096\n",
          "<INFO> KtRemoveMessage Payload length : 4095\n", "<ERROR> RemoveMsg :Invalid argument\n",
          "<ERROR> KtOpenSerialPortByName :Serial port already opened\n", "<ERROR> ClosePort :Error closing port\n"})
        EXPECT_TRUE(Contains(Log(), entry));
    ASSERT_EQ(vt::Exchange(50), 0u);
    EXPECT_EQ(sim->ReceivedCount(), 2u);  // only the good ones went out
    EXPECT_EQ(sim->BadPackets(), 0u);
    EXPECT_EQ(std::make_tuple(KtCheckSerialPort(), KtCheckUsbPort(), KtCheckBthSocket()),
              std::make_tuple(0u, 0x01000000u, 0x01000000u));
}

// An idle link: the receive thread sleeps in the kernel, and a close wakes
// and joins it at once.
TEST_F(Llc, IdleLinkSleepsAndClosesAtOnce) {
    const long before = vt::ContextSwitches("vyrix-receive");
    ASSERT_GE(before, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    EXPECT_LE(vt::ContextSwitches("vyrix-receive") - before, 2) << "the receive thread wakes while idle";

    const std::string lock = vt::SerialLockName(sim->SlavePath());
    EXPECT_TRUE(vt::FileExists(lock));
    vt::Stopwatch watch;
    ASSERT_EQ(KtCloseSerialPort(), 0u);
    EXPECT_LT(watch.Ms(), 200);
    EXPECT_FALSE(LogExists());
    EXPECT_FALSE(vt::FileExists(lock));
    EXPECT_EQ(vt::ContextSwitches("vyrix-receive"), -1);  // joined
    EXPECT_EQ(KtCloseSerialPort(), 0x16000000u);
    EXPECT_EQ(std::make_tuple(Send(), Take(5), KtCheckSerialPort()),
              std::make_tuple(0x16000000u, 0x16000000u, 0x01000000u));
}

// The callback runs on a thread of its own: it may send a command and wait
// for the reply, and it may close the port it came from.
TEST_F(Llc, CallbackMayCommandAndClose) {
    static std::promise<std::pair<Vyrix_ReturnStatus, Vyrix_ReturnStatus>> done;
    static Bytes replyInCallback;
    ASSERT_EQ(KtRegisterCallback([](void*) -> Vyrix_ReturnStatus {
                  TakeMessage();
                  Vyrix_ReturnStatus sent = Send();
                  if (sent == 0) sent = Take(replyInCallback, 50);
                  done.set_value({sent, KtCloseSerialPort()});
                  return eVYRIX_RETURN_SUCCESS;
              }),
              0u);
    sim->SendUnsolicited({0x2A, 0x2A, 1});
    auto result = done.get_future();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    const auto [reply, close] = result.get();
    EXPECT_EQ(reply, 0u);
    EXPECT_EQ(replyInCallback, kEchoReply);
    EXPECT_EQ(close, 0u);
    EXPECT_EQ(KtCheckSerialPort(), 0x01000000u);
}

// A close never waits for a callback that is still running: the callback
// may itself wait for something the closing thread holds.
TEST_F(Llc, CloseDoesNotWaitForARunningCallback) {
    static std::promise<void> entered, release;
    ASSERT_EQ(KtRegisterCallback([](void*) -> Vyrix_ReturnStatus {
                  entered.set_value();
                  release.get_future().wait();
                  return eVYRIX_RETURN_SUCCESS;
              }),
              0u);
    sim->SendUnsolicited({0x2A, 0x2A, 1});
    ASSERT_EQ(entered.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    vt::Stopwatch watch;
    EXPECT_EQ(KtCloseSerialPort(), 0u);
    EXPECT_LT(watch.Ms(), 1000);
    release.set_value();
    EXPECT_TRUE(vt::Eventually([] { return vt::ContextSwitches("vyrix-callback") == -1; }));  // it ended
}

TEST_F(Llc, ConnectionlessMessagesWithoutCallbackAreDropped) {
    sim->SendUnsolicited({0x2A, 0x2A, 7});
    ASSERT_EQ(vt::Exchange(50), 0u);  // the message before it was handled
    Fence();                          // registers the callback: later messages are kept
    EXPECT_EQ(TakeMessage(), Bytes{});
}

TEST_F(Llc, FailingCallbackIsLoggedAndItsMessageStays) {
    ASSERT_EQ(KtRegisterCallback([](void*) -> Vyrix_ReturnStatus {
                  vt::CallbackCounter::Callback(nullptr);
                  return VYRIX_RESULT(eVYRIX_FAILURE);
              }),
              0u);
    EXPECT_EQ(KtRegisterCallback(nullptr), 0x05000000u);  // the registered one stays
    sim->SendUnsolicited({0x2A, 0x2A, 7});
    ASSERT_TRUE(vt::CallbackCounter::Instance().WaitFor(1));
    ASSERT_TRUE(vt::Eventually([&] { return Contains(Log(), "<ERROR> ReadThreadRoutine: Error in ALC Callback.\n"); }));
    EXPECT_EQ(TakeMessage(), (Bytes{0x2A, 0x2A, 7}));
}

// A device that stops reading: the write gives up after two seconds
// without progress instead of retrying for ever.
TEST(LlcStalled, WriteToADeviceThatStopsReadingFails) {
    vt::PtyPair pty;  // nobody reads the other end
    ASSERT_EQ(KtOpenSerialPortByName(pty.Path().c_str(), 57600), 0u);
    Bytes payload(4095, 0x2A);
    KtXlnkMsgS msg{2, 0, 0, 1, 4095, payload.data()};
    Vyrix_ReturnStatus r = eVYRIX_RETURN_SUCCESS;
    for (int i = 0; i < 1000 && r == 0; ++i) r = KtSendMsg(msg);
    EXPECT_EQ(r, 0x01000000u);
    EXPECT_EQ(KtCloseSerialPort(), 0u);
}

TEST(LlcWithoutPort, EverythingSaysNotConnected) {
    Bytes payload(16);
    KtXlnkMsgS msg{2, 0, 0, 1, 16, payload.data()};
    for (Vyrix_ReturnStatus r :
         {Send(), Take(0), KtRemoveConnectionlessMsg(&msg), KtCloseSerialPort(), KtCloseUsbPort(), KtCloseBTHSocket()})
        EXPECT_EQ(r, 0x16000000u);
    EXPECT_EQ(KtOpenSerialPort(-1, 57600), 0x05000000u);
    EXPECT_EQ(KtCheckSerialPort(), 0x01000000u);           // -1 left nothing open
    EXPECT_EQ(KtOpenSerialPort(999, 57600), 0x01000000u);  // /dev/ttyS999: no such device
    EXPECT_EQ(KtOpenSerialPortByName("/dev/vyrix-none", 9600), 0x05000000u);
    EXPECT_EQ(KtCheckSerialPort(), 0x01000000u);
    EXPECT_EQ(KtRegisterCallback(nullptr), 0x05000000u);
}

// Without the test double: this machine has no Bluetooth in its kernel,
// which is the real stack's "no adapter" case.
TEST(LlcRealBluetooth, NoAdapterThroughTheServiceFunctions) {
    if (hci_get_route(nullptr) >= 0) GTEST_SKIP() << "this host has a Bluetooth adapter";
    EXPECT_EQ(KtOpenBTHSocket("00:11:22:33:44:55", "0000"), 0x19000000u);
    EXPECT_EQ(KtCheckBthSocket(), 0x01000000u);
    unsigned count = 5;
    Vyrix_BTHDiscoveryInfo found[2];
    EXPECT_EQ(KtEnumerateBTHDevices(2, &count, found), 0x19000000u);
    EXPECT_EQ(count, 5u);
}

}  // namespace
