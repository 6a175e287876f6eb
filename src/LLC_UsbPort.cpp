// SPDX-License-Identifier: MIT
#include "LLC_UsbPort.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "LLC_LastError.h"
#include "LLC_Utility.h"

std::atomic<unsigned char> vyrix_write_ep_{0x01};

namespace {
constexpr uint8_t kDirectionIn = 0x80;
constexpr uint8_t kGetDescriptorType = 0x80;  // device to host, standard, device
constexpr uint16_t kStringDescriptor = 0x0300;
constexpr char kNoSerial[] = "NULL";

bool IsVyrix(const libusb_device_descriptor& desc) {
    return desc.idVendor == VYRIX_USB_VENDOR_ID && desc.idProduct == KT_USB_PRODUCT_ID;
}

Vyrix_ReturnStatus MapTransferError(int err) {
    if (err == LIBUSB_ERROR_NO_DEVICE) return RC(eVYRIX_NOT_CONNECTED);
    if (err == LIBUSB_ERROR_TIMEOUT) return RC(eVYRIX_TIMEOUT);
    return RC(eVYRIX_FAILURE);
}

}  // namespace

bool CUsbPort::ListDevices(const char* function, libusb_device*** list, ssize_t* count) {
    if (m_ctx == nullptr && libusb_init(&m_ctx) != 0) {
        m_ctx = nullptr;
        LlcLog("<ERROR> %s: Initialising libusb-1.0 failed", function);
        return false;
    }
    *count = libusb_get_device_list(m_ctx, list);
    if (*count < 0) {  // a failing list call counts as an empty list
        *list = nullptr;
        *count = 0;
    }
    LlcLog("<INFO> %s: %d devices.\n", function, static_cast<int>(*count));
    return true;
}

CUsbPort::CUsbPort(const char* preferredSerial, bool onlyPreferred)
    : m_preferredSerial(preferredSerial != nullptr ? preferredSerial : ""),
      m_onlyPreferred(onlyPreferred),
      m_vyrixHandle(nullptr),
      m_ctx(nullptr),
      m_vyrixdev(nullptr),
      m_writeEp(vyrix_write_ep_.load()),
      m_bus_num(0),
      m_dev_addr(0),
      m_lockfile_str(),
      m_claimed_interface(false),
      m_readTransfer(nullptr),
      m_readBuf(),
      m_readPending(false),
      m_readDone(0),
      m_readFinished(false),
      m_cancelled(false) {}

CUsbPort::~CUsbPort() {
    if (m_vyrixHandle != nullptr) ClosePort();
    StopRead();
    // A close that failed left the handle open: release it all the same.
    if (m_vyrixHandle != nullptr) libusb_close(m_vyrixHandle);
    if (m_ctx != nullptr) libusb_exit(m_ctx);
}

Vyrix_ReturnStatus CUsbPort::CreateLockFile() {
    char* name = reinterpret_cast<char*>(m_lockfile_str);
    RuntimeFileName(name, KT_LOCK_NAME_SIZE, "%s_%03d_%03d.lock", KT_LOCK_PREFIX_USB, m_bus_num, m_dev_addr);
    LlcLog("<INFO> %s: Lockfile name = %s\n", "CreateLockFile", name);
    int openResult = -1;
    if (name[0] == '\0' || !m_lock.Acquire(name, &openResult)) {
        LlcLog("<ERROR> %s: Lockfile create failed.%d\n", "CreateLockFile", openResult);
        name[0] = '\0';  // another holder's file is never removed
        return RC(eVYRIX_ALREADY_OPENED);
    }
    return RC_OK;
}

void CUsbPort::RemoveLockFile() {
    if (!m_lock.Release(reinterpret_cast<char*>(m_lockfile_str)))
        LlcLog("<ERROR> %s: Lock file remove failed.\n", "ClosePort");
}

Vyrix_ReturnStatus CUsbPort::FailOpen(libusb_device** list, Vyrix_ReturnStatus result) {
    if (list != nullptr) libusb_free_device_list(list, 1);
    libusb_exit(m_ctx);
    m_ctx = nullptr;
    return result;
}

