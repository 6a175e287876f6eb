/* SPDX-License-Identifier: MIT */
// The Telnet layer of an RFC 2217 connection, one byte at a time: takes the
// commands out of the received stream (IAC IAC becomes one 0xFF data byte),
// answers option negotiation, and records which serial-port control
// requests the server answered.  Any split of the stream into pieces gives
// the same data and the same answers.  Sending side: Escape() doubles IAC.
#ifndef LLC_TELNETFILTER_H
#define LLC_TELNETFILTER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

class CTelnetFilter {
public:
    static constexpr uint8_t kIAC = 255, kDONT = 254, kDO = 253, kWONT = 252, kWILL = 251, kSB = 250, kSE = 240;
    static constexpr uint8_t kOptionBinary = 0, kOptionSuppressGoAhead = 3, kOptionComPort = 44;
    // A server answers a control request with the request's number + 100.
    static constexpr uint8_t kComPortAnswerOffset = 100;
    // Subnegotiation bytes kept; the rest of a longer one is not needed.
    static constexpr size_t kMaxSubnegotiation = 16;

    enum State {
        eSTATE_DATA,     // plain bytes
        eSTATE_IAC,      // after IAC
        eSTATE_OPTION,   // after IAC WILL/WONT/DO/DONT: the option follows
        eSTATE_SUB,      // inside IAC SB ... IAC SE
        eSTATE_SUB_IAC,  // IAC inside a subnegotiation
    };
    enum ComPortE { eCOMPORT_PENDING, eCOMPORT_AGREED, eCOMPORT_REFUSED };

    CTelnetFilter();

    // Our side of the option negotiation at the start: binary both ways,
    // no go-ahead, and serial-port control.  Appended to `out`.
    void Offer(std::vector<uint8_t>* out);
    // One serial-port control request: IAC SB COM-PORT-OPTION command value
    // IAC SE, with IAC in the value doubled.
    static void ComPortRequest(uint8_t command, const uint8_t* value, size_t n, std::vector<uint8_t>* out);
    // Appends `in` with every IAC doubled.
    static void Escape(const uint8_t* in, size_t n, std::vector<uint8_t>* out);

    // Takes `n` received bytes; the data among them is written to `data`
    // (which may be `in`: it never gets ahead of the input) and counted in
    // the result.  Answers due to the server are kept for TakeReplies().
    size_t Feed(const uint8_t* in, size_t n, uint8_t* data);
    // Moves the answers due to the server into *out (emptied first).
    void TakeReplies(std::vector<uint8_t>* out);

    ComPortE ComPort() const;
    // Whether the server answered the control request `command` (1..31).
    bool Answered(uint8_t command) const { return command < 32 && (m_answered & (1u << command)) != 0; }
    State GetState() const { return m_state; }

private:
    enum OptionState : uint8_t { eOPTION_NO, eOPTION_WANT_YES, eOPTION_YES };
    using Options = std::array<OptionState, 256>;

    bool Step(uint8_t byte);
    void Negotiate(uint8_t verb, uint8_t option);
    // A request to enable (`enable`) or disable an option on one side.
    void Answer(Options& side, bool supported, bool enable, uint8_t option, uint8_t yes, uint8_t no);
    void EndSubnegotiation();
    void Reply(uint8_t verb, uint8_t option);

    State m_state;
    uint8_t m_verb;
    std::vector<uint8_t> m_sub;
    std::vector<uint8_t> m_replies;
    Options m_us;   // options this side performs
    Options m_him;  // options the server performs
    uint32_t m_answered;
};

#endif  // LLC_TELNETFILTER_H
