#include "responder.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <chrono>
#include <stdexcept>
#include <string_view>

#include "broker_fixture.h"

namespace uozbench {

namespace {

// A positive response to report 0x02 with one DTC (P0301, status 0x09).
constexpr const char *kDtcData = "5902FF03010009";
constexpr const char *kReplyFormat =
    "{\"type\":\"zelko.skyharbor-query-update\",\"reply-to\":\"%.*s\",\"body\":{"
    "\"targetAddress\":\"%.*s\",\"uds\":{\"data-record\":[{\"phy-req-id\":\"%.*s\","
    "\"data\":\"%s\"}]}}}";

MinimalResponder *owner_of(kt5bus_client *client) {
    return static_cast<MinimalResponder *>(client->owner);
}

}  // namespace

// Neither copies nor allocates: the responder must cost as little as the
// anchor's echo, so that the comparison measures the library.
std::string_view find_string_member(std::string_view text, std::string_view key) {
    for (size_t at = text.find(key); at != std::string_view::npos; at = text.find(key, at + 1)) {
        bool quoted = at > 0 && at + key.size() < text.size() && text[at - 1] == '"' &&
                      text[at + key.size()] == '"';
        if (!quoted)
            continue;
        size_t colon = text.find(':', at + key.size());
        size_t open = colon == std::string_view::npos ? colon : text.find('"', colon + 1);
        size_t close = open == std::string_view::npos ? open : text.find('"', open + 1);
        if (close == std::string_view::npos)
            return {};
        return text.substr(open + 1, close - open - 1);
    }
    return {};
}

MinimalResponder::MinimalResponder(const std::string &identity_dir, const std::string &url) {
    client_.mode = 1;
    if (uoztest::load_identity(&client_.identity, identity_dir) != 0) {
        throw std::runtime_error("cannot load identity " + identity_dir);
    }
    client_.on_message = &MinimalResponder::on_message;
    client_.on_delivered = &MinimalResponder::on_delivered;
    client_.on_status = &MinimalResponder::on_status;
    client_.on_stopped = &MinimalResponder::on_stopped;
    client_.on_presence = &MinimalResponder::on_presence;
    client_.owner = this;
    kt5bus_ll_config config{};
    kt5bus_init_ll(&config);
    if (kt5bus_init_client(&client_, url.c_str()) != 0) {
        throw std::runtime_error("responder client did not start");
    }
}

MinimalResponder::~MinimalResponder() {
    kt5bus_stop_client(&client_);
    uoztest::free_identity(&client_.identity);
    kt5bus_fini_ll();
}

bool MinimalResponder::wait_running() {
    std::unique_lock<std::mutex> hold(lock_);
    return running_changed_.wait_for(hold, std::chrono::seconds(10), [this] { return running_; });
}

void MinimalResponder::on_status(kt5bus_client *client, int status) {
    MinimalResponder *self = owner_of(client);
    std::lock_guard<std::mutex> hold(self->lock_);
    self->running_ = status == KT5BUS_STATUS_RUNNING;
    self->running_changed_.notify_all();
}

void MinimalResponder::on_stopped(kt5bus_client *) {}

void MinimalResponder::on_message(kt5bus_client *client, kt5bus_message *message) {
    if (message != nullptr && message->data != nullptr)
        owner_of(client)->answer(*message);
}

void MinimalResponder::on_delivered(kt5bus_client *, kt5bus_message *message, void *, int) {
    if (message == nullptr)
        return;
    free(message->data);
    kt5bus_free_address(message->destination, 1);
    free(message);
}

void MinimalResponder::answer(const kt5bus_message &query) {
    std::string_view text(static_cast<const char *>(query.data),
                          strnlen(static_cast<const char *>(query.data), query.length));
    last_query_length_.store(text.size());
    std::string_view reply_id = find_string_member(text, "reply-id");
    std::string_view target = find_string_member(text, "targetAddress");
    std::string_view request_id = find_string_member(text, "phy-req-id");
    if (reply_id.empty() || query.source == nullptr || query.source->kind != KT5BUS_ADDR_UA)
        return;

    auto *message = static_cast<kt5bus_message *>(calloc(1, sizeof(kt5bus_message)));
    int length = asprintf(reinterpret_cast<char **>(&message->data), kReplyFormat,
                          static_cast<int>(reply_id.size()), reply_id.data(),
                          static_cast<int>(target.size()), target.data(),
                          static_cast<int>(request_id.size()), request_id.data(), kDtcData);
    if (length < 0) {
        message->data = nullptr;
        on_delivered(&client_, message, nullptr, 0);
        return;
    }
    message->content_type = "application/json";
    message->length = static_cast<size_t>(length) + 1;
    if (kt5bus_chain_address(&message->destination, KT5BUS_ADDR_UA, query.source->value.name, 1) !=
            0 ||
        kt5bus_send_message(&client_, message, nullptr) != 0) {
        on_delivered(&client_, message, nullptr, 0);
        return;
    }
    answered_.fetch_add(1);
}

}  // namespace uozbench
