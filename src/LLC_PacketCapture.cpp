// SPDX-License-Identifier: MIT
#include "LLC_PacketCapture.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <set>

#include "LLC_ForkGuard.h"
#include "vyrix_pcap_file.h"

namespace {
// A discarded run can be longer than one packet; longer ones are cut.
// Room for the longest record with its pcap record header, so that one
// record leaves in one write.
constexpr size_t kStreamBuffer = vyrix::kPcapSnapshotLength + 64;

// Every capture of this process.  Between pcap_dump and the flush a record
// waits in its stream's buffer; fork() waits until no record does, or a
// child's exit(), which flushes every stream, would write it again.
std::mutex g_capturesLock;
std::set<CPacketCapture*>& Captures() {
    static auto* captures = new std::set<CPacketCapture*>;  // outlives static destruction
    return *captures;
}
}  // namespace

void CPacketCapture::HoldAll() {
    g_capturesLock.lock();
    for (CPacketCapture* c : Captures()) c->m_lock.lock();
}

void CPacketCapture::ReleaseAll() {
    for (CPacketCapture* c : Captures()) c->m_lock.unlock();
    g_capturesLock.unlock();
}

CPacketCapture::CPacketCapture(pcap_t* pcap, pcap_dumper_t* dumper)
    : m_pcap(pcap), m_dumper(dumper), m_generation(CForkGuard::Generation()) {
    static const int registered = pthread_atfork(HoldAll, ReleaseAll, ReleaseAll);
    (void)registered;
    std::lock_guard<std::mutex> lock(g_capturesLock);
    Captures().insert(this);
}

CPacketCapture::~CPacketCapture() {
    {
        std::lock_guard<std::mutex> lock(g_capturesLock);
        Captures().erase(this);
    }
    Close();
}

std::shared_ptr<CPacketCapture> CPacketCapture::Create(const std::string& path, std::string* pWhy) {
    const vyrix::PcapFile file = vyrix::OpenPcapFile(path, kStreamBuffer, pWhy);
    if (file.dumper == nullptr) return nullptr;
    return std::shared_ptr<CPacketCapture>(new CPacketCapture(file.pcap, file.dumper));
}

void CPacketCapture::Record(const Vyrix_CaptureHeaderS& header, const BYTE* bytes, size_t length) {
    if (m_generation != CForkGuard::Generation()) return;
    bool failed;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (m_dumper == nullptr) return;
        failed = !WriteLocked(header, bytes, length);
        if (failed) CloseLocked();
    }
    if (failed) LlcLog("<ERROR> %s :Cannot write the capture file, capture ended\n", "CaptureRecord");
}

bool CPacketCapture::WriteLocked(const Vyrix_CaptureHeaderS& header, const BYTE* bytes, size_t length) {
    const size_t total = sizeof header + length;
    const size_t kept = total < static_cast<size_t>(vyrix::kPcapSnapshotLength) ? total : vyrix::kPcapSnapshotLength;
    m_record.resize(kept);
    memcpy(m_record.data(), &header, sizeof header);
    memcpy(m_record.data() + sizeof header, bytes, kept - sizeof header);
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    pcap_pkthdr record{};
    record.ts.tv_sec = now.tv_sec;
    record.ts.tv_usec = static_cast<suseconds_t>(now.tv_nsec);  // nanoseconds: the file says so
    record.caplen = static_cast<bpf_u_int32>(kept);
    record.len = static_cast<bpf_u_int32>(total);
    pcap_dump(reinterpret_cast<u_char*>(m_dumper), &record, m_record.data());
    return pcap_dump_flush(m_dumper) == 0;
}

void CPacketCapture::Close() {
    if (m_generation != CForkGuard::Generation()) return;
    std::lock_guard<std::mutex> lock(m_lock);
    CloseLocked();
}

void CPacketCapture::CloseLocked() {
    if (m_dumper == nullptr || m_generation != CForkGuard::Generation()) return;
    pcap_dump_close(m_dumper);
    pcap_close(m_pcap);
    m_dumper = nullptr;
    m_pcap = nullptr;
}
