// SPDX-License-Identifier: MIT
#include "LLC_BTPort.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/hci.h>
#include <bluetooth/hci_lib.h>
#include <bluetooth/rfcomm.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "LLC_LastError.h"
#include "LLC_Utility.h"

namespace {
constexpr size_t kUniqueIdSize = 25;
constexpr size_t kAddressLength = 17;  // "XX:XX:XX:XX:XX:XX"
constexpr int kInquiryLength = 8;      // units of 1.28 s
constexpr int kInquiryMaxResponses = 255;
constexpr int kNameSize = 249;
constexpr char kUnknownName[] = "[unknown]";
}  // namespace

CBTPort::CBTPort(const char* uniqueID, const char* passKey)
    : m_configuredID(uniqueID != nullptr ? uniqueID : ""),
      m_configuredKey(passKey != nullptr ? passKey : ""),
      m_configured(uniqueID != nullptr && passKey != nullptr),
      m_gRFCommSock(-1),
      m_bDeviceDetected(0),
      m_uniqueID(new char[kUniqueIdSize]()),
      m_passKey(nullptr),
      m_lockfile_str() {}

CBTPort::~CBTPort() {
    if (m_gRFCommSock >= 0) ClosePort();
    delete[] m_uniqueID;
}

bool CBTPort::CheckForBTHRadio() {
    int devId = hci_get_route(nullptr);
    if (devId < 0) return false;
    int sock = hci_open_dev(devId);
    if (sock < 0) return false;
    hci_close_dev(sock);
    return true;
}

bool CBTPort::IsValidAddress(const char* address) {
    // Six pairs of hexadecimal digits separated by ':', nothing more.
    for (size_t i = 0; i < kAddressLength; ++i) {
        const bool colon = i % 3 == 2;
        if (colon ? address[i] != ':' : !isxdigit(static_cast<unsigned char>(address[i]))) return false;
    }
    return address[kAddressLength] == '\0';
}

Vyrix_ReturnStatus CBTPort::CreateLockFile() {
    char address[kAddressLength + 1];
    for (size_t i = 0; i <= kAddressLength; ++i)
        address[i] = static_cast<char>(toupper(static_cast<unsigned char>(m_uniqueID[i])));
    if (!RuntimeFileName(m_lockfile_str, sizeof m_lockfile_str, "%s_%s.lock", KT_LOCK_PREFIX_BTH, address))
        return RC(eVYRIX_INVALID_ARGUMENT);
    LlcLog("<INFO> %s: Lockfile name = %s\n", "CreateLockFile", m_lockfile_str);
    int openResult = -1;
    if (!m_lock.Acquire(m_lockfile_str, &openResult)) {
        LlcLog("<RROR> %s: Lockfile create failed.%d\n", "CreateLockFile", openResult);
        m_lockfile_str[0] = '\0';  // the other holder's file is never removed
        return RC(eVYRIX_NOT_CONNECTED);
    }
    return RC_OK;
}

void CBTPort::RemoveLockFile(const char* function) {
    char name[KT_LOCK_NAME_SIZE];
    memcpy(name, m_lockfile_str, sizeof name);
    if (!m_lock.Release(m_lockfile_str)) LlcLog("<ERROR> %s: Lock file %s remove failed.\n", function, name);
}

Vyrix_ReturnStatus CBTPort::OpenPort() {
    return m_configured ? Open(m_configuredID.c_str(), m_configuredKey.c_str()) : Open(nullptr, nullptr);
}

