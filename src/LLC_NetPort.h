/* SPDX-License-Identifier: MIT */
// A serial line that a server on another host exports over TCP (ser2net,
// for instance): "rfc2217://HOST:PORT" speaks Telnet with serial-port
// control and sets the line to 57600 8N1 without flow control;
// "tcp://HOST:PORT" carries the bytes as they are.  The server owns the
// device, so no lock file is taken; one process holds one connection per
// server port.
#ifndef LLC_NETPORT_H
#define LLC_NETPORT_H

#include <mutex>
#include <string>
#include <vector>

#include "LLC_NetAddress.h"
#include "LLC_Port.h"
#include "LLC_PortWaiter.h"
#include "LLC_TelnetFilter.h"

// A server that has not accepted the connection by then is unreachable.
constexpr unsigned KT_NET_CONNECT_TIMEOUT_MS = 3000;
// How long an open waits for the answers to its serial-port control
// requests; a server that gives none by then is used as it is.
constexpr unsigned KT_NET_CONTROL_WAIT_MS = 1000;
// A host that vanishes without closing the connection: probes after this
// much silence, this often, this many times; data it does not acknowledge
// for KT_NET_USER_TIMEOUT_MS ends the connection too.
constexpr int KT_NET_KEEPALIVE_IDLE_S = 5;
constexpr int KT_NET_KEEPALIVE_INTERVAL_S = 2;
constexpr int KT_NET_KEEPALIVE_COUNT = 3;
constexpr unsigned KT_NET_USER_TIMEOUT_MS = 10000;

class CNetPort : public CPort {
public:
    explicit CNetPort(const char* url);
    ~CNetPort() override;
    CNetPort(const CNetPort&) = delete;
    CNetPort& operator=(const CNetPort&) = delete;

    // 0; 0x5000000 a malformed address (nothing is opened); 0x18000000 open
    // already; 0x16000000 this process holds the same server port; 0x1000000
    // the name does not resolve, or the server refuses, is unreachable or
    // does not accept within KT_NET_CONNECT_TIMEOUT_MS (the reason is
    // logged).
    Vyrix_ReturnStatus OpenPort() override;
    Vyrix_ReturnStatus ClosePort() override;
    // The connection closing or failing is the device going away.
    Vyrix_ReturnStatus ReadPort(unsigned char* inbuf, int* outLen, const CDeadline& deadline) override;
    Vyrix_ReturnStatus WritePort(const unsigned char* outbuf, unsigned short Len) override;
    // Lists nothing: 0 without writing.
    Vyrix_ReturnStatus EnumerateDevices(unsigned int numDevicesToEnumerate, unsigned int* pNumDevices,
                                        void* pDeviceInfo) override;
    void CancelRead() override { m_waiter.Wake(); }

private:
    enum WaitOutcome { eWAIT_DONE, eWAIT_TIMEOUT, eWAIT_LOST };

    Vyrix_ReturnStatus Connect();
    int ConnectTo(const struct addrinfo& ai, const CDeadline& deadline, int* error);
    void SetOptions();
    Vyrix_ReturnStatus Negotiate();
    // Reads and answers the server until `done` holds or the deadline
    // passes; data that comes before the line is set up is dropped, as a
    // serial port's open discards pending input.
    template <typename Done>
    WaitOutcome AwaitServer(const CDeadline& deadline, Done done);
    Vyrix_ReturnStatus SendReplies();
    Vyrix_ReturnStatus SendLocked(const unsigned char* buf, size_t len);
    Vyrix_ReturnStatus FailOpen(Vyrix_ReturnStatus result);

    // One connection per server port in a process.
    static bool Claim(const std::string& endpoint);
    static void Release(const std::string& endpoint);

    std::string m_url;
    CNetAddress m_address;
    bool m_telnet;
    int m_fd;
    std::string m_claimed;  // the endpoint held; empty when none
    CPortWaiter m_waiter;
    CTelnetFilter m_filter;   // receive side (the opening thread, then the receive thread)
    std::mutex m_writeMutex;  // one whole packet or answer at a time; guards the buffers below
    std::vector<uint8_t> m_escaped;
    std::vector<uint8_t> m_replies;
};

#endif  // LLC_NETPORT_H
