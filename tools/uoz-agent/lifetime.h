// What the agent's main thread waits for: SIGINT or SIGTERM, and the bus
// client's connection. The signals are blocked in every thread and taken by
// a waiter of their own, so that a stop wakes the main thread at once.
#ifndef UOZ_TOOLS_AGENT_LIFETIME_H
#define UOZ_TOOLS_AGENT_LIFETIME_H

#include <signal.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace uozagent {

class Lifetime {
  public:
    enum class Event { kRunning, kStop, kFailed, kQuiet };

    // Before any other thread starts: they inherit the blocked signals.
    Lifetime();
    ~Lifetime();
    Lifetime(const Lifetime &) = delete;
    Lifetime &operator=(const Lifetime &) = delete;

    // For the bus client's status reports.
    void bus_status(int status);
    // What came first: the client runs, a stop, a connection attempt that
    // failed after the `*failures_seen` already seen (which it then counts),
    // or `until` passed (kQuiet).
    Event wait_event(size_t *failures_seen, std::chrono::steady_clock::time_point until);
    bool stop_requested();
    void wait_for_stop();

  private:
    template <typename Change>
    void set(Change change);

    sigset_t signals_;
    std::mutex lock_;
    std::condition_variable changed_;
    bool running_ = false;
    bool stop_ = false;
    bool leaving_ = false;
    size_t failures_ = 0;
    std::thread waiter_;
};

}  // namespace uozagent

#endif
