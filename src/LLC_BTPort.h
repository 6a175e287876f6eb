/* SPDX-License-Identifier: MIT */
// The Bluetooth port: an RFCOMM stream socket to channel 1 of a device.
#ifndef LLC_BTPORT_H
#define LLC_BTPORT_H

#include <string>

#include "LLC_LockFile.h"
#include "LLC_Port.h"
#include "LLC_PortWaiter.h"
#include "LLC_Utility.h"

class CBTPort : public CPort {
public:
    // The device address and pass key the port will connect with (none: a
    // port that only lists devices).
    explicit CBTPort(const char* uniqueID = nullptr, const char* passKey = nullptr);
    ~CBTPort() override;
    CBTPort(const CBTPort&) = delete;
    CBTPort& operator=(const CBTPort&) = delete;

    // 0; 0x5000000 null pass key, or an id that is not six hexadecimal
    // pairs separated by ':' (checked before anything is opened); 0x19000000 no
    // adapter; 0x18000000 open already; 0x16000000 lock file present;
    // 0x1000000 no socket or no connection.
    Vyrix_ReturnStatus OpenPort() override;
    Vyrix_ReturnStatus ClosePort() override;
    // The stream ending or being reset is the device going away.
    Vyrix_ReturnStatus ReadPort(unsigned char* inbuf, int* outLen, const CDeadline& deadline) override;
    Vyrix_ReturnStatus WritePort(const unsigned char* outbuf, unsigned short Len) override;
    void CancelRead() override { m_waiter.Wake(); }
    // Inquiry (about 10 s) plus one name request per device.
    Vyrix_ReturnStatus EnumerateDevices(unsigned int numDevicesToEnumerate, unsigned int* pNumDevices,
                                        void* pDeviceInfo) override;

    static bool CheckForBTHRadio();
    static bool IsValidAddress(const char* address);
    const char* LockFileName() const { return m_lockfile_str; }

private:
    Vyrix_ReturnStatus Open(const char* uniqueID, const char* passKey);
    Vyrix_ReturnStatus CreateLockFile();
    void RemoveLockFile(const char* function);

    std::string m_configuredID;
    std::string m_configuredKey;
    bool m_configured;
    CPortWaiter m_waiter;
    int m_gRFCommSock;
    [[maybe_unused]] BOOL m_bDeviceDetected;  // declared; detection is the connect itself
    const char* m_uniqueID;
    [[maybe_unused]] const char* m_passKey;  // the pass key is checked, not stored
    char m_lockfile_str[KT_LOCK_NAME_SIZE];
    CLockFile m_lock;
};

#endif  // LLC_BTPORT_H
