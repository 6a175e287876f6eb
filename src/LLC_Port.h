// The interface through which a communication handler reaches a device.
// The base bodies report success without doing anything: the handler only
// calls the OpenPort overload of the port it created.
#ifndef LLC_PORT_H
#define LLC_PORT_H

#include "LLC_Common.h"

class CPort {
public:
    virtual ~CPort() {}
    virtual Vyrix_ReturnStatus OpenPort() { return RC_OK; }
    virtual Vyrix_ReturnStatus OpenPort(const char* /*portName*/, unsigned long /*dwBaud*/, char /*cParity*/,
                                        int /*nByteSize*/, float /*fStop*/) {
        return RC_OK;
    }
    virtual Vyrix_ReturnStatus OpenPort(const char* /*uniqueID*/, const char* /*passKey*/) { return RC_OK; }
    virtual Vyrix_ReturnStatus ClosePort() { return RC_OK; }
    // Reads what is there into inbuf (room for 4101 bytes); *outLen is set
    // only on success.  A not-connected result means the device is gone.
    virtual Vyrix_ReturnStatus ReadPort(unsigned char* /*inbuf*/, int* /*outLen*/) { return RC_OK; }
    // Writes one whole packet.
    virtual Vyrix_ReturnStatus WritePort(unsigned char* /*outbuf*/, unsigned short /*Len*/) { return RC_OK; }
    virtual Vyrix_ReturnStatus EnumerateDevices(unsigned int /*numDevicesToEnumerate*/, unsigned int* /*pNumDevices*/,
                                                void* /*pDeviceInfo*/) {
        return RC_OK;
    }
    virtual void CancelRead() {}
};

#endif  // LLC_PORT_H
