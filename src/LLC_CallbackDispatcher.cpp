#include "LLC_CallbackDispatcher.h"

#include <pthread.h>

#include <condition_variable>
#include <thread>

#include "LLC_CommHandler.h"

// One generation of the thread: a thread that is told to stop while it runs
// the callback ends on its own, with its state, when the callback returns.
struct CCallbackDispatcher::State {
    std::mutex mutex;
    std::condition_variable posted;
    size_t pending = 0;
    bool stop = false;
    bool calling = false;  // inside the application's callback
    std::thread thread;
};

std::mutex CCallbackDispatcher::s_mutex;
std::shared_ptr<CCallbackDispatcher::State> CCallbackDispatcher::s_state;
unsigned CCallbackDispatcher::s_ports = 0;

void CCallbackDispatcher::Attach() {
    std::lock_guard<std::mutex> lock(s_mutex);
    if (s_ports++ > 0) return;
    s_state = std::make_shared<State>();
    std::shared_ptr<State> state = s_state;
    state->thread = std::thread([state] { Run(state); });
    pthread_setname_np(state->thread.native_handle(), "vyrix-callback");
}

void CCallbackDispatcher::Detach() {
    std::shared_ptr<State> state;
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        if (s_ports == 0 || --s_ports > 0) return;
        state.swap(s_state);
    }
    bool calling;
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        state->stop = true;
        calling = state->calling;
    }
    state->posted.notify_one();
    // A thread busy in the callback ends by itself when the callback
    // returns: the callback may be the caller, or may wait for a lock the
    // caller holds.  An idle one is joined.
    if (calling)
        state->thread.detach();
    else
        state->thread.join();
}

void CCallbackDispatcher::Post() {
    std::shared_ptr<State> state;
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        state = s_state;
    }
    if (!state) return;
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        ++state->pending;
    }
    state->posted.notify_one();
}

void CCallbackDispatcher::Run(const std::shared_ptr<State>& state) {
    std::unique_lock<std::mutex> lock(state->mutex);
    for (;;) {
        state->posted.wait(lock, [&] { return state->stop || state->pending > 0; });
        if (state->stop) return;
        --state->pending;
        state->calling = true;
        lock.unlock();
        KtEventCallbackFn callback = g_pfnParseEventCallbackFunction.load();
        Vyrix_ReturnStatus result = RC_OK;
        if (callback != nullptr) {
            try {
                result = callback(nullptr);
            } catch (...) {
                // The application's code must not end the dispatcher.
                result = RC(eVYRIX_FAILURE);
            }
        }
        if (result != RC_OK) LlcLog("<ERROR> %s: Error in ALC Callback.\n", "ReadThreadRoutine");
        lock.lock();
        state->calling = false;
    }
}
