// Address chains, topics, library set-up and the debug sink.
#include <mosquitto.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <mutex>

#include "kt5bus/kt5bus_internal.h"

namespace kt5 {

namespace {

std::mutex g_setup_lock;
int g_setup_count = 0;
void (*g_debug_sink)(const char *) = nullptr;

kt5bus_address *new_link(int kind) {
    auto *link = static_cast<kt5bus_address *>(calloc(1, sizeof(kt5bus_address)));
    if (link != nullptr)
        link->kind = kind;
    return link;
}

void append_link(kt5bus_address **list, kt5bus_address *link) {
    while (*list != nullptr)
        list = &(*list)->next;
    *list = link;
}

// Update-agent names are written with a leading '/' in topics.
std::string normalised_agent(const char *name) {
    return name[0] == '/' ? std::string(name) : "/" + std::string(name);
}

}  // namespace

void debug(const char *format, ...) {
    void (*sink)(const char *) = nullptr;
    {
        std::lock_guard<std::mutex> hold(g_setup_lock);
        sink = g_debug_sink;
    }
    if (sink == nullptr)
        return;
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    sink(text);
}

bool valid_name(const char *name) {
    return name != nullptr && name[0] != '\0' && strpbrk(name, "+#") == nullptr;
}

kt5bus_address *new_address_chain(const std::vector<Address> &addresses) {
    kt5bus_address *chain = nullptr;
    for (const Address &address : addresses) {
        kt5bus_address *link = new_link(address.kind);
        if (link == nullptr)
            break;
        if (address.kind == KT5BUS_ADDR_SPECIAL) {
            link->value.special = address.special;
        } else {
            link->value.name = strdup(address.name.c_str());
        }
        append_link(&chain, link);
    }
    return chain;
}

std::string message_topic(const std::string &sender_cn, const kt5bus_address &destination) {
    std::string prefix = "kt5/msg/" + sender_cn;
    switch (destination.kind) {
        case KT5BUS_ADDR_UA:
            return prefix + "/ua" + normalised_agent(destination.value.name);
        case KT5BUS_ADDR_GROUP:
            return prefix + "/group/" + destination.value.name;
        case KT5BUS_ADDR_SPECIAL:
            if (destination.value.special == KT5BUS_SPECIAL_DM_CLIENT)
                return prefix + "/dmc";
            return "";
        default:
            return "";
    }
}

std::string subscription_for(const Address &address) {
    switch (address.kind) {
        case KT5BUS_ADDR_UA:
            return "kt5/msg/+/ua" + normalised_agent(address.name.c_str());
        case KT5BUS_ADDR_GROUP:
            return "kt5/msg/+/group/" + address.name;
        case KT5BUS_ADDR_SPECIAL:
            return address.special == KT5BUS_SPECIAL_DM_CLIENT ? "kt5/msg/+/dmc" : "";
        default:
            return "";
    }
}

std::string presence_topic(const std::string &cn, const std::string &client_id) {
    return "kt5/presence/" + cn + "/" + client_id;
}

std::string reply_route(const std::string &cn, const std::string &client_id) {
    return "kt5/reply/" + cn + "/" + client_id;
}

bool valid_reply_route(std::string_view route, std::string_view cn) {
    constexpr std::string_view prefix = "kt5/reply/";
    if (route.substr(0, prefix.size()) != prefix)
        return false;
    std::string_view rest = route.substr(prefix.size());
    size_t slash = rest.find('/');
    if (slash == 0 || slash == std::string_view::npos || slash + 1 == rest.size())
        return false;
    if (rest.find_first_of("+#", 0) != std::string_view::npos ||
        rest.find('/', slash + 1) != std::string_view::npos ||
        rest.find('\0') != std::string_view::npos)
        return false;
    return cn.empty() || rest.substr(0, slash) == cn;
}

}  // namespace kt5

int kt5bus_init_ll(kt5bus_ll_config *config) {
    std::lock_guard<std::mutex> hold(kt5::g_setup_lock);
    if (kt5::g_setup_count++ == 0)
        mosquitto_lib_init();
    if (config != nullptr && config->debug != nullptr)
        kt5::g_debug_sink = config->debug;
    return KT5BUS_OK;
}

int kt5bus_fini_ll(void) {
    std::lock_guard<std::mutex> hold(kt5::g_setup_lock);
    if (kt5::g_setup_count > 0 && --kt5::g_setup_count == 0) {
        mosquitto_lib_cleanup();
        kt5::g_debug_sink = nullptr;
    }
    return KT5BUS_OK;
}

int kt5bus_chain_address(kt5bus_address **list, int kind, ...) {
    if (list == nullptr)
        return KT5BUS_ERR_INVALID;
    va_list args;
    va_start(args, kind);
    kt5bus_address *link = nullptr;
    int result = KT5BUS_OK;
    if (kind == KT5BUS_ADDR_UA || kind == KT5BUS_ADDR_GROUP) {
        const char *name = va_arg(args, const char *);
        int copy = va_arg(args, int);
        if (!kt5::valid_name(name)) {
            result = KT5BUS_ERR_INVALID;
        } else if ((link = kt5::new_link(kind)) == nullptr ||
                   (link->value.name = copy ? strdup(name) : const_cast<char *>(name)) == nullptr) {
            result = KT5BUS_ERR_NOMEM;
        }
    } else if (kind == KT5BUS_ADDR_SPECIAL) {
        int code = va_arg(args, int);
        if ((link = kt5::new_link(kind)) == nullptr) {
            result = KT5BUS_ERR_NOMEM;
        } else {
            link->value.special = code;
        }
    } else {
        result = KT5BUS_ERR_INVALID;
    }
    va_end(args);
    if (result != KT5BUS_OK) {
        free(link);
        return result;
    }
    kt5::append_link(list, link);
    return KT5BUS_OK;
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

const char *kt5bus_reply_route(const kt5bus_message *message) {
    // The record's layout is fixed, so the route travels in its reserved
    // integer field.
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    return message != nullptr ? reinterpret_cast<const char *>(message->reserved3) : nullptr;
}
