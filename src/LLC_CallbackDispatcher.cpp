// SPDX-License-Identifier: MIT
#include "LLC_CallbackDispatcher.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "LLC_CommHandler.h"
#include "LLC_ForkGuard.h"

// One generation of the thread: a thread that is told to stop while it runs
// the callback ends on its own, with its generation, when the callback
// returns.
struct CCallbackDispatcher::Generation {
    std::condition_variable posted;
    bool stop = false;
    bool calling = false;  // inside the application's callback
    std::thread thread;
};

namespace {
thread_local std::weak_ptr<CCommHandler> t_current;
thread_local bool t_onCallbackThread = false;
}  // namespace

// Never destroyed: the process may exit (and run the unload routine that
// stops the thread) after static objects are gone.
struct CCallbackDispatcher::State {
    std::mutex mutex;
    unsigned ports = 0;
    std::shared_ptr<Generation> running;
    // Links with messages or state changes not yet announced, each listed
    // once.
    std::deque<std::weak_ptr<CCommHandler>> ready;
    // The link whose callback runs now (compared, never used), and the
    // signal that it returned.
    const CCommHandler* calling = nullptr;
    std::condition_variable idle;
};

CCallbackDispatcher::State& CCallbackDispatcher::Shared() {
    static State* state = [] {
        CForkGuard::Register(CForkGuard::eRANK_DISPATCHER, ForkPrepare, ForkParent, ForkChild);
        return new State();
    }();
    return *state;
}

void CCallbackDispatcher::ForkPrepare() { Shared().mutex.lock(); }

void CCallbackDispatcher::ForkParent() { Shared().mutex.unlock(); }

// The thread is the parent's: the child forgets it (never joins or
// destroys it) and starts its own with its first port.
void CCallbackDispatcher::ForkChild() {
    State& s = Shared();
    if (s.running) new std::shared_ptr<Generation>(std::move(s.running));
    s.ports = 0;
    s.ready.clear();
    s.calling = nullptr;
    s.mutex.unlock();
}

void CCallbackDispatcher::Attach() {
    State& s = Shared();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.ports++ > 0) return;
    auto generation = std::make_shared<Generation>();
    s.running = generation;
    generation->thread = std::thread([generation] { Run(generation); });
    pthread_setname_np(generation->thread.native_handle(), "vyrix-callback");
}

void CCallbackDispatcher::Detach() {
    State& s = Shared();
    std::shared_ptr<Generation> generation;
    bool calling;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.ports == 0 || --s.ports > 0) return;
        generation.swap(s.running);
        s.ready.clear();
        generation->stop = true;
        calling = generation->calling;
    }
    generation->posted.notify_one();
    // A thread busy in the callback ends by itself when the callback
    // returns: the callback may be the caller, or may wait for a lock the
    // caller holds.  An idle one is joined.
    if (calling)
        generation->thread.detach();
    else
        generation->thread.join();
}

void CCallbackDispatcher::List(State& s, CCommHandler& link) {
    CCommHandler::Announcements& due = link.m_announce;
    if (due.listed) return;
    due.listed = true;
    s.ready.push_back(link.weak_from_this());
}

void CCallbackDispatcher::Post(CCommHandler& link, size_t dropped) {
    State& s = Shared();
    std::shared_ptr<Generation> generation;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (!s.running) return;
        std::deque<CCommHandler::Announcements::Item>& items = link.m_announce.items;
        // The messages dropped at the queue bound are the oldest: never
        // announced.
        for (auto it = items.begin(); dropped > 0 && it != items.end();) {
            const size_t gone = std::min(dropped, it->messages);
            it->messages -= gone;
            dropped -= gone;
            it = it->messages == 0 && gone > 0 ? items.erase(it) : it + 1;
        }
        if (!items.empty() && items.back().messages > 0)
            ++items.back().messages;
        else
            items.push_back({1, eVYRIX_LINK_UP, RC_OK});
        List(s, link);
        generation = s.running;
    }
    generation->posted.notify_one();
}

void CCallbackDispatcher::PostState(CCommHandler& link, Vyrix_LinkStateE state, Vyrix_ReturnStatus reason) {
    State& s = Shared();
    std::shared_ptr<Generation> generation;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (!s.running) return;
        CCommHandler::Announcements& due = link.m_announce;
        if (due.states >= KT_MAX_PENDING_STATE_CHANGES) {
            auto oldest = std::find_if(due.items.begin(), due.items.end(),
                                       [](const CCommHandler::Announcements::Item& i) { return i.messages == 0; });
            due.items.erase(oldest);
            --due.states;
        }
        due.items.push_back({0, state, reason});
        ++due.states;
        List(s, link);
        generation = s.running;
    }
    generation->posted.notify_one();
}

std::shared_ptr<CCommHandler> CCallbackDispatcher::CurrentLink() { return t_current.lock(); }

void CCallbackDispatcher::Quiesce(const CCommHandler& link) {
    if (t_onCallbackThread) return;
    State& s = Shared();
    std::unique_lock<std::mutex> lock(s.mutex);
    s.idle.wait_for(lock, std::chrono::milliseconds(KT_CALLBACK_QUIESCE_MS), [&] { return s.calling != &link; });
}

void CCallbackDispatcher::Call(const std::shared_ptr<CCommHandler>& link, bool message, Vyrix_LinkStateE state,
                               Vyrix_ReturnStatus reason) {
    if (!message) {
        const CLinkState::Listener listener = link->StateListener();
        if (listener.fn == nullptr) return;
        try {
            listener.fn(listener.owner, state, reason, listener.user);
        } catch (...) {
            // The application's code must not end the dispatcher.
        }
        return;
    }
    KtEventCallbackFn callback = g_pfnParseEventCallbackFunction.load();
    Vyrix_ReturnStatus result = RC_OK;
    if (callback != nullptr) {
        t_current = link;
        try {
            result = callback(nullptr);
        } catch (...) {
            result = RC(eVYRIX_FAILURE);
        }
        t_current.reset();
    }
    if (result != RC_OK) LlcLog("<ERROR> %s: Error in ALC Callback.\n", "ReadThreadRoutine");
}

void CCallbackDispatcher::Run(const std::shared_ptr<Generation>& generation) {
    t_onCallbackThread = true;
    State& s = Shared();
    std::unique_lock<std::mutex> lock(s.mutex);
    for (;;) {
        generation->posted.wait(lock, [&] { return generation->stop || !s.ready.empty(); });
        if (generation->stop) return;
        std::shared_ptr<CCommHandler> link = s.ready.front().lock();
        s.ready.pop_front();
        if (!link) continue;
        CCommHandler::Announcements& due = link->m_announce;
        if (due.items.empty() || link->IsClosing()) {
            due = CCommHandler::Announcements();
            continue;
        }
        CCommHandler::Announcements::Item& front = due.items.front();
        const bool message = front.messages > 0;
        const Vyrix_LinkStateE state = front.state;
        const Vyrix_ReturnStatus reason = front.reason;
        if (message ? --front.messages == 0 : true) {
            if (!message) --due.states;
            due.items.pop_front();
        }
        if (!due.items.empty())
            s.ready.push_back(link);  // one call per turn keeps busy links from starving the others
        else
            due.listed = false;
        generation->calling = true;
        s.calling = link.get();
        lock.unlock();
        Call(link, message, state, reason);
        link.reset();  // the last reference may close the link: not under the lock
        lock.lock();
        generation->calling = false;
        s.calling = nullptr;
        s.idle.notify_all();
    }
}
