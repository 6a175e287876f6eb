// SPDX-License-Identifier: MIT
#include "UsbEmulator.h"

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <umockdev.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

namespace vt {

namespace {

constexpr uint8_t kSerialIndex = 3;

// Device descriptor followed by the whole configuration descriptor, in hex.
std::string Descriptors(const UsbDeviceSpec& s) {
    std::vector<uint8_t> c, d = {18, 1, 0x00, 0x02, 0, 0, 0, 64};
    for (uint16_t x : {s.vendor, s.product, uint16_t{0x0100}}) d.insert(d.end(), {uint8_t(x), uint8_t(x >> 8)});
    d.insert(d.end(), {1, 2, kSerialIndex, 1});
    if (s.interfaces) c = {9, 4, 0, 0, uint8_t(s.outEndpoint ? 2 : 1), 0xFF, 0, 0, 0, 7, 5, 0x81, 3, 64, 0, 1};
    if (s.interfaces && s.outEndpoint) c.insert(c.end(), {7, 5, s.outAddress, 3, 64, 0, 1});
    d.insert(d.end(), {9, 2, uint8_t(9 + c.size()), 0, uint8_t(s.interfaces ? 1 : 0), 1, 0, 0x80, 50});
    d.insert(d.end(), c.begin(), c.end());
    std::string hex;
    char b[3];
    for (uint8_t v : d) hex += (snprintf(b, sizeof b, "%02x", v), b);
    return hex;
}

struct Urb {
    UMockdevIoctlData* urb;     // the caller's usbdevfs_urb
    UMockdevIoctlData* buffer;  // its buffer
    usbdevfs_urb* Fields() const { return reinterpret_cast<usbdevfs_urb*>(urb->data); }
    void Release() {
        if (buffer) g_object_unref(buffer);
        if (urb) g_object_unref(urb);
    }
};

void Check(bool ok, const char* what, GError* error = nullptr) {
    if (ok) return;
    std::string message = std::string(what) + ": " + (error ? error->message : "failed");
    if (error) g_error_free(error);
    throw std::runtime_error(message);
}

}  // namespace

class EmulatedDevice : public UsbEmulator::Device {
public:
    EmulatedDevice(UMockdevTestbed* testbed, const UsbDeviceSpec& setup) : testbed_(testbed), spec_(setup) {
        char bus[] = "001", dev[8];
        snprintf(dev, sizeof dev, "%03d", setup.address);
        devnode_ = std::string("/dev/bus/usb/001/") + dev;
        syspath_ = "/sys/devices/1-" + std::to_string(setup.address);
        const std::string record =
            "P: /devices/1-" + std::to_string(setup.address) + "\nN: bus/usb/001/" + dev +
            "\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: DEVNAME=" + devnode_ + "\nE: BUSNUM=" + bus +
            "\nE: DEVNUM=" + dev + "\nA: busnum=1\\n\nA: devnum=" + std::to_string(setup.address) +
            "\\n\nA: speed=12\\n\nA: bConfigurationValue=1\\n\n" + "H: descriptors=" + Descriptors(setup) + "\n";
        GError* error = nullptr;
        Check(umockdev_testbed_add_from_string(testbed_, record.c_str(), &error), "add_from_string", error);
        int pair[2];
        Check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0, "socketpair");
        hostEnd_ = pair[0];
        deviceEnd_ = pair[1];
        handler_ = umockdev_ioctl_base_new();
        g_signal_connect(handler_, "handle-ioctl", G_CALLBACK(OnIoctl), this);
        Check(umockdev_testbed_attach_ioctl(testbed_, devnode_.c_str(), handler_, &error), "attach_ioctl", error);

        // A regular file is always writable, which libusb takes as "a URB
        // can be reaped": a one-page FIFO instead, full (one byte) while
        // nothing can be reaped.
        gchar* root = umockdev_testbed_get_root_dir(testbed_);
        const std::string node = std::string(root) + devnode_;
        g_free(root);
        unlink(node.c_str());
        Check(mkfifo(node.c_str(), 0666) == 0, "mkfifo");
        fifo_ = open(node.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        fcntl(fifo_, F_SETPIPE_SZ, 4096);
        Block();
        reader_ = std::thread([this] { ReadStream(); });
    }

    ~EmulatedDevice() override {
        uint64_t one = 1;
        if (write(wake_, &one, sizeof one) < 0) perror("eventfd");
        reader_.join();
        if (!unplugged_) umockdev_testbed_detach_ioctl(testbed_, devnode_.c_str(), nullptr);
        if (!unplugged_) umockdev_testbed_remove_device(testbed_, syspath_.c_str());
        g_object_unref(handler_);
        for (auto* list : {&pendingIn_, &completed_})
            for (Urb& u : *list) u.Release();
        for (int fd : {fifo_, wake_, hostEnd_, deviceEnd_})
            if (fd >= 0) close(fd);
    }

    int TakeStream() override { return std::exchange(deviceEnd_, -1); }
    Seen Observed() const override {
        std::lock_guard<std::mutex> lock(mutex_);
        return seen_;
    }

