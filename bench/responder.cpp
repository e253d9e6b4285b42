#include "responder.h"

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

MinimalResponder *owner_of(kt5bus_client *client) {
    return static_cast<MinimalResponder *>(client->owner);
}

}  // namespace

std::string find_string_member(const char *text, size_t length, const char *key) {
    // A view, not a copy: the responder must cost as little as the anchor's echo.
    std::string_view haystack(text, strnlen(text, length));
    std::string quoted = std::string("\"") + key + "\"";
    size_t at = haystack.find(quoted);
    if (at == std::string::npos)
        return "";
    size_t colon = haystack.find(':', at + quoted.size());
    if (colon == std::string::npos)
        return "";
    size_t open = haystack.find('"', colon + 1);
    if (open == std::string::npos)
        return "";
    size_t close = haystack.find('"', open + 1);
    if (close == std::string::npos)
        return "";
    return std::string(haystack.substr(open + 1, close - open - 1));
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
    const char *text = static_cast<const char *>(query.data);
    last_query_length_.store(strnlen(text, query.length));
    std::string reply_id = find_string_member(text, query.length, "reply-id");
    std::string target = find_string_member(text, query.length, "targetAddress");
    std::string request_id = find_string_member(text, query.length, "phy-req-id");
    if (reply_id.empty() || query.source == nullptr || query.source->kind != KT5BUS_ADDR_UA)
        return;

    std::string reply = "{\"type\":\"zelko.skyharbor-query-update\",\"reply-to\":\"" + reply_id +
                        "\",\"body\":{\"targetAddress\":\"" + target +
                        "\",\"uds\":{\"data-record\":[{\"phy-req-id\":\"" + request_id +
                        "\",\"data\":\"" + kDtcData + "\"}]}}}";
    auto *message = static_cast<kt5bus_message *>(calloc(1, sizeof(kt5bus_message)));
    message->content_type = "application/json";
    message->data = strdup(reply.c_str());
    message->length = reply.size() + 1;
    if (kt5bus_chain_address(&message->destination, KT5BUS_ADDR_UA, query.source->value.name, 1) !=
            0 ||
        kt5bus_send_message(&client_, message, nullptr) != 0) {
        on_delivered(&client_, message, nullptr, 0);
        return;
    }
    answered_.fetch_add(1);
}

}  // namespace uozbench
