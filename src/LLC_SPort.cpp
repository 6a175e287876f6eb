// SPDX-License-Identifier: MIT
#include "LLC_SPort.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "LLC_LastError.h"
#include "LLC_Utility.h"

namespace {
constexpr size_t kPortNameSize = 100;
constexpr char kDevPrefix[] = "/dev/";
constexpr size_t kDevPrefixLen = sizeof kDevPrefix - 1;

struct BaudEntry {
    int rate;
    speed_t constant;
};
constexpr BaudEntry kBaudTable[] = {
    {0, B0},       {50, B50},     {75, B75},       {110, B110},     {134, B134},       {150, B150},
    {200, B200},   {300, B300},   {600, B600},     {1200, B1200},   {1800, B1800},     {2400, B2400},
    {4800, B4800}, {9600, B9600}, {19200, B19200}, {38400, B38400}, {115200, B115200},
};

// The group whose members may open the device at `path` ("dialout" for
// most serial adapters), or "" when there is none or it cannot be told.
std::string GroupOf(const char* path) {
    struct stat st {};
    if (stat(path, &st) != 0 || (st.st_mode & (S_IRGRP | S_IWGRP)) != (S_IRGRP | S_IWGRP)) return "";
    struct group entry {};
    struct group* found = nullptr;
    char buffer[1024];
    if (getgrgid_r(st.st_gid, &entry, buffer, sizeof buffer, &found) != 0 || found == nullptr) return "";
    return entry.gr_name;
}

// Why open() refused the device, in words that say what to do about it.
void ExplainOpenFailure(const char* path, int err) {
    if (err == ENOENT || err == ENXIO || err == ENODEV) {
        CLastError::SetWithErrno(err, "%s: no such device", path);
    } else if (err == EACCES || err == EPERM) {
        const std::string group = GroupOf(path);
        if (group.empty())
            CLastError::SetWithErrno(err,
                                     "no permission to open %s: only its owner may; serial devices are usually "
                                     "opened by members of the group 'dialout'",
                                     path);
        else
            CLastError::SetWithErrno(err,
                                     "no permission to open %s: it belongs to the group '%s'; add the user to it "
                                     "(sudo usermod -aG %s $USER) and log in again",
                                     path, group.c_str(), group.c_str());
    } else {
        CLastError::SetWithErrno(err, "cannot open %s", path);
    }
}

// Why the lock file could not be had: another holder, or a directory
// that does not let us create it.
void ExplainLockFailure(const char* path, const char* lockName) {
    if (const pid_t holder = CLockFile::HolderOf(lockName)) {
        CLastError::Set("%s is in use by process %d (lock file %s)", path, static_cast<int>(holder), lockName);
        return;
    }
    if (access(lockName, F_OK) == 0) {
        CLastError::Set("%s is in use by another program (lock file %s)", path, lockName);
        return;
    }
    std::string dir(lockName);
    dir.erase(dir.find_last_of('/') + 1);
    const int err = access(dir.c_str(), W_OK | X_OK) == 0 ? EEXIST : errno;
    CLastError::SetWithErrno(err, "cannot create the lock file %s", lockName);
}
}  // namespace

CSPort::CSPort(const char* portName, unsigned long dwBaud, char cParity, int nByteSize, float fStop)
    : m_configuredName(portName != nullptr ? portName : ""),
      m_named(portName != nullptr),
      m_portName(),
      m_nPortHandle(-1),
      m_dwBaud(dwBaud),
      m_cParity(cParity),
      m_nByteSize(nByteSize),
      m_fStop(fStop),
      m_lockfile_str(),
      m_oldTio(),
      m_newTio() {}

CSPort::~CSPort() {
    if (m_nPortHandle >= 0) ClosePort();
}

bool CSPort::LockNameFor(const char* portName, char* out) {
    const char* device = portName;
    if (strncmp(portName, kDevPrefix, kDevPrefixLen) == 0) device += kDevPrefixLen;
    if (!RuntimeFileName(out, KT_LOCK_NAME_SIZE, "%s_%s.lock", KT_LOCK_PREFIX_SERIAL, device)) return false;
    // Every further '/' becomes '_', so the name stays one file in the
    // runtime directory.
    for (char* p = out + strlen(out) - strlen(device) - strlen(".lock"); *p != '\0'; ++p)
        if (*p == '/') *p = '_';
    return true;
}