    void Unplug() override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (unplugged_) return;
            unplugged_ = true;
            for (Urb& u : pendingIn_) {
                u.Fields()->status = -ENODEV;
                completed_.push_back(u);
            }
            pendingIn_.clear();
            Reapable();
        }
        umockdev_testbed_uevent(testbed_, syspath_.c_str(), "remove");
        umockdev_testbed_remove_device(testbed_, syspath_.c_str());
    }

private:
    // The FIFO holds one byte while nothing can be reaped.
    void Block() {
        char b = 1;
        if (!blocked_) blocked_ = write(fifo_, &b, 1) == 1;
    }
    void Reapable() {
        char b;
        if (blocked_ && !completed_.empty() && read(fifo_, &b, 1) == 1) blocked_ = false;
    }

    static gboolean OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self) {
        return static_cast<EmulatedDevice*>(self)->Handle(client);
    }

    // Completes the request with `result`, or -1 and errno `error`.
    static gboolean Done(UMockdevIoctlClient* client, int error = 0) {
        umockdev_ioctl_client_complete(client, error ? -1 : 0, error);
        return TRUE;
    }

    gboolean Handle(UMockdevIoctlClient* client) {
        const gulong request = umockdev_ioctl_client_get_request(client);
        UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
        std::lock_guard<std::mutex> lock(mutex_);
        if (unplugged_ && request != USBDEVFS_REAPURBNDELAY) return Done(client, ENODEV);
        const bool bound = spec_.kernelDriver && !seen_.detached;
        switch (request) {
            case USBDEVFS_GET_CAPABILITIES:
                if (UMockdevIoctlData* caps = umockdev_ioctl_data_resolve(arg, 0, sizeof(uint32_t), nullptr)) {
                    memset(caps->data, 0, sizeof(uint32_t));
                    g_object_unref(caps);
                }
                return Done(client);
            case USBDEVFS_GETDRIVER:
                if (UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_getdriver), nullptr)) {
                    if (bound) snprintf(reinterpret_cast<usbdevfs_getdriver*>(d->data)->driver, 256, "usbhid");
                    g_object_unref(d);
                }
                return Done(client, bound ? 0 : ENODATA);
            case USBDEVFS_IOCTL:
                if (UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_ioctl), nullptr)) {
                    const int code = reinterpret_cast<usbdevfs_ioctl*>(d->data)->ioctl_code;
                    g_object_unref(d);
                    seen_.detached = seen_.detached || (code == static_cast<int>(USBDEVFS_DISCONNECT) && bound);
                    if (seen_.detached && bound) return Done(client);
                }
                return Done(client, ENODATA);
            case USBDEVFS_CLAIMINTERFACE:
            case USBDEVFS_RELEASEINTERFACE: seen_.claimed = request == USBDEVFS_CLAIMINTERFACE; return Done(client);
            case USBDEVFS_SUBMITURB: return Submit(client, arg);
            case USBDEVFS_REAPURBNDELAY: return Reap(client, arg);
            case USBDEVFS_DISCARDURB: return Discard(client, arg);
            default: return FALSE;
        }
    }

    gboolean Submit(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
        Urb u{umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_urb), nullptr), nullptr};
        if (u.urb)
            u.buffer = umockdev_ioctl_data_resolve(u.urb, offsetof(usbdevfs_urb, buffer),
                                                   static_cast<gsize>(u.Fields()->buffer_length), nullptr);
        if (u.buffer == nullptr) {
            u.Release();
            return Done(client, EFAULT);
        }
        usbdevfs_urb* f = u.Fields();
        f->status = 0;
        f->actual_length = 0;
        if (f->type == USBDEVFS_URB_TYPE_CONTROL) {
            Control(u);
        } else if (f->endpoint & 0x80) {
            pendingIn_.push_back(u);
            DeliverIn();
        } else {
            seen_.outs.emplace_back(u.buffer->data, u.buffer->data + f->buffer_length);
            seen_.endpoints.push_back(f->endpoint);
            if (send(hostEnd_, u.buffer->data, f->buffer_length, MSG_NOSIGNAL) != f->buffer_length) perror("send");
            f->actual_length = f->buffer_length;
            completed_.push_back(u);
        }
        Reapable();
        return Done(client);
    }

    // Standard GET_DESCRIPTOR for strings; anything else stalls.
    void Control(Urb& u) {
        usbdevfs_urb* f = u.Fields();
        const uint8_t* setup = u.buffer->data;
        const size_t length = std::min<size_t>(setup[6] | (setup[7] << 8), f->buffer_length - 8);
        std::vector<uint8_t> reply;
        if (setup[0] == 0x80 && setup[1] == 6 && setup[3] == 3 && spec_.serialReadable) {
            const std::string text = setup[2] == kSerialIndex ? spec_.serial : "Vyrix";
            reply = {uint8_t(2 + 2 * text.size()), 3};
            for (char c : text) reply.insert(reply.end(), {static_cast<uint8_t>(c), 0});
            if (setup[2] == 0) reply = {4, 3, 0x09, 0x04};
        }
        reply.resize(std::min(reply.size(), length));
        if (!reply.empty()) memcpy(u.buffer->data + 8, reply.data(), reply.size());
        f->actual_length = static_cast<int>(reply.size());
        if (reply.empty()) f->status = -EPIPE;
        completed_.push_back(u);
    }

    gboolean Reap(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
        if (completed_.empty()) return Done(client, unplugged_ ? ENODEV : EAGAIN);
        // The argument is the address of the caller's pointer: point it at
        // the URB, whose fields and buffer go back with it.
        UMockdevIoctlData* slot = umockdev_ioctl_data_resolve(arg, 0, sizeof(void*), nullptr);
        if (slot == nullptr) return Done(client, EFAULT);
        Urb u = completed_.front();
        completed_.pop_front();
        umockdev_ioctl_data_set_ptr(slot, 0, u.urb);
        Done(client);
        g_object_unref(slot);
        u.Release();
        if (completed_.empty()) Block();
        return TRUE;
    }

    gboolean Discard(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
        gulong address = 0;
        if (arg->data_len >= static_cast<gint>(sizeof address)) memcpy(&address, arg->data, sizeof address);
        for (auto it = pendingIn_.begin(); it != pendingIn_.end(); ++it) {
            if (it->urb->client_addr != address) continue;
            it->Fields()->status = -ENOENT;
            completed_.push_back(*it);
            pendingIn_.erase(it);
            Reapable();
            return Done(client);
        }
        return Done(client, EINVAL);
    }

    // Hands waiting device bytes to waiting IN transfers, one chunk each.
    void DeliverIn() {
        for (; !pendingIn_.empty() && !chunks_.empty(); pendingIn_.pop_front(), chunks_.pop_front()) {
            Urb u = pendingIn_.front();
            const size_t n = std::min<size_t>(chunks_.front().size(), u.Fields()->buffer_length);
            memcpy(u.buffer->data, chunks_.front().data(), n);
            u.Fields()->actual_length = static_cast<int>(n);
            completed_.push_back(u);
        }
        Reapable();
    }

    // Device bytes, cut into 64-byte transfers.
    void ReadStream() {
        uint8_t buf[4096];
        for (;;) {
            struct pollfd fds[2] = {{hostEnd_, POLLIN, 0}, {wake_, POLLIN, 0}};
            if (poll(fds, 2, -1) < 0 && errno != EINTR) return;
            const ssize_t n = fds[1].revents ? 0 : read(hostEnd_, buf, sizeof buf);
            if (n <= 0) return;
            std::lock_guard<std::mutex> lock(mutex_);
            for (ssize_t at = 0; at < n; at += 64) chunks_.emplace_back(buf + at, buf + std::min<ssize_t>(n, at + 64));
            DeliverIn();
        }
    }

    UMockdevTestbed* testbed_;
    UsbDeviceSpec spec_;
    std::string devnode_, syspath_;
    UMockdevIoctlBase* handler_ = nullptr;
    int fifo_ = -1, hostEnd_ = -1, deviceEnd_ = -1, wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    bool blocked_ = false, unplugged_ = false;
    mutable std::mutex mutex_;
    std::deque<Urb> pendingIn_, completed_;
    std::deque<std::vector<uint8_t>> chunks_;
    Seen seen_;
    std::thread reader_;
};

