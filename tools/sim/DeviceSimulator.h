/* SPDX-License-Identifier: MIT */
// Plays the device on the far side of a byte stream: a pseudo-terminal
// master by default, or any stream descriptor (a socket for the Bluetooth
// test double).  It parses what the host sends, records every packet, and
// answers through a responder (by default the DeviceModel), with faults on
// request: error replies, resend requests, silence, garbage before a reply,
// replies split over several writes, unprompted messages, hang-up.
#ifndef VYRIX_SIM_DEVICESIMULATOR_H
#define VYRIX_SIM_DEVICESIMULATOR_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "DeviceCodec.h"
#include "DeviceModel.h"
#include "SimCapture.h"

namespace vyrix::sim {

// What the device sends back for one host packet.
struct Reply {
    uint8_t destination = 2;  // 63 asks the host to resend its last packet
    uint8_t source = 0;
    uint8_t protocol = 1;
    std::vector<uint8_t> payload;
};

using Responder = std::function<std::optional<Reply>(const HostPacket&)>;

struct Faults {
    int errorEvery = 0;            // every N-th command gets an error reply
    int silentEvery = 0;           // every N-th command gets no answer
    int resendEvery = 0;           // every N-th command is answered with a resend request first
    int resendRequests = 0;        // the next N answers are resend requests
    bool silent = false;           // answer nothing at all
    std::vector<uint8_t> garbage;  // bytes written before every reply
    size_t splitBytes = 0;         // write replies in pieces of this size...
    int splitPauseMs = 0;          // ...with this pause between them
    int hangUpAfter = 0;           // close the line after N commands
    int damageEvery = 0;           // every N-th reply goes out once with a wrong checksum before the intact one
};

class DeviceSimulator {
public:
    // A new pseudo-terminal; the host opens SlavePath().
    static std::unique_ptr<DeviceSimulator> OverPty();
    // Serves an already connected stream descriptor (taken over).
    explicit DeviceSimulator(int fd);
    ~DeviceSimulator();
    DeviceSimulator(const DeviceSimulator&) = delete;
    DeviceSimulator& operator=(const DeviceSimulator&) = delete;

    const std::string& SlavePath() const { return slavePath_; }
    DeviceModel& Model() { return model_; }

    void SetResponder(Responder responder);
    void SetFaults(const Faults& faults);
    // Log what is received, readably, to stderr.
    void SetTrace(bool on) { trace_ = on; }
    // Records this side's traffic (what the host sent, what is written to
    // it, noise and damaged copies marked as not packets).
    void SetCapture(std::unique_ptr<SimCapture> capture);
    // Sends and reads at the wire rate of this many baud, 8N1 (10 bits a
    // byte), as a real UART does; 0 (the default) does not pace.
    void SetBaud(unsigned baud) { baud_ = baud; }

    // Keep every packet received (the default), or only count them.
    void SetRecording(bool on);
    // Every packet received so far, in order.
    std::vector<HostPacket> Received() const;
    size_t ReceivedCount() const;
    // Waits until at least n packets have arrived.
    bool WaitForPackets(size_t n, std::chrono::milliseconds timeout) const;
    size_t BadPackets() const;

    // A message of the device's own accord (connectionless).
    void SendUnsolicited(const std::vector<uint8_t>& payload);
    void SendPacket(const Reply& reply);
    void SendRaw(const std::vector<uint8_t>& bytes);
    // Bytes written to the host that it has not read yet (pseudo-terminal).
    size_t PendingToHost() const;
    // Closes the line, as an unplugged device.
    void HangUp();
    bool HungUp() const { return hungUp_; }

    // The wrong checksum of a damaged copy of a packet with this checksum.
    static uint8_t DamagedChecksum(uint8_t checksum);

    // The model's answer to a command packet, as a reply payload.
    static std::optional<Reply> ModelReply(DeviceModel& model, const HostPacket& packet);

private:
    DeviceSimulator(int fd, int slaveFd, std::string path);
    void Run();
    void Serving();
    void LetTheHostRead();
    void Wake();
    void CloseLine();
    void Serve(const HostPacket& packet);
    void WriteReply(const std::vector<uint8_t>& bytes, size_t splitBytes, int pauseMs);
    void WriteAll(const uint8_t* data, size_t size);
    void Capture(uint8_t direction, uint8_t flags, const std::vector<uint8_t>& bytes);
    void WriteLocked(const uint8_t* data, size_t size);
    // Waits until `bytes` more bytes have gone over the wire at the set
    // rate, counted from `line` (the time the line is next free); moves it.
    void Pace(std::chrono::steady_clock::time_point& line, size_t bytes) const;

    static constexpr std::chrono::milliseconds kUnsolicitedGap{20};

    int fd_;
    int slaveFd_;
    int wakeFd_;
    std::string slavePath_;
    DeviceModel model_;
    HostPacketParser parser_;

    mutable std::mutex mutex_;  // guards the fields below
    mutable std::condition_variable received_;
    std::vector<HostPacket> packets_;
    size_t receivedCount_ = 0;
    bool recording_ = true;
    Responder responder_;
    Faults faults_;
    int commands_ = 0;

    std::mutex writeMutex_;  // one writer at a time; guards the fields below
    std::condition_variable writable_;
    bool replyDue_ = false;
    std::chrono::steady_clock::time_point lastReply_{};
    std::chrono::steady_clock::time_point lastUnsolicited_{};
    std::atomic<bool> trace_{false};
    std::mutex captureMutex_;  // guards capture_
    std::shared_ptr<SimCapture> capture_;
    std::atomic<unsigned> baud_{0};
    std::chrono::steady_clock::time_point readLine_{};   // read thread only
    std::chrono::steady_clock::time_point writeLine_{};  // guarded by writeMutex_
    std::atomic<bool> hungUp_{false};
    std::atomic<bool> stop_{false};
    std::atomic<bool> hangUpRequested_{false};
    bool running_ = true;  // guarded by mutex_
    std::thread thread_;
};

}  // namespace vyrix::sim

#endif
