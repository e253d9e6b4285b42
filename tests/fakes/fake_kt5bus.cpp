// The fake bus library: the eight kt5bus entry points over recorded state.
#include "fake_kt5bus.h"

#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include <memory>

namespace fakebus {
namespace {

std::unique_ptr<State> &instance() {
    static std::unique_ptr<State> state = std::make_unique<State>();
    return state;
}

void record(const std::string &call) {
    std::lock_guard<std::mutex> guard(state().lock);
    state().calls.push_back(call);
}

int result_of(const std::string &operation) {
    auto found = state().results.find(operation);
    return found == state().results.end() ? 0 : found->second;
}

void append_address(kt5bus_address **list, int kind, const char *name, int special, bool copy) {
    auto *address = static_cast<kt5bus_address *>(calloc(1, sizeof(kt5bus_address)));
    address->kind = kind;
    if (kind == KT5BUS_ADDR_SPECIAL)
        address->value.special = special;
    else
        address->value.name = copy ? strdup(name) : const_cast<char *>(name);
    while (*list != nullptr)
        list = &(*list)->next;
    *list = address;
}

}  // namespace

State &state() {
    return *instance();
}

void reset() {
    instance() = std::make_unique<State>();
}

kt5bus_client *client() {
    std::lock_guard<std::mutex> guard(state().lock);
    return state().client;
}

std::string destination(const kt5bus_message *message) {
    std::string text;
    for (kt5bus_address *a = message->destination; a != nullptr; a = a->next) {
        text += (text.empty() ? "" : ",") + std::to_string(a->kind) + ":" +
                (a->kind == KT5BUS_ADDR_SPECIAL ? std::to_string(a->value.special)
                                                : std::string(a->value.name));
    }
    return text;
}

void deliver_oldest(int ok) {
    kt5bus_message *message = state().pending.front();
    state().pending.pop_front();
    kt5bus_client *target = client();
    on_bus_thread([&] { target->on_delivered(target, message, nullptr, ok); });
}

void inject_stopped() {
    kt5bus_client *target = client();
    on_bus_thread([&] { target->on_stopped(target); });
    std::lock_guard<std::mutex> guard(state().lock);
    state().client = nullptr;
}

}  // namespace fakebus

using fakebus::record;
using fakebus::state;

extern "C" {

int kt5bus_init_ll(kt5bus_ll_config *config) {
    record(std::string("init_ll(") + (config != nullptr && config->debug ? "debug" : "-") + ")");
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
        fakebus::append_address(out, entry.first, entry.second.c_str(), atoi(entry.second.c_str()),
                                true);
    return 0;
}

int kt5bus_init_client(kt5bus_client *client, const char *url) {
    record(std::string("init_client(") + url + ")");
    int result = fakebus::result_of("init_client");
    if (result == 0) {
        std::lock_guard<std::mutex> guard(state().lock);
        state().client = client;
    }
    return result;
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
    std::lock_guard<std::mutex> guard(state().lock);
    if (state().client == client && call_stopped)
        state().client = nullptr;
    return 0;
}

int kt5bus_chain_address(kt5bus_address **list, int kind, ...) {
    va_list args;
    va_start(args, kind);
    const char *name = kind == KT5BUS_ADDR_SPECIAL ? nullptr : va_arg(args, const char *);
    int special = kind == KT5BUS_ADDR_SPECIAL ? va_arg(args, int) : 0;
    int copy = kind == KT5BUS_ADDR_SPECIAL ? 1 : va_arg(args, int);
    va_end(args);
    record("chain_address(" + std::to_string(kind) + "," +
           (name != nullptr ? name : std::to_string(special)) + ")");
    if (kind != KT5BUS_ADDR_SPECIAL &&
        (name == nullptr || *name == '\0' || state().refused_names.count(name) != 0))
        return KT5BUS_ERR_INVALID;
    fakebus::append_address(list, kind, name, special, copy != 0);
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
    int result = fakebus::result_of("send_message");
    if (result != 0)
        return result;
    message->id = state().next_id++;
    // Kept until the test hands it back: the delivered callback can never run
    // before this call has returned.
    state().pending.push_back(message);
    return 0;
}

}  // extern "C"
