// SPDX-License-Identifier: MIT
#include "UsbWatch.h"

#include <chrono>
#include <cstdio>
#include <thread>

#include "Output.h"

namespace vyrix::tools {

namespace {
constexpr uint16_t kProductId = 4;
constexpr int kSerialSize = 256;
constexpr int kSerialAttempts = 10;
constexpr auto kSerialRetryPause = std::chrono::milliseconds(50);

// The device's serial number, or "" when it cannot be read.
std::string ReadSerial(libusb_device* device) {
    std::string serial;
    libusb_device_descriptor desc{};
    libusb_device_handle* handle = nullptr;
    if (libusb_get_device_descriptor(device, &desc) != 0 || desc.iSerialNumber == 0 ||
        libusb_open(device, &handle) != 0)
        return serial;
    unsigned char text[kSerialSize] = {0};
    if (libusb_get_string_descriptor_ascii(handle, desc.iSerialNumber, text, sizeof text - 1) > 0)
        serial = reinterpret_cast<const char*>(text);
    libusb_close(handle);
    return serial;
}
}  // namespace

int LIBUSB_CALL UsbWatch::OnChange(libusb_context*, libusb_device* device, libusb_hotplug_event event, void* self) {
    // Nothing that talks to the device runs inside the callback: the
    // change is printed once libusb has returned.
    static_cast<UsbWatch*>(self)->changes_.push_back(
        {event == LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, libusb_ref_device(device)});
    return 0;
}

void UsbWatch::Print(const char* event, const std::string& serial, int bus, int address) {
    if (json_) {
        PrintJsonLine(
            Json{{"event", event}, {"product", kProductId}, {"serial", serial}, {"bus", bus}, {"address", address}});
        return;
    }
    printf("%s: serial %s (bus %03d, address %03d)\n", event, serial.c_str(), bus, address);
    fflush(stdout);
}

void UsbWatch::Report(const Change& change) {
    const std::pair<int, int> where{libusb_get_bus_number(change.device), libusb_get_device_address(change.device)};
    if (!change.arrived) {
        // A device gone cannot be asked for its serial number: the one it
        // had when it came.
        auto it = serials_.find(where);
        Print("removed", it != serials_.end() ? it->second : "?", where.first, where.second);
        if (it != serials_.end()) serials_.erase(it);
        return;
    }
    std::string serial = ReadSerial(change.device);
    // A device that has just arrived may not answer at once.
    for (int attempt = 1; serial.empty() && attempt < kSerialAttempts; ++attempt) {
        std::this_thread::sleep_for(kSerialRetryPause);
        serial = ReadSerial(change.device);
    }
    if (serial.empty()) serial = "?";
    serials_[where] = serial;
    Print(enumerating_ ? "present" : "arrived", serial, where.first, where.second);
}

int UsbWatch::Run() {
    if (!libusb_has_capability(LIBUSB_CAP_HAS_HOTPLUG)) {
        fprintf(stderr, "list usb --watch: this libusb reports no hot-plug events\n");
        return 1;
    }
    libusb_context* ctx = nullptr;
    if (libusb_init(&ctx) != 0) {
        fprintf(stderr, "list usb --watch: libusb cannot be started\n");
        return 1;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ctx_ = ctx;
    }
    libusb_hotplug_callback_handle callback = 0;
    const int events = LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED | LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT;
    // The devices present now come first, through the same callback.
    const int registered = libusb_hotplug_register_callback(ctx, static_cast<libusb_hotplug_event>(events),
                                                            LIBUSB_HOTPLUG_ENUMERATE, VYRIX_USB_VENDOR_ID, kProductId,
                                                            LIBUSB_HOTPLUG_MATCH_ANY, OnChange, this, &callback);
    int status = 0;
    if (registered != LIBUSB_SUCCESS) {
        fprintf(stderr, "list usb --watch: hot-plug callbacks cannot be registered\n");
        status = 1;
    }
    enumerating_ = true;
    while (status == 0) {
        for (const Change& change : changes_) {
            Report(change);
            libusb_unref_device(change.device);
        }
        changes_.clear();
        enumerating_ = false;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stop_) break;
        }
        // Sleeps in libusb's poll until a device comes or goes, or Stop.
        const int err = libusb_handle_events_completed(ctx, nullptr);
        if (err != 0 && err != LIBUSB_ERROR_INTERRUPTED) status = 1;
    }
    if (registered == LIBUSB_SUCCESS) libusb_hotplug_deregister_callback(ctx, callback);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ctx_ = nullptr;
    }
    libusb_exit(ctx);
    return status;
}

void UsbWatch::Stop() {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
    // Kept by libusb until the next wait when it comes before it.
    if (ctx_ != nullptr) libusb_interrupt_event_handler(ctx_);
}

}  // namespace vyrix::tools
