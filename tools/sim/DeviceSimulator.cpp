// SPDX-License-Identifier: MIT
#include "DeviceSimulator.h"

#include "Vyrix_Api.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>

namespace vyrix::sim {

namespace {
constexpr size_t kReadChunk = 4096;
constexpr uint8_t kBroadcast = 63;

void SetNonBlocking(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK); }

void Trace(const char* what, const std::vector<uint8_t>& bytes) {
    std::fprintf(stderr, "[vyrix-sim] %s", what);
    for (uint8_t b : bytes) std::fprintf(stderr, " %02X", b);
    std::fprintf(stderr, "\n");
}
}  // namespace

std::unique_ptr<DeviceSimulator> DeviceSimulator::OverPty() {
    int master = -1, slave = -1;
    char name[256] = {0};
    if (openpty(&master, &slave, name, nullptr, nullptr) != 0) throw std::runtime_error("openpty failed");
    fcntl(master, F_SETFD, FD_CLOEXEC);
    fcntl(slave, F_SETFD, FD_CLOEXEC);
    // Raw from the start, so nothing is echoed before the host sets the
    // line up; the simulator keeps the slave open so the master never sees
    // a hang-up between host connections.
    termios tio{};
    tcgetattr(slave, &tio);
    cfmakeraw(&tio);
    tcsetattr(slave, TCSANOW, &tio);
    return std::unique_ptr<DeviceSimulator>(new DeviceSimulator(master, slave, name));
}

DeviceSimulator::DeviceSimulator(int fd) : DeviceSimulator(fd, -1, "") {}

DeviceSimulator::DeviceSimulator(int fd, int slaveFd, std::string path)
    : fd_(fd), slaveFd_(slaveFd), wakeFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), slavePath_(std::move(path)) {
    SetNonBlocking(fd_);
    responder_ = [this](const HostPacket& p) { return ModelReply(model_, p); };
    thread_ = std::thread([this] { Run(); });
}

DeviceSimulator::~DeviceSimulator() {
    stop_ = true;
    Wake();
    thread_.join();
    CloseLine();
    close(wakeFd_);
}

void DeviceSimulator::Wake() {
    uint64_t one = 1;
    if (write(wakeFd_, &one, sizeof one) < 0) {
        // The counter is already non-zero: the thread wakes anyway.
    }
}

void DeviceSimulator::SetResponder(Responder responder) {
    std::lock_guard<std::mutex> lock(mutex_);
    responder_ = std::move(responder);
}

void DeviceSimulator::SetFaults(const Faults& faults) {
    std::lock_guard<std::mutex> lock(mutex_);
    faults_ = faults;
}

void DeviceSimulator::SetRecording(bool on) {
    std::lock_guard<std::mutex> lock(mutex_);
    recording_ = on;
}

std::vector<HostPacket> DeviceSimulator::Received() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return packets_;
}

size_t DeviceSimulator::ReceivedCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return receivedCount_;
}

bool DeviceSimulator::WaitForPackets(size_t n, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return received_.wait_for(lock, timeout, [&] { return receivedCount_ >= n; });
}

size_t DeviceSimulator::BadPackets() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return parser_.BadPackets();
}

void DeviceSimulator::Run() {
    Serving();
    std::lock_guard<std::mutex> lock(mutex_);
    running_ = false;
    received_.notify_all();
}

void DeviceSimulator::Serving() {
    std::vector<uint8_t> buffer(kReadChunk);
    while (!stop_ && !hungUp_) {
        struct pollfd fds[2] = {{fd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR) return;
        if (hangUpRequested_) {
            CloseLine();
            return;
        }
        if (stop_) return;
        if (!(fds[0].revents & (POLLIN | POLLHUP | POLLERR))) continue;
        ssize_t n = read(fd_, buffer.data(), buffer.size());
        if (n <= 0) {
            if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
            // The host side went away (a socket peer closed): stop serving.
            return;
        }
        Pace(readLine_, static_cast<size_t>(n));
        std::vector<HostPacket> packets;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            parser_.Feed(buffer.data(), static_cast<size_t>(n), packets);
        }
        for (const HostPacket& packet : packets) Serve(packet);
    }
}

std::optional<Reply> DeviceSimulator::ModelReply(DeviceModel& model, const HostPacket& packet) {
    if (packet.payload.size() < 3) return std::nullopt;
    const uint8_t sequence = packet.payload[2] & 0x3F;
    Answer answer = model.Handle(packet.payload);
    Reply reply;
    reply.source = packet.destination;
    reply.payload =
        ReplyPayload(answer.errorReply ? kErrorReplyType : kReplyType, sequence, answer.status, answer.values);
    return reply;
}

