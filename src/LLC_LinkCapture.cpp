// SPDX-License-Identifier: MIT
#include "LLC_LinkCapture.h"

#include <cstdlib>
#include <cstring>

#include "LLC_BTPort.h"
#include "LLC_ForkGuard.h"
#include "LLC_UsbPort.h"
#include "LLC_XlnkMsgHandler.h"

namespace {
constexpr const char* kProcessCaptureVariable = "VYRIX_CAPTURE";

// Numbers links in the order their ports open, so that the records of one
// process-wide file tell them apart.
std::atomic<uint32_t> g_nextLinkNumber{1};

uint8_t TransportOf(const CPort& port) {
    if (dynamic_cast<const CUsbPort*>(&port) != nullptr) return eVYRIX_CONNECTION_USB;
    if (dynamic_cast<const CBTPort*>(&port) != nullptr) return eVYRIX_CONNECTION_BTH;
    return eVYRIX_CONNECTION_UART;
}

std::shared_ptr<CPacketCapture> OpenProcessWide() {
    const char* path = getenv(kProcessCaptureVariable);
    if (path == nullptr || path[0] == '\0') return nullptr;
    std::string why;
    std::shared_ptr<CPacketCapture> capture = CPacketCapture::Create(path, &why);
    if (!capture)
        LlcLog("<ERROR> %s :Cannot create the capture file %s named by VYRIX_CAPTURE: %s\n", "OpenPort", path,
               why.c_str());
    return capture;
}
}  // namespace

CLinkCapture::~CLinkCapture() { Stop(); }

std::shared_ptr<CPacketCapture> CLinkCapture::ProcessWide() {
    // Lives as long as the process: receive threads may still write while
    // static objects are destroyed at exit, and every record is flushed.
    static const auto* capture = new std::shared_ptr<CPacketCapture>(OpenProcessWide());
    static const unsigned generation = CForkGuard::Generation();
    return generation == CForkGuard::Generation() ? *capture : nullptr;
}

void CLinkCapture::Opened(const CPort& port) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_link = g_nextLinkNumber++;
    m_transport = TransportOf(port);
    m_processWide = ProcessWide();
    Refresh();
}

void CLinkCapture::Refresh() { m_on = m_own != nullptr || m_processWide != nullptr; }

Vyrix_ReturnStatus CLinkCapture::Start(const char* path) {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_own) return RC(eVYRIX_ALREADY_OPENED);
    std::string why;
    m_own = CPacketCapture::Create(path, &why);
    if (!m_own) {
        LlcLog("<ERROR> %s :Cannot create the capture file %s: %s\n", "StartCapture", path, why.c_str());
        return RC(eVYRIX_FAILURE);
    }
    Refresh();
    return RC_OK;
}

void CLinkCapture::Stop() {
    std::shared_ptr<CPacketCapture> own;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        own.swap(m_own);
        Refresh();
    }
    // A writer that still holds it finds it closed.
    if (own) own->Close();
}

void CLinkCapture::Write(uint8_t direction, uint8_t flags, const BYTE* bytes, size_t length) {
    std::shared_ptr<CPacketCapture> own, processWide;
    Vyrix_CaptureHeaderS header{VYRIX_CAPTURE_VERSION, direction, 0, flags, {}};
    {
        std::lock_guard<std::mutex> lock(m_lock);
        own = m_own;
        processWide = m_processWide;
        header.transport = m_transport;
        for (int i = 0; i < 4; ++i) header.link[i] = static_cast<uint8_t>(m_link >> (24 - 8 * i));
    }
    if (own) own->Record(header, bytes, length);
    if (processWide) processWide->Record(header, bytes, length);
}

void CLinkCapture::Sent(const BYTE* packet, size_t length, bool resent) {
    if (On()) Write(VYRIX_CAPTURE_HOST_TO_DEVICE, resent ? VYRIX_CAPTURE_RESENT : 0, packet, length);
}

void CLinkCapture::Parsed(CXlnkMsgHandler& parser, const KtXlnkMsgS* accepted) {
    if (parser.HasDropped()) {
        parser.TakeDropped(&m_dropped);
        for (const std::vector<BYTE>& piece : m_dropped)
            Write(VYRIX_CAPTURE_DEVICE_TO_HOST, VYRIX_CAPTURE_DISCARDED, piece.data(), piece.size());
        m_dropped.clear();
    }
    if (accepted == nullptr || !On()) return;
    // The packet as it arrived: start byte, header, payload, checksum.
    BYTE packet[KT_XLNK_MAX_PACKET];
    packet[0] = KT_XLNK_START_BYTE;
    memcpy(packet + 1, parser.LastHeader(), KT_XLNK_HEADER_LEN - 1);
    if (accepted->payloadLen > 0) memcpy(packet + KT_XLNK_HEADER_LEN, accepted->pPayload, accepted->payloadLen);
    BYTE checksum = 0;
    for (size_t i = 1; i < KT_XLNK_HEADER_LEN + accepted->payloadLen; ++i)
        checksum = static_cast<BYTE>(checksum - packet[i]);
    packet[KT_XLNK_HEADER_LEN + accepted->payloadLen] = checksum;
    Write(VYRIX_CAPTURE_DEVICE_TO_HOST, 0, packet, KT_XLNK_HEADER_LEN + accepted->payloadLen + 1u);
}
