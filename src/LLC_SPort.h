/* SPDX-License-Identifier: MIT */
// The serial (UART) port: raw 57600 8N1 through termios.
#ifndef LLC_SPORT_H
#define LLC_SPORT_H

#include <termios.h>

#include <string>

#include "LLC_LockFile.h"
#include "LLC_Port.h"
#include "LLC_PortWaiter.h"
#include "LLC_Utility.h"

enum parity { parity_none = 0, parity_odd = 1, parity_even = 2 };

class CSPort : public CPort {
public:
    // The device path and line settings the port will open with (no port
    // name: a port that only lists devices).
    explicit CSPort(const char* portName = nullptr, unsigned long dwBaud = KT_VYRIX_BAUDRATE, char cParity = 'n',
                    int nByteSize = 8, float fStop = 1.0f);
    ~CSPort() override;
    CSPort(const CSPort&) = delete;
    CSPort& operator=(const CSPort&) = delete;

    // 0; 0x5000000 null or over-long name; 0x18000000 open already;
    // 0x16000000 lock file held, or the terminal is open under another name;
    // 0x1000000 the device cannot be opened or is not a terminal.
    Vyrix_ReturnStatus OpenPort() override;
    Vyrix_ReturnStatus ClosePort() override;
    Vyrix_ReturnStatus ReadPort(unsigned char* inbuf, int* outLen, const CDeadline& deadline) override;
    Vyrix_ReturnStatus WritePort(const unsigned char* outbuf, unsigned short Len) override;
    // Lists nothing: 0 without writing.
    Vyrix_ReturnStatus EnumerateDevices(unsigned int numDevicesToEnumerate, unsigned int* pNumDevices,
                                        void* pDeviceInfo) override;
    void CancelRead() override { m_waiter.Wake(); }

    // Builds the lock name for a device path into `out` (128 bytes); false
    // when it would not fit.
    static bool LockNameFor(const char* portName, char* out);

    int setParityFlag(char c);
    void setBaudRateFlag(double rate);
    void setByteSizeFlag(int nByteSize, float fStop);
    void setControlChar();

    const termios& AppliedAttributes() const { return m_newTio; }
    const char* LockFileName() const { return m_lockfile_str; }

private:
    Vyrix_ReturnStatus Open(const char* portName, unsigned long dwBaud, char cParity, int nByteSize, float fStop);
    Vyrix_ReturnStatus CreateLockFile();
    void RemoveLockFile(const char* function);
    // Closes the device and releases the lock file of a failed open.
    Vyrix_ReturnStatus FailOpen(Vyrix_ReturnStatus result);

    // As constructed; a null name stays null.
    std::string m_configuredName;
    bool m_named;
    char m_portName[100];
    int m_nPortHandle;
    unsigned long m_dwBaud;
    char m_cParity;
    int m_nByteSize;
    float m_fStop;
    CPortWaiter m_waiter;
    char m_lockfile_str[KT_LOCK_NAME_SIZE];
    CLockFile m_lock;
    termios m_oldTio;
    termios m_newTio;
};

#endif  // LLC_SPORT_H