Vyrix_ReturnStatus CBTPort::Open(const char* uniqueID, const char* passKey) {
    if (uniqueID == nullptr || passKey == nullptr || !IsValidAddress(uniqueID)) {
        LlcLog("<ERROR> %s Invalid argument\n", "OpenPort");
        return RC(eVYRIX_INVALID_ARGUMENT);
    }
    if (!CheckForBTHRadio()) {
        CLastError::Set("this host has no usable Bluetooth adapter");
        LlcLog("<ERROR> %s:No bluetooth Support in Host mechine\n", "OpenPort");
        return RC(eVYRIX_BTH_DISABLED);
    }
    if (m_gRFCommSock >= 0) {
        LlcLog("<ERROR> %s Port already opened\n", "OpenPort");
        return RC(eVYRIX_ALREADY_OPENED);
    }
    char* id = const_cast<char*>(m_uniqueID);
    memcpy(id, uniqueID, strlen(uniqueID) + 1);
    Vyrix_ReturnStatus lock = CreateLockFile();
    if (lock != RC_OK) {
        if (!HasCode(lock, eVYRIX_NOT_CONNECTED)) return lock;
        LlcLog("<ERROR> %s Device not connected\n", "OpenPort");
        return lock;
    }
    m_gRFCommSock = socket(AF_BLUETOOTH, SOCK_STREAM | SOCK_CLOEXEC, BTPROTO_RFCOMM);
    if (m_gRFCommSock < 0) {
        m_gRFCommSock = -1;
        RemoveLockFile("OpenPort");
        LlcLog("<ERROR> %s LLC_BTPort Open failure %d\n", "OpenPort", -1);
        return RC(eVYRIX_FAILURE);
    }
    struct timeval timeout = {KT_BTH_IO_TIMEOUT_S, 0};
    if (setsockopt(m_gRFCommSock, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0)
        LlcLog("<INFO> %s : Setsockopt failed\n", "OpenPort");
    if (setsockopt(m_gRFCommSock, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) != 0)
        LlcLog("<INFO> %s : Setsockopt failed\n", "OpenPort");

    struct sockaddr_rc addr {};
    addr.rc_family = AF_BLUETOOTH;
    str2ba(m_uniqueID, &addr.rc_bdaddr);
    addr.rc_channel = KT_BTH_RFCOMM_CHANNEL;
    int status = connect(m_gRFCommSock, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr);
    if (status != 0) {
        CLastError::SetWithErrno(errno, "cannot connect to %s on RFCOMM channel %d", m_uniqueID,
                                 static_cast<int>(KT_BTH_RFCOMM_CHANNEL));
        // The socket and lock file go with ClosePort, which the handler
        // runs at once by deleting the port.
        LlcLog("<ERROR> %s LLC_BTPort Open failure %d\n", "OpenPort", status);
        return RC(eVYRIX_FAILURE);
    }
    // Reads and writes wait in poll, where a close can end them.
    fcntl(m_gRFCommSock, F_SETFL, fcntl(m_gRFCommSock, F_GETFL) | O_NONBLOCK);
    LlcLog("<INFO> %s LLC_BTPort Open success\n", "OpenPort");
    return RC_OK;
}

Vyrix_ReturnStatus CBTPort::ReadPort(unsigned char* inbuf, int* outLen, const CDeadline& deadline) {
    if (inbuf == nullptr || outLen == nullptr) return RC(eVYRIX_INVALID_ARGUMENT);
    if (m_gRFCommSock < 0) {
        LlcLog("<ERROR> %s :  Port handle is NULL.\n", "ReadPort");
        return RC(eVYRIX_NOT_CONNECTED);
    }
    // End of stream or a reset: the device is gone.
    Vyrix_ReturnStatus r = ReadAvailable(m_gRFCommSock, m_waiter, inbuf, outLen, deadline);
    if (HasCode(r, eVYRIX_NOT_CONNECTED)) LlcLog("<ERROR> %s :  Returns %d\n.\n", "ReadPort", 1);
    return r;
}

Vyrix_ReturnStatus CBTPort::WritePort(const unsigned char* outbuf, unsigned short Len) {
    if (outbuf == nullptr) return RC(eVYRIX_INVALID_ARGUMENT);
    if (m_gRFCommSock < 0) {
        printf("Not connected\n");
        return RC(eVYRIX_NOT_CONNECTED);
    }
    // MSG_NOSIGNAL: a peer that went away must not kill the application.
    return WriteWithRetry(outbuf, Len, m_gRFCommSock, m_waiter, [this](const unsigned char* at, size_t n) {
        return send(m_gRFCommSock, at, n, MSG_NOSIGNAL);
    });
}

Vyrix_ReturnStatus CBTPort::ClosePort() {
    if (m_gRFCommSock < 0) return RC_OK;
    RemoveLockFile("ClosePort");
    LlcLog("<INFO> %s: Lock File Removed.\n", "ClosePort");
    if (close(m_gRFCommSock) != 0) return RC(eVYRIX_FAILURE);
    m_gRFCommSock = -1;
    return RC_OK;
}

Vyrix_ReturnStatus CBTPort::EnumerateDevices(unsigned int numDevicesToEnumerate, unsigned int* pNumDevices,
                                             void* pDeviceInfo) {
    if (!CheckForBTHRadio()) {
        CLastError::Set("this host has no usable Bluetooth adapter");
        LlcLog("<INFO> %s:Host device doesnt have bluetooth support.\n", "EnumerateDevices");
        return RC(eVYRIX_BTH_DISABLED);
    }
    if (pNumDevices == nullptr || pDeviceInfo == nullptr) return RC(eVYRIX_INVALID_ARGUMENT);
    auto* results = static_cast<inquiry_info*>(calloc(kInquiryMaxResponses, sizeof(inquiry_info)));
    if (results == nullptr) return RC(eVYRIX_FAILURE);
    int sock = hci_open_dev(0);
    int responses = hci_inquiry(0, kInquiryLength, kInquiryMaxResponses, nullptr, &results, IREQ_CACHE_FLUSH);
    if (responses < 0) responses = 0;

    auto* records = static_cast<Vyrix_BTHDiscoveryInfo*>(pDeviceInfo);
    unsigned int filled = 0;
    for (int i = 0; i < responses && filled < numDevicesToEnumerate; ++i) {
        Vyrix_BTHDiscoveryInfo& record = records[filled];
        ba2str(&results[i].bdaddr, record.uniqueID);
        memset(record.friendlyName, 0, sizeof record.friendlyName);
        if (hci_read_remote_name(sock, &results[i].bdaddr, kNameSize, record.friendlyName, 0) < 0) {
            memset(record.friendlyName, 0, sizeof record.friendlyName);
            memcpy(record.friendlyName, kUnknownName, sizeof kUnknownName);
        }
        record.friendlyName[kNameSize - 1] = '\0';
        LlcLog("<INFO> MAC ID: %s, Device Name: %s\n", record.uniqueID, record.friendlyName);
        ++filled;
    }
    *pNumDevices = filled;
    free(results);
    if (sock >= 0) hci_close_dev(sock);
    return RC_OK;
}
