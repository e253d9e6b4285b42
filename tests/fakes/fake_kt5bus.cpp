// The fake bus library: the eight kt5bus entry points over recorded state.
#include "fake_kt5bus.h"

#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>

namespace {

struct State {
    std::mutex lock;
    std::vector<std::string> calls;
    std::map<std::string, int> results;
    std::set<std::string> refused_names;
    std::vector<std::pair<int, std::string>> identity_addresses;
    bool call_stopped = true;
    uint32_t next_id = 1;
    kt5bus_client *client = nullptr;
    std::deque<kt5bus_message *> pending;
};

State &state() {
    static State instance;
    return instance;
}

void record(const std::string &call) {
    std::lock_guard<std::mutex> guard(state().lock);
    state().calls.push_back(call);
}

int result_of(const std::string &operation) {
    std::lock_guard<std::mutex> guard(state().lock);
    auto found = state().results.find(operation);
    return found == state().results.end() ? 0 : found->second;
}

// The real library runs callbacks on its own thread; so does the fake.
template <typename F>
void on_bus_thread(F function) {
    std::thread thread(function);
    thread.join();
}

int append_address(kt5bus_address **list, int kind, const char *name, int special, bool copy) {
    auto *address = static_cast<kt5bus_address *>(calloc(1, sizeof(kt5bus_address)));
    address->kind = kind;
    if (kind == KT5BUS_ADDR_SPECIAL)
        address->value.special = special;
    else
        address->value.name = copy ? strdup(name) : const_cast<char *>(name);
    kt5bus_address **tail = list;
    while (*tail != nullptr)
        tail = &(*tail)->next;
    *tail = address;
    return 0;
}

kt5bus_message *pending_at(size_t index) {
    std::lock_guard<std::mutex> guard(state().lock);
    return index < state().pending.size() ? state().pending[index] : nullptr;
}

}  // namespace

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
    std::string key = identity && identity->x509.private_key
                          ? static_cast<const char *>(identity->x509.private_key->data)
                          : "";
    record("get_identity_data(" + key + ")");
    int result = result_of("get_identity_data");
    if (result != 0)
        return result;
    std::vector<std::pair<int, std::string>> addresses;
    {
        std::lock_guard<std::mutex> guard(state().lock);
        addresses = state().identity_addresses;
    }
    *out = nullptr;
    for (const auto &entry : addresses)
        append_address(out, entry.first, entry.second.c_str(),
                       entry.first == KT5BUS_ADDR_SPECIAL ? atoi(entry.second.c_str()) : 0, true);
    return 0;
}

int kt5bus_init_client(kt5bus_client *client, const char *url) {
    record(std::string("init_client(") + (url ? url : "NULL") + ")");
    int result = result_of("init_client");
    if (result == 0) {
        std::lock_guard<std::mutex> guard(state().lock);
        state().client = client;
    }
    return result;
}

int kt5bus_stop_client(kt5bus_client *client) {
    record("stop_client()");
    std::deque<kt5bus_message *> pending;
    bool call_stopped;
    {
        std::lock_guard<std::mutex> guard(state().lock);
        pending.swap(state().pending);
        call_stopped = state().call_stopped;
    }
    on_bus_thread([&] {
        for (kt5bus_message *message : pending)
            client->on_delivered(client, message, nullptr, 0);
        if (call_stopped)
            client->on_stopped(client);
    });
    {
        std::lock_guard<std::mutex> guard(state().lock);
        if (state().client == client && call_stopped)
            state().client = nullptr;
    }
    return result_of("stop_client");
}

int kt5bus_chain_address(kt5bus_address **list, int kind, ...) {
    va_list args;
    va_start(args, kind);
    const char *name = nullptr;
    int special = 0;
    int copy = 1;
    if (kind == KT5BUS_ADDR_SPECIAL) {
        special = va_arg(args, int);
    } else {
        name = va_arg(args, const char *);
        copy = va_arg(args, int);
    }
    va_end(args);
    std::string shown =
        kind == KT5BUS_ADDR_SPECIAL ? std::to_string(special) : std::string(name ? name : "NULL");
    record("chain_address(" + std::to_string(kind) + "," + shown + "," + std::to_string(copy) +
           ")");
    int result = result_of("chain_address");
    if (result != 0)
        return result;
    if (kind != KT5BUS_ADDR_SPECIAL) {
        std::lock_guard<std::mutex> guard(state().lock);
        if (name == nullptr || *name == '\0' || state().refused_names.count(name) != 0)
            return KT5BUS_ERR_INVALID;
    }
    return append_address(list, kind, name, special, copy != 0);
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
    int result = result_of("send_message");
    if (result != 0)
        return result;
    std::lock_guard<std::mutex> guard(state().lock);
    message->id = state().next_id++;
    // Kept until the test hands it back: the delivered callback can never run
    // before this call has returned.
    state().pending.push_back(message);
    return 0;
}

}  // extern "C"

