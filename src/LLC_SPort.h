// The serial (UART) port: raw 57600 8N1 through termios.
#ifndef LLC_SPORT_H
#define LLC_SPORT_H

#include <termios.h>

#include "LLC_LockFile.h"
#include "LLC_Port.h"
#include "LLC_Utility.h"

enum parity { parity_none = 0, parity_odd = 1, parity_even = 2 };

class CSPort : public CPort {
public:
    CSPort();
    ~CSPort() override;

    using CPort::OpenPort;
    // 0; 0x5000000 null or over-long name; 0x18000000 open already;
    // 0x16000000 lock file held, or the terminal is open under another name;
    // 0x1000000 the device cannot be opened or is not a terminal.
    Vyrix_ReturnStatus OpenPort(const char* portName, unsigned long dwBaud, char cParity, int nByteSize,
                                float fStop) override;
    Vyrix_ReturnStatus ClosePort() override;
    // Waits at most 100 ms for input; 0x1000000 when none came.
    Vyrix_ReturnStatus ReadPort(unsigned char* inbuf, int* outLen) override;
    Vyrix_ReturnStatus WritePort(unsigned char* outbuf, unsigned short Len) override;

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
    Vyrix_ReturnStatus CreateLockFile();
    void RemoveLockFile(const char* function);
    // Closes the device and releases the lock file of a failed open.
    Vyrix_ReturnStatus FailOpen(Vyrix_ReturnStatus result);

    char m_portName[100];
    int m_nPortHandle;
    // Declared line settings: the settings go straight into m_newTio.
    [[maybe_unused]] int m_dwBaud;
    [[maybe_unused]] char m_cParity;
    [[maybe_unused]] int m_nByteSize;
    [[maybe_unused]] float m_fStop;
    char m_lockfile_str[KT_LOCK_NAME_SIZE];
    CLockFile m_lock;
    termios m_oldTio;
    termios m_newTio;
};

#endif  // LLC_SPORT_H
