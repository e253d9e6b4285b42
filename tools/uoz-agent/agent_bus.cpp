#include "agent_bus.h"

#include <stdexcept>

#include "udsoverzelko.h"

namespace uozagent {

namespace {

AgentBus *bus_of(kt5bus_client *client) {
    return static_cast<AgentBus *>(client->owner);
}

}  // namespace

AgentBus::AgentBus(const std::string &identity_dir, const std::string &url, Handler handler)
    : handler_(std::move(handler)) {
    client_.mode = 1;
    client_.owner = this;
    client_.on_message = &AgentBus::on_message;
    client_.on_delivered = &AgentBus::on_delivered;
    client_.on_status = &AgentBus::on_status;
    client_.on_presence = &AgentBus::on_presence;
    client_.on_stopped = &AgentBus::on_stopped;
    if (!load_identity(&client_.identity, identity_dir))
        throw std::runtime_error("cannot load the identity in " + identity_dir);
    kt5bus_ll_config config{};
    kt5bus_init_ll(&config);
    int rc = kt5bus_init_client(&client_, url.c_str());
    if (rc != 0) {
        free_identity(&client_.identity);
        kt5bus_fini_ll();
        throw std::runtime_error("cannot start the bus client for " + url + " (code " +
                                 std::to_string(rc) + ")");
    }
}

AgentBus::~AgentBus() {
    stop();
}

void AgentBus::stop() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (stopped_)
            return;
        stopped_ = true;
    }
    kt5bus_stop_client(&client_);
    free_identity(&client_.identity);
    kt5bus_fini_ll();
}

bool AgentBus::wait_running(int timeout_ms) {
    std::unique_lock<std::mutex> hold(lock_);
    return changed_.wait_for(hold, std::chrono::milliseconds(timeout_ms),
                             [this] { return running_; });
}

bool AgentBus::send(const std::string &text, int kind, const std::string &name) {
    if (kind == 0)
        return false;  // the sender is unknown: nowhere to answer
    kt5bus_message *message = new_message(text, text.size() + 1, kind, name);
    if (message == nullptr || kt5bus_send_message(&client_, message, nullptr) != 0) {
        ++failed_;
        UOZ_DBGLOG(UOZ_LOG_WARN, "the answer to %s could not be sent", name.c_str());
        free_message(message);
        return false;
    }
    return true;
}

void AgentBus::on_message(kt5bus_client *client, kt5bus_message *message) {
    AgentBus *bus = bus_of(client);
    bus->handler_(*bus, received_from(message));
}

void AgentBus::on_delivered(kt5bus_client *client, kt5bus_message *message, void *, int ok) {
    if (!ok) {
        ++bus_of(client)->failed_;
        UOZ_DBGLOG(UOZ_LOG_WARN, "an answer was not delivered (no subscriber or broker gone)");
    }
    free_message(message);
}

void AgentBus::on_status(kt5bus_client *client, int status) {
    AgentBus *bus = bus_of(client);
    {
        std::lock_guard<std::mutex> hold(bus->lock_);
        if (status == KT5BUS_STATUS_RUNNING)
            bus->running_ = true;
        if (status == KT5BUS_STATUS_CONNECTION_BROKE)
            bus->running_ = false;
    }
    bus->changed_.notify_all();
}

}  // namespace uozagent
