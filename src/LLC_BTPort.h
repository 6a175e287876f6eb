// The Bluetooth port: an RFCOMM stream socket to channel 1 of a device.
#ifndef LLC_BTPORT_H
#define LLC_BTPORT_H

#include "LLC_LockFile.h"
#include "LLC_Port.h"
#include "LLC_Utility.h"

class CBTPort : public CPort {
public:
    CBTPort();
    ~CBTPort() override;
    CBTPort(const CBTPort&) = delete;
    CBTPort& operator=(const CBTPort&) = delete;

    using CPort::OpenPort;
    // 0; 0x5000000 null pass key, or an id that is not six hexadecimal
    // pairs separated by ':' (checked before anything is opened); 0x19000000 no
    // adapter; 0x18000000 open already; 0x16000000 lock file present;
    // 0x1000000 no socket or no connection.
    Vyrix_ReturnStatus OpenPort(const char* uniqueID, const char* passKey) override;
    Vyrix_ReturnStatus ClosePort() override;
    // Blocks up to the 2 s receive time-out.
    Vyrix_ReturnStatus ReadPort(unsigned char* inbuf, int* outLen) override;
    Vyrix_ReturnStatus WritePort(unsigned char* outbuf, unsigned short Len) override;
    // Inquiry (about 10 s) plus one name request per device.
    Vyrix_ReturnStatus EnumerateDevices(unsigned int numDevicesToEnumerate, unsigned int* pNumDevices,
                                        void* pDeviceInfo) override;

    static bool CheckForBTHRadio();
    static bool IsValidAddress(const char* address);
    const char* LockFileName() const { return m_lockfile_str; }

private:
    Vyrix_ReturnStatus CreateLockFile();
    void RemoveLockFile(const char* function);

    int m_gRFCommSock;
    [[maybe_unused]] BOOL m_bDeviceDetected;  // declared; detection is the connect itself
    const char* m_uniqueID;
    [[maybe_unused]] const char* m_passKey;  // the pass key is checked, not stored
    char m_lockfile_str[KT_LOCK_NAME_SIZE];
    CLockFile m_lock;
};

#endif  // LLC_BTPORT_H
