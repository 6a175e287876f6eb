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
#include <vector>

namespace vt {

struct UsbDeviceSpec {
    int bus = 1;
    int address = 2;
    uint16_t vendor = 0;
    uint16_t product = 4;
    std::string serial = "AB12";
    bool interfaces = true;      // a configuration without interfaces when false
    bool outEndpoint = true;     // an interface without an OUT endpoint when false
    bool serialReadable = true;  // string requests fail when false
    bool kernelDriver = false;   // a kernel driver bound to interface 0
    uint8_t outAddress = 0x01;   // the OUT endpoint's address
};

class UsbEmulator {
public:
    // Re-executes the program under the preload library if it is not there.
    static void EnsurePreload(int argc, char** argv);

    UsbEmulator();
    ~UsbEmulator();
    UsbEmulator(const UsbEmulator&) = delete;
    UsbEmulator& operator=(const UsbEmulator&) = delete;

    class Device;
    // Adds a device; its stream end (for the simulator) is Device::TakeStream.
    Device& Add(const UsbDeviceSpec& setup);

    class Device {
    public:
        virtual ~Device() = default;
        // The device side of the byte stream (taken over by the caller).
        virtual int TakeStream() = 0;
        // Every OUT transfer seen, as sent (64 bytes each).
        virtual std::vector<std::vector<uint8_t>> OutTransfers() const = 0;
        // The endpoint each OUT transfer went to.
        virtual std::vector<uint8_t> OutEndpoints() const = 0;
        virtual bool DriverDetached() const = 0;
        virtual bool InterfaceClaimed() const = 0;
        // As if the cable were pulled.
        virtual void Unplug() = 0;
    };

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace vt

#endif