uint8_t DeviceSimulator::DamagedChecksum(uint8_t checksum) {
    // Never a start byte: the damaged copy must not hide the intact one.
    const uint8_t damaged = static_cast<uint8_t>(checksum ^ 0x01);
    return damaged == 0xC0 ? static_cast<uint8_t>(checksum ^ 0x03) : damaged;
}

void DeviceSimulator::SetCapture(std::unique_ptr<SimCapture> capture) {
    std::lock_guard<std::mutex> lock(captureMutex_);
    capture_ = std::move(capture);
}

void DeviceSimulator::Capture(uint8_t direction, uint8_t flags, const std::vector<uint8_t>& bytes) {
    std::shared_ptr<SimCapture> capture;
    {
        std::lock_guard<std::mutex> lock(captureMutex_);
        capture = capture_;
    }
    if (capture && !bytes.empty()) capture->Record(direction, flags, bytes);
}

void DeviceSimulator::Serve(const HostPacket& packet) {
    if (trace_) Trace("host ->", packet.raw);
    Capture(VYRIX_CAPTURE_HOST_TO_DEVICE, 0, packet.raw);
    Responder responder;
    Faults faults;
    int number;
    bool resend = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (recording_) packets_.push_back(packet);
        ++receivedCount_;
        received_.notify_all();
        number = ++commands_;
        responder = responder_;
        faults = faults_;
        if (faults_.resendRequests > 0) {
            --faults_.resendRequests;
            resend = true;
        }
    }
    const bool quiet = faults.silent || (faults.silentEvery > 0 && number % faults.silentEvery == 0);
    std::optional<Reply> reply;
    if (quiet) {
        // no answer at all
    } else if (resend || (faults.resendEvery > 0 && number % faults.resendEvery == 0)) {
        reply = Reply{kBroadcast, packet.destination, 1, {kMarker, kMarker, 0}};
    } else {
        reply = responder(packet);
        if (reply && faults.errorEvery > 0 && number % faults.errorEvery == 0 && reply->payload.size() > 2)
            reply->payload[2] = static_cast<uint8_t>((kErrorReplyType << 6) | (reply->payload[2] & 0x3F));
    }
    if (reply) {
        std::vector<uint8_t> bytes = faults.garbage;
        Capture(VYRIX_CAPTURE_DEVICE_TO_HOST, VYRIX_CAPTURE_DISCARDED, faults.garbage);
        std::vector<uint8_t> packetBytes =
            EncodeDevicePacket(reply->destination, reply->source, reply->protocol, reply->payload);
        if (faults.damageEvery > 0 && number % faults.damageEvery == 0) {
            std::vector<uint8_t> damaged = packetBytes;
            damaged.back() = DamagedChecksum(damaged.back());
            Capture(VYRIX_CAPTURE_DEVICE_TO_HOST, VYRIX_CAPTURE_DISCARDED, damaged);
            bytes.insert(bytes.end(), damaged.begin(), damaged.end());
        }
        Capture(VYRIX_CAPTURE_DEVICE_TO_HOST, 0, packetBytes);
        bytes.insert(bytes.end(), packetBytes.begin(), packetBytes.end());
        if (trace_) Trace("device <-", bytes);
        WriteReply(bytes, faults.splitBytes, faults.splitPauseMs);
    }
    if (faults.hangUpAfter > 0 && number >= faults.hangUpAfter) {
        LetTheHostRead();
        HangUp();
    }
}

