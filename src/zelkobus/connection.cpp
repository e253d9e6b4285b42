// Starting and stopping the bus connection.
#include <stdlib.h>
#include <unistd.h>

#include "zelkobus/zelkobus_internal.h"

ZebusOps zebus_ops;

namespace {

void fill_ops() {
    zebus_ops.chain_address = kt5bus_chain_address;
    zebus_ops.fini_ll = kt5bus_fini_ll;
    zebus_ops.free_address = kt5bus_free_address;
    zebus_ops.get_identity_data = kt5bus_get_identity_data;
    zebus_ops.init_client = kt5bus_init_client;
    zebus_ops.init_ll = kt5bus_init_ll;
    zebus_ops.send_message = kt5bus_send_message;
    zebus_ops.stop_client = kt5bus_stop_client;
}

void set_callbacks(kt5bus_client *client) {
    client->mode = 1;
    client->on_stopped = zebus_on_stopped;
    client->on_presence = zebus_on_presence;
    client->on_status = zebus_on_status;
    client->on_delivered = zebus_on_delivered;
    client->on_message = zebus_on_message;
}

// Loads the identity from the identity directory and notes the node's names.
bool load_identity(BusConnection *connection, const char *directory, const char *cert_dir) {
    if (zebus_load_identity(&connection->client.identity, directory) != 0) {
        ZEBUS_ERROR("Failed to load identity certificate from %s", directory);
        return false;
    }
    connection->node_name = zebus_identity_name(&connection->client.identity, KT5BUS_ADDR_UA);
    connection->group_name = zebus_identity_name(&connection->client.identity, KT5BUS_ADDR_GROUP);
    UOZ_DBGLOG(UOZ_LOG_INFO, "node=%s, cert_dir=%s", connection->node_name, cert_dir);
    return true;
}

// Allocates the connection, prepares the bus library and fills the client
// record; nullptr when memory runs out (after reporting).
BusConnection *new_connection(const char *broker_url, zebus_message_cb on_message) {
    auto *connection = static_cast<BusConnection *>(zebus_zalloc(sizeof(BusConnection)));
    if (connection == nullptr) {
        ZEBUS_ERROR("memmory allocation failed");
        return nullptr;
    }
    fill_ops();
    kt5bus_ll_config config{};
    config.debug = zebus_debug_sink;
    zebus_ops.init_ll(&config);
    connection->running = 0;
    connection->broker_url = uoz_strdup(broker_url);
    set_callbacks(&connection->client);
    connection->on_message = on_message;
    return connection;
}

// Loads the identity from cert_dir, or from its sub-directory cert_subdir.
bool load_identity_from(BusConnection *connection, const char *cert_subdir, const char *cert_dir) {
    char *directory = cert_subdir != nullptr ? zebus_asprintf("%s/%s", cert_dir, cert_subdir)
                                             : uoz_strdup(cert_dir);
    if (directory == nullptr || connection->broker_url == nullptr) {
        ZEBUS_ERROR("memmory allocation failed");
        free(directory);
        return false;
    }
    bool loaded = load_identity(connection, directory, cert_dir);
    free(directory);
    return loaded;
}

// Starts the client; the status of kt5bus_init_client.
int start_client(BusConnection *connection, void *user_data) {
    int status = zebus_ops.init_client(&connection->client, connection->broker_url);
    if (status != 0) {
        // Reported before the stop sequence, as every failure of zebus_init
        // is; the closing line repeats it.
        ZEBUS_ERROR("Failed to init kt5bus client err=%d.", status);
        return status;
    }
    connection->user_data = user_data;
    connection->running = 1;
    // Published last: a callback that sees the owner sees the rest.
    __atomic_store_n(&connection->client.owner, static_cast<void *>(connection), __ATOMIC_RELEASE);
    return 0;
}

}  // namespace

BusConnection *zebus_init(const char *cert_subdir, const char *cert_dir, const char *broker_url,
                          void *user_data, zebus_message_cb on_message, uint32_t bus_option) {
    (void)bus_option;  // accepted for the bus library's options; not read
    int status = -1;
    BusConnection *connection = nullptr;
    if (cert_dir == nullptr) {
        ZEBUS_ERROR("cert_dir is NULL");
    } else if (broker_url == nullptr) {
        ZEBUS_ERROR("broker_url is NULL");
    } else {
        connection = new_connection(broker_url, on_message);
        if (connection != nullptr && load_identity_from(connection, cert_subdir, cert_dir)) {
            status = start_client(connection, user_data);
            if (status == 0)
                return connection;
        }
    }
    zebus_stop(connection);
    UOZ_DBGLOG(UOZ_LOG_ERR, "Failed to init kt5bus client err=%d.", status);
    return nullptr;
}

// Waits without limit for the stopped callback: releasing the record while
// the bus library may still call into it would be worse than hanging.
void zebus_stop(BusConnection *connection) {
    if (connection == nullptr)
        return;
    zebus_ops.stop_client(&connection->client);
    do {
        usleep(ZEBUS_STOP_POLL_US);
    } while (connection->running.load() != 0);
    zebus_release_identity(&connection->client.identity);
    free(connection->node_name);
    free(connection->group_name);
    free(connection->broker_url);
    zebus_ops.fini_ll();
    free(connection);
}
