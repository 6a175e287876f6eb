/* SPDX-License-Identifier: MIT */
// Servers that export a line over TCP, for the network port's tests and
// benchmarks: a real ser2net in front of pseudo-terminals, and a bare
// listening socket whose connection the test plays itself.
#ifndef VYRIX_TEST_NETSERVER_H
#define VYRIX_TEST_NETSERVER_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace vt {

// A loopback socket bound to a port the system chose; listening or not.
class BoundSocket {
public:
    explicit BoundSocket(bool listening) {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        if (bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0 || (listening && listen(fd_, 1) != 0))
            return;
        port_ = ntohs(addr.sin_port);
    }
    ~BoundSocket() {
        if (peer_ >= 0) close(peer_);
        if (fd_ >= 0) close(fd_);
    }
    BoundSocket(const BoundSocket&) = delete;
    BoundSocket& operator=(const BoundSocket&) = delete;

    int Port() const { return port_; }
    // The connection accepted (waits until `limit`), or -1.
    int Accept(int limitMs = 5000) {
        pollfd p{fd_, POLLIN, 0};
        if (peer_ < 0 && poll(&p, 1, limitMs) == 1) peer_ = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
        return peer_;
    }
    // Reads from the accepted connection until `n` bytes came or `limitMs`
    // passed without any.
    std::vector<uint8_t> Receive(size_t n, int limitMs = 5000) {
        std::vector<uint8_t> got;
        uint8_t buf[4096];
        pollfd p{peer_, POLLIN, 0};
        while (got.size() < n && poll(&p, 1, limitMs) == 1) {
            const ssize_t r = read(peer_, buf, sizeof buf);
            if (r <= 0) break;
            got.insert(got.end(), buf, buf + r);
        }
        return got;
    }
    bool Send(const std::vector<uint8_t>& bytes) {
        return write(peer_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    }

private:
    int fd_ = -1;
    int peer_ = -1;
    int port_ = 0;
};

// Whether a socket listens on the loopback port (IPv4).
inline bool Listening(int port) {
    std::istringstream table(ReadFile("/proc/net/tcp"));
    char local[32];
    snprintf(local, sizeof local, "0100007F:%04X", port);
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string slot, address, remote, state;
        fields >> slot >> address >> remote >> state;
        if (address == local && state == "0A") return true;  // TCP_LISTEN
    }
    return false;
}

// ser2net exporting pseudo-terminals, one TCP port each, with its
// configuration, pid file and output in a directory of its own.
class Ser2Net {
public:
    struct Line {
        std::string device;  // terminal path
        bool rfc2217;        // Telnet with serial-port control, else raw TCP
    };

    explicit Ser2Net(const std::vector<Line>& lines) {
        std::string pattern = RuntimeDir() + "/ser2net.XXXXXX";
        if (mkdtemp(&pattern[0]) == nullptr) return;
        dir_ = pattern;
        std::ofstream config(dir_ + "/ser2net.yaml");
        int n = 0;
        // Each port stays bound until all are chosen, so no two are the same.
        std::vector<std::unique_ptr<BoundSocket>> held;
        for (const Line& line : lines) {
            held.push_back(std::make_unique<BoundSocket>(false));
            const int port = held.back()->Port();
            ports_.push_back(port);
            config << "connection: &line" << n++ << "\n"
                   << "  accepter: " << (line.rfc2217 ? "telnet(rfc2217),tcp" : "tcp") << ",127.0.0.1," << port << "\n"
                   << "  connector: serialdev," << line.device
                   << ",57600n81,local\n"
                   // Bytes from the device go on at once, not gathered for
                   // up to 20 ms into bigger segments.
                   << "  options:\n    chardelay: false\n";
        }
        config.close();
        held.clear();
        pid_ = fork();
        if (pid_ == 0) {
            const int out = open((dir_ + "/output").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            if (out < 0 || dup2(out, 1) < 0 || dup2(out, 2) < 0) _exit(126);
            // -n: in the foreground, so the pid is ser2net's; -u: no UUCP
            // lock files outside the private directory.
            execl(SER2NET, SER2NET, "-n", "-u", "-c", (dir_ + "/ser2net.yaml").c_str(), "-P",
                  (dir_ + "/ser2net.pid").c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    ~Ser2Net() {
        Kill();
        if (!dir_.empty()) std::system(("rm -rf " + dir_).c_str());
    }
    Ser2Net(const Ser2Net&) = delete;
    Ser2Net& operator=(const Ser2Net&) = delete;

    // ser2net tells no one when it listens: its listening sockets are
    // looked for in the kernel's table until they are all there (connecting
    // to find out would start a session on the line).
    bool Ready() const {
        return pid_ > 0 && Eventually([&] {
                   for (int port : ports_)
                       if (!Listening(port)) return false;
                   return true;
               });
    }
    std::string Url(size_t line, const std::string& scheme) const {
        return scheme + "://127.0.0.1:" + std::to_string(ports_.at(line));
    }
    void Kill() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    std::string Output() const { return ReadFile(dir_ + "/output"); }

private:
    std::string dir_;
    std::vector<int> ports_;
    pid_t pid_ = -1;
};

}  // namespace vt

#endif