namespace fakebus {

void reset() {
    std::lock_guard<std::mutex> guard(state().lock);
    state().calls.clear();
    state().results.clear();
    state().refused_names.clear();
    state().identity_addresses.clear();
    state().call_stopped = true;
    state().next_id = 1;
    state().client = nullptr;
    state().pending.clear();
}

std::vector<std::string> calls() {
    std::lock_guard<std::mutex> guard(state().lock);
    return state().calls;
}

void set_result(const std::string &operation, int result) {
    std::lock_guard<std::mutex> guard(state().lock);
    state().results[operation] = result;
}

void refuse_name(const std::string &name) {
    std::lock_guard<std::mutex> guard(state().lock);
    state().refused_names.insert(name);
}

void set_identity_addresses(const std::vector<std::pair<int, std::string>> &addresses) {
    std::lock_guard<std::mutex> guard(state().lock);
    state().identity_addresses = addresses;
}

void set_call_stopped(bool call) {
    std::lock_guard<std::mutex> guard(state().lock);
    state().call_stopped = call;
}

void set_next_id(uint32_t id) {
    std::lock_guard<std::mutex> guard(state().lock);
    state().next_id = id;
}

kt5bus_client *client() {
    std::lock_guard<std::mutex> guard(state().lock);
    return state().client;
}

size_t pending_count() {
    std::lock_guard<std::mutex> guard(state().lock);
    return state().pending.size();
}

std::string pending_text(size_t index) {
    kt5bus_message *message = pending_at(index);
    return message ? static_cast<const char *>(message->data) : "";
}

size_t pending_length(size_t index) {
    kt5bus_message *message = pending_at(index);
    return message ? message->length : 0;
}

std::string pending_content_type(size_t index) {
    kt5bus_message *message = pending_at(index);
    return message && message->content_type ? message->content_type : "";
}

std::string pending_destination(size_t index) {
    kt5bus_message *message = pending_at(index);
    std::string text;
    for (kt5bus_address *a = message ? message->destination : nullptr; a; a = a->next) {
        if (!text.empty())
            text += ",";
        text += std::to_string(a->kind) + ":" +
                (a->kind == KT5BUS_ADDR_SPECIAL ? std::to_string(a->value.special)
                                                : std::string(a->value.name));
    }
    return text;
}

void deliver_oldest(int ok) {
    kt5bus_message *message = nullptr;
    kt5bus_client *target = nullptr;
    {
        std::lock_guard<std::mutex> guard(state().lock);
        if (state().pending.empty() || state().client == nullptr)
            return;
        message = state().pending.front();
        state().pending.pop_front();
        target = state().client;
    }
    on_bus_thread([&] { target->on_delivered(target, message, nullptr, ok); });
}

void inject_message(const std::string &text, size_t length, kt5bus_address *source) {
    kt5bus_client *target = client();
    kt5bus_message message{};
    message.data = const_cast<char *>(text.c_str());
    message.length = length;
    message.source = source;
    message.content_type = "application/json";
    on_bus_thread([&] { target->on_message(target, &message); });
}

void inject_presence(kt5bus_address *connected, kt5bus_address *disconnected) {
    kt5bus_client *target = client();
    on_bus_thread([&] { target->on_presence(target, connected, disconnected); });
}

void inject_status(int status) {
    kt5bus_client *target = client();
    on_bus_thread([&] { target->on_status(target, status); });
}

void inject_stopped() {
    kt5bus_client *target = client();
    on_bus_thread([&] { target->on_stopped(target); });
    std::lock_guard<std::mutex> guard(state().lock);
    state().client = nullptr;
}

}  // namespace fakebus
