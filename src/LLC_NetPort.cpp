// SPDX-License-Identifier: MIT
#include "LLC_NetPort.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "LLC_ForkGuard.h"
#include "LLC_LastError.h"
#include "LLC_Utility.h"

namespace {
// The line settings requested from an RFC 2217 server.
constexpr uint8_t kSetBaudRate = 1, kSetDataSize = 2, kSetParity = 3, kSetStopSize = 4, kSetControl = 5;
constexpr uint8_t kDataBits = 8, kParityNone = 1, kStopBitsOne = 1, kNoFlowControl = 1;
constexpr uint8_t kLineRequests[] = {kSetBaudRate, kSetDataSize, kSetParity, kSetStopSize, kSetControl};

// The server ports this process is connected to.  A forked child starts
// with none: what its parent holds is the parent's.
struct ClaimRegistry {
    std::mutex mutex;
    std::set<std::string> endpoints;
    unsigned generation = 0;
};
ClaimRegistry& Claims() {
    // Never destroyed: a connection may still close while the process exits.
    static ClaimRegistry* registry = [] {
        auto* r = new ClaimRegistry();
        pthread_atfork([] { Claims().mutex.lock(); }, [] { Claims().mutex.unlock(); }, [] { Claims().mutex.unlock(); });
        return r;
    }();
    return *registry;
}

void LogOpenFailure(const std::string& url, const char* reason) {
    CLastError::Set("cannot reach %s: %s", url.c_str(), reason);
    LlcLog("<INFO> %s Opening '%s' failed\n", "OpenPort", url.c_str());
    LlcLog("<ERROR> %s %s: %s\n", "OpenPort", url.c_str(), reason);
}

void SetOption(int fd, int level, int name, int value, const char* what) {
    if (setsockopt(fd, level, name, &value, sizeof value) != 0)
        LlcLog("<INFO> %s : setsockopt %s failed: %s\n", "OpenPort", what, strerror(errno));
}
}  // namespace

CNetPort::CNetPort(const char* url) : m_url(url != nullptr ? url : ""), m_telnet(false), m_fd(-1) {}

CNetPort::~CNetPort() {
    if (m_fd >= 0) ClosePort();
}

bool CNetPort::Claim(const std::string& endpoint) {
    ClaimRegistry& claims = Claims();
    std::lock_guard<std::mutex> lock(claims.mutex);
    if (claims.generation != CForkGuard::Generation()) {
        claims.endpoints.clear();
        claims.generation = CForkGuard::Generation();
    }
    return claims.endpoints.insert(endpoint).second;
}

void CNetPort::Release(const std::string& endpoint) {
    ClaimRegistry& claims = Claims();
    std::lock_guard<std::mutex> lock(claims.mutex);
    if (claims.generation == CForkGuard::Generation()) claims.endpoints.erase(endpoint);
}

Vyrix_ReturnStatus CNetPort::OpenPort() {
    if (CNetAddress::Parse(m_url.c_str(), &m_address) != CNetAddress::ePARSE_VALID) {
        LlcLog("<ERROR> %s Invalid argument\n", "OpenPort");
        return RC(eVYRIX_INVALID_ARGUMENT);
    }
    if (m_fd >= 0) {
        LlcLog("<ERROR> %s Port already opened\n", "OpenPort");
        return RC(eVYRIX_ALREADY_OPENED);
    }
    m_telnet = m_address.GetScheme() == CNetAddress::eSCHEME_RFC2217;
    const std::string endpoint = m_address.Endpoint();
    if (!Claim(endpoint)) {
        CLastError::Set("%s is open already in this process", endpoint.c_str());
        LlcLog("<ERROR> %s %s is open already in this process\n", "OpenPort", endpoint.c_str());
        LlcLog("<ERROR> %s Device not connected\n", "OpenPort");
        return RC(eVYRIX_NOT_CONNECTED);
    }
    m_claimed = endpoint;
    LlcLog("<INFO> %s Opening network device :%s\n", "OpenPort", m_url.c_str());
    Vyrix_ReturnStatus r = Connect();
    if (r == RC_OK && m_telnet) r = Negotiate();
    return r == RC_OK ? RC_OK : FailOpen(r);
}

Vyrix_ReturnStatus CNetPort::FailOpen(Vyrix_ReturnStatus result) {
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
    Release(m_claimed);
    m_claimed.clear();
    return result;
}