// Searches the device's active configuration for the OUT endpoint.
CUsbPort::Match CUsbPort::InspectDevice(libusb_device* dev, unsigned char* pEndpoint) {
    libusb_config_descriptor* config = nullptr;
    int err = libusb_get_active_config_descriptor(dev, &config);
    if (err != 0) {
        LlcLog("<ERROR> %s: libusb_get_active_config_descriptor failed. %d\n", "OpenPort", err);
        return Match::kTake;
    }
    bool found = config->bNumInterfaces > 0;
    if (found) {
        found = false;
        for (int i = 0; i < config->bNumInterfaces; ++i) {
            LlcLog("<INFO> %s: interface : %d\n", "OpenPort", i);
            const libusb_interface& itf = config->interface[i];
            for (int a = 0; a < itf.num_altsetting; ++a) {
                const libusb_interface_descriptor& alt = itf.altsetting[a];
                for (int e = 0; e < alt.bNumEndpoints; ++e) {
                    uint8_t address = alt.endpoint[e].bEndpointAddress;
                    if (address & kDirectionIn) continue;
                    LlcLog("<INFO> %s: OUT EP addr : 0x%x\n", "OpenPort", address);
                    *pEndpoint = address;
                    found = true;
                    break;
                }
            }
        }
    }
    libusb_free_config_descriptor(config);
    return found ? Match::kTake : Match::kNoEndpoint;
}

bool CUsbPort::HasPreferredSerial(libusb_device* dev, const libusb_device_descriptor& desc) {
    libusb_device_handle* handle = nullptr;
    if (libusb_open(dev, &handle) != 0) return false;
    char text[KT_USB_STRING_SIZE] = {0};
    const bool same = GetSerialNumberString(handle, desc.iSerialNumber, text, sizeof text) > 0 &&
                      m_preferredSerial == std::string(text);
    libusb_close(handle);
    return same;
}

libusb_device* CUsbPort::TakeFirstFree(libusb_device** list, ssize_t count, bool preferredOnly) {
    for (ssize_t i = 0; i < count; ++i) {
        libusb_device_descriptor desc{};
        int err = libusb_get_device_descriptor(list[i], &desc);
        if (err != 0) {
            LlcLog("<INFO> %s: Failed to get device descriptor. %d\n", "OpenPort", err);
            continue;
        }
        if (!IsVyrix(desc)) continue;
        unsigned char endpoint = m_writeEp;
        if (InspectDevice(list[i], &endpoint) == Match::kNoEndpoint) return nullptr;  // later devices are not tried
        m_bus_num = libusb_get_bus_number(list[i]);
        m_dev_addr = libusb_get_device_address(list[i]);
        LlcLog("<INFO> %s: Found Device on bus %03d and addr %03d.\n", "OpenPort", m_bus_num, m_dev_addr);
        if (CreateLockFile() != RC_OK) continue;
        // Only a free device is asked for its serial number: one that
        // another port holds is not disturbed.
        if (!preferredOnly || HasPreferredSerial(list[i], desc)) {
            m_writeEp = endpoint;
            vyrix_write_ep_ = endpoint;
            return list[i];
        }
        RemoveLockFile();
    }
    return nullptr;
}

