#include "waiting.h"

#include <stdio.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include "exit_codes.h"

namespace uozctl {

namespace {

using Clock = std::chrono::steady_clock;

// How long a reply may take before the broker and the server are looked at:
// most replies come well within it, and then nothing else is paid for.
constexpr std::chrono::milliseconds kQuietBeforeLooking{200};

// Shows the time spent waiting on a terminal; silent when stderr is piped.
class WaitIndicator {
  public:
    explicit WaitIndicator(const char *what) : what_(what) {
        if (isatty(STDERR_FILENO))
            thread_ = std::thread(&WaitIndicator::show, this);
    }
    ~WaitIndicator() { stop(); }

    // Ends the indicator and clears its line, before anything else is told.
    void stop() {
        {
            std::lock_guard<std::mutex> hold(lock_);
            done_ = true;
        }
        woken_.notify_all();
        if (thread_.joinable())
            thread_.join();
    }

  private:
    void show() {
        static const char kSpin[] = "|/-\\";
        const Clock::time_point start = Clock::now();
        std::unique_lock<std::mutex> hold(lock_);
        for (int tick = 0; !done_; ++tick) {
            double seconds = std::chrono::duration<double>(Clock::now() - start).count();
            fprintf(stderr, "\r%c %s... %.1f s ", kSpin[tick % 4], what_, seconds);
            fflush(stderr);
            woken_.wait_for(hold, std::chrono::milliseconds(100), [this] { return done_; });
        }
        fprintf(stderr, "\r\033[K");
        fflush(stderr);
    }

    const char *what_;
    std::mutex lock_;
    std::condition_variable woken_;
    bool done_ = false;
    std::thread thread_;
};

// Ends the process with `code` at once, leaving the call running.
[[noreturn]] void end_waiting(WaitIndicator *waiting, std::thread *worker, int code) {
    waiting->stop();
    worker->detach();
    fflush(nullptr);
    _exit(code);
}

}  // namespace

int call_with_timeout(const Session &session, const char *what, std::function<int()> call) {
    const Context &context = session.context();
    WaitIndicator waiting(what);
    std::packaged_task<int()> task(std::move(call));
    std::future<int> result = task.get_future();
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(context.options.timeout);
    std::thread worker(std::move(task));
    if (result.wait_until(std::min(deadline, Clock::now() + kQuietBeforeLooking)) !=
        std::future_status::ready) {
        if (int code = session.explain_silence())
            end_waiting(&waiting, &worker, code);
    }
    if (result.wait_until(deadline) == std::future_status::ready) {
        worker.join();
        return result.get();
    }
    waiting.stop();
    context.output.no_reply(session.server_title(), context.options.timeout);
    end_waiting(&waiting, &worker, uoztools::kExitNoReply);
}

}  // namespace uozctl
