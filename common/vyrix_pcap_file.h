/* SPDX-License-Identifier: MIT */
// Opening a capture file, written once for the library's captures and the
// simulator's, so that both sides of a line are recorded in one format: link
// type VYRIX_CAPTURE_LINKTYPE, nanosecond time stamps, records of at most
// kPcapSnapshotLength bytes.  Not installed: a helper of this tree.
#ifndef VYRIX_PCAP_FILE_H
#define VYRIX_PCAP_FILE_H

#include <fcntl.h>
#include <pcap/pcap.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "Vyrix_Api.h"

namespace vyrix {

constexpr int kPcapSnapshotLength = 65535;

struct PcapFile {
    pcap_t* pcap = nullptr;
    pcap_dumper_t* dumper = nullptr;  // null when the file could not be made
};

// Creates (or empties) `path` with mode 0666 less the umask and writes the
// pcap file header.  The descriptor is opened here rather than by
// pcap_dump_open, whose fopen would leave it to programs the process
// executes.  `streamBuffer` bytes of stdio buffer (0: stdio's own).  On
// failure nothing is left open and *why says why.
inline PcapFile OpenPcapFile(const std::string& path, size_t streamBuffer, std::string* why) {
    PcapFile out;
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    FILE* file = fd >= 0 ? fdopen(fd, "wb") : nullptr;
    if (file == nullptr) {
        *why = strerror(errno);
        if (fd >= 0) close(fd);
        return out;
    }
    if (streamBuffer > 0) setvbuf(file, nullptr, _IOFBF, streamBuffer);
    out.pcap =
        pcap_open_dead_with_tstamp_precision(VYRIX_CAPTURE_LINKTYPE, kPcapSnapshotLength, PCAP_TSTAMP_PRECISION_NANO);
    out.dumper = out.pcap != nullptr ? pcap_dump_fopen(out.pcap, file) : nullptr;
    if (out.dumper == nullptr || pcap_dump_flush(out.dumper) != 0) {
        *why = out.pcap != nullptr ? pcap_geterr(out.pcap) : "cannot make a pcap handle";
        if (out.dumper != nullptr)
            pcap_dump_close(out.dumper);
        else
            fclose(file);
        if (out.pcap != nullptr) pcap_close(out.pcap);
        return PcapFile{};
    }
    return out;
}

}  // namespace vyrix

#endif  // VYRIX_PCAP_FILE_H
