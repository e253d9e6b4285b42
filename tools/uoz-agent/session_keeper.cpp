#include "session_keeper.h"

#include "udsoverzelko.h"

namespace uozagent {

namespace {

bool needs_keeping(const EcuState &state) {
    return state.session != uozuds::session::kDefault || state.unlocked_level != 0;
}

// Once nothing keeps it, the ECU falls back after S3: the agent counts on
// nothing any more.
void forget_session(EcuState &state) {
    state.session = uozuds::session::kDefault;
    state.unlocked_level = 0;
    state.kept_until = {};
}

}  // namespace

bool session_is_kept(const EcuState &state, uint8_t session, uint8_t level) {
    return Clock::now() < state.kept_until && (session == 0 || state.session == session) &&
           state.unlocked_level == level;
}

bool says_session_is_gone(const Bytes &response) {
    uint8_t code = 0;
    return is_negative_response(response, &code) &&
           (code == uozuds::nrc::kServiceNotSupportedInActiveSession ||
            code == uozuds::nrc::kSubFunctionNotSupportedInActiveSession ||
            code == uozuds::nrc::kSecurityAccessDenied);
}

SessionKeeper::SessionKeeper(SessionKeeping settings, Send send)
    : settings_(std::move(settings)), send_(std::move(send)) {
    if (settings_.keep.count() > 0)
        thread_ = std::thread(&SessionKeeper::run, this);
}

SessionKeeper::~SessionKeeper() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        stopping_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

void SessionKeeper::after_request(const EcuTarget &target, std::shared_ptr<EcuLink> link,
                                  std::shared_ptr<EcuSlot> slot) {
    if (settings_.keep.count() == 0)
        return;
    EcuState &state = slot->state;
    const std::string key = target.key();
    std::lock_guard<std::mutex> hold(lock_);
    if (!needs_keeping(state)) {
        state.kept_until = {};
        kept_.erase(key);
        return;
    }
    const Clock::time_point now = Clock::now();
    state.kept_until = now + settings_.keep;
    kept_[key] =
        Kept{target, std::move(link), std::move(slot), now + settings_.interval, ++registrations_};
    changed_.notify_all();
}

bool SessionKeeper::keep_alive(Kept &kept) {
    std::unique_lock<std::mutex> turn(kept.slot->lock, std::try_to_lock);
    if (!turn.owns_lock())
        return true;  // a request is under way: it keeps the session itself
    EcuState &state = kept.slot->state;
    if (Clock::now() >= state.kept_until || !needs_keeping(state)) {
        forget_session(state);
        return false;
    }
    // A late negative answer to the keeper's last TesterPresent, taken for
    // this one's, would only end the keeping: no resynchronisation for it.
    state.tester_present_may_answer = false;
    UdsOutcome outcome = send_(kept.target, *kept.link, state, settings_.tester_present);
    if (outcome.suppressed) {
        // Only a TesterPresent's answer can still come; other requests'
        // echo checks set it aside.
        state.answer_may_be_late = false;
        state.tester_present_may_answer = true;
    }
    if (!outcome.answered || is_negative_response(outcome.response) || !needs_keeping(state)) {
        forget_session(state);
        return false;
    }
    return true;
}

void SessionKeeper::run() {
    std::unique_lock<std::mutex> hold(lock_);
    while (!stopping_) {
        auto due = kept_.begin();
        for (auto entry = kept_.begin(); entry != kept_.end(); ++entry) {
            if (entry->second.next < due->second.next)
                due = entry;
        }
        if (due == kept_.end()) {
            changed_.wait(hold);
            continue;
        }
        if (Clock::now() < due->second.next) {
            // A copy: while this waits, after_request() may replace or erase
            // the entry, and the wait reads its deadline again on waking.
            const Clock::time_point next = due->second.next;
            changed_.wait_until(hold, next);
            continue;
        }
        const std::string key = due->first;
        Kept kept = due->second;
        due->second.next = Clock::now() + settings_.interval;
        hold.unlock();
        const bool going_on = keep_alive(kept);
        hold.lock();
        auto still = kept_.find(key);
        if (!going_on && still != kept_.end() && still->second.registration == kept.registration)
            kept_.erase(still);
    }
}

}  // namespace uozagent
