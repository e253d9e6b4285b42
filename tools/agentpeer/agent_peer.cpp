#include "agent_peer.h"

#include <stdlib.h>
#include <string.h>

#include <stdexcept>

namespace uozagent {

namespace {

AgentPeer *peer_of(kt5bus_client *client) {
    return static_cast<AgentPeer *>(client->owner);
}

kt5bus_buffer *read_pem(const std::string &path) {
    FILE *file = fopen(path.c_str(), "r");
    if (file == nullptr)
        return nullptr;
    std::string content;
    char chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof(chunk), file)) > 0)
        content.append(chunk, got);
    fclose(file);
    auto *buffer = static_cast<kt5bus_buffer *>(calloc(1, sizeof(kt5bus_buffer)));
    buffer->length = content.size() + 1;
    buffer->data = calloc(1, buffer->length);
    memcpy(buffer->data, content.data(), content.size());
    buffer->encoding = KT5BUS_ENCODING_PEM;
    return buffer;
}

void free_buffer(kt5bus_buffer *buffer) {
    if (buffer == nullptr)
        return;
    free(buffer->data);
    free(buffer);
}

}  // namespace

bool load_identity(kt5bus_identity *identity, const std::string &dir) {
    memset(identity, 0, sizeof(*identity));
    identity->kind = KT5BUS_IDENTITY_X509;
    identity->x509.private_key = read_pem(dir + "/private.pem");
    identity->x509.chain = static_cast<kt5bus_buffer **>(calloc(2, sizeof(kt5bus_buffer *)));
    identity->x509.trust = static_cast<kt5bus_buffer **>(calloc(2, sizeof(kt5bus_buffer *)));
    identity->x509.chain[0] = read_pem(dir + "/cert.pem");
    identity->x509.trust[0] = read_pem(dir + "/../ca/ca.pem");
    bool complete = identity->x509.private_key != nullptr && identity->x509.chain[0] != nullptr &&
                    identity->x509.trust[0] != nullptr;
    if (!complete)
        free_identity(identity);
    return complete;
}

void free_identity(kt5bus_identity *identity) {
    if (identity->x509.chain != nullptr)
        free_buffer(identity->x509.chain[0]);
    if (identity->x509.trust != nullptr)
        free_buffer(identity->x509.trust[0]);
    free(identity->x509.chain);
    free(identity->x509.trust);
    free_buffer(identity->x509.private_key);
    memset(identity, 0, sizeof(*identity));
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
    return received;
}

kt5bus_message *new_message(const std::string &text, size_t length, int kind,
                            const std::string &name) {
    auto *message = static_cast<kt5bus_message *>(calloc(1, sizeof(kt5bus_message)));
    message->content_type = "application/json";
    message->length = length;
    message->data = calloc(1, text.size() + 1);
    memcpy(message->data, text.data(), text.size());
    int rc = kind == KT5BUS_ADDR_SPECIAL
                 ? kt5bus_chain_address(&message->destination, kind, KT5BUS_SPECIAL_DM_CLIENT)
                 : kt5bus_chain_address(&message->destination, kind, name.c_str(), 1);
    if (rc != 0) {
        free_message(message);
        return nullptr;
    }
    return message;
}

void free_message(kt5bus_message *message) {
    if (message == nullptr)
        return;
    free(message->data);
    kt5bus_free_address(message->destination, 1);
    free(message);
}

AgentPeer::AgentPeer(const std::string &identity_dir, const std::string &url) {
    client_.mode = 1;
    client_.owner = this;
    client_.on_message = &AgentPeer::on_message;
    client_.on_delivered = &AgentPeer::on_delivered;
    client_.on_status = &AgentPeer::on_status;
    client_.on_presence = &AgentPeer::on_presence;
    client_.on_stopped = &AgentPeer::on_stopped;
    if (!load_identity(&client_.identity, identity_dir)) {
        throw std::runtime_error("cannot load the identity in " + identity_dir);
    }
    kt5bus_ll_config config{};
    kt5bus_init_ll(&config);
    sender_ = std::thread(&AgentPeer::sender_loop, this);
    int rc = kt5bus_init_client(&client_, url.c_str());
    if (rc != 0) {
        {
            std::lock_guard<std::mutex> hold(lock_);
            stopping_ = true;
        }
        changed_.notify_all();
        sender_.join();
        free_identity(&client_.identity);
        kt5bus_fini_ll();
        throw std::runtime_error("cannot start the bus client: " + std::to_string(rc));
    }
}

