/* SPDX-License-Identifier: MIT */
// A serial link to the device simulator over a pseudo-terminal, opened
// through the LLC service functions.
#ifndef VYRIX_TEST_SIMLINK_H
#define VYRIX_TEST_SIMLINK_H

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "DeviceSimulator.h"
#include "TestSupport.h"
#include "Vyrix_LLC_Api_Ex.h"

namespace vt {

using Bytes = std::vector<uint8_t>;

using vyrix::sim::Faults;

inline Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

// Faults with one field set (on top of `base`).
template <typename T>
Faults With(T Faults::*field, T value, Faults base = {}) {
    base.*field = value;
    return base;
}
inline Faults Quiet() { return With(&Faults::silent, true); }

// A command payload (opcode 0x2A) the simulator answers.
const Bytes kCommand = {0x2A, 0x2A, 0x05, 0x2A, 0x00, 0x00, 0x00, 0x00};

// Sends a command payload to the device as KtSendMsg does.
inline Vyrix_ReturnStatus Send(Bytes payload = kCommand, uint8_t destination = 0) {
    KtXlnkMsgS msg{2, destination, 0, 1, static_cast<WORD>(payload.size()), payload.data()};
    return KtSendMsg(msg);
}

// Takes a reply with KtRemoveMsg into `payload`.
inline Vyrix_ReturnStatus Take(Bytes& payload, int retryCount, KtXlnkMsgS* record = nullptr) {
    payload.assign(4096, 0);
    KtXlnkMsgS msg{};
    msg.pPayload = payload.data();
    Vyrix_ReturnStatus r = KtRemoveMsg(&msg, retryCount);
    if (r == 0) payload.resize(msg.payloadLen);
    if (record) *record = msg;
    return r;
}
inline Vyrix_ReturnStatus Take(int retryCount) {
    Bytes payload;
    return Take(payload, retryCount);
}

// One command and its reply through the link-layer functions.
inline Vyrix_ReturnStatus Exchange(int retryCount) {
    Vyrix_ReturnStatus r = Send();
    return r != 0 ? r : Take(retryCount);
}

// Counts the calls of the connectionless callback (process-wide, as the
// callback is) and lets a test wait for them.
class CallbackCounter {
public:
    static CallbackCounter& Instance() {
        static CallbackCounter counter;
        return counter;
    }
    static Vyrix_ReturnStatus Callback(void*) {
        CallbackCounter& self = Instance();
        std::lock_guard<std::mutex> lock(self.mutex_);
        ++self.calls_;
        self.called_.notify_all();
        return eVYRIX_RETURN_SUCCESS;
    }
    bool WaitFor(int calls, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
        std::unique_lock<std::mutex> lock(mutex_);
        return called_.wait_for(lock, limit, [&] { return calls_ >= calls; });
    }
    int Calls() {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }

private:
    std::mutex mutex_;
    std::condition_variable called_;
    int calls_ = 0;
};

// Takes the next connectionless message's payload ({} when none).
inline Bytes TakeMessage() {
    Bytes payload(4096, 0);
    KtXlnkMsgS msg{0, 0, 0, 0, 0, payload.data()};
    if (KtRemoveConnectionlessMsg(&msg) != 0) return {};
    payload.resize(msg.payloadLen);
    return payload;
}

// Returns once the receive thread has handled everything the device sent
// before: the device sends a message of its own after it, and the message's
// callback comes after all that.
inline void Fence(vyrix::sim::DeviceSimulator& sim) {
    const Bytes fence = {0x2A, 0x2A, 0xFE};
    CallbackCounter& counter = CallbackCounter::Instance();
    ASSERT_EQ(KtRegisterCallback(CallbackCounter::Callback), 0u);
    const int before = counter.Calls();
    sim.SendUnsolicited(fence);
    ASSERT_TRUE(counter.WaitFor(before + 1));
    ASSERT_EQ(TakeMessage(), fence);
}

class SimLink : public ::testing::Test {
protected:
    void SetUp() override {
        sim = vyrix::sim::DeviceSimulator::OverPty();
        ASSERT_EQ(KtOpenSerialPortByName(sim->SlavePath().c_str(), 57600), 0u);
    }
    void TearDown() override {
        KtCloseSerialPort();
        sim.reset();
    }

    void Fence() { vt::Fence(*sim); }

    std::unique_ptr<vyrix::sim::DeviceSimulator> sim;
};

// A device reply to the command numbered `sequence`.
inline vyrix::sim::Reply ReplyTo(uint8_t sequence, Bytes values = {}, uint8_t type = 1) {
    return vyrix::sim::Reply{2, 0, 1, vyrix::sim::ReplyPayload(type, sequence, 0, values)};
}

}  // namespace vt

#endif