void UsbEmulator::EnsurePreload(char** argv) {
    const char* loaded = getenv("LD_PRELOAD");
    if (loaded && strstr(loaded, "libumockdev-preload")) return;
    std::string preload = "libumockdev-preload.so.0";
#ifdef VYRIX_ASAN_RUNTIME
    preload = std::string(VYRIX_ASAN_RUNTIME) + ":" + preload;  // the sanitizer's runtime comes first
#endif
    if (loaded && *loaded) preload += std::string(":") + loaded;
    setenv("LD_PRELOAD", preload.c_str(), 1);
    execv("/proc/self/exe", argv);
    perror("execv");
    exit(1);
}

UsbEmulator::UsbEmulator() : testbed_(umockdev_testbed_new()) {}

UsbEmulator::~UsbEmulator() {
    devices_.clear();
    g_object_unref(static_cast<UMockdevTestbed*>(testbed_));
}

UsbEmulator::Device& UsbEmulator::Add(const UsbDeviceSpec& setup) {
    devices_.push_back(std::make_unique<EmulatedDevice>(static_cast<UMockdevTestbed*>(testbed_), setup));
    return *devices_.back();
}

UsbEmulator::Device& UsbEmulator::Plug(const UsbDeviceSpec& setup) {
    Device& device = Add(setup);
    umockdev_testbed_uevent(static_cast<UMockdevTestbed*>(testbed_),
                            ("/sys/devices/1-" + std::to_string(setup.address)).c_str(), "add");
    return device;
}

}  // namespace vt
