// SPDX-License-Identifier: MIT
#include "SimCapture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "Vyrix_Api.h"
#include "vyrix_pcap_file.h"

namespace vyrix::sim {

namespace {
constexpr uint32_t kSimulatorLink = 1;
}  // namespace

std::unique_ptr<SimCapture> SimCapture::Create(const std::string& path, std::string* why) {
    const PcapFile file = OpenPcapFile(path, 0, why);
    if (file.dumper == nullptr) return nullptr;
    return std::unique_ptr<SimCapture>(new SimCapture(file.pcap, file.dumper));
}

SimCapture::~SimCapture() {
    pcap_dump_close(dumper_);
    pcap_close(pcap_);
}

void SimCapture::Record(uint8_t direction, uint8_t flags, const std::vector<uint8_t>& bytes) {
    // The simulator is one device on a serial line.
    const Vyrix_CaptureHeaderS header{VYRIX_CAPTURE_VERSION,
                                      direction,
                                      eVYRIX_CONNECTION_UART,
                                      flags,
                                      {0, 0, 0, static_cast<uint8_t>(kSimulatorLink)}};
    std::lock_guard<std::mutex> lock(mutex_);
    const size_t total = sizeof header + bytes.size();
    const size_t kept = std::min(total, static_cast<size_t>(kPcapSnapshotLength));
    record_.resize(kept);
    memcpy(record_.data(), &header, sizeof header);
    memcpy(record_.data() + sizeof header, bytes.data(), kept - sizeof header);
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    pcap_pkthdr pkthdr{};
    pkthdr.ts.tv_sec = now.tv_sec;
    pkthdr.ts.tv_usec = static_cast<suseconds_t>(now.tv_nsec);  // nanosecond file
    pkthdr.caplen = static_cast<bpf_u_int32>(kept);
    pkthdr.len = static_cast<bpf_u_int32>(total);
    pcap_dump(reinterpret_cast<u_char*>(dumper_), &pkthdr, record_.data());
    pcap_dump_flush(dumper_);
}

}  // namespace vyrix::sim