Vyrix_ReturnStatus CUsbPort::OpenPort() {
    if (m_vyrixHandle != nullptr) return RC(eVYRIX_ALREADY_OPENED);
    libusb_device** list = nullptr;
    ssize_t count = 0;
    if (!ListDevices("OpenPort", &list, &count)) return RC(eVYRIX_FAILURE);
    // The device with the serial number asked for, when there is a free
    // one; otherwise the first free device, as without a preference.
    libusb_device* taken = m_preferredSerial.empty() ? nullptr : TakeFirstFree(list, count, true);
    // A device whose serial number could not be read is found again as any
    // device of the product.
    if (taken == nullptr && (!m_onlyPreferred || m_preferredSerial.empty())) taken = TakeFirstFree(list, count, false);
    if (taken == nullptr) {
        CLastError::Set(
            "no free USB device with product id %u is attached (all absent or in use by other "
            "connections or processes)",
            static_cast<unsigned>(KT_USB_PRODUCT_ID));
        LlcLog("<INFO> %s: No Devices Found.\n", "OpenPort");
        return FailOpen(list, RC(eVYRIX_NOT_CONNECTED));
    }
    m_vyrixdev = taken;
    int err = libusb_open(taken, &m_vyrixHandle);
    if (err != 0) {
        m_vyrixHandle = nullptr;
        if (err == LIBUSB_ERROR_ACCESS)
            CLastError::Set(
                "no permission to open the USB device on bus %d, address %d: install the udev rule "
                "60-vyrix.rules and add the user to the group 'plugdev' (%s)",
                m_bus_num, m_dev_addr, libusb_strerror(static_cast<libusb_error>(err)));
        else
            CLastError::Set("cannot open the USB device on bus %d, address %d (%s)", m_bus_num, m_dev_addr,
                            libusb_strerror(static_cast<libusb_error>(err)));
        LlcLog("<ERROR> %s: libusb_open failed. %d\n", "OpenPort", err);
        RemoveLockFile();
        return FailOpen(list, RC(eVYRIX_FAILURE));
    }
    libusb_device_descriptor desc{};
    unsigned char serial[KT_USB_STRING_SIZE] = {0};
    if (libusb_get_device_descriptor(taken, &desc) == 0 && desc.iSerialNumber != 0 &&
        libusb_get_string_descriptor_ascii(m_vyrixHandle, desc.iSerialNumber, serial, sizeof serial - 1) > 0)
        m_serialNumber = reinterpret_cast<const char*>(serial);
    libusb_free_device_list(list, 1);
    if (libusb_kernel_driver_active(m_vyrixHandle, 0) == 1) libusb_detach_kernel_driver(m_vyrixHandle, 0);
    if (libusb_claim_interface(m_vyrixHandle, 0) != 0) {
        LlcLog("<ERROR> %s: Claiming interface failed\n", "OpenPort");
        ClosePort();
        return RC(eVYRIX_FAILURE);
    }
    m_claimed_interface = true;
    return RC_OK;
}

void LIBUSB_CALL CUsbPort::ReadDone(libusb_transfer* transfer) {
    auto* self = static_cast<CUsbPort*>(transfer->user_data);
    self->m_readDone = 1;  // for libusb's own loop
    self->m_readFinished = true;
}

Vyrix_ReturnStatus CUsbPort::SubmitRead() {
    if (m_readTransfer == nullptr) m_readTransfer = libusb_alloc_transfer(0);
    if (m_readTransfer == nullptr) return RC(eVYRIX_FAILURE);
    // No transfer time-out: the caller's deadline bounds each wait instead.
    libusb_fill_interrupt_transfer(m_readTransfer, m_vyrixHandle, KT_USB_IN_EP, m_readBuf, KT_USB_PACKET_SIZE, ReadDone,
                                   this, 0);
    m_readDone = 0;
    m_readFinished = false;
    int err = libusb_submit_transfer(m_readTransfer);
    if (err != 0) return MapTransferError(err);
    m_readPending = true;
    return RC_OK;
}

void CUsbPort::AwaitRead(const CDeadline& deadline) {
    constexpr long kLongestWaitS = 3600;
    while (!m_readFinished.load() && !m_cancelled.load() && !deadline.Expired()) {
        long ms = deadline.IsNever() ? kLongestWaitS * 1000 : deadline.PollTimeout();
        struct timeval tv = {ms / 1000, (ms % 1000) * 1000};
        int err = libusb_handle_events_timeout_completed(m_ctx, &tv, &m_readDone);
        if (err != 0 && err != LIBUSB_ERROR_INTERRUPTED) break;
    }
}

// Cancels a transfer still in flight and waits for libusb to give it back.
// One that does not come back in time is left to libusb rather than freed
// under it.
void CUsbPort::StopRead() {
    if (m_readPending && m_readTransfer != nullptr) {
        libusb_cancel_transfer(m_readTransfer);
        const CDeadline deadline = CDeadline::After(KT_USB_WRITE_TIMEOUT_MS);
        while (!m_readFinished.load() && !deadline.Expired()) {
            const long ms = deadline.PollTimeout();
            struct timeval tv = {ms / 1000, (ms % 1000) * 1000};
            int err = libusb_handle_events_timeout_completed(m_ctx, &tv, &m_readDone);
            if (err != 0 && err != LIBUSB_ERROR_INTERRUPTED) break;
        }
        m_readPending = false;
        if (!m_readFinished.load()) m_readTransfer = nullptr;
    }
    if (m_readTransfer != nullptr) libusb_free_transfer(m_readTransfer);
    m_readTransfer = nullptr;
}

