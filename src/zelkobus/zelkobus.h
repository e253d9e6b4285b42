// The bus client wrapper over kt5bus: connection with an X.509 identity,
// sending JSON texts to bus addresses, and the callbacks of the bus library.
#ifndef UOZ_ZELKOBUS_ZELKOBUS_H
#define UOZ_ZELKOBUS_ZELKOBUS_H

#include <stddef.h>
#include <stdint.h>

#include <pthread.h>

#include <atomic>

#include "kt5bus/kt5bus.h"

#define ZEBUS_STATE_CONNECTED 0x2u
#define ZEBUS_STATE_DM_CLIENT 0x4u
#define ZEBUS_STOP_POLL_US 10000
#define ZEBUS_DELIVERY_LOG_LIMIT 4
#define ZEBUS_LAST_ERROR_SIZE 256

typedef int (*zebus_message_cb)(const char *data, size_t length, const kt5bus_address *source,
                                void *user_data);

struct BusConnection {
    kt5bus_client client;  // first: the client pointer is the connection's address
    void *user_data;
    char *broker_url;
    char *node_name;
    char *group_name;
    uint32_t state;
    pthread_mutex_t state_lock;
    std::atomic<uint8_t> running;
    int32_t failed_deliveries;
    zebus_message_cb on_message;
    // Held shared by a send until its log line is written, and exclusively
    // while a delivered message is released, so that no send reads a record
    // that the bus library has already handed back. Valid zero-filled.
    pthread_rwlock_t send_lock;
};

// Every call into the bus library goes through this table.
struct ZebusOps {
    int (*chain_address)(kt5bus_address **list, int kind, ...);
    int (*fini_ll)(void);
    void (*free_address)(kt5bus_address *chain, int free_names);
    int (*get_identity_data)(kt5bus_identity *identity, kt5bus_address **out, void *, void *);
    int (*init_client)(kt5bus_client *client, const char *url);
    int (*init_ll)(kt5bus_ll_config *config);
    int (*send_message)(kt5bus_client *client, kt5bus_message *message, void *unused);
    int (*stop_client)(kt5bus_client *client);
};
extern ZebusOps zebus_ops;

// The calling thread's last wrapper error text.
extern thread_local char zebus_last_error[ZEBUS_LAST_ERROR_SIZE];

BusConnection *zebus_init(const char *cert_subdir, const char *cert_dir, const char *broker_url,
                          void *user_data, zebus_message_cb on_message, uint32_t bus_option);
void zebus_stop(BusConnection *connection);

int zebus_send_message_to(BusConnection *connection, const char *text, int kind, const char *name);
int zebus_send_message(BusConnection *connection, const char *text, const char *const *names);
char *zebus_address_to_text(const kt5bus_address *address);

void zebus_on_message(kt5bus_client *client, kt5bus_message *message);
void zebus_on_status(kt5bus_client *client, int status);
void zebus_on_delivered(kt5bus_client *client, kt5bus_message *message, void *unused, int ok);
void zebus_on_presence(kt5bus_client *client, kt5bus_address *connected,
                       kt5bus_address *disconnected);
void zebus_on_stopped(kt5bus_client *client);

void *zebus_zalloc(size_t size);
char *zebus_asprintf(const char *format, ...) __attribute__((format(printf, 1, 2)));
kt5bus_buffer *zebus_read_file(const char *path);
int zebus_load_identity(kt5bus_identity *identity, const char *directory);
int zebus_load_x509_identity(kt5bus_identity *identity, const char *key_path, const char *cert_path,
                             const char *ca_path);
void zebus_release_identity(kt5bus_identity *identity);
char *zebus_identity_name(kt5bus_identity *identity, int kind);
void zebus_debug_sink(const char *text);

#endif
