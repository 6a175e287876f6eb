/* SPDX-License-Identifier: MIT */
// Declarations shared by the LLC layer: constants, result helpers, logging.
#ifndef LLC_COMMON_H
#define LLC_COMMON_H

#include <cstddef>
#include <cstdint>

#include "Vyrix_LLC_Api_Ex.h"
#include "vyrix_rc.h"

// Ports the connections of the API layer may hold open on one transport.
constexpr size_t KT_MAX_PORTS_PER_TRANSPORT = 8;

// What one link queues for the application before the oldest messages make
// room: whichever bound is reached first.
constexpr size_t KT_MAX_QUEUED_MESSAGES = 65536;
constexpr size_t KT_MAX_QUEUED_BYTES = 16u * 1024u * 1024u;

// Line settings of the serial transport.
constexpr unsigned long KT_VYRIX_BAUDRATE = 57600;

// Packet framing: start byte plus four header bytes; one checksum byte.
constexpr unsigned KT_XLNK_HEADER_LEN = 5;
constexpr unsigned KT_XLNK_MAX_PACKET = KT_XLNK_MAX_PAYLOAD + KT_XLNK_HEADER_LEN + 1;  // 4101
constexpr uint8_t KT_XLNK_START_BYTE = 0xC0;

// Lock files that mark a device as taken, and the log files, all in the
// runtime directory (RuntimeDir(): /tmp unless VYRIX_RUNTIME_DIR names
// another one).
constexpr const char* KT_RUNTIME_DIR_DEFAULT = "/tmp";
constexpr const char* KT_LOCK_PREFIX_SERIAL = "vyrix_llc_com";
constexpr const char* KT_LOCK_PREFIX_BTH = "vyrix_llc_bth";
constexpr const char* KT_LOCK_PREFIX_USB = "vyrix_llc_usb";
constexpr size_t KT_LOCK_NAME_SIZE = 128;
constexpr const char* KT_LOG_FILE_NAME = "Vyrix_SDK.log";
constexpr const char* KT_LOG_FILE_PREFIX = "Vyrix_SDK";

// Waiting and retrying.
constexpr unsigned KT_REMOVE_POLL_MS = 100;     // one period of a reply wait
constexpr unsigned KT_RESEND_COUNT = 11;        // resends on a broadcast-addressed reply
constexpr unsigned KT_RESEND_MAX_POLLS = 1000;  // periods to wait for each resent reply
constexpr unsigned KT_NO_RETRY_COPY_PAUSE_MS = 1000;
constexpr unsigned KT_THREAD_CLOSE_POLL_MS = 250;  // "Thread still active!!" period
constexpr unsigned KT_PACKET_GAP_MS = 200;         // silence inside a packet that abandons it
constexpr unsigned KT_WRITE_STALL_MS = 2000;       // a write with no progress this long fails
constexpr unsigned KT_BTH_IO_TIMEOUT_S = 2;        // Bluetooth connect
constexpr uint8_t KT_BTH_RFCOMM_CHANNEL = 1;

// Reconnection: the pause between attempts starts here and doubles up to
// the connection's maximum (this default when none is given).
constexpr unsigned KT_RECONNECT_FIRST_MS = 50;
constexpr unsigned KT_RECONNECT_DEFAULT_MAX_MS = 5000;
// State changes a link holds for its callback before the oldest go.
constexpr size_t KT_MAX_PENDING_STATE_CHANGES = 1024;
// How long a close waits for a state or message callback of its link that
// is still running on the callback thread.
constexpr unsigned KT_CALLBACK_QUIESCE_MS = 10000;

// USB identity and transfers.
#ifndef VYRIX_USB_VENDOR_ID
#error "VYRIX_USB_VENDOR_ID is set by the build"
#endif
constexpr uint16_t KT_USB_PRODUCT_ID = 0x0004;
constexpr unsigned char KT_USB_IN_EP = 0x81;
constexpr int KT_USB_PACKET_SIZE = 64;
constexpr unsigned KT_USB_WRITE_TIMEOUT_MS = 1000;
constexpr unsigned KT_USB_CONTROL_TIMEOUT_MS = 1000;
constexpr int KT_USB_STRING_SIZE = 255;

// The result word that carries a library code.
constexpr Vyrix_ReturnStatus RC(Vyrix_ReturnCodeE code) {
    return static_cast<Vyrix_ReturnStatus>(static_cast<uint32_t>(code) << 24);
}
constexpr Vyrix_ReturnStatus RC_OK = eVYRIX_RETURN_SUCCESS;
constexpr bool HasCode(Vyrix_ReturnStatus r, Vyrix_ReturnCodeE code) {
    return (static_cast<uint32_t>(r) >> 24) == static_cast<uint32_t>(code);
}

// Writes one entry while the log exists; drops it otherwise.
void LlcLog(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Milliseconds; one call sleeps at most 4294967 ms.
VYRIX_API void LLCSleep(unsigned long ulMilliSecs);

#endif  // LLC_COMMON_H
