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

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace vt {

namespace {

constexpr size_t kPacket = 64;
constexpr uint8_t kInEndpoint = 0x81;
constexpr uint8_t kSerialIndex = 3;

std::string Hex(const std::vector<uint8_t>& bytes) {
    std::string out;
    char b[3];
    for (uint8_t v : bytes) {
        snprintf(b, sizeof b, "%02x", v);
        out += b;
    }
    return out;
}

void Put16(std::vector<uint8_t>& v, uint16_t x) {
    v.push_back(static_cast<uint8_t>(x));
    v.push_back(static_cast<uint8_t>(x >> 8));
}

// Device descriptor followed by the whole configuration descriptor.
std::vector<uint8_t> Descriptors(const UsbDeviceSpec& s) {
    std::vector<uint8_t> d = {18, 1, 0x00, 0x02, 0, 0, 0, 64};
    Put16(d, s.vendor);
    Put16(d, s.product);
    Put16(d, 0x0100);
    d.insert(d.end(), {1, 2, kSerialIndex, 1});
    std::vector<uint8_t> c;
    if (s.interfaces) {
        const uint8_t endpoints = s.outEndpoint ? 2 : 1;
        c = {9, 4, 0, 0, endpoints, 0xFF, 0, 0, 0};
        c.insert(c.end(), {7, 5, kInEndpoint, 3, 64, 0, 1});
        if (s.outEndpoint) c.insert(c.end(), {7, 5, s.outAddress, 3, 64, 0, 1});
    }
    std::vector<uint8_t> config = {9, 2};
    Put16(config, static_cast<uint16_t>(9 + c.size()));
    config.insert(config.end(), {static_cast<uint8_t>(s.interfaces ? 1 : 0), 1, 0, 0x80, 50});
    config.insert(config.end(), c.begin(), c.end());
    d.insert(d.end(), config.begin(), config.end());
    return d;
}

struct Urb {
    UMockdevIoctlData* urb;     // the caller's usbdevfs_urb
    UMockdevIoctlData* buffer;  // its buffer
    usbdevfs_urb* Fields() const { return reinterpret_cast<usbdevfs_urb*>(urb->data); }
};

void Release(Urb& u) {
    if (u.buffer) g_object_unref(u.buffer);
    if (u.urb) g_object_unref(u.urb);
    u = Urb{nullptr, nullptr};
}

}  // namespace

class EmulatedDevice : public UsbEmulator::Device {
public:
    EmulatedDevice(UMockdevTestbed* testbed, const UsbDeviceSpec& setup) : testbed_(testbed), spec_(setup) {
        char bus[8], dev[8];
        snprintf(bus, sizeof bus, "%03d", setup.bus);
        snprintf(dev, sizeof dev, "%03d", setup.address);
        devnode_ = std::string("/dev/bus/usb/") + bus + "/" + dev;
        syspath_ = "/sys/devices/" + std::to_string(setup.bus) + "-" + std::to_string(setup.address);
        std::string record =
            "P: /devices/" + std::to_string(setup.bus) + "-" + std::to_string(setup.address) + "\nN: bus/usb/" + bus +
            "/" + dev + "\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\n" + "E: DEVNAME=" + devnode_ +
            "\nE: BUSNUM=" + bus + "\nE: DEVNUM=" + dev + "\nA: busnum=" + std::to_string(setup.bus) +
            "\\n\nA: devnum=" + std::to_string(setup.address) + "\\n\nA: speed=12\\n\nA: bConfigurationValue=1\\n\n" +
            "H: descriptors=" + Hex(Descriptors(setup)) + "\n";
        GError* error = nullptr;
        if (!umockdev_testbed_add_from_string(testbed_, record.c_str(), &error)) Fail("add_from_string", error);

        int pair[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) throw std::runtime_error("socketpair");
        hostEnd_ = pair[0];
        deviceEnd_ = pair[1];
        wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);

        handler_ = umockdev_ioctl_base_new();
        g_signal_connect(handler_, "handle-ioctl", G_CALLBACK(OnIoctl), this);
        if (!umockdev_testbed_attach_ioctl(testbed_, devnode_.c_str(), handler_, &error)) Fail("attach_ioctl", error);

        // A regular file is always writable, which libusb takes as "a URB
        // can be reaped": a one-page FIFO instead, full (one byte) while
        // nothing can be reaped.
        gchar* root = umockdev_testbed_get_root_dir(testbed_);
        node_ = std::string(root) + devnode_;
        g_free(root);
        unlink(node_.c_str());
        if (mkfifo(node_.c_str(), 0666) != 0) throw std::runtime_error("mkfifo " + node_);
        fifo_ = open(node_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        fcntl(fifo_, F_SETPIPE_SZ, 4096);
        Block();
        reader_ = std::thread([this] { ReadStream(); });
    }

    ~EmulatedDevice() override {
        uint64_t one = 1;
        if (write(wake_, &one, sizeof one) < 0) {
        }
        reader_.join();
        if (!unplugged_) {
            umockdev_testbed_detach_ioctl(testbed_, devnode_.c_str(), nullptr);
            umockdev_testbed_remove_device(testbed_, syspath_.c_str());
        }
        g_object_unref(handler_);
        for (Urb& u : pendingIn_) Release(u);
        for (Urb& u : completed_) Release(u);
        close(fifo_);
        close(wake_);
        close(hostEnd_);
        if (deviceEnd_ >= 0) close(deviceEnd_);
    }

    int TakeStream() override {
        int fd = deviceEnd_;
        deviceEnd_ = -1;
        return fd;
    }
    std::vector<std::vector<uint8_t>> OutTransfers() const override {
        std::lock_guard<std::mutex> lock(mutex_);
        return outs_;
    }
    std::vector<uint8_t> OutEndpoints() const override {
        std::lock_guard<std::mutex> lock(mutex_);
        return outEndpoints_;
    }
    bool DriverDetached() const override {
        std::lock_guard<std::mutex> lock(mutex_);
        return detached_;
    }
    bool InterfaceClaimed() const override {
        std::lock_guard<std::mutex> lock(mutex_);
        return claimed_;
    }

    void Unplug() override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (unplugged_) return;
            unplugged_ = true;
            for (Urb& u : pendingIn_) {
                u.Fields()->status = -ENODEV;
                u.Fields()->actual_length = 0;
                completed_.push_back(u);
            }
            pendingIn_.clear();
            Reapable();
        }
        umockdev_testbed_uevent(testbed_, syspath_.c_str(), "remove");
        umockdev_testbed_remove_device(testbed_, syspath_.c_str());
    }

