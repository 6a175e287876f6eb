/* SPDX-License-Identifier: MIT */
// `vyrixctl list usb --watch`: the devices of the product present now, then
// every arrival and removal as libusb's hot-plug callbacks report it, one
// line each (JSON Lines with --json), until Stop.
#ifndef VYRIX_TOOLS_USBWATCH_H
#define VYRIX_TOOLS_USBWATCH_H

#include <libusb.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace vyrix::tools {

class UsbWatch {
public:
    explicit UsbWatch(bool json) : json_(json) {}
    UsbWatch(const UsbWatch&) = delete;
    UsbWatch& operator=(const UsbWatch&) = delete;

    // Prints until Stop; 0, or 1 when libusb or its hot-plug events are not
    // to be had (with the reason on standard error).
    int Run();
    // Ends Run from any thread (a signal handler's thread).
    void Stop();

private:
    struct Change {
        bool arrived;
        libusb_device* device;  // referenced
    };
    static int LIBUSB_CALL OnChange(libusb_context*, libusb_device* device, libusb_hotplug_event event, void* self);
    void Report(const Change& change);
    void Print(const char* event, const std::string& serial, int bus, int address);

    bool json_;
    bool enumerating_ = false;
    std::mutex mutex_;  // guards stop_ and ctx_ against a Stop while the context ends
    bool stop_ = false;
    libusb_context* ctx_ = nullptr;
    std::vector<Change> changes_;                         // collected by the callback, printed after it
    std::map<std::pair<int, int>, std::string> serials_;  // bus, address -> serial number of the present
};

}  // namespace vyrix::tools

#endif