Vyrix_ReturnStatus CNetPort::Connect() {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(m_address.Port());
    // Resolving has the resolver's own time-out; the deadline below is the
    // connection's.
    const int resolved = getaddrinfo(m_address.Host().c_str(), service.c_str(), &hints, &found);
    if (resolved != 0) {
        LogOpenFailure(m_url, gai_strerror(resolved));
        return RC(eVYRIX_FAILURE);
    }
    const CDeadline deadline = CDeadline::After(KT_NET_CONNECT_TIMEOUT_MS);
    int error = ETIMEDOUT;
    for (const addrinfo* ai = found; ai != nullptr && m_fd < 0 && !deadline.Expired(); ai = ai->ai_next)
        m_fd = ConnectTo(*ai, deadline, &error);
    freeaddrinfo(found);
    if (m_fd < 0) {
        LogOpenFailure(m_url, strerror(error));
        return RC(eVYRIX_FAILURE);
    }
    SetOptions();
    return RC_OK;
}

// A non-blocking connect, so the deadline holds however the network
// behaves.  The descriptor, or -1 with *error set.
int CNetPort::ConnectTo(const addrinfo& ai, const CDeadline& deadline, int* error) {
    const int fd = socket(ai.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, ai.ai_protocol);
    if (fd < 0) {
        *error = errno;
        return -1;
    }
    if (connect(fd, ai.ai_addr, ai.ai_addrlen) != 0 && errno != EINPROGRESS) {
        *error = errno;
        close(fd);
        return -1;
    }
    for (;;) {
        pollfd p{fd, POLLOUT, 0};
        const int ready = poll(&p, 1, deadline.PollTimeout());
        if (ready < 0 && errno == EINTR) continue;
        int soError = ETIMEDOUT;
        socklen_t len = sizeof soError;
        if (ready > 0 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &len) != 0) soError = errno;
        if (ready > 0 && soError == 0) return fd;
        *error = ready < 0 ? errno : soError;
        close(fd);
        return -1;
    }
}

void CNetPort::SetOptions() {
    // A packet goes out whole at once, not held back for more.
    SetOption(m_fd, IPPROTO_TCP, TCP_NODELAY, 1, "TCP_NODELAY");
    SetOption(m_fd, SOL_SOCKET, SO_KEEPALIVE, 1, "SO_KEEPALIVE");
    SetOption(m_fd, IPPROTO_TCP, TCP_KEEPIDLE, KT_NET_KEEPALIVE_IDLE_S, "TCP_KEEPIDLE");
    SetOption(m_fd, IPPROTO_TCP, TCP_KEEPINTVL, KT_NET_KEEPALIVE_INTERVAL_S, "TCP_KEEPINTVL");
    SetOption(m_fd, IPPROTO_TCP, TCP_KEEPCNT, KT_NET_KEEPALIVE_COUNT, "TCP_KEEPCNT");
    SetOption(m_fd, IPPROTO_TCP, TCP_USER_TIMEOUT, static_cast<int>(KT_NET_USER_TIMEOUT_MS), "TCP_USER_TIMEOUT");
}

template <typename Done>
CNetPort::WaitOutcome CNetPort::AwaitServer(const CDeadline& deadline, Done done) {
    unsigned char buf[KT_XLNK_MAX_PACKET];
    while (!done()) {
        int n = 0;
        Vyrix_ReturnStatus r = ReadAvailable(m_fd, m_waiter, buf, &n, deadline);
        if (HasCode(r, eVYRIX_INCOMPLETE)) return eWAIT_TIMEOUT;
        if (r != RC_OK) return eWAIT_LOST;
        m_filter.Feed(buf, static_cast<size_t>(n), buf);
        if (HasCode(SendReplies(), eVYRIX_NOT_CONNECTED)) return eWAIT_LOST;
    }
    return eWAIT_DONE;
}

