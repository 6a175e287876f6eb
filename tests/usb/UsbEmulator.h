/* SPDX-License-Identifier: MIT */
// USB devices emulated under umockdev for the real libusb: enumeration and
// descriptors from the testbed, and the usbfs ioctls answered by a handler
// on umockdev's worker thread.  Each device's interrupt endpoints carry a
// byte stream to a socket, which the device simulator (or a test) serves.
//
// The program must run under libumockdev-preload from its start
// (UsbEmulator::EnsurePreload) and create the emulator before any thread.
#ifndef VYRIX_TEST_USBEMULATOR_H
#define VYRIX_TEST_USBEMULATOR_H

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vt {

// A device of the product by default.
struct UsbDeviceSpec {
    explicit UsbDeviceSpec(int address = 2, std::string serial = "AB12")
        : address(address), serial(std::move(serial)) {}
    int address;  // on bus 1
    uint16_t vendor = VYRIX_USB_VENDOR_ID;
    uint16_t product = 4;
    std::string serial;
    bool interfaces = true;      // a configuration without interfaces when false
    bool outEndpoint = true;     // an interface without an OUT endpoint when false
    bool serialReadable = true;  // string requests fail when false
    bool kernelDriver = false;   // a kernel driver bound to interface 0
    uint8_t outAddress = 0x01;   // the OUT endpoint's address
};

class UsbEmulator {
public:
    // Re-executes the program under the preload library if it is not there.
    static void EnsurePreload(char** argv);
    UsbEmulator();
    ~UsbEmulator();

    class Device {
    public:
        virtual ~Device() = default;
        // The device side of the byte stream (taken over by the caller).
        virtual int TakeStream() = 0;
        struct Seen {
            std::vector<std::vector<uint8_t>> outs;  // every OUT transfer, as sent (64 bytes each)
            std::vector<uint8_t> endpoints;          // the endpoint each went to
            bool detached = false, claimed = false;  // the kernel driver, interface 0
        };
        virtual Seen Observed() const = 0;
        // As if the cable were pulled.
        virtual void Unplug() = 0;
    };
    Device& Add(const UsbDeviceSpec& setup);
    // As Add, and announced as an arrival (a udev "add" event), as a device
    // plugged in while the program runs.
    Device& Plug(const UsbDeviceSpec& setup);

private:
    void* testbed_;
    std::vector<std::unique_ptr<Device>> devices_;
};

}  // namespace vt

#endif
