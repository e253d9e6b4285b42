#include "agent_peer.h"

namespace uozagent {

AgentPeer::AgentPeer(const std::string &identity_dir, const std::string &url) {
    uozbus::BusClient::Handlers handlers;
    handlers.message = [this](uozbus::BusClient &, const Received &received) {
        on_message(received);
    };
    handlers.delivered = [this](bool ok) { count_delivery(ok); };
    bus_ = std::make_unique<uozbus::BusClient>(identity_dir, url, handlers);
    sender_ = std::thread(&AgentPeer::sender_loop, this);
}

AgentPeer::~AgentPeer() {
    stop();
}

void AgentPeer::stop() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (stopping_)
            return;
        stopping_ = true;
    }
    changed_.notify_all();
    sender_.join();
    bus_->stop();
}

bool AgentPeer::wait_for_deliveries(unsigned long count, int timeout_ms) {
    std::unique_lock<std::mutex> hold(lock_);
    return changed_.wait_for(hold, std::chrono::milliseconds(timeout_ms),
                             [&] { return delivered_ok_ + delivered_failed_ >= count; });
}

bool AgentPeer::wait_for_messages(size_t count, int timeout_ms) {
    std::unique_lock<std::mutex> hold(lock_);
    return changed_.wait_for(hold, std::chrono::milliseconds(timeout_ms),
                             [&] { return received_.size() >= count; });
}

std::vector<Received> AgentPeer::received() {
    std::lock_guard<std::mutex> hold(lock_);
    return received_;
}

void AgentPeer::clear_received() {
    std::lock_guard<std::mutex> hold(lock_);
    received_.clear();
}

void AgentPeer::set_responder(Responder responder) {
    std::lock_guard<std::mutex> hold(lock_);
    responder_ = std::move(responder);
}

unsigned long AgentPeer::delivered_ok() const {
    std::lock_guard<std::mutex> hold(lock_);
    return delivered_ok_;
}

unsigned long AgentPeer::delivered_failed() const {
    std::lock_guard<std::mutex> hold(lock_);
    return delivered_failed_;
}

void AgentPeer::send(const Action &action) {
    {
        std::lock_guard<std::mutex> hold(lock_);
        scheduled_.emplace(
            std::chrono::steady_clock::now() + std::chrono::milliseconds(action.delay_ms), action);
    }
    changed_.notify_all();
}

void AgentPeer::on_message(const Received &received) {
    Responder responder;
    {
        std::lock_guard<std::mutex> hold(lock_);
        received_.push_back(received);
        responder = responder_;
    }
    changed_.notify_all();
    if (!responder)
        return;
    for (Action action : responder(received)) {
        if (action.kind == 0) {
            action.kind = received.source_kind;
            action.name = received.source_name;
            action.route = received.reply_route;
        }
        send(action);
    }
}

void AgentPeer::count_delivery(bool ok) {
    {
        std::lock_guard<std::mutex> hold(lock_);
        (ok ? delivered_ok_ : delivered_failed_)++;
    }
    changed_.notify_all();
}

void AgentPeer::sender_loop() {
    std::unique_lock<std::mutex> hold(lock_);
    while (!stopping_) {
        if (scheduled_.empty()) {
            changed_.wait(hold);
            continue;
        }
        auto next = scheduled_.begin();
        if (next->first > std::chrono::steady_clock::now()) {
            changed_.wait_until(hold, next->first);
            continue;
        }
        Action action = next->second;
        scheduled_.erase(next);
        hold.unlock();
        transmit(action);
        hold.lock();
    }
}

// A message the bus refuses at once counts as not delivered.
void AgentPeer::transmit(const Action &action) {
    bool sent = true;
    if (!action.route.empty())
        sent = bus_->send_reply(action.text, action.route, action.include_terminator);
    else if (action.kind != 0)
        sent = bus_->send(action.text, action.kind, action.name, action.include_terminator);
    // else the sender was unknown and named no route: nowhere to answer
    if (!sent)
        count_delivery(false);
}

}  // namespace uozagent
