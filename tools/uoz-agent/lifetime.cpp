#include "lifetime.h"

#include <pthread.h>

#include "kt5bus/kt5bus.h"
#include "udsoverzelko.h"

namespace uozagent {

namespace {

bool is_failed_attempt(int status) {
    return status == KT5BUS_STATUS_RESOLUTION_FAILED || status == KT5BUS_STATUS_CONNECTION_FAILED ||
           status == KT5BUS_STATUS_REGISTRATION_FAILED;
}

}  // namespace

template <typename Change>
void Lifetime::set(Change change) {
    {
        std::lock_guard<std::mutex> hold(lock_);
        change();
    }
    changed_.notify_all();
}

Lifetime::Lifetime() {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    waiter_ = std::thread([this] {
        int taken = 0;
        sigwait(&signals_, &taken);
        // Told before the stop is set: the main thread may end the process
        // as soon as it is.
        bool leaving = false;
        {
            std::lock_guard<std::mutex> hold(lock_);
            leaving = leaving_;
        }
        if (!leaving)
            UOZ_DBGLOG(UOZ_LOG_INFO, "uoz-agent: %s received, stopping",
                       taken == SIGINT ? "SIGINT" : "SIGTERM");
        set([this] { stop_ = true; });
    });
}

Lifetime::~Lifetime() {
    bool wake_waiter = false;
    set([&] {
        wake_waiter = !stop_;
        leaving_ = true;
    });
    if (wake_waiter)
        pthread_kill(waiter_.native_handle(), SIGTERM);
    waiter_.join();
}

void Lifetime::bus_status(int status) {
    if (status == KT5BUS_STATUS_RUNNING)
        set([this] { running_ = true; });
    else if (is_failed_attempt(status))
        set([this] { ++failures_; });
}

Lifetime::Event Lifetime::wait_event(size_t *failures_seen,
                                     std::chrono::steady_clock::time_point until) {
    std::unique_lock<std::mutex> hold(lock_);
    changed_.wait_until(hold, until,
                        [&] { return running_ || stop_ || failures_ > *failures_seen; });
    if (stop_)
        return Event::kStop;
    if (running_)
        return Event::kRunning;
    if (failures_ > *failures_seen) {
        *failures_seen = failures_;
        return Event::kFailed;
    }
    return Event::kQuiet;
}

bool Lifetime::stop_requested() {
    std::lock_guard<std::mutex> hold(lock_);
    return stop_;
}

void Lifetime::wait_for_stop() {
    std::unique_lock<std::mutex> hold(lock_);
    changed_.wait(hold, [this] { return stop_; });
}

}  // namespace uozagent
