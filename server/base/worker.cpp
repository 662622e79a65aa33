#include "base/worker.h"

#include <pthread.h>

#include <chrono>


namespace vekt {

Worker::Worker(std::string name) : name_(std::move(name)) {}

Worker::~Worker() { stop(); }

bool Worker::start(std::function<void(Worker&)> body) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (thread_.joinable()) return false;
    stopRequested_ = false;
    thread_ = std::thread([this, body = std::move(body)] {
        (void)pthread_setname_np(pthread_self(), name_.substr(0, 15).c_str());
        body(*this);
    });
    return true;
}

void Worker::requestStop() {
    std::lock_guard<std::mutex> lock(mutex_);
    stopRequested_ = true;
    changed_.notify_all();
}

void Worker::stop() {
    requestStop();
    std::thread thread;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        // From the worker itself a join would never return; its owner joins it later.
        if (!thread_.joinable() || thread_.get_id() == std::this_thread::get_id()) return;
        thread.swap(thread_);
    }
    thread.join();
}

bool Worker::stopRequested() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return stopRequested_;
}

bool Worker::started() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return thread_.joinable();
}

void Worker::wake() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++wakeups_;
    changed_.notify_all();
}

bool Worker::waitFor(int64_t ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    const uint64_t wakeupsBefore = wakeups_;
    changed_.wait_for(lock, std::chrono::milliseconds(ms > 0 ? ms : 0),
                      [&] { return stopRequested_ || wakeups_ != wakeupsBefore; });
    return !stopRequested_;
}

void Worker::pause() {
    std::lock_guard<std::mutex> lock(mutex_);
    paused_ = true;
}

void Worker::resume() {
    std::lock_guard<std::mutex> lock(mutex_);
    paused_ = false;
    changed_.notify_all();
}

bool Worker::paused() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return paused_;
}

bool Worker::waitWhilePaused() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return stopRequested_ || !paused_; });
    return !stopRequested_;
}

}  // namespace vekt
