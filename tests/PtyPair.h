/* SPDX-License-Identifier: MIT */
// A bare pseudo-terminal pair for tests that speak raw bytes.
#ifndef VYRIX_TEST_PTYPAIR_H
#define VYRIX_TEST_PTYPAIR_H

#include <fcntl.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <string>

#include "TestSupport.h"

namespace vt {

class PtyPair {
public:
    PtyPair() {
        char name[256] = {0};
        if (openpty(&master_, &slave_, name, nullptr, nullptr) == 0) {
            path_ = name;
            fcntl(master_, F_SETFD, FD_CLOEXEC);
            fcntl(slave_, F_SETFD, FD_CLOEXEC);
        }
    }
    ~PtyPair() {
        CloseMaster();
        if (slave_ >= 0) close(slave_);
    }
    PtyPair(const PtyPair&) = delete;
    PtyPair& operator=(const PtyPair&) = delete;

    const std::string& Path() const { return path_; }
    int Master() const { return master_; }
    int Slave() const { return slave_; }  // kept open by the test
    void CloseMaster() {
        if (master_ >= 0) close(master_);
        master_ = -1;
    }
    // The lock file a serial port takes for this terminal.
    std::string LockName() const { return SerialLockName(path_); }

private:
    int master_ = -1;
    int slave_ = -1;
    std::string path_;
};

}  // namespace vt

#endif
