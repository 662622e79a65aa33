// A named worker thread that can be started, paused, woken and stopped, and that is joined
// on every path: stop() joins it, and so does the destructor of whoever owns it.
//
// The body runs once on the new thread and is expected to loop on waitFor() (or
// waitWhilePaused()), both of which return false as soon as a stop is asked for, so a
// stop never waits out a sleep.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace vekt {

class Worker {
public:
    // name: the thread's name as `ps -T` shows it (cut to 15 characters).
    explicit Worker(std::string name);
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Starts body on the new thread; false when this worker already runs a thread. A thread
    // that cannot be created ends the process, like any failed thread construction.
    bool start(std::function<void(Worker&)> body);
    // Asks the body to end and wakes it; callable from any thread, the worker's own included.
    void requestStop();
    // requestStop(), then joins the thread (from another thread; from the worker itself it
    // only asks). Does nothing for a worker that was never started.
    void stop();
    bool stopRequested() const;
    bool started() const;

    // Ends the current or next waitFor() early, without stopping.
    void wake();
    // Waits ms milliseconds or until woken or stopped; false when a stop was asked for.
    // The wait is always a real one, whatever sleep a test installed (base/clock.h): a test
    // hurries a worker along with wake(), and a no-op sleep never turns it into a spin.
    bool waitFor(int64_t ms);

    // A paused worker waits in waitWhilePaused() until resumed or stopped.
    void pause();
    void resume();
    bool paused() const;
    // Returns at once unless paused; false when a stop was asked for.
    bool waitWhilePaused();

private:
    const std::string name_;
    mutable std::mutex mutex_;  // a leaf: held only inside these calls
    std::condition_variable changed_;
    bool stopRequested_ = false;
    bool paused_ = false;
    uint64_t wakeups_ = 0;
    std::thread thread_;
};

}  // namespace vekt