AgentPeer::~AgentPeer() {
    stop();
}

void AgentPeer::stop() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (stopped_)
            return;
        stopped_ = true;
        stopping_ = true;
    }
    changed_.notify_all();
    sender_.join();
    kt5bus_stop_client(&client_);
    free_identity(&client_.identity);
    kt5bus_fini_ll();
}

bool AgentPeer::wait_running(int timeout_ms) {
    std::unique_lock<std::mutex> hold(lock_);
    return changed_.wait_for(hold, std::chrono::milliseconds(timeout_ms),
                             [this] { return running_; });
}

bool AgentPeer::wait_for_peer(const std::string &name, int timeout_ms) {
    std::unique_lock<std::mutex> hold(lock_);
    return changed_.wait_for(hold, std::chrono::milliseconds(timeout_ms),
                             [&] { return peers_.count(name) > 0; });
}

bool AgentPeer::wait_for_peer_gone(const std::string &name, int timeout_ms) {
    std::unique_lock<std::mutex> hold(lock_);
    return changed_.wait_for(hold, std::chrono::milliseconds(timeout_ms),
                             [&] { return peers_.count(name) == 0; });
}

bool AgentPeer::wait_for_status(int status, int timeout_ms) {
    std::unique_lock<std::mutex> hold(lock_);
    return changed_.wait_for(hold, std::chrono::milliseconds(timeout_ms),
                             [&] { return statuses_.count(status) > 0; });
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

void AgentPeer::on_message(kt5bus_client *client, kt5bus_message *message) {
    AgentPeer *peer = peer_of(client);
    Received received = received_from(message);
    Responder responder;
    {
        std::lock_guard<std::mutex> hold(peer->lock_);
        peer->received_.push_back(received);
        responder = peer->responder_;
    }
    peer->changed_.notify_all();
    if (!responder)
        return;
    for (Action action : responder(received)) {
        if (action.kind == 0) {
            action.kind = received.source_kind;
            action.name = received.source_name;
        }
        peer->send(action);
    }
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

void AgentPeer::transmit(const Action &action) {
    if (action.kind == 0)
        return;  // the sender was unknown: nowhere to answer
    kt5bus_message *message =
        new_message(action.text, action.text.size() + (action.include_terminator ? 1 : 0),
                    action.kind, action.name);
    if (message == nullptr || kt5bus_send_message(&client_, message, nullptr) != 0)
        on_delivered(&client_, message, nullptr, 0);
}

void AgentPeer::on_delivered(kt5bus_client *client, kt5bus_message *message, void *, int ok) {
    AgentPeer *peer = peer_of(client);
    {
        std::lock_guard<std::mutex> hold(peer->lock_);
        (ok ? peer->delivered_ok_ : peer->delivered_failed_)++;
    }
    peer->changed_.notify_all();
    free_message(message);
}

void AgentPeer::on_status(kt5bus_client *client, int status) {
    AgentPeer *peer = peer_of(client);
    {
        std::lock_guard<std::mutex> hold(peer->lock_);
        peer->statuses_.insert(status);
        if (status == KT5BUS_STATUS_RUNNING)
            peer->running_ = true;
        if (status == KT5BUS_STATUS_CONNECTION_BROKE)
            peer->running_ = false;
    }
    peer->changed_.notify_all();
}

void AgentPeer::on_presence(kt5bus_client *client, kt5bus_address *connected,
                            kt5bus_address *disconnected) {
    AgentPeer *peer = peer_of(client);
    {
        std::lock_guard<std::mutex> hold(peer->lock_);
        for (kt5bus_address *a = connected; a != nullptr; a = a->next) {
            peer->peers_.insert(a->kind == KT5BUS_ADDR_SPECIAL ? "<DM-CLIENT>" : a->value.name);
        }
        for (kt5bus_address *a = disconnected; a != nullptr; a = a->next) {
            peer->peers_.erase(a->kind == KT5BUS_ADDR_SPECIAL ? "<DM-CLIENT>" : a->value.name);
        }
    }
    peer->changed_.notify_all();
}

}  // namespace uozagent
