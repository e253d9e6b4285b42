// Sending JSON texts to bus addresses, and the text forms of addresses.
#include <stdlib.h>
#include <string.h>

#include "kt5Utils/locks.h"
#include "zelkobus/zelkobus_internal.h"

void zebus_release_message(kt5bus_message *message) {
    if (message == nullptr)
        return;
    free(message->data);
    zebus_ops.free_address(message->destination, 1);
    free(message);
}

namespace {

constexpr const char *kContentType = "application/json";

// A message record holding a copy of text, or nullptr after reporting.
kt5bus_message *new_message(const char *text) {
    auto *message = static_cast<kt5bus_message *>(zebus_zalloc(sizeof(kt5bus_message)));
    if (message == nullptr) {
        ZEBUS_ERROR("memory allocation failed");
        return nullptr;
    }
    message->data = uoz_strdup(text);
    if (message->data == nullptr) {
        ZEBUS_ERROR("memory allocation failed");
        free(message);
        return nullptr;
    }
    message->content_type = kContentType;
    message->length = strlen(text) + 1;
    return message;
}

// Hands the message to the bus library and logs it: with its target for a
// send to one address, without one for a send to groups. On acceptance the
// record belongs to the library, which may hand it to the delivered callback
// at once: the send lock is held shared until the log line has read the
// record, and the callback releases it only under the exclusive lock. A
// refused message is released here.
int send_and_log(BusConnection *connection, kt5bus_message *message, const char *target) {
    int status = 0;
    {
        SharedHold hold(&connection->send_lock);
        status = zebus_ops.send_message(&connection->client, message, nullptr);
        const char *text = static_cast<const char *>(message->data);
        if (target != nullptr) {
            UOZ_DBGLOG(UOZ_LOG_INFO, "zebus_send_message status=%d, target=%s, id=%05x, msg=%s",
                       status, target, message->id, text);
        } else {
            UOZ_DBGLOG(UOZ_LOG_INFO, "zebus_send_message id=%05x, msg=%s", message->id, text);
        }
    }
    if (status != 0) {
        ZEBUS_ERROR("Failed to send message over Zelko Bus\n");
        zebus_release_message(message);
    }
    return status;
}

bool check_arguments(BusConnection *connection, const char *text) {
    if (connection == nullptr) {
        ZEBUS_ERROR("Zelko Bus connection is NULL");
        return false;
    }
    if (text == nullptr) {
        ZEBUS_ERROR("message is NULL");
        return false;
    }
    return true;
}

}  // namespace

int zebus_send_message_to(BusConnection *connection, const char *text, int kind, const char *name) {
    if (!check_arguments(connection, text))
        return -1;
    kt5bus_message *message = new_message(text);
    if (message == nullptr)
        return -1;
    int status = zebus_ops.chain_address(&message->destination, kind, name, 1);
    if (status != 0) {
        ZEBUS_ERROR("Failed to get address for %s\n", name);
        zebus_release_message(message);
        return status;
    }
    return send_and_log(connection, message, name);
}

int zebus_send_message(BusConnection *connection, const char *text, const char *const *names) {
    if (!check_arguments(connection, text))
        return -1;
    kt5bus_message *message = new_message(text);
    if (message == nullptr)
        return -1;
    bool chained = names != nullptr && names[0] != nullptr;
    for (size_t i = 0; chained && names[i] != nullptr; ++i) {
        if (zebus_ops.chain_address(&message->destination, KT5BUS_ADDR_GROUP, names[i], 1) != 0) {
            ZEBUS_ERROR("Failed to get address for %s", names[i]);
            chained = false;
        }
    }
    if (!chained) {
        ZEBUS_ERROR("Error while adding type handler");
        zebus_release_message(message);
        return -1;
    }
    return send_and_log(connection, message, nullptr);
}

char *zebus_address_to_text(const kt5bus_address *address) {
    if (address == nullptr)
        return nullptr;
    char *text = nullptr;
    switch (address->kind) {
        case KT5BUS_ADDR_UA:
            text = zebus_asprintf("<UA: %s> ", address->value.name);
            break;
        case KT5BUS_ADDR_GROUP:
            text = zebus_asprintf("<GRP: %s>", address->value.name);
            break;
        case KT5BUS_ADDR_SPECIAL:
            text = address->value.special == KT5BUS_SPECIAL_DM_CLIENT
                       ? zebus_asprintf("<DM-CLIENT>")
                       : zebus_asprintf("<UNKNOWN SPECIAL %d>", address->value.special);
            break;
        default:
            text = zebus_asprintf("<UNKNOWN TYPE %d>", address->kind);
            break;
    }
    if (text != nullptr && text[0] == '\0') {
        free(text);
        return nullptr;
    }
    return text;
}
