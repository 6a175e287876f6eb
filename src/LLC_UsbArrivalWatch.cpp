// SPDX-License-Identifier: MIT
#include "LLC_UsbArrivalWatch.h"

#include <sys/time.h>

#include "LLC_Common.h"

CUsbArrivalWatch::~CUsbArrivalWatch() {
    libusb_context* ctx = m_ctx.load();
    if (ctx == nullptr) return;
    if (m_started) libusb_hotplug_deregister_callback(ctx, m_callback);
    libusb_exit(ctx);
}

bool CUsbArrivalWatch::Start() {
    if (m_tried) return m_started;
    m_tried = true;
    if (!libusb_has_capability(LIBUSB_CAP_HAS_HOTPLUG)) return false;
    libusb_context* ctx = nullptr;
    if (libusb_init(&ctx) != 0) return false;
    m_started = libusb_hotplug_register_callback(ctx, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, LIBUSB_HOTPLUG_NO_FLAGS,
                                                 VYRIX_USB_VENDOR_ID, KT_USB_PRODUCT_ID, LIBUSB_HOTPLUG_MATCH_ANY,
                                                 Arrived, this, &m_callback) == LIBUSB_SUCCESS;
    m_ctx = ctx;
    if (!m_started) LlcLog("<INFO> %s: No hot-plug events; reconnecting on a back-off.\n", "Reconnect");
    return m_started;
}

int LIBUSB_CALL CUsbArrivalWatch::Arrived(libusb_context*, libusb_device*, libusb_hotplug_event, void* self) {
    static_cast<CUsbArrivalWatch*>(self)->m_arrived = 1;
    return 0;  // stay registered
}

CArrivalWatch::Outcome CUsbArrivalWatch::Wait(const CDeadline& deadline) {
    if (!Start()) return CArrivalWatch::Wait(deadline);
    libusb_context* ctx = m_ctx.load();
    m_arrived = 0;
    while (!m_arrived && !m_woken.load() && !deadline.Expired()) {
        const long ms = deadline.PollTimeout();
        struct timeval tv = {ms / 1000, (ms % 1000) * 1000};
        const int err = libusb_handle_events_timeout_completed(ctx, &tv, &m_arrived);
        if (err != 0 && err != LIBUSB_ERROR_INTERRUPTED) return CArrivalWatch::Wait(deadline);
    }
    if (m_woken.exchange(false)) return kWoken;
    return m_arrived ? kArrived : kTimeout;
}

void CUsbArrivalWatch::Wake() {
    m_woken = true;
    CArrivalWatch::Wake();  // for a wait without hot-plug events
    // An interruption before the wait begins is kept by libusb until then.
    if (libusb_context* ctx = m_ctx.load()) libusb_interrupt_event_handler(ctx);
}