private:
    [[noreturn]] static void Fail(const char* what, GError* error) {
        std::string message = std::string(what) + ": " + (error ? error->message : "failed");
        if (error) g_error_free(error);
        throw std::runtime_error(message);
    }

    // The FIFO holds one byte while nothing can be reaped.
    void Block() {
        if (blocked_) return;
        char b = 1;
        blocked_ = write(fifo_, &b, 1) == 1;
    }
    void Reapable() {
        if (!blocked_ || completed_.empty()) return;
        char b;
        if (read(fifo_, &b, 1) == 1) blocked_ = false;
    }

    static gboolean OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self) {
        return static_cast<EmulatedDevice*>(self)->Handle(client);
    }

    gboolean Handle(UMockdevIoctlClient* client) {
        const gulong request = umockdev_ioctl_client_get_request(client);
        UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
        std::lock_guard<std::mutex> lock(mutex_);
        if (unplugged_ && request != USBDEVFS_REAPURBNDELAY) {
            umockdev_ioctl_client_complete(client, -1, ENODEV);
            return TRUE;
        }
        switch (request) {
            case USBDEVFS_GET_CAPABILITIES: {
                UMockdevIoctlData* caps = umockdev_ioctl_data_resolve(arg, 0, sizeof(uint32_t), nullptr);
                if (caps) {
                    uint32_t none = 0;
                    memcpy(caps->data, &none, sizeof none);
                    g_object_unref(caps);
                }
                umockdev_ioctl_client_complete(client, 0, 0);
                return TRUE;
            }
            case USBDEVFS_GETDRIVER: {
                UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_getdriver), nullptr);
                const bool bound = spec_.kernelDriver && !detached_;
                if (d && bound) snprintf(reinterpret_cast<usbdevfs_getdriver*>(d->data)->driver, 256, "usbhid");
                if (d) g_object_unref(d);
                umockdev_ioctl_client_complete(client, bound ? 0 : -1, bound ? 0 : ENODATA);
                return TRUE;
            }
            case USBDEVFS_IOCTL: {
                UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_ioctl), nullptr);
                const bool disconnect = d && reinterpret_cast<usbdevfs_ioctl*>(d->data)->ioctl_code ==
                                                 static_cast<int>(USBDEVFS_DISCONNECT);
                if (d) g_object_unref(d);
                if (disconnect && spec_.kernelDriver && !detached_) {
                    detached_ = true;
                    umockdev_ioctl_client_complete(client, 0, 0);
                } else {
                    umockdev_ioctl_client_complete(client, -1, ENODATA);
                }
                return TRUE;
            }
            case USBDEVFS_CLAIMINTERFACE:
            case USBDEVFS_RELEASEINTERFACE:
                claimed_ = request == USBDEVFS_CLAIMINTERFACE;
                umockdev_ioctl_client_complete(client, 0, 0);
                return TRUE;
            case USBDEVFS_SUBMITURB: return Submit(client, arg);
            case USBDEVFS_REAPURBNDELAY: return Reap(client, arg);
            case USBDEVFS_DISCARDURB: return Discard(client, arg);
            default: return FALSE;
        }
    }

    gboolean Submit(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
        Urb u{umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_urb), nullptr), nullptr};
        if (u.urb == nullptr) {
            umockdev_ioctl_client_complete(client, -1, EFAULT);
            return TRUE;
        }
        usbdevfs_urb* f = u.Fields();
        u.buffer = umockdev_ioctl_data_resolve(u.urb, offsetof(usbdevfs_urb, buffer),
                                               static_cast<gsize>(f->buffer_length), nullptr);
        if (u.buffer == nullptr) {
            Release(u);
            umockdev_ioctl_client_complete(client, -1, EFAULT);
            return TRUE;
        }
        f->status = 0;
        f->actual_length = 0;
        if (f->type == USBDEVFS_URB_TYPE_CONTROL) {
            Control(u);
        } else if (f->endpoint & 0x80) {
            pendingIn_.push_back(u);
            DeliverIn();
        } else {
            std::vector<uint8_t> bytes(u.buffer->data, u.buffer->data + f->buffer_length);
            outs_.push_back(bytes);
            outEndpoints_.push_back(f->endpoint);
            size_t done = 0;
            while (done < bytes.size()) {
                ssize_t n = send(hostEnd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
                if (n <= 0) break;
                done += static_cast<size_t>(n);
            }
            f->actual_length = f->buffer_length;
            completed_.push_back(u);
        }
        Reapable();
        umockdev_ioctl_client_complete(client, 0, 0);
        return TRUE;
    }

    // Standard GET_DESCRIPTOR for strings; anything else stalls.
    void Control(Urb& u) {
        usbdevfs_urb* f = u.Fields();
        const uint8_t* setup = u.buffer->data;
        const uint16_t value = static_cast<uint16_t>(setup[2] | (setup[3] << 8));
        const uint16_t length = static_cast<uint16_t>(setup[6] | (setup[7] << 8));
        std::vector<uint8_t> reply;
        if (setup[0] == 0x80 && setup[1] == 6 && (value >> 8) == 3 && spec_.serialReadable) {
            const uint8_t index = value & 0xFF;
            if (index == 0) {
                reply = {4, 3, 0x09, 0x04};
            } else {
                const std::string text = index == kSerialIndex ? spec_.serial : "Vyrix";
                reply = {static_cast<uint8_t>(2 + 2 * text.size()), 3};
                for (char c : text) reply.insert(reply.end(), {static_cast<uint8_t>(c), 0});
            }
        }
        if (reply.empty()) {
            f->status = -EPIPE;
        } else {
            if (reply.size() > length) reply.resize(length);
            if (8 + reply.size() > static_cast<size_t>(f->buffer_length)) reply.resize(f->buffer_length - 8);
            memcpy(u.buffer->data + 8, reply.data(), reply.size());
            f->actual_length = static_cast<int>(reply.size());
        }
        completed_.push_back(u);
    }

    gboolean Reap(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
        if (completed_.empty()) {
            umockdev_ioctl_client_complete(client, -1, unplugged_ ? ENODEV : EAGAIN);
            return TRUE;
        }
        // The argument is the address of the caller's pointer: point it at
        // the URB, whose fields and buffer go back with it.
        UMockdevIoctlData* slot = umockdev_ioctl_data_resolve(arg, 0, sizeof(void*), nullptr);
        if (slot == nullptr) {
            umockdev_ioctl_client_complete(client, -1, EFAULT);
            return TRUE;
        }
        Urb u = completed_.front();
        completed_.pop_front();
        umockdev_ioctl_data_set_ptr(slot, 0, u.urb);
        umockdev_ioctl_client_complete(client, 0, 0);
        g_object_unref(slot);
        Release(u);
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
            umockdev_ioctl_client_complete(client, 0, 0);
            return TRUE;
        }
        umockdev_ioctl_client_complete(client, -1, EINVAL);
        return TRUE;
    }

    // Hands waiting device bytes to waiting IN transfers, one chunk each.
    void DeliverIn() {
        while (!pendingIn_.empty() && !chunks_.empty()) {
            Urb u = pendingIn_.front();
            pendingIn_.pop_front();
            std::vector<uint8_t> chunk = std::move(chunks_.front());
            chunks_.pop_front();
            const size_t n = std::min<size_t>(chunk.size(), static_cast<size_t>(u.Fields()->buffer_length));
            memcpy(u.buffer->data, chunk.data(), n);
            u.Fields()->actual_length = static_cast<int>(n);
            completed_.push_back(u);
        }
        Reapable();
    }

    void ReadStream() {
        uint8_t buf[4096];
        for (;;) {
            struct pollfd fds[2] = {{hostEnd_, POLLIN, 0}, {wake_, POLLIN, 0}};
            if (poll(fds, 2, -1) < 0 && errno != EINTR) return;
            if (fds[1].revents) return;
            ssize_t n = read(hostEnd_, buf, sizeof buf);
            if (n <= 0) return;
            std::lock_guard<std::mutex> lock(mutex_);
            for (ssize_t at = 0; at < n; at += static_cast<ssize_t>(kPacket))
                chunks_.emplace_back(buf + at, buf + std::min<ssize_t>(n, at + static_cast<ssize_t>(kPacket)));
            DeliverIn();
        }
    }

    UMockdevTestbed* testbed_;
    UsbDeviceSpec spec_;
    std::string devnode_, syspath_, node_;
    UMockdevIoctlBase* handler_ = nullptr;
    int fifo_ = -1, hostEnd_ = -1, deviceEnd_ = -1, wake_ = -1;
    bool blocked_ = false;

    mutable std::mutex mutex_;
    std::deque<Urb> pendingIn_, completed_;
    std::deque<std::vector<uint8_t>> chunks_;
    std::vector<std::vector<uint8_t>> outs_;
    std::vector<uint8_t> outEndpoints_;
    bool unplugged_ = false, detached_ = false, claimed_ = false;
    std::thread reader_;
};