// Closing the line discards what the host has not read yet: a device that
// hangs up after its reply lets the reply be read first.  The bytes reach
// the terminal's input queue a moment after the write, hence the short
// pause before looking at it.
void DeviceSimulator::LetTheHostRead() {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (PendingToHost() > 0 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

// A reply is written whole (all its pieces) under the write lock, and keeps
// a gap to the last unprompted message; unprompted messages wait while a
// reply is due.  The host's receive loop takes one packet per read, so
// neither may hide in the same read as the other.
void DeviceSimulator::WriteReply(const std::vector<uint8_t>& bytes, size_t splitBytes, int pauseMs) {
    std::unique_lock<std::mutex> lock(writeMutex_);
    replyDue_ = true;
    writable_.wait_until(lock, lastUnsolicited_ + kUnsolicitedGap, [] { return false; });
    if (splitBytes == 0) splitBytes = bytes.size();
    for (size_t at = 0; at < bytes.size(); at += splitBytes) {
        if (at > 0 && pauseMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
        WriteLocked(bytes.data() + at, std::min(splitBytes, bytes.size() - at));
    }
    lastReply_ = std::chrono::steady_clock::now();
    replyDue_ = false;
    writable_.notify_all();
}

void DeviceSimulator::WriteAll(const uint8_t* data, size_t size) {
    std::lock_guard<std::mutex> lock(writeMutex_);
    WriteLocked(data, size);
}

void DeviceSimulator::Pace(std::chrono::steady_clock::time_point& line, size_t bytes) const {
    const unsigned baud = baud_;
    if (baud == 0) return;
    using namespace std::chrono;
    line = std::max(line, steady_clock::now()) + nanoseconds(bytes * 10 * 1000000000ull / baud);
    // steady_clock is CLOCK_MONOTONIC: sleep to the absolute deadline.
    const auto since = duration_cast<nanoseconds>(line.time_since_epoch()).count();
    const timespec deadline = {static_cast<time_t>(since / 1000000000), static_cast<long>(since % 1000000000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

void DeviceSimulator::WriteLocked(const uint8_t* data, size_t size) {
    // Paced in pieces of about 10 ms of wire time, so the host sees the
    // bytes trickle in as from a UART.
    const unsigned baud = baud_;
    const size_t piece = baud == 0 ? size : std::max<size_t>(1, baud / 1000);
    size_t done = 0;
    while (done < size && !hungUp_) {
        ssize_t n = write(fd_, data + done, std::min(piece, size - done));
        if (n > 0) {
            done += static_cast<size_t>(n);
            Pace(writeLine_, static_cast<size_t>(n));
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            struct pollfd pfd = {fd_, POLLOUT, 0};
            poll(&pfd, 1, 100);
        } else {
            return;
        }
    }
}

void DeviceSimulator::SendUnsolicited(const std::vector<uint8_t>& payload) {
    std::vector<uint8_t> bytes = EncodeDevicePacket(2, 0, 0, payload);
    std::unique_lock<std::mutex> lock(writeMutex_);
    for (;;) {
        const auto now = std::chrono::steady_clock::now();
        const auto ready = std::max(lastReply_, lastUnsolicited_) + kUnsolicitedGap;
        if (!replyDue_ && now >= ready) break;
        if (replyDue_)
            writable_.wait(lock);
        else
            writable_.wait_until(lock, ready);
    }
    if (trace_) Trace("device <- (unprompted)", bytes);
    Capture(VYRIX_CAPTURE_DEVICE_TO_HOST, 0, bytes);
    WriteLocked(bytes.data(), bytes.size());
    lastUnsolicited_ = std::chrono::steady_clock::now();
}

void DeviceSimulator::SendPacket(const Reply& reply) {
    std::vector<uint8_t> bytes = EncodeDevicePacket(reply.destination, reply.source, reply.protocol, reply.payload);
    if (trace_) Trace("device <-", bytes);
    Capture(VYRIX_CAPTURE_DEVICE_TO_HOST, 0, bytes);
    WriteAll(bytes.data(), bytes.size());
}

size_t DeviceSimulator::PendingToHost() const {
    int pending = 0;
    if (slaveFd_ < 0 || hungUp_ || ioctl(slaveFd_, FIONREAD, &pending) != 0) return 0;
    return static_cast<size_t>(pending);
}

void DeviceSimulator::SendRaw(const std::vector<uint8_t>& bytes) { WriteAll(bytes.data(), bytes.size()); }

void DeviceSimulator::CloseLine() {
    std::lock_guard<std::mutex> lock(writeMutex_);
    if (hungUp_.exchange(true)) return;
    close(fd_);
    if (slaveFd_ >= 0) close(slaveFd_);
}

void DeviceSimulator::HangUp() {
    // The descriptor is closed by the thread that polls it (or once that
    // thread has stopped), never under its feet.
    if (std::this_thread::get_id() == thread_.get_id()) {
        CloseLine();
        return;
    }
    hangUpRequested_ = true;
    Wake();
    std::unique_lock<std::mutex> lock(mutex_);
    received_.wait(lock, [&] { return hungUp_.load() || !running_; });
    lock.unlock();
    CloseLine();
}

}  // namespace vyrix::sim
