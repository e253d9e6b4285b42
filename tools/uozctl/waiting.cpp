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

// Shows the time spent waiting on a terminal; silent when stderr is piped.
class WaitIndicator {
  public:
    explicit WaitIndicator(const char *what) : what_(what) {
        if (isatty(STDERR_FILENO))
            thread_ = std::thread(&WaitIndicator::show, this);
    }
    ~WaitIndicator() {
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

}  // namespace

int call_with_timeout(const Context &context, const char *what, const char *who,
                      std::function<int()> call) {
    WaitIndicator waiting(what);
    std::packaged_task<int()> task(std::move(call));
    std::future<int> result = task.get_future();
    std::thread worker(std::move(task));
    if (result.wait_for(std::chrono::seconds(context.options.timeout)) ==
        std::future_status::ready) {
        worker.join();
        return result.get();
    }
    worker.detach();
    context.output.no_reply(who, context.options.timeout);
    fflush(nullptr);
    _exit(uoztools::kExitNoReply);
}

}  // namespace uozctl