struct UsbEmulator::Impl {
    UMockdevTestbed* testbed = nullptr;
    std::vector<std::unique_ptr<EmulatedDevice>> devices;
};

void UsbEmulator::EnsurePreload(int argc, char** argv) {
    (void)argc;
    const char* loaded = getenv("LD_PRELOAD");
    if (loaded && strstr(loaded, "libumockdev-preload")) return;
    std::string preload = "libumockdev-preload.so.0";
#ifdef VYRIX_ASAN_RUNTIME
    preload = std::string(VYRIX_ASAN_RUNTIME) + ":" + preload;  // the sanitizer's runtime comes first
#endif
    const char* existing = getenv("LD_PRELOAD");
    if (existing && *existing) preload += std::string(":") + existing;
    setenv("LD_PRELOAD", preload.c_str(), 1);
    execv("/proc/self/exe", argv);
    perror("execv");
    exit(1);
}

UsbEmulator::UsbEmulator() : impl_(new Impl) { impl_->testbed = umockdev_testbed_new(); }

UsbEmulator::~UsbEmulator() {
    impl_->devices.clear();
    g_object_unref(impl_->testbed);
}

UsbEmulator::Device& UsbEmulator::Add(const UsbDeviceSpec& setup) {
    impl_->devices.push_back(std::make_unique<EmulatedDevice>(impl_->testbed, setup));
    return *impl_->devices.back();
}

}  // namespace vt
