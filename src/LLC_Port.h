/* SPDX-License-Identifier: MIT */
// The interface through which a communication handler reaches a device.
// A port is configured when it is constructed; every operation is the
// concrete port's own.
#ifndef LLC_PORT_H
#define LLC_PORT_H

#include "LLC_Common.h"
#include "LLC_Deadline.h"

class CPort {
public:
    virtual ~CPort() {}
    // Takes the device (and its lock file).
    virtual Vyrix_ReturnStatus OpenPort() = 0;
    virtual Vyrix_ReturnStatus ClosePort() = 0;
    // Waits until `deadline` for input and reads what is there into inbuf
    // (room for 4101 bytes).  0 with *outLen set; 0x7000000 nothing came in
    // time or CancelRead was called; 0x16000000 the device is gone (hang-up,
    // end of stream, unplugged); other failures end the link too.
    virtual Vyrix_ReturnStatus ReadPort(unsigned char* inbuf, int* outLen, const CDeadline& deadline) = 0;
    // Writes one whole packet.  A device that takes no byte for
    // KT_WRITE_STALL_MS makes it fail.
    virtual Vyrix_ReturnStatus WritePort(const unsigned char* outbuf, unsigned short Len) = 0;
    virtual Vyrix_ReturnStatus EnumerateDevices(unsigned int numDevicesToEnumerate, unsigned int* pNumDevices,
                                                void* pDeviceInfo) = 0;
    // Ends a read or write in progress, and every later one, at once: the
    // port is about to be closed.  Safe from any thread.
    virtual void CancelRead() = 0;
};

#endif  // LLC_PORT_H
