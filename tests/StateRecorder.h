/* SPDX-License-Identifier: MIT */
// Records the link-state changes a connection's callback reports, and lets a
// test wait for them.
#ifndef VYRIX_TEST_STATERECORDER_H
#define VYRIX_TEST_STATERECORDER_H

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "Vyrix_Api.h"

namespace vt {

using Event = std::tuple<Vyrix_LinkStateE, uint32_t>;
const Event kDown{eVYRIX_LINK_DOWN, 0x16000000u};
const Event kReconnecting{eVYRIX_LINK_RECONNECTING, 0};
const Event kUp{eVYRIX_LINK_UP, 0};

// The changes, the handle and the thread of each call.
class Recorder {
public:
    static void Callback(void* handle, Vyrix_LinkStateE state, uint32_t reason, void* user) {
        auto* self = static_cast<Recorder*>(user);
        std::string thread(16, '\0');
        pthread_getname_np(pthread_self(), &thread[0], thread.size());
        std::lock_guard<std::mutex> lock(self->mutex_);
        self->events_.emplace_back(state, reason);
        self->handles_.push_back(handle);
        self->threads_.push_back(thread.c_str());
        self->changed_.notify_all();
    }
    bool WaitFor(size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return events_.size() >= count; });
    }
    std::vector<Event> Events() {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    std::vector<void*> Handles() {
        std::lock_guard<std::mutex> lock(mutex_);
        return handles_;
    }
    std::vector<std::string> Threads() {
        std::lock_guard<std::mutex> lock(mutex_);
        return threads_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Event> events_;
    std::vector<void*> handles_;
    std::vector<std::string> threads_;
};

}  // namespace vt

#endif
