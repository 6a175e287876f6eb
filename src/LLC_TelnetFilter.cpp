// SPDX-License-Identifier: MIT
#include "LLC_TelnetFilter.h"

namespace {
// What this side performs, and what it lets the server perform.
bool WeSupport(uint8_t option) {
    return option == CTelnetFilter::kOptionBinary || option == CTelnetFilter::kOptionSuppressGoAhead ||
           option == CTelnetFilter::kOptionComPort;
}
bool HeMay(uint8_t option) {
    return option == CTelnetFilter::kOptionBinary || option == CTelnetFilter::kOptionSuppressGoAhead;
}
}  // namespace

CTelnetFilter::CTelnetFilter() : m_state(eSTATE_DATA), m_verb(0), m_answered(0) {
    m_us.fill(eOPTION_NO);
    m_him.fill(eOPTION_NO);
    m_sub.reserve(kMaxSubnegotiation);
}

void CTelnetFilter::Offer(std::vector<uint8_t>* out) {
    const struct {
        Options& side;
        uint8_t verb, option;
    } offers[] = {{m_us, kWILL, kOptionBinary},
                  {m_him, kDO, kOptionBinary},
                  {m_us, kWILL, kOptionSuppressGoAhead},
                  {m_him, kDO, kOptionSuppressGoAhead},
                  {m_us, kWILL, kOptionComPort}};
    for (const auto& o : offers) {
        if (o.side[o.option] != eOPTION_NO) continue;
        o.side[o.option] = eOPTION_WANT_YES;
        out->insert(out->end(), {kIAC, o.verb, o.option});
    }
}

void CTelnetFilter::ComPortRequest(uint8_t command, const uint8_t* value, size_t n, std::vector<uint8_t>* out) {
    out->insert(out->end(), {kIAC, kSB, kOptionComPort, command});
    Escape(value, n, out);
    out->insert(out->end(), {kIAC, kSE});
}

void CTelnetFilter::Escape(const uint8_t* in, size_t n, std::vector<uint8_t>* out) {
    for (size_t i = 0; i < n; ++i) {
        out->push_back(in[i]);
        if (in[i] == kIAC) out->push_back(kIAC);
    }
}

size_t CTelnetFilter::Feed(const uint8_t* in, size_t n, uint8_t* data) {
    size_t out = 0;
    for (size_t i = 0; i < n; ++i) {
        const uint8_t byte = in[i];
        if (Step(byte)) data[out++] = byte;
    }
    return out;
}

// One received byte through the state machine; true when it is data.
bool CTelnetFilter::Step(uint8_t byte) {
    switch (m_state) {
        case eSTATE_DATA:
            if (byte != kIAC) return true;
            m_state = eSTATE_IAC;
            return false;
        case eSTATE_IAC:
            m_state = eSTATE_DATA;
            if (byte == kIAC) return true;
            if (byte == kWILL || byte == kWONT || byte == kDO || byte == kDONT) {
                m_verb = byte;
                m_state = eSTATE_OPTION;
            } else if (byte == kSB) {
                m_sub.clear();
                m_state = eSTATE_SUB;
            }
            return false;  // other commands (NOP, GA, BRK ...) mean nothing here
        case eSTATE_OPTION:
            m_state = eSTATE_DATA;
            Negotiate(m_verb, byte);
            return false;
        case eSTATE_SUB:
            if (byte == kIAC) {
                m_state = eSTATE_SUB_IAC;
            } else if (m_sub.size() < kMaxSubnegotiation) {
                m_sub.push_back(byte);
            }
            return false;
        case eSTATE_SUB_IAC:
            if (byte == kIAC) {
                m_state = eSTATE_SUB;
                if (m_sub.size() < kMaxSubnegotiation) m_sub.push_back(byte);
                return false;
            }
            EndSubnegotiation();
            if (byte == kSE) {
                m_state = eSTATE_DATA;
                return false;
            }
            // Any other command ends it too, and is read as one.
            m_state = eSTATE_IAC;
            return Step(byte);
    }
    return false;
}

void CTelnetFilter::Negotiate(uint8_t verb, uint8_t option) {
    switch (verb) {
        case kDO: Answer(m_us, WeSupport(option), true, option, kWILL, kWONT); break;
        case kDONT: Answer(m_us, WeSupport(option), false, option, kWILL, kWONT); break;
        case kWILL: Answer(m_him, HeMay(option), true, option, kDO, kDONT); break;
        case kWONT: Answer(m_him, HeMay(option), false, option, kDO, kDONT); break;
        default: break;
    }
}

// Answers only a change of state, so two sides never loop: a request for
// what is already so, and the answer to a request of our own, get no reply.
void CTelnetFilter::Answer(Options& side, bool supported, bool enable, uint8_t option, uint8_t yes, uint8_t no) {
    OptionState& state = side[option];
    if (enable) {
        if (state == eOPTION_WANT_YES) state = eOPTION_YES;
        if (state != eOPTION_NO) return;
        state = supported ? eOPTION_YES : eOPTION_NO;
        Reply(supported ? yes : no, option);
        return;
    }
    const bool wasOn = state == eOPTION_YES;
    state = eOPTION_NO;
    if (wasOn) Reply(no, option);
}

void CTelnetFilter::EndSubnegotiation() {
    if (m_sub.size() < 2 || m_sub[0] != kOptionComPort || m_sub[1] < kComPortAnswerOffset) return;
    const unsigned command = m_sub[1] - kComPortAnswerOffset;
    if (command < 32) m_answered |= 1u << command;
}

void CTelnetFilter::Reply(uint8_t verb, uint8_t option) { m_replies.insert(m_replies.end(), {kIAC, verb, option}); }

void CTelnetFilter::TakeReplies(std::vector<uint8_t>* out) {
    out->clear();
    out->swap(m_replies);
}

CTelnetFilter::ComPortE CTelnetFilter::ComPort() const {
    switch (m_us[kOptionComPort]) {
        case eOPTION_YES: return eCOMPORT_AGREED;
        case eOPTION_WANT_YES: return eCOMPORT_PENDING;
        case eOPTION_NO: break;
    }
    return eCOMPORT_REFUSED;
}
