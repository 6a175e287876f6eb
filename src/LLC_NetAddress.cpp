// SPDX-License-Identifier: MIT
#include "LLC_NetAddress.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cctype>
#include <cstring>

namespace {
constexpr char kSeparator[] = "://";
constexpr size_t kSeparatorLen = sizeof kSeparator - 1;
constexpr size_t kMaxHostName = 253;  // the longest DNS name
constexpr unsigned long kMaxPort = 65535;

struct SchemeName {
    const char* name;
    CNetAddress::Scheme scheme;
};
constexpr SchemeName kSchemes[] = {{"tcp", CNetAddress::eSCHEME_TCP}, {"rfc2217", CNetAddress::eSCHEME_RFC2217}};

bool SchemeChar(char c) { return isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.'; }

bool HostNameChar(char c) { return isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.' || c == '_'; }

bool SameLetters(const char* a, size_t n, const char* b) {
    if (strlen(b) != n) return false;
    for (size_t i = 0; i < n; ++i)
        if (tolower(static_cast<unsigned char>(a[i])) != b[i]) return false;
    return true;
}

// "[v6]" or a name / IPv4 address, up to the last ':'.
bool ParseHost(const char* begin, const char* end, std::string* host) {
    if (begin == end) return false;
    if (*begin == '[') {
        if (end - begin < 3 || end[-1] != ']') return false;
        host->assign(begin + 1, end - 1);
        in6_addr unused{};
        return inet_pton(AF_INET6, host->c_str(), &unused) == 1;
    }
    if (static_cast<size_t>(end - begin) > kMaxHostName) return false;
    for (const char* p = begin; p != end; ++p)
        if (!HostNameChar(*p)) return false;
    host->assign(begin, end);
    return true;
}

bool ParsePort(const char* text, uint16_t* port) {
    if (*text == '\0') return false;
    unsigned long value = 0;
    for (const char* p = text; *p != '\0'; ++p) {
        if (!isdigit(static_cast<unsigned char>(*p))) return false;
        value = value * 10 + static_cast<unsigned long>(*p - '0');
        if (value > kMaxPort) return false;
    }
    if (value == 0) return false;
    *port = static_cast<uint16_t>(value);
    return true;
}
}  // namespace

bool CNetAddress::IsUrl(const char* name) {
    if (name == nullptr || !isalpha(static_cast<unsigned char>(name[0]))) return false;
    const char* p = name;
    while (SchemeChar(*p)) ++p;
    return strncmp(p, kSeparator, kSeparatorLen) == 0;
}

CNetAddress::ParseResult CNetAddress::Parse(const char* text, CNetAddress* out) {
    if (!IsUrl(text)) return ePARSE_NOT_A_URL;
    const char* separator = strstr(text, kSeparator);
    CNetAddress address;
    bool known = false;
    for (const SchemeName& s : kSchemes) {
        if (SameLetters(text, static_cast<size_t>(separator - text), s.name)) {
            address.m_scheme = s.scheme;
            known = true;
        }
    }
    const char* authority = separator + kSeparatorLen;
    const char* colon = strrchr(authority, ':');
    if (!known || colon == nullptr || !ParseHost(authority, colon, &address.m_host) ||
        !ParsePort(colon + 1, &address.m_port))
        return ePARSE_MALFORMED;
    *out = address;
    return ePARSE_VALID;
}

std::string CNetAddress::Endpoint() const {
    std::string host = m_host;
    for (char& c : host) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    if (host.find(':') != std::string::npos) host = "[" + host + "]";
    return host + ":" + std::to_string(m_port);
}