Vyrix_ReturnStatus CUsbPort::ReadPort(unsigned char* inbuf, int* outLen, const CDeadline& deadline) {
    if (inbuf == nullptr || outLen == nullptr) {
        LlcLog("<ERROR> %s: Invalid Arguments.\n", "ReadPort");
        return RC(eVYRIX_INVALID_ARGUMENT);
    }
    if (m_vyrixHandle == nullptr) {
        LlcLog("<ERROR> %s: Uninitialised usb interface\n", "ReadPort");
        return RC(eVYRIX_FAILURE);
    }
    if (m_cancelled.load()) return RC(eVYRIX_INCOMPLETE);
    if (!m_readPending) {
        Vyrix_ReturnStatus r = SubmitRead();
        if (r != RC_OK) return r;
    }
    AwaitRead(deadline);
    if (!m_readFinished.load()) return RC(eVYRIX_INCOMPLETE);
    m_readPending = false;
    switch (m_readTransfer->status) {
        case LIBUSB_TRANSFER_COMPLETED: break;
        case LIBUSB_TRANSFER_NO_DEVICE: return RC(eVYRIX_NOT_CONNECTED);
        case LIBUSB_TRANSFER_TIMED_OUT:
        case LIBUSB_TRANSFER_CANCELLED: return RC(eVYRIX_INCOMPLETE);
        default: return RC(eVYRIX_FAILURE);
    }
    int transferred = m_readTransfer->actual_length;
    if (transferred > KT_USB_PACKET_SIZE) transferred = KT_USB_PACKET_SIZE;
    memcpy(inbuf, m_readBuf, static_cast<size_t>(transferred));
    *outLen = transferred;
    LlcLog("<INFO> %s: Read '%d' bytes from Vyrix device\n", "ReadPort", transferred);
    return RC_OK;
}

void CUsbPort::CancelRead() {
    m_cancelled = true;
    if (m_ctx != nullptr) libusb_interrupt_event_handler(m_ctx);
}

Vyrix_ReturnStatus CUsbPort::WritePort(const unsigned char* outbuf, unsigned short Len) {
    if (outbuf == nullptr || Len == 0) return RC(eVYRIX_INVALID_ARGUMENT);
    if (m_vyrixHandle == nullptr) {
        LlcLog("<ERROR> %s: Uninitialised usb interface\n", "WritePort");
        return RC(eVYRIX_FAILURE);
    }
    int remaining = Len;
    size_t position = 0;
    while (remaining > 0) {
        unsigned char buf[KT_USB_PACKET_SIZE] = {0};
        int chunk = remaining < KT_USB_PACKET_SIZE ? remaining : KT_USB_PACKET_SIZE;
        memcpy(buf, outbuf + position, static_cast<size_t>(chunk));
        int transferred = 0;
        int err = libusb_interrupt_transfer(m_vyrixHandle, m_writeEp, buf, KT_USB_PACKET_SIZE, &transferred,
                                            KT_USB_WRITE_TIMEOUT_MS);
        if (err == 0 && transferred <= 0) err = LIBUSB_ERROR_IO;  // no progress: never loop on it
        if (err != 0) {
            LlcLog("<ERROR> %s: Write failed. Error %d\n", "WritePort", err);
            return MapTransferError(err);
        }
        position += static_cast<size_t>(transferred);
        remaining -= transferred;
    }
    return RC_OK;
}

Vyrix_ReturnStatus CUsbPort::ClosePort() {
    StopRead();
    if (m_vyrixHandle != nullptr) {
        LlcLog("<INFO> %s: Usb Close Port.\n", "ClosePort");
        RemoveLockFile();
        if (m_claimed_interface) {
            int err = libusb_release_interface(m_vyrixHandle, 0);
            if (err != 0) {
                LlcLog("<ERROR> %s: Failed to release usb interface. Error=%d\n", "ClosePort", err);
                if (err != LIBUSB_ERROR_NO_DEVICE) return RC(eVYRIX_FAILURE);
                // Unplugged: nothing more to release on the device side.
            }
            m_claimed_interface = false;
        }
        libusb_close(m_vyrixHandle);
        m_vyrixHandle = nullptr;
    }
    if (m_ctx != nullptr) {
        libusb_exit(m_ctx);
        m_ctx = nullptr;
    }
    return RC_OK;
}