// Offers the options, then sets the line once the server takes serial-port
// control.  A server in front of a pseudo-terminal may refuse or ignore
// that; the connection is used all the same.
Vyrix_ReturnStatus CNetPort::Negotiate() {
    const CDeadline deadline = CDeadline::After(KT_NET_CONTROL_WAIT_MS);
    std::vector<uint8_t> out;
    m_filter.Offer(&out);
    const uint32_t baud = KT_VYRIX_BAUDRATE;
    const uint8_t baudBytes[] = {static_cast<uint8_t>(baud >> 24), static_cast<uint8_t>(baud >> 16),
                                 static_cast<uint8_t>(baud >> 8), static_cast<uint8_t>(baud)};
    CTelnetFilter::ComPortRequest(kSetBaudRate, baudBytes, sizeof baudBytes, &out);
    for (const auto& setting :
         {std::make_pair(kSetDataSize, kDataBits), std::make_pair(kSetParity, kParityNone),
          std::make_pair(kSetStopSize, kStopBitsOne), std::make_pair(kSetControl, kNoFlowControl)})
        CTelnetFilter::ComPortRequest(setting.first, &setting.second, 1, &out);
    Vyrix_ReturnStatus r;
    {
        std::lock_guard<std::mutex> lock(m_writeMutex);
        r = SendLocked(out.data(), out.size());
    }
    if (r != RC_OK) {
        LogOpenFailure(m_url, "the server closed the connection");
        return RC(eVYRIX_FAILURE);
    }
    const WaitOutcome outcome = AwaitServer(deadline, [this] {
        if (m_filter.ComPort() == CTelnetFilter::eCOMPORT_REFUSED) return true;
        for (uint8_t request : kLineRequests)
            if (!m_filter.Answered(request)) return false;
        return true;
    });
    if (outcome == eWAIT_LOST) {
        LogOpenFailure(m_url, "the server closed the connection");
        return RC(eVYRIX_FAILURE);
    }
    if (m_filter.ComPort() == CTelnetFilter::eCOMPORT_REFUSED)
        LlcLog("<INFO> %s %s refuses serial-port control; the line is used as the server set it\n", "OpenPort",
               m_url.c_str());
    else if (outcome == eWAIT_TIMEOUT)
        LlcLog("<INFO> %s %s did not answer serial-port control within %u ms; the line is used as it is\n", "OpenPort",
               m_url.c_str(), KT_NET_CONTROL_WAIT_MS);
    return RC_OK;
}

Vyrix_ReturnStatus CNetPort::SendReplies() {
    std::lock_guard<std::mutex> lock(m_writeMutex);
    m_filter.TakeReplies(&m_replies);
    return m_replies.empty() ? RC_OK : SendLocked(m_replies.data(), m_replies.size());
}

Vyrix_ReturnStatus CNetPort::SendLocked(const unsigned char* buf, size_t len) {
    // MSG_NOSIGNAL: a server that went away must not kill the application.
    return WriteWithRetry(buf, len, m_fd, m_waiter,
                          [this](const unsigned char* at, size_t n) { return send(m_fd, at, n, MSG_NOSIGNAL); });
}

Vyrix_ReturnStatus CNetPort::ReadPort(unsigned char* inbuf, int* outLen, const CDeadline& deadline) {
    if (inbuf == nullptr || outLen == nullptr) return RC(eVYRIX_INVALID_ARGUMENT);
    if (m_fd < 0) {
        LlcLog("<ERROR> %s :  Port handle is NULL.\n", "ReadPort");
        return RC(eVYRIX_NOT_CONNECTED);
    }
    for (;;) {
        int n = 0;
        Vyrix_ReturnStatus r = ReadAvailable(m_fd, m_waiter, inbuf, &n, deadline);
        if (HasCode(r, eVYRIX_NOT_CONNECTED)) LlcLog("<ERROR> %s : connection to %s lost\n", "ReadPort", m_url.c_str());
        if (r != RC_OK || !m_telnet) {
            if (r == RC_OK) *outLen = n;
            return r;
        }
        const size_t data = m_filter.Feed(inbuf, static_cast<size_t>(n), inbuf);
        r = SendReplies();
        if (HasCode(r, eVYRIX_NOT_CONNECTED)) return r;
        if (data > 0) {
            *outLen = static_cast<int>(data);
            return RC_OK;
        }
        // Only Telnet commands came: wait for data again.
    }
}

Vyrix_ReturnStatus CNetPort::WritePort(const unsigned char* outbuf, unsigned short Len) {
    if (outbuf == nullptr) return RC(eVYRIX_INVALID_ARGUMENT);
    if (m_fd < 0) return RC(eVYRIX_NOT_CONNECTED);
    std::lock_guard<std::mutex> lock(m_writeMutex);
    if (!m_telnet) return SendLocked(outbuf, Len);
    m_escaped.clear();
    CTelnetFilter::Escape(outbuf, Len, &m_escaped);
    return SendLocked(m_escaped.data(), m_escaped.size());
}

Vyrix_ReturnStatus CNetPort::EnumerateDevices(unsigned int /*numDevicesToEnumerate*/, unsigned int* /*pNumDevices*/,
                                              void* /*pDeviceInfo*/) {
    return RC_OK;
}

Vyrix_ReturnStatus CNetPort::ClosePort() {
    if (m_fd < 0) return RC_OK;
    const int fd = m_fd;
    m_fd = -1;
    Release(m_claimed);
    m_claimed.clear();
    LlcLog("<INFO> %s: connection to %s closed.\n", "ClosePort", m_url.c_str());
    return close(fd) == 0 ? RC_OK : RC(eVYRIX_FAILURE);
}
