/* SPDX-License-Identifier: MIT */
// Calls the application's connectionless callback on a thread of its own,
// once per queued message, and knows which link each message came from; on
// the same thread, in the order they happened among a link's messages, it
// calls each link's state callback once per state change.
// The receive threads only post, so a callback may send a command and wait
// for its reply, or close the port it came from, without waiting for
// itself.  The thread runs while a port is open and sleeps in the kernel
// while there is nothing to call.
//
// What is due is bounded by what the links hold: a link is listed at most
// once, with the number of its queued messages not yet announced, and a
// message that its queue drops at the bound is never announced.
#ifndef LLC_CALLBACKDISPATCHER_H
#define LLC_CALLBACKDISPATCHER_H

#include <memory>

#include "Vyrix_Api.h"

class CCommHandler;

class CCallbackDispatcher {
public:
    // A port opened: the thread starts with the first one.
    static void Attach();
    // A port closed: the thread ends with the last one.  Callbacks still
    // due are dropped.
    static void Detach();
    // One message was queued on `link` (and `dropped` older ones left its
    // queue at the bound).
    static void Post(CCommHandler& link, size_t dropped);
    // The link's state changed (reason: what ended it, for down).
    static void PostState(CCommHandler& link, Vyrix_LinkStateE state, Vyrix_ReturnStatus reason);
    // Returns once no callback for `link` runs on the callback thread (at
    // once on that thread itself), or after KT_CALLBACK_QUIESCE_MS.
    static void Quiesce(const CCommHandler& link);
    // The link whose message the callback running on this thread was
    // called for; null outside a callback.
    static std::shared_ptr<CCommHandler> CurrentLink();

private:
    struct State;
    struct Generation;
    static State& Shared();
    static void Run(const std::shared_ptr<Generation>& generation);
    static void List(State& s, CCommHandler& link);
    static void Call(const std::shared_ptr<CCommHandler>& link, bool message, Vyrix_LinkStateE state,
                     Vyrix_ReturnStatus reason);
    static void ForkPrepare();
    static void ForkParent();
    static void ForkChild();
};

#endif  // LLC_CALLBACKDISPATCHER_H
