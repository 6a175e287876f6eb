/* SPDX-License-Identifier: MIT */
// One pcap file that packets of one link, or of all links of the process,
// are recorded into: link type 147 (user 0), nanosecond time stamps, each
// record a Vyrix_CaptureHeaderS and the bytes as they crossed the port.
//
// Writers on different threads (the receive thread, senders) take the
// file's lock for the writing of one record only, so records never mix.
// Each record is flushed (one write) before Record returns, so a crash
// keeps every record written.  The time stamp is taken under the lock, so
// records stand in the file in time order.
//
// The descriptor is close-on-exec.  fork() waits for records being written
// (no half-written record is left in a stream the child inherits), and a
// forked child leaves an inherited capture alone: no write, no close.
#ifndef LLC_PACKETCAPTURE_H
#define LLC_PACKETCAPTURE_H

#include <pcap/pcap.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "LLC_Common.h"
#include "Vyrix_Api.h"

class CPacketCapture {
public:
    // Creates (or empties) the file and writes the pcap file header.
    // Null when that fails; *pWhy then says why.
    static std::shared_ptr<CPacketCapture> Create(const std::string& path, std::string* pWhy);
    ~CPacketCapture();
    CPacketCapture(const CPacketCapture&) = delete;
    CPacketCapture& operator=(const CPacketCapture&) = delete;

    // Appends one record; a record longer than the snapshot length is cut.
    // Does nothing once closed, or in a forked child.
    void Record(const Vyrix_CaptureHeaderS& header, const BYTE* bytes, size_t length);
    // Flushes and closes the file; later records are ignored.
    void Close();

private:
    CPacketCapture(pcap_t* pcap, pcap_dumper_t* dumper);
    bool WriteLocked(const Vyrix_CaptureHeaderS& header, const BYTE* bytes, size_t length);
    void CloseLocked();
    // Around fork(): every capture's lock, so no record is half written.
    static void HoldAll();
    static void ReleaseAll();

    std::mutex m_lock;  // guards everything below
    pcap_t* m_pcap;
    pcap_dumper_t* m_dumper;
    std::vector<u_char> m_record;  // header and bytes of the record being written
    const unsigned m_generation;   // of the process that created it
};

#endif  // LLC_PACKETCAPTURE_H