Vyrix_ReturnStatus CSPort::CreateLockFile() {
    LlcLog("<INFO> %s: Lockfile name = %s\n", "CreateLockFile", m_lockfile_str);
    int openResult = -1;
    if (!m_lock.Acquire(m_lockfile_str, &openResult)) {
        LlcLog("<RROR> %s: Lockfile create failed.%d\n", "CreateLockFile", openResult);
        // Not ours: never remove it.
        m_lockfile_str[0] = '\0';
        return RC(eVYRIX_NOT_CONNECTED);
    }
    return RC_OK;
}

void CSPort::RemoveLockFile(const char* function) {
    char name[KT_LOCK_NAME_SIZE];
    memcpy(name, m_lockfile_str, sizeof name);
    if (!m_lock.Release(m_lockfile_str)) LlcLog("<ERROR> %s: Lock file %s remove failed.\n", function, name);
}

Vyrix_ReturnStatus CSPort::OpenPort() {
    return Open(m_named ? m_configuredName.c_str() : nullptr, m_dwBaud, m_cParity, m_nByteSize, m_fStop);
}

Vyrix_ReturnStatus CSPort::Open(const char* portName, unsigned long dwBaud, char cParity, int nByteSize, float fStop) {
    if (portName == nullptr) {
        LlcLog("<ERROR> %s Invalid argument\n", "OpenPort");
        return RC(eVYRIX_INVALID_ARGUMENT);
    }
    if (m_nPortHandle >= 0) {
        LlcLog("<ERROR> %s Port already opened\n", "OpenPort");
        return RC(eVYRIX_ALREADY_OPENED);
    }
    char lockName[KT_LOCK_NAME_SIZE];
    if (strnlen(portName, kPortNameSize) >= kPortNameSize || !LockNameFor(portName, lockName)) {
        CLastError::Set("the device path is too long: at most %zu characters, and its lock file name at most %zu",
                        kPortNameSize - 1, KT_LOCK_NAME_SIZE - 1);
        LlcLog("<ERROR> %s Invalid argument\n", "OpenPort");
        return RC(eVYRIX_INVALID_ARGUMENT);
    }
    memcpy(m_portName, portName, strlen(portName) + 1);
    memcpy(m_lockfile_str, lockName, sizeof lockName);
    if (CreateLockFile() != RC_OK) {
        ExplainLockFailure(m_portName, lockName);
        LlcLog("<ERROR> %s Device not connected\n", "OpenPort");
        return RC(eVYRIX_NOT_CONNECTED);
    }
    LlcLog("<INFO> %s Opening serial device :%s\n", "OpenPort", m_portName);
    m_nPortHandle = open(m_portName, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (m_nPortHandle < 0) {
        ExplainOpenFailure(m_portName, errno);
        LlcLog("<INFO> %s Opening '%s' failed\n", "OpenPort", m_portName);
        m_nPortHandle = -1;
        RemoveLockFile("OpenPort");
        return RC(eVYRIX_FAILURE);
    }
    if (tcgetattr(m_nPortHandle, &m_oldTio) != 0) {
        // Not a terminal: nothing that speaks the line protocol.
        CLastError::SetWithErrno(errno, "%s is not a serial device", m_portName);
        LlcLog("<INFO> %s Opening '%s' failed\n", "OpenPort", m_portName);
        return FailOpen(RC(eVYRIX_FAILURE));
    }
    // The lock file only covers this name of the device; the lock on the
    // terminal itself covers every other name (links, /dev/serial/by-id).
    if (flock(m_nPortHandle, LOCK_EX | LOCK_NB) != 0) {
        CLastError::Set("%s is in use by another connection or process under another name", m_portName);
        LlcLog("<RROR> %s: Lockfile create failed.%d\n", "CreateLockFile", -1);
        LlcLog("<ERROR> %s Device not connected\n", "OpenPort");
        return FailOpen(RC(eVYRIX_NOT_CONNECTED));
    }
    m_newTio.c_cflag = CREAD;
    setParityFlag(cParity);
    setBaudRateFlag(static_cast<double>(dwBaud));
    setByteSizeFlag(nByteSize, fStop);
    setControlChar();
    tcflush(m_nPortHandle, TCIFLUSH);
    tcsetattr(m_nPortHandle, TCSANOW, &m_newTio);
    return RC_OK;
}

Vyrix_ReturnStatus CSPort::FailOpen(Vyrix_ReturnStatus result) {
    close(m_nPortHandle);
    m_nPortHandle = -1;
    RemoveLockFile("OpenPort");
    return result;
}

int CSPort::setParityFlag(char c) {
    if (c == 'O' || c == 'o') {
        m_newTio.c_cflag |= PARENB | PARODD;
        LlcLog("Odd parity\n");
        return parity_odd;
    }
    if (c == 'E' || c == 'e') {
        m_newTio.c_cflag |= PARENB;
        m_newTio.c_cflag &= ~static_cast<tcflag_t>(PARODD);
        LlcLog("Even parity\n");
        return parity_even;
    }
    return parity_none;
}

void CSPort::setBaudRateFlag(double rate) {
    int baud = static_cast<int>(rate);
    LlcLog("<INFO> %s Setting %d for baudrate\n", "setBaudRateFlag", baud);
    speed_t speed = B57600;
    for (const BaudEntry& entry : kBaudTable)
        if (entry.rate == baud) speed = entry.constant;
    cfsetspeed(&m_newTio, speed);
}

void CSPort::setByteSizeFlag(int nByteSize, float fStop) {
    LlcLog("<INFO> %s setting %d\n", "setByteSizeFlag", nByteSize);
    switch (nByteSize) {
        case 5: break;
        case 6: m_newTio.c_cflag |= CS6; break;
        case 7: m_newTio.c_cflag |= CS7; break;
        default: m_newTio.c_cflag |= CS8; break;
    }
    if (fStop == 2.0f) m_newTio.c_cflag |= CSTOPB;
}

void CSPort::setControlChar() {
    cc_t* cc = m_newTio.c_cc;
    cc[VINTR] = 0;
    cc[VQUIT] = 0;
    cc[VERASE] = 0;
    cc[VKILL] = 0;
    cc[VEOF] = 4;
    cc[VTIME] = 0;
    cc[VMIN] = 1;
    cc[VSWTC] = 0;
    cc[VSTART] = 0;
    cc[VSTOP] = 0;
    cc[VSUSP] = 0;
    cc[VEOL] = 0;
    cc[VREPRINT] = 0;
    cc[VDISCARD] = 0;
    cc[VWERASE] = 0;
    cc[VLNEXT] = 0;
    cc[VEOL2] = 0;
}

Vyrix_ReturnStatus CSPort::ReadPort(unsigned char* inbuf, int* outLen, const CDeadline& deadline) {
    if (inbuf == nullptr || outLen == nullptr) return RC(eVYRIX_INVALID_ARGUMENT);
    if (m_nPortHandle < 0) {
        LlcLog("<ERROR> %s :  Port handle is NULL.\n", "ReadPort");
        return RC(eVYRIX_NOT_CONNECTED);
    }
    // A hung-up line reads as end of file or EIO.
    return ReadAvailable(m_nPortHandle, m_waiter, inbuf, outLen, deadline);
}

Vyrix_ReturnStatus CSPort::WritePort(const unsigned char* outbuf, unsigned short Len) {
    if (outbuf == nullptr) return RC(eVYRIX_INVALID_ARGUMENT);
    if (m_nPortHandle < 0) return RC(eVYRIX_NOT_CONNECTED);
    return WriteWithRetry(outbuf, Len, m_nPortHandle, m_waiter,
                          [this](const unsigned char* at, size_t n) { return write(m_nPortHandle, at, n); });
}

Vyrix_ReturnStatus CSPort::EnumerateDevices(unsigned int /*numDevicesToEnumerate*/, unsigned int* /*pNumDevices*/,
                                            void* /*pDeviceInfo*/) {
    return RC_OK;
}

Vyrix_ReturnStatus CSPort::ClosePort() {
    if (m_nPortHandle < 0) return RC_OK;
    RemoveLockFile("ClosePort");
    LlcLog("<INFO> %s: Lock File Removed.\n", "ClosePort");
    tcflush(m_nPortHandle, TCIFLUSH);
    tcsetattr(m_nPortHandle, TCSANOW, &m_oldTio);
    if (close(m_nPortHandle) != 0) return RC(eVYRIX_FAILURE);
    m_nPortHandle = -1;
    return RC_OK;
}
