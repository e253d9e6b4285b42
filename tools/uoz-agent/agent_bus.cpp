#include "agent_bus.h"

#include "udsoverzelko.h"

namespace uozagent {

namespace {

constexpr int kQueryWorkers = 8;

bool is_query(const std::string &text) {
    return text.find("\"zelko.skyharbor-query\"") != std::string::npos;
}

}  // namespace

AgentBus::AgentBus(DiagAgent &agent, const BusSetup &setup) : agent_(agent), setup_(setup) {
    for (int i = 0; i < kQueryWorkers; ++i)
        workers_.emplace_back(&AgentBus::work, this);
    uozbus::BusClient::Handlers handlers;
    handlers.message = [this](uozbus::BusClient &bus, const uozbus::Received &message) {
        on_message(bus, message);
    };
    handlers.delivered = [](bool delivered) {
        if (!delivered)
            UOZ_DBGLOG(UOZ_LOG_WARN, "an answer was not delivered (no subscriber or broker gone)");
    };
    handlers.status = setup_.on_status;
    try {
        bus_ = std::make_unique<uozbus::BusClient>(setup_.identity_dir, setup_.url, handlers);
    } catch (...) {
        stop();
        throw;
    }
}

AgentBus::~AgentBus() {
    stop();
}

void AgentBus::stop() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        stopping_ = true;
    }
    changed_.notify_all();
    for (std::thread &worker : workers_) {
        if (worker.joinable())
            worker.join();
    }
    if (bus_)
        bus_->stop();
}

void AgentBus::reply(uozbus::BusClient &bus, const uozbus::Received &to, const std::string &text) {
    if (to.source_kind == 0 && to.reply_route.empty())
        return;  // the sender is unknown and named no route: nowhere to answer
    if (!bus.answer(to, text))
        UOZ_DBGLOG(UOZ_LOG_WARN, "the answer to %s could not be sent", to.source_name.c_str());
}

void AgentBus::on_message(uozbus::BusClient &bus, const uozbus::Received &message) {
    UOZ_DBGLOG(
        UOZ_LOG_INFO, "%s %s",
        message.source_name.empty() ? "(sender without address)" : message.source_name.c_str(),
        message.text.c_str());
    if (is_query(message.text)) {
        add({&bus, message});
        return;
    }
    std::string answer = answer_consent(message.text, setup_.policy, setup_.ask);
    if (answer.empty()) {
        UOZ_DBGLOG(UOZ_LOG_WARN, "not a query or consent request: ignored");
        return;
    }
    reply(bus, message, answer);
}

void AgentBus::add(Job job) {
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (stopping_)
            return;
        queue_.push_back(std::move(job));
    }
    changed_.notify_one();
}

void AgentBus::work() {
    for (;;) {
        Job job;
        {
            std::unique_lock<std::mutex> hold(lock_);
            changed_.wait(hold, [&] { return stopping_ || !queue_.empty(); });
            if (stopping_)
                return;
            job = std::move(queue_.front());
            queue_.pop_front();
        }
        std::string answer = agent_.answer_query(job.query.text);
        UOZ_DBGLOG(UOZ_LOG_DBG, "answer: %s", answer.c_str());
        reply(*job.bus, job.query, answer);
    }
}

}  // namespace uozagent
