#include "bus_client.h"

#include <stdlib.h>
#include <string.h>

#include <stdexcept>

#include "identity.h"

namespace uozbus {

namespace {

BusClient *owner_of(kt5bus_client *client) {
    return static_cast<BusClient *>(client->owner);
}

Received received_from(const kt5bus_message *message) {
    Received received;
    const char *data = static_cast<const char *>(message->data);
    received.length = message->length;
    received.text.assign(data, data != nullptr ? strnlen(data, message->length) : 0);
    if (message->source != nullptr) {
        received.source_kind = message->source->kind;
        if (message->source->kind != KT5BUS_ADDR_SPECIAL)
            received.source_name = message->source->value.name;
    }
    if (const char *route = kt5bus_reply_route(message))
        received.reply_route = route;
    return received;
}

void free_message(kt5bus_message *message) {
    if (message == nullptr)
        return;
    free(message->data);
    kt5bus_free_address(message->destination, 1);
    free(message);
}

// A JSON message of `length` bytes (the text, and its NUL when one longer)
// to kind/name (to no address for kind 0: an answer on a reply route);
// nullptr when memory runs out or the address is refused.
kt5bus_message *new_message(const std::string &text, size_t length, int kind,
                            const std::string &name) {
    auto *message = static_cast<kt5bus_message *>(calloc(1, sizeof(kt5bus_message)));
    if (message == nullptr)
        return nullptr;
    message->content_type = "application/json";
    message->length = length;
    message->data = calloc(1, text.size() + 1);
    int rc = message->data == nullptr ? KT5BUS_ERR_NOMEM
             : kind == 0              ? KT5BUS_OK
             : kind == KT5BUS_ADDR_SPECIAL
                 ? kt5bus_chain_address(&message->destination, kind, KT5BUS_SPECIAL_DM_CLIENT)
                 : kt5bus_chain_address(&message->destination, kind, name.c_str(), 1);
    if (rc != 0) {
        free_message(message);
        return nullptr;
    }
    memcpy(message->data, text.data(), text.size());
    return message;
}

}  // namespace

std::string peer_name(const kt5bus_address *address) {
    return address->kind == KT5BUS_ADDR_SPECIAL ? "<DM-CLIENT>" : address->value.name;
}

BusClient::BusClient(const std::string &identity_dir, const std::string &url, Handlers handlers)
    : handlers_(std::move(handlers)) {
    client_.mode = 1;
    client_.owner = this;
    client_.on_message = &BusClient::on_message;
    client_.on_delivered = &BusClient::on_delivered;
    client_.on_status = &BusClient::on_status;
    client_.on_presence = &BusClient::on_presence;
    client_.on_stopped = &BusClient::on_stopped;
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

BusClient::~BusClient() {
    stop();
}

void BusClient::stop() {
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

bool BusClient::send(const std::string &text, int kind, const std::string &name,
                     bool with_terminator) {
    if (kind == 0)
        return false;
    kt5bus_message *message =
        new_message(text, text.size() + (with_terminator ? 1 : 0), kind, name);
    if (message == nullptr)
        return false;
    if (kt5bus_send_message(&client_, message, nullptr) != 0) {
        free_message(message);
        return false;
    }
    return true;
}

bool BusClient::send_reply(const std::string &text, const std::string &route,
                           bool with_terminator) {
    kt5bus_message *message = new_message(text, text.size() + (with_terminator ? 1 : 0), 0, "");
    if (message == nullptr)
        return false;
    if (kt5bus_send_reply(&client_, message, route.c_str()) != 0) {
        free_message(message);
        return false;
    }
    return true;
}

bool BusClient::answer(const Received &to, const std::string &text, bool with_terminator) {
    if (!to.reply_route.empty())
        return send_reply(text, to.reply_route, with_terminator);
    return send(text, to.source_kind, to.source_name, with_terminator);
}

template <typename Condition>
bool BusClient::wait(int timeout_ms, Condition condition) {
    std::unique_lock<std::mutex> hold(lock_);
    return changed_.wait_for(hold, std::chrono::milliseconds(timeout_ms), condition);
}

bool BusClient::wait_running(int timeout_ms) {
    return wait(timeout_ms, [this] { return running_; });
}

bool BusClient::wait_for_status(int status, int timeout_ms) {
    return wait(timeout_ms, [&] { return statuses_.count(status) > 0; });
}

bool BusClient::wait_for_peer(const std::string &name, int timeout_ms) {
    return wait(timeout_ms, [&] { return peers_.count(name) > 0; });
}

bool BusClient::wait_for_peer_gone(const std::string &name, int timeout_ms) {
    return wait(timeout_ms, [&] { return peers_.count(name) == 0; });
}

void BusClient::on_message(kt5bus_client *client, kt5bus_message *message) {
    BusClient *bus = owner_of(client);
    if (bus->handlers_.message)
        bus->handlers_.message(*bus, received_from(message));
}

void BusClient::on_delivered(kt5bus_client *client, kt5bus_message *message, void *, int ok) {
    BusClient *bus = owner_of(client);
    if (bus->handlers_.delivered)
        bus->handlers_.delivered(ok != 0);
    free_message(message);
}

void BusClient::on_status(kt5bus_client *client, int status) {
    BusClient *bus = owner_of(client);
    {
        std::lock_guard<std::mutex> hold(bus->lock_);
        bus->statuses_.insert(status);
        if (status == KT5BUS_STATUS_RUNNING)
            bus->running_ = true;
        if (status == KT5BUS_STATUS_CONNECTION_BROKE)
            bus->running_ = false;
    }
    bus->changed_.notify_all();
    if (bus->handlers_.status)
        bus->handlers_.status(status);
}

void BusClient::on_presence(kt5bus_client *client, kt5bus_address *connected,
                            kt5bus_address *disconnected) {
    BusClient *bus = owner_of(client);
    {
        std::lock_guard<std::mutex> hold(bus->lock_);
        for (const kt5bus_address *address = connected; address != nullptr; address = address->next)
            bus->peers_.insert(peer_name(address));
        for (const kt5bus_address *address = disconnected; address != nullptr;
             address = address->next)
            bus->peers_.erase(peer_name(address));
    }
    bus->changed_.notify_all();
}

}  // namespace uozbus
