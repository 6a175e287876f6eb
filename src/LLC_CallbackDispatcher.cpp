#include "LLC_CallbackDispatcher.h"

#include <pthread.h>

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
}  // namespace

// Never destroyed: the process may exit (and run the unload routine that
// stops the thread) after static objects are gone.
struct CCallbackDispatcher::State {
    std::mutex mutex;
    unsigned ports = 0;
    std::shared_ptr<Generation> running;
    // Links with messages not yet announced, each listed once.
    std::deque<std::weak_ptr<CCommHandler>> ready;
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

void CCallbackDispatcher::Post(CCommHandler& link, size_t dropped) {
    State& s = Shared();
    std::shared_ptr<Generation> generation;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (!s.running) return;
        CCommHandler::Announcements& due = link.m_announce;
        due.pending -= dropped < due.pending ? dropped : due.pending;
        ++due.pending;
        if (!due.listed) {
            due.listed = true;
            s.ready.push_back(link.weak_from_this());
        }
        generation = s.running;
    }
    generation->posted.notify_one();
}

std::shared_ptr<CCommHandler> CCallbackDispatcher::CurrentLink() { return t_current.lock(); }

void CCallbackDispatcher::Run(const std::shared_ptr<Generation>& generation) {
    State& s = Shared();
    std::unique_lock<std::mutex> lock(s.mutex);
    for (;;) {
        generation->posted.wait(lock, [&] { return generation->stop || !s.ready.empty(); });
        if (generation->stop) return;
        std::shared_ptr<CCommHandler> link = s.ready.front().lock();
        s.ready.pop_front();
        if (!link) continue;
        CCommHandler::Announcements& due = link->m_announce;
        if (due.pending == 0 || link->IsClosing()) {
            due = CCommHandler::Announcements();
            continue;
        }
        if (--due.pending > 0)
            s.ready.push_back(link);  // one call per turn keeps busy links from starving the others
        else
            due.listed = false;
        generation->calling = true;
        lock.unlock();
        KtEventCallbackFn callback = g_pfnParseEventCallbackFunction.load();
        Vyrix_ReturnStatus result = RC_OK;
        if (callback != nullptr) {
            t_current = link;
            try {
                result = callback(nullptr);
            } catch (...) {
                // The application's code must not end the dispatcher.
                result = RC(eVYRIX_FAILURE);
            }
            t_current.reset();
        }
        if (result != RC_OK) LlcLog("<ERROR> %s: Error in ALC Callback.\n", "ReadThreadRoutine");
        link.reset();  // the last reference may close the link: not under the lock
        lock.lock();
        generation->calling = false;
    }
}
