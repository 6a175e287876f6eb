/* SPDX-License-Identifier: MIT */
// Lets one command at a time through a link.  A command holds the gate from
// its send to the end of its reply, so a second thread's command on the
// same link waits its turn instead of taking the first one's reply; a link
// that goes down or closes sends every waiter away at once.
#ifndef LLC_COMMANDGATE_H
#define LLC_COMMANDGATE_H

#include <condition_variable>
#include <mutex>

#include "LLC_Common.h"
#include "LLC_Deadline.h"

class CCommandGate {
public:
    CCommandGate() = default;
    CCommandGate(const CCommandGate&) = delete;
    CCommandGate& operator=(const CCommandGate&) = delete;

    // Waits until `deadline` for the gate.  0: the caller holds it and must
    // Leave; 0x7000000 another command held it all the time; 0x16000000 the
    // link is down.
    Vyrix_ReturnStatus Enter(const CDeadline& deadline);
    void Leave();
    // A pause the protocol asks for while the caller holds the gate; it ends
    // early (false) when the link goes down or closes.
    bool Pause(const CDeadline& until);
    // The link went down or is closing: waiters leave with 0x16000000 and no
    // one enters again.
    void Close();
    // The link is up again: commands may enter.
    void Reopen();

private:
    std::mutex m_mutex;
    std::condition_variable m_free;
    bool m_busy = false;
    bool m_closed = false;
};

// Holds the gate for a scope once Enter succeeded.  Without a gate (no
// link to hold) it holds nothing and succeeds.
class CCommandTurn {
public:
    CCommandTurn(CCommandGate* gate, const CDeadline& deadline)
        : m_gate(gate), m_result(gate != nullptr ? gate->Enter(deadline) : RC_OK) {}
    ~CCommandTurn() {
        if (m_gate != nullptr && m_result == RC_OK) m_gate->Leave();
    }
    CCommandTurn(const CCommandTurn&) = delete;
    CCommandTurn& operator=(const CCommandTurn&) = delete;
    Vyrix_ReturnStatus Result() const { return m_result; }

private:
    CCommandGate* m_gate;
    Vyrix_ReturnStatus m_result;
};

#endif  // LLC_COMMANDGATE_H
