/* SPDX-License-Identifier: MIT */
// The address of a serial line exported over the network by a server such
// as ser2net: "rfc2217://HOST:PORT" (Telnet with serial-port control) or
// "tcp://HOST:PORT" (the bytes as they are).  HOST is a name, an IPv4
// address or an IPv6 address in brackets.
#ifndef LLC_NETADDRESS_H
#define LLC_NETADDRESS_H

#include <cstdint>
#include <string>

class CNetAddress {
public:
    enum Scheme { eSCHEME_TCP, eSCHEME_RFC2217 };
    enum ParseResult { ePARSE_NOT_A_URL, ePARSE_MALFORMED, ePARSE_VALID };

    // Whether a port name is meant as a network address at all: it starts
    // with a URL scheme and "://".  Device paths never do.
    static bool IsUrl(const char* name);

    // Reads `text` into *out (written only when valid).  A text that is a
    // URL but not one of the forms above is malformed.
    static ParseResult Parse(const char* text, CNetAddress* out);

    Scheme GetScheme() const { return m_scheme; }
    // The host as written, without brackets.
    const std::string& Host() const { return m_host; }
    uint16_t Port() const { return m_port; }
    // "host:port" with the host in lower case: one server port, whichever
    // scheme or spelling named it.
    std::string Endpoint() const;

private:
    Scheme m_scheme = eSCHEME_TCP;
    std::string m_host;
    uint16_t m_port = 0;
};

#endif  // LLC_NETADDRESS_H
