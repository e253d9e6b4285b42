// A scripted ECU link for the agent's unit tests: each request sent gets the
// answers the test queued for it (or none), and every request is recorded.
#ifndef UOZ_TESTS_AGENT_FAKE_LINK_H
#define UOZ_TESTS_AGENT_FAKE_LINK_H

#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "diag_agent.h"

namespace uozagent {

class FakeLink : public EcuLink {
  public:
    struct Answer {
        Bytes bytes;
        Millis delay{0};
    };
    // Answers given to the request with these bytes, in order. Several calls
    // script successive sendings; the last script repeats.
    void on(const std::string &request_hex, std::vector<Answer> answers) {
        std::lock_guard<std::mutex> hold(lock_);
        script_[request_hex].push_back(std::move(answers));
    }
    void refuse_sending(const std::string &why) { send_error_ = why; }

    bool send(const Bytes &request, Clock::time_point, std::string *error) override {
        std::lock_guard<std::mutex> hold(lock_);
        sent_.push_back(hex_text(request));
        if (!send_error_.empty()) {
            *error = send_error_;
            return false;
        }
        auto found = script_.find(hex_text(request));
        pending_.clear();
        if (found != script_.end()) {
            pending_.assign(found->second.front().begin(), found->second.front().end());
            if (found->second.size() > 1)
                found->second.pop_front();
        }
        return true;
    }
    bool receive(Clock::time_point until, Bytes *response, std::string *,
                 bool *timed_out) override {
        std::unique_lock<std::mutex> hold(lock_);
        if (pending_.empty() || Clock::now() + pending_.front().delay > until) {
            hold.unlock();
            std::this_thread::sleep_until(until);
            *timed_out = true;
            return false;
        }
        Answer answer = pending_.front();
        pending_.pop_front();
        hold.unlock();
        int now_waiting = ++waiting_;
        for (int most = most_waiting_; now_waiting > most;)
            most_waiting_.compare_exchange_weak(most, now_waiting);
        std::this_thread::sleep_for(answer.delay);
        --waiting_;
        *response = answer.bytes;
        return true;
    }
    // The most ECUs that were working on an answer at the same time, over
    // every fake link of the test.
    static int most_waiting() { return most_waiting_.load(); }

    std::vector<std::string> sent() {
        std::lock_guard<std::mutex> hold(lock_);
        return sent_;
    }

  private:
    std::mutex lock_;
    std::map<std::string, std::deque<std::vector<Answer>>> script_;
    std::deque<Answer> pending_;
    std::vector<std::string> sent_;
    std::string send_error_;
    static inline std::atomic<int> waiting_{0};
    static inline std::atomic<int> most_waiting_{0};
};

// Links by the target's label ("phy-req-id" or DoIP "ta").
class FakeLinks : public LinkProvider {
  public:
    std::shared_ptr<FakeLink> add(const std::string &label) {
        return links_[label] = std::make_shared<FakeLink>();
    }
    std::shared_ptr<EcuLink> link_for(const EcuTarget &target, std::string *error) override {
        auto found = links_.find(target.label);
        if (found != links_.end())
            return found->second;
        *error = "no link to " + target.label;
        return nullptr;
    }

  private:
    std::map<std::string, std::shared_ptr<FakeLink>> links_;
};

}  // namespace uozagent

#endif
