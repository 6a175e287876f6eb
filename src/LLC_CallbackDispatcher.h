// Calls the application's connectionless callback on a thread of its own,
// once per queued message.  The receive threads only post, so a callback
// may send a command and wait for its reply, or close the port it came
// from, without waiting for itself.  The thread runs while a port is open
// and sleeps in the kernel while there is nothing to call.
#ifndef LLC_CALLBACKDISPATCHER_H
#define LLC_CALLBACKDISPATCHER_H

#include <memory>
#include <mutex>

class CCallbackDispatcher {
public:
    // A port opened: the thread starts with the first one.
    static void Attach();
    // A port closed: the thread ends with the last one.  Callbacks still
    // due are dropped.
    static void Detach();
    // One message was queued for the callback.
    static void Post();

private:
    struct State;
    static void Run(const std::shared_ptr<State>& state);

    static std::mutex s_mutex;
    static std::shared_ptr<State> s_state;
    static unsigned s_ports;
};

#endif  // LLC_CALLBACKDISPATCHER_H
