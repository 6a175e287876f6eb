/* SPDX-License-Identifier: MIT */
// The USB port: interface 0 of the first free device with the product's
// identity, read from endpoint 0x81 and written to the first OUT endpoint of
// its configuration, in 64-byte interrupt transfers.
#ifndef LLC_USBPORT_H
#define LLC_USBPORT_H

#include <libusb.h>

#include <atomic>
#include <string>

#include "LLC_LockFile.h"
#include "LLC_Port.h"
#include "LLC_Utility.h"

// The OUT endpoint of the USB port opened last (each port writes to its own
// device's endpoint).
extern std::atomic<unsigned char> vyrix_write_ep_;

class CUsbPort : public CPort {
public:
    // Devices with this serial number are taken first (none: any device);
    // with `onlyPreferred`, no other device is taken.
    explicit CUsbPort(const char* preferredSerial = nullptr, bool onlyPreferred = false);
    ~CUsbPort() override;
    CUsbPort(const CUsbPort&) = delete;
    CUsbPort& operator=(const CUsbPort&) = delete;

    // 0; 0x18000000 open already; 0x16000000 no free matching device (or
    // its configuration lacks interfaces or an OUT endpoint); 0x1000000
    // libusb, open or claim failure.
    Vyrix_ReturnStatus OpenPort() override;
    Vyrix_ReturnStatus ClosePort() override;
    // At most 64 bytes.  The IN transfer stays submitted across a deadline,
    // so nothing the device sends is lost between reads.
    Vyrix_ReturnStatus ReadPort(unsigned char* inbuf, int* outLen, const CDeadline& deadline) override;
    // 64-byte transfers, zero-padded; 1 s time-out each.
    Vyrix_ReturnStatus WritePort(const unsigned char* outbuf, unsigned short Len) override;
    void CancelRead() override;
    Vyrix_ReturnStatus EnumerateDevices(unsigned int numDevicesToEnumerate, unsigned int* pNumDevices,
                                        void* pDeviceInfo) override;

    // Reads string descriptor `index` as text into c_buff (255 bytes);
    // returns the byte count of the descriptor transfer, or -1.
    int GetSerialNumberString(libusb_device_handle* dev, unsigned char index, char* c_buff, int length);

    const char* LockFileName() const { return reinterpret_cast<const char*>(m_lockfile_str); }
    // The serial number of the device taken ("" when it cannot be read).
    const std::string& SerialNumber() const { return m_serialNumber; }

private:
    enum class Match { kSkip, kTake, kNoEndpoint };
    // *pEndpoint: the device's OUT endpoint (the last one found), or left
    // as it is when the configuration cannot be read.
    Match InspectDevice(libusb_device* dev, unsigned char* pEndpoint);
    bool HasPreferredSerial(libusb_device* dev, const libusb_device_descriptor& desc);
    // Takes the first free device of the product (with the preferred serial
    // number only, if asked); null when there is none.
    libusb_device* TakeFirstFree(libusb_device** list, ssize_t count, bool preferredOnly);
    // Starts the port's libusb context if needed and takes the device list.
    bool ListDevices(const char* function, libusb_device*** list, ssize_t* count);
    Vyrix_ReturnStatus CreateLockFile();
    void RemoveLockFile();
    static void LIBUSB_CALL ReadDone(libusb_transfer* transfer);
    Vyrix_ReturnStatus SubmitRead();
    // Runs libusb's events until the IN transfer completes, the deadline
    // passes or CancelRead is called.
    void AwaitRead(const CDeadline& deadline);
    void StopRead();
    Vyrix_ReturnStatus FailOpen(libusb_device** list, Vyrix_ReturnStatus result);
    void FillRecord(libusb_device* dev, const libusb_device_descriptor& desc, Vyrix_EnumerateUSBInfo& record);

    std::string m_preferredSerial;
    bool m_onlyPreferred;
    std::string m_serialNumber;
    libusb_device_handle* m_vyrixHandle;
    libusb_context* m_ctx;
    libusb_device* m_vyrixdev;
    unsigned char m_writeEp;
    BYTE m_bus_num;
    BYTE m_dev_addr;
    BYTE m_lockfile_str[KT_LOCK_NAME_SIZE];
    CLockFile m_lock;
    bool m_claimed_interface;
    libusb_transfer* m_readTransfer;
    unsigned char m_readBuf[KT_USB_PACKET_SIZE];
    bool m_readPending;
    int m_readDone;  // libusb's completion flag for the IN transfer
    std::atomic<bool> m_readFinished;
    std::atomic<bool> m_cancelled;
};

#endif  // LLC_USBPORT_H
