// What the bus library reports back: messages, status, deliveries, presence
// and the end of the client. All run on the bus library's thread.
#include <stdlib.h>

#include "kt5Utils/locks.h"
#include "zelkobus/zelkobus_internal.h"

namespace {

// The owner pointer is published by zebus_init after the client started, while
// the bus thread may already be calling back: it is read and written atomically.
BusConnection *owner_of(kt5bus_client *client) {
    if (client == nullptr)
        return nullptr;
    return static_cast<BusConnection *>(__atomic_load_n(&client->owner, __ATOMIC_ACQUIRE));
}

const char *status_text(int status) {
    switch (status) {
        case KT5BUS_STATUS_RUNNING:
            return "running";
        case KT5BUS_STATUS_RESOLUTION_FAILED:
            return "resolution failed";
        case KT5BUS_STATUS_CONNECTION_FAILED:
            return "connection failed";
        case KT5BUS_STATUS_REGISTRATION_FAILED:
            return "registration failed";
        case KT5BUS_STATUS_CONNECTION_BROKE:
            return "connection broke";
        case KT5BUS_STATUS_CONNECTION_ABORTED:
            return "connection aborted";
        case KT5BUS_STATUS_CLIENT_STOPPED:
            return "client stopped";
        case KT5BUS_STATUS_START:
            return "start";
        default:
            return nullptr;
    }
}

bool is_dm_client(const kt5bus_address *address) {
    return address->kind == KT5BUS_ADDR_SPECIAL &&
           address->value.special == KT5BUS_SPECIAL_DM_CLIENT;
}

// Logs each address of a presence chain and applies its state change.
void apply_presence(BusConnection *connection, kt5bus_address *chain, bool connected) {
    for (kt5bus_address *address = chain; address != nullptr; address = address->next) {
        char *text = zebus_address_to_text(address);
        if (text == nullptr)
            continue;
        if (connected) {
            if (is_dm_client(address))
                connection->state |= ZEBUS_STATE_DM_CLIENT;
            connection->state |= ZEBUS_STATE_CONNECTED;
            UOZ_DBGLOG(UOZ_LOG_INFO, "Connected: %s", text);
        } else {
            if (is_dm_client(address))
                connection->state &= ~ZEBUS_STATE_DM_CLIENT;
            UOZ_DBGLOG(UOZ_LOG_INFO, "Disconnected: %s", text);
        }
        free(text);
    }
}

}  // namespace

void zebus_on_message(kt5bus_client *client, kt5bus_message *message) {
    if (client == nullptr) {
        ZEBUS_ERROR("client is NULL");
        return;
    }
    if (message == nullptr) {
        ZEBUS_ERROR("msg is NULL");
        return;
    }
    BusConnection *connection = owner_of(client);
    if (connection == nullptr || connection->on_message == nullptr)
        return;
    connection->on_message(static_cast<const char *>(message->data), message->length,
                           message->source, connection->user_data);
}

void zebus_on_status(kt5bus_client *, int status) {
    const char *text = status_text(status);
    if (text == nullptr) {
        UOZ_DBGLOG(UOZ_LOG_ERR, "Zelko Bus error: condition=%d", status);
    } else if (status == KT5BUS_STATUS_RUNNING || status == KT5BUS_STATUS_START) {
        UOZ_DBGLOG(UOZ_LOG_INFO, "Zelko Bus connection: %s", text);
    } else {
        UOZ_DBGLOG(UOZ_LOG_ERR, "Zelko Bus error: %s", text);
    }
}

void zebus_on_delivered(kt5bus_client *client, kt5bus_message *message, void *, int ok) {
    if (message == nullptr)
        return;
    BusConnection *connection = owner_of(client);
    if (connection == nullptr) {
        zebus_release_message(message);
        return;
    }
    if (ok) {
        UOZ_DBGLOG(UOZ_LOG_D2BG, "BUS ACK %05x %s", message->id,
                   static_cast<const char *>(message->data));
        connection->failed_deliveries = 0;
    } else {
        if (connection->failed_deliveries < ZEBUS_DELIVERY_LOG_LIMIT) {
            UOZ_DBGLOG(UOZ_LOG_WARN, "BUS ERR %05x %s", message->id,
                       static_cast<const char *>(message->data));
        }
        ++connection->failed_deliveries;
    }
    // Not while a send still reads the record for its log line.
    ExclusiveHold hold(&connection->send_lock);
    zebus_release_message(message);
}

void zebus_on_presence(kt5bus_client *client, kt5bus_address *connected,
                       kt5bus_address *disconnected) {
    BusConnection *connection = owner_of(client);
    if (connection == nullptr)
        return;
    MutexHold hold(&connection->state_lock);
    apply_presence(connection, connected, true);
    apply_presence(connection, disconnected, false);
    UOZ_DBGLOG(UOZ_LOG_INFO, "Zelko Bus state: 0x%02x", connection->state);
}

void zebus_on_stopped(kt5bus_client *client) {
    BusConnection *connection = owner_of(client);
    if (connection != nullptr)
        connection->running.store(0);
}
