// The fake bus library: the eight kt5bus entry points over recorded state.
#include "fake_kt5bus.h"

#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include <chrono>
#include <future>
#include <memory>

namespace fakebus {
namespace {

std::unique_ptr<State> &instance() {
    static std::unique_ptr<State> state = std::make_unique<State>();
    return state;
}

}  // namespace

State &state() {
    return *instance();
}

void reset() {
    instance() = std::make_unique<State>();
}

std::string destination(const kt5bus_message *message) {
    std::string text;
    for (kt5bus_address *a = message->destination; a != nullptr; a = a->next)
        text += (text.empty() ? "" : ",") + std::to_string(a->kind) + ":" + a->value.name;
    return text;
}

}  // namespace fakebus

using fakebus::state;

namespace {

void record(const std::string &call) {
    state().calls.push_back(call);
    if (state().echo_calls && state().debug != nullptr)
        state().debug(call.c_str());
}

}  // namespace

extern "C" {

int kt5bus_init_ll(kt5bus_ll_config *config) {
    state().debug = config->debug;
    record(std::string("init_ll(") + (config->debug ? "debug" : "-") + ")");
    return 0;
}

int kt5bus_fini_ll(void) {
    record("fini_ll()");
    return 0;
}

int kt5bus_get_identity_data(kt5bus_identity *identity, kt5bus_address **out, void *, void *) {
    record("get_identity_data(" +
           std::string(static_cast<const char *>(identity->x509.private_key->data)) + ")");
    *out = nullptr;
    for (const auto &entry : state().identity_addresses)
        kt5bus_chain_address(out, entry.first, entry.second.c_str(), 1);
    return 0;
}

int kt5bus_init_client(kt5bus_client *client, const char *url) {
    record(std::string("init_client(") + url + ")");
    if (state().init_result == 0)
        state().client = client;
    return state().init_result;
}

int kt5bus_stop_client(kt5bus_client *client) {
    record("stop_client()");
    std::deque<kt5bus_message *> pending;
    pending.swap(state().pending);
    bool call_stopped = state().call_stopped;
    fakebus::on_bus_thread([&] {
        for (kt5bus_message *message : pending)
            client->on_delivered(client, message, nullptr, 0);
        if (call_stopped)
            client->on_stopped(client);
    });
    return 0;
}

// Names only (the wrapper chains no special address); copied when asked.
int kt5bus_chain_address(kt5bus_address **list, int kind, ...) {
    va_list args;
    va_start(args, kind);
    const char *name = va_arg(args, const char *);
    int copy = va_arg(args, int);
    va_end(args);
    if (name == nullptr || *name == '\0' || state().refused_name == name)
        return KT5BUS_ERR_INVALID;
    auto *address = static_cast<kt5bus_address *>(calloc(1, sizeof(kt5bus_address)));
    address->kind = kind;
    address->value.name = copy ? strdup(name) : const_cast<char *>(name);
    while (*list != nullptr)
        list = &(*list)->next;
    *list = address;
    return 0;
}

void kt5bus_free_address(kt5bus_address *chain, int free_names) {
    while (chain != nullptr) {
        kt5bus_address *next = chain->next;
        if (free_names && chain->kind != KT5BUS_ADDR_SPECIAL)
            free(chain->value.name);
        free(chain);
        chain = next;
    }
}

int kt5bus_send_message(kt5bus_client *, kt5bus_message *message, void *) {
    record(std::string("send_message(") + static_cast<const char *>(message->data) + ")");
    if (state().send_result != 0)
        return state().send_result;
    message->id = state().next_id++;
    if (state().deliver_during_send) {
        auto delivered = std::make_shared<std::promise<void>>();
        std::future<void> done = delivered->get_future();
        kt5bus_client *client = state().client;
        state().delivery = std::thread([client, message, delivered] {
            client->on_delivered(client, message, nullptr, 1);
            delivered->set_value();
        });
        done.wait_for(std::chrono::milliseconds(100));
        return 0;
    }
    // Kept until the test hands it back: the delivered callback can never run
    // before this call has returned.
    state().pending.push_back(message);
    return 0;
}

}  // extern "C"
