/* SPDX-License-Identifier: MIT */
// The pause between two attempts to reopen a device that went away: it
// ends at its deadline, when the device may have come back (a transport
// that can tell, such as USB hot-plug or a serial path appearing, overrides
// Source and TakeArrival), or when Wake is called (the connection closes or
// its reconnection settings change).  The waiting thread sleeps in poll.
#ifndef LLC_ARRIVALWATCH_H
#define LLC_ARRIVALWATCH_H

#include "LLC_Deadline.h"

class CArrivalWatch {
public:
    enum Outcome { kTimeout, kArrived, kWoken };

    CArrivalWatch();
    virtual ~CArrivalWatch();
    CArrivalWatch(const CArrivalWatch&) = delete;
    CArrivalWatch& operator=(const CArrivalWatch&) = delete;

    // Waits until the deadline, an arrival, or a Wake (which it consumes).
    // Only the link's receive thread waits.
    virtual Outcome Wait(const CDeadline& deadline);
    // Ends the current or the next Wait.  Safe from any thread.
    virtual void Wake();

protected:
    // A descriptor that becomes readable when something may have arrived;
    // -1 for none.
    virtual int Source() { return -1; }
    // Called when Source is readable: consumes what is there and tells
    // whether the device looked for may be back.
    virtual bool TakeArrival() { return false; }

private:
    int m_wakeFd;
};

#endif  // LLC_ARRIVALWATCH_H
