#include "fake_kt5bus.h"

#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <mutex>
#include <thread>

namespace fakebus {

namespace {

std::mutex g_lock;
Settings g_settings;
std::vector<std::string> g_calls;
kt5bus_client *g_client = nullptr;
std::vector<kt5bus_message *> g_accepted;
int g_chain_calls = 0;
uint32_t g_next_id = 0x100;

void record(const char *name) {
    std::lock_guard<std::mutex> hold(g_lock);
    g_calls.push_back(name);
}

kt5bus_address *copy_chain(const std::vector<kt5bus_address> &addresses) {
    kt5bus_address *head = nullptr;
    kt5bus_address **tail = &head;
    for (const kt5bus_address &address : addresses) {
        auto *link = static_cast<kt5bus_address *>(calloc(1, sizeof(kt5bus_address)));
        *link = address;
        if (address.kind != KT5BUS_ADDR_SPECIAL)
            link->value.name = strdup(address.value.name);
        link->next = nullptr;
        *tail = link;
        tail = &link->next;
    }
    return head;
}

}  // namespace

void reset(const Settings &settings) {
    std::lock_guard<std::mutex> hold(g_lock);
    g_settings = settings;
    g_calls.clear();
    g_client = nullptr;
    g_accepted.clear();
    g_chain_calls = 0;
    g_next_id = 0x100;
}

std::vector<std::string> calls() {
    std::lock_guard<std::mutex> hold(g_lock);
    return g_calls;
}

kt5bus_client *client() {
    std::lock_guard<std::mutex> hold(g_lock);
    return g_client;
}

std::vector<kt5bus_message *> accepted() {
    std::lock_guard<std::mutex> hold(g_lock);
    return g_accepted;
}

void on_bus_thread(const std::function<void()> &work) {
    std::thread(work).join();
}

void report_delivery(kt5bus_message *message, int ok) {
    {
        std::lock_guard<std::mutex> hold(g_lock);
        g_accepted.erase(std::remove(g_accepted.begin(), g_accepted.end(), message),
                         g_accepted.end());
    }
    kt5bus_client *target = client();
    on_bus_thread([&] { target->on_delivered(target, message, nullptr, ok); });
}

}  // namespace fakebus

using fakebus::g_lock;
using fakebus::g_settings;

int kt5bus_init_ll(kt5bus_ll_config *) {
    fakebus::record("init_ll");
    return 0;
}

int kt5bus_fini_ll(void) {
    fakebus::record("fini_ll");
    return 0;
}

int kt5bus_get_identity_data(kt5bus_identity *, kt5bus_address **out, void *, void *) {
    fakebus::record("get_identity_data");
    std::lock_guard<std::mutex> hold(g_lock);
    if (g_settings.identity_result != 0)
        return g_settings.identity_result;
    *out = fakebus::copy_chain(g_settings.identity_addresses);
    return 0;
}

int kt5bus_init_client(kt5bus_client *client, const char *) {
    fakebus::record("init_client");
    std::lock_guard<std::mutex> hold(g_lock);
    if (g_settings.init_client_result != 0)
        return g_settings.init_client_result;
    fakebus::g_client = client;
    return 0;
}

int kt5bus_stop_client(kt5bus_client *client) {
    fakebus::record("stop_client");
    fakebus::Settings settings;
    {
        std::lock_guard<std::mutex> hold(g_lock);
        settings = g_settings;
    }
    if (!settings.report_stopped)
        return 0;
    // Like the real library: the stop is reported from the bus thread, and the
    // call returns once that thread is done with the record.
    std::thread([client, settings] {
        std::this_thread::sleep_for(std::chrono::milliseconds(settings.stopped_delay_ms));
        client->on_stopped(client);
    }).join();
    return 0;
}

int kt5bus_chain_address(kt5bus_address **list, int kind, ...) {
    fakebus::record("chain_address");
    va_list args;
    va_start(args, kind);
    const char *name = kind == KT5BUS_ADDR_SPECIAL ? nullptr : va_arg(args, const char *);
    va_end(args);
    {
        std::lock_guard<std::mutex> hold(g_lock);
        ++fakebus::g_chain_calls;
        bool fail = g_settings.chain_result != 0 &&
                    (g_settings.chain_fail_on_call == 0 ||
                     g_settings.chain_fail_on_call == fakebus::g_chain_calls);
        if (fail)
            return g_settings.chain_result;
    }
    auto *link = static_cast<kt5bus_address *>(calloc(1, sizeof(kt5bus_address)));
    link->kind = kind;
    if (name != nullptr)
        link->value.name = strdup(name);
    while (*list != nullptr)
        list = &(*list)->next;
    *list = link;
    return 0;
}

void kt5bus_free_address(kt5bus_address *chain, int free_names) {
    fakebus::record("free_address");
    while (chain != nullptr) {
        kt5bus_address *next = chain->next;
        if (free_names && chain->kind != KT5BUS_ADDR_SPECIAL)
            free(chain->value.name);
        free(chain);
        chain = next;
    }
}

int kt5bus_send_message(kt5bus_client *, kt5bus_message *message, void *) {
    fakebus::record("send_message");
    std::lock_guard<std::mutex> hold(g_lock);
    if (g_settings.send_result != 0)
        return g_settings.send_result;
    message->id = fakebus::g_next_id++;
    fakebus::g_accepted.push_back(message);
    return 0;
}
