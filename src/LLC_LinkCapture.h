/* SPDX-License-Identifier: MIT */
// A link's tap: hands every packet the link sends or receives, and every
// run of bytes its parser gives up, to the capture files that watch the
// link: the connection's own (Vyrix_StartCapture) and the process-wide one
// (VYRIX_CAPTURE).  With neither, each hook costs one atomic load.
#ifndef LLC_LINKCAPTURE_H
#define LLC_LINKCAPTURE_H

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "LLC_Common.h"
#include "LLC_PacketCapture.h"

class CPort;
class CXlnkMsgHandler;

class CLinkCapture {
public:
    CLinkCapture() = default;
    ~CLinkCapture();
    CLinkCapture(const CLinkCapture&) = delete;
    CLinkCapture& operator=(const CLinkCapture&) = delete;

    // The port opened: takes the link's number and transport, and joins the
    // process-wide capture if there is one.  Before the receive thread runs.
    void Opened(const CPort& port);

    // The connection's own capture.  Start: 0; 0x1000000 the file cannot be
    // created (logged); 0x18000000 one is already running.  Stop: closes
    // it (nothing when none runs).
    Vyrix_ReturnStatus Start(const char* path);
    void Stop();

    // Hooks of the link.  Any thread; each record is written whole.
    void Sent(const BYTE* packet, size_t length, bool resent);
    // After each ParsePacket call: what the parser gave up, then the packet
    // it accepted (null when none).
    void Parsed(CXlnkMsgHandler& parser, const KtXlnkMsgS* accepted);
    bool On() const { return m_on.load(std::memory_order_relaxed); }

    // The process-wide capture named by VYRIX_CAPTURE, opened on first use;
    // null when the variable is unset, the file cannot be created, or in a
    // forked child.
    static std::shared_ptr<CPacketCapture> ProcessWide();

private:
    void Write(uint8_t direction, uint8_t flags, const BYTE* bytes, size_t length);
    void Refresh();

    std::mutex m_lock;  // guards the two pointers below (not the writes)
    std::shared_ptr<CPacketCapture> m_own;
    std::shared_ptr<CPacketCapture> m_processWide;
    std::atomic<bool> m_on{false};
    uint32_t m_link = 0;
    uint8_t m_transport = 0;
    std::vector<std::vector<BYTE>> m_dropped;  // receive thread only
};

#endif  // LLC_LINKCAPTURE_H
