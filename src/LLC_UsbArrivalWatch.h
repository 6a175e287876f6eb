/* SPDX-License-Identifier: MIT */
// The pause before reopening a USB device ends when a device of the product
// arrives, through libusb's hot-plug callbacks where libusb offers them
// (LIBUSB_CAP_HAS_HOTPLUG); elsewhere it is a plain back-off.  The waiting
// thread runs the events of a libusb context of the watch's own.
#ifndef LLC_USBARRIVALWATCH_H
#define LLC_USBARRIVALWATCH_H

#include <libusb.h>

#include <atomic>

#include "LLC_ArrivalWatch.h"

class CUsbArrivalWatch : public CArrivalWatch {
public:
    CUsbArrivalWatch() = default;
    ~CUsbArrivalWatch() override;

    Outcome Wait(const CDeadline& deadline) override;
    void Wake() override;

private:
    // Sets up the context and the callback on the first pause; false when
    // hot-plug events are not to be had.
    bool Start();
    static int LIBUSB_CALL Arrived(libusb_context* ctx, libusb_device* device, libusb_hotplug_event event, void* self);

    bool m_tried = false;
    bool m_started = false;
    std::atomic<libusb_context*> m_ctx{nullptr};
    libusb_hotplug_callback_handle m_callback = 0;
    int m_arrived = 0;  // set by the callback, which runs on the waiting thread
    std::atomic<bool> m_woken{false};
};

#endif  // LLC_USBARRIVALWATCH_H