void CUsbPort::FillRecord(libusb_device* dev, const libusb_device_descriptor& desc, Vyrix_EnumerateUSBInfo& record) {
    record.productID = desc.idProduct;
    memset(record.serialNumber, 0, sizeof record.serialNumber);
    m_vyrixdev = dev;
    int err = libusb_open(dev, &m_vyrixHandle);
    if (err != 0) {
        m_vyrixHandle = nullptr;
        LlcLog("<ERROR> %s: libusb_open failed. %d\n", "EnumerateDevices", err);
        memcpy(record.serialNumber, kNoSerial, sizeof kNoSerial);
        return;
    }
    char text[KT_USB_STRING_SIZE] = {0};
    if (GetSerialNumberString(m_vyrixHandle, desc.iSerialNumber, text, sizeof text) > 0) {
        text[sizeof text - 1] = '\0';
        memcpy(record.serialNumber, text, sizeof text);
    } else {
        memcpy(record.serialNumber, kNoSerial, sizeof kNoSerial);
    }
    libusb_close(m_vyrixHandle);
    m_vyrixHandle = nullptr;
}

Vyrix_ReturnStatus CUsbPort::EnumerateDevices(unsigned int numDevicesToEnumerate, unsigned int* pNumDevices,
                                              void* pDeviceInfo) {
    if (pNumDevices == nullptr || pDeviceInfo == nullptr) return RC(eVYRIX_INVALID_ARGUMENT);
    *pNumDevices = 0;
    libusb_device** list = nullptr;
    ssize_t count = 0;
    if (!ListDevices("EnumerateDevices", &list, &count)) return RC(eVYRIX_FAILURE);
    auto* records = static_cast<Vyrix_EnumerateUSBInfo*>(pDeviceInfo);
    unsigned int filled = 0;
    for (ssize_t i = 0; i < count && filled < numDevicesToEnumerate; ++i) {
        libusb_device_descriptor desc{};
        if (libusb_get_device_descriptor(list[i], &desc) != 0) {
            LlcLog("<INFO> %s: Failed to get device descriptor of device no: %d. \n", "EnumerateDevices",
                   static_cast<int>(i));
            continue;
        }
        if (!IsVyrix(desc)) continue;
        m_bus_num = libusb_get_bus_number(list[i]);
        m_dev_addr = libusb_get_device_address(list[i]);
        LlcLog("<INFO> %s: Found Device on bus %03d and addr %03d.\n", "EnumerateDevices", m_bus_num, m_dev_addr);
        FillRecord(list[i], desc, records[filled]);
        ++filled;
    }
    *pNumDevices = filled;
    if (list != nullptr) libusb_free_device_list(list, 1);
    libusb_exit(m_ctx);
    m_ctx = nullptr;
    if (filled == 0) {
        LlcLog("<INFO> %s: No Devices Found.\n", "EnumerateDevices");
        return RC(eVYRIX_NOT_CONNECTED);
    }
    return RC_OK;
}

int CUsbPort::GetSerialNumberString(libusb_device_handle* dev, unsigned char index, char* c_buff, int /*length*/) {
    unsigned char buf[KT_USB_STRING_SIZE] = {0};
    int got = libusb_control_transfer(dev, kGetDescriptorType, LIBUSB_REQUEST_GET_DESCRIPTOR, kStringDescriptor, 0, buf,
                                      sizeof buf, KT_USB_CONTROL_TIMEOUT_MS);
    if (got < 0) {
        printf("<ERROR> %s:Couldn't get serial string\n", "GetSerialNumberString");
        return -1;
    }
    uint16_t language = static_cast<uint16_t>(buf[2] | (buf[3] << 8));
    memset(buf, 0, sizeof buf);
    got = libusb_control_transfer(dev, kGetDescriptorType, LIBUSB_REQUEST_GET_DESCRIPTOR,
                                  static_cast<uint16_t>(kStringDescriptor + index), language, buf, sizeof buf,
                                  KT_USB_CONTROL_TIMEOUT_MS);
    if (got < 0) {
        LlcLog("<ERROR> %s:Failed to get Serial Number", "GetSerialNumberString");
        return -1;
    }
    int end = buf[0] < got ? buf[0] : got;
    int out = 0;
    for (int i = 2; i + 1 < end; i += 2) c_buff[out++] = static_cast<char>(buf[i] & 0x7F);
    c_buff[out] = '\0';
    LlcLog("<INFO> %s:Serial Number is: %s\n", "GetSerialNumberString", c_buff);
    return got;
}
