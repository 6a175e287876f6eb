/* SPDX-License-Identifier: MIT */
// The simulator's side of the traffic in a pcap file, in the library's
// capture format (Vyrix_Api.h: link type 147, Vyrix_CaptureHeaderS before
// each record's bytes), so one dissector reads both sides.
#ifndef VYRIX_SIM_SIMCAPTURE_H
#define VYRIX_SIM_SIMCAPTURE_H

#include <pcap/pcap.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vyrix::sim {

class SimCapture {
public:
    // Null when the file cannot be created; *why then says why.
    static std::unique_ptr<SimCapture> Create(const std::string& path, std::string* why);
    ~SimCapture();
    SimCapture(const SimCapture&) = delete;
    SimCapture& operator=(const SimCapture&) = delete;

    // One record, written and flushed at once.  `direction` and `flags` as
    // in Vyrix_CaptureHeaderS.
    void Record(uint8_t direction, uint8_t flags, const std::vector<uint8_t>& bytes);

private:
    SimCapture(pcap_t* pcap, pcap_dumper_t* dumper) : pcap_(pcap), dumper_(dumper) {}

    std::mutex mutex_;
    pcap_t* pcap_;
    pcap_dumper_t* dumper_;
    std::vector<u_char> record_;
};

}  // namespace vyrix::sim

#endif
