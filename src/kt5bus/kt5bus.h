/*
 * kt5bus: an authenticated publish/deliver message bus client over MQTT 5.
 *
 * A client connects to the broker "tcp://host:port" over TLS with an X.509
 * identity held in memory. Its bus addresses (update agent, groups, the
 * device-management client) are the subjectAltName URIs of its certificate:
 * "kt5:ua:<name>", "kt5:group:<name>", "kt5:special:dm-client". It receives the
 * messages sent to any of its addresses and learns which peers are present.
 *
 * Answers: every message a client sends names the sending connection's reply
 * route, so that an answer reaches that one connection and no other process
 * of the same node. A receiver reads the route of a message with
 * kt5bus_reply_route and answers on it with kt5bus_send_reply.
 *
 * Threads: kt5bus_init_client starts one thread per client, which connects,
 * reconnects and runs every callback of the client record. All operations may
 * be called from any thread.
 */
#ifndef KT5BUS_H
#define KT5BUS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define KT5BUS_EXTERN __attribute__((visibility("default")))
#else
#define KT5BUS_EXTERN
#endif

/* Address kinds. */
#define KT5BUS_ADDR_SPECIAL 1
#define KT5BUS_ADDR_UA 2
#define KT5BUS_ADDR_GROUP 3

/* Special address codes. */
#define KT5BUS_SPECIAL_DM_CLIENT 0

/* Identity kinds and buffer encodings. */
#define KT5BUS_IDENTITY_X509 1
#define KT5BUS_ENCODING_PEM 2

/* Status codes reported to the status callback. */
#define KT5BUS_STATUS_RUNNING 0
#define KT5BUS_STATUS_RESOLUTION_FAILED 1
#define KT5BUS_STATUS_CONNECTION_FAILED 2
#define KT5BUS_STATUS_REGISTRATION_FAILED 3
#define KT5BUS_STATUS_CONNECTION_BROKE 4
#define KT5BUS_STATUS_CONNECTION_ABORTED 5
#define KT5BUS_STATUS_CLIENT_STOPPED 6
#define KT5BUS_STATUS_START 7

/* Result codes of the operations. */
#define KT5BUS_OK 0
#define KT5BUS_ERR_INVALID (-1)  /* bad argument */
#define KT5BUS_ERR_NOMEM (-2)    /* memory exhausted */
#define KT5BUS_ERR_IDENTITY (-3) /* identity unusable (PEM, key, CA) */
#define KT5BUS_ERR_URL (-4)      /* broker URL not "tcp://host:port" */
#define KT5BUS_ERR_STATE (-5)    /* client not started, or stopping */
#define KT5BUS_ERR_FULL (-6)     /* too many unacknowledged messages */
#define KT5BUS_ERR_MQTT (-7)     /* the MQTT layer refused */

/** Most unacknowledged messages one client holds; further sends are refused. */
#define KT5BUS_MAX_PENDING 1024
/** Seconds after which an unacknowledged message is reported not delivered. */
#define KT5BUS_DELIVERY_TIMEOUT_SECONDS 30

/** One file in memory. */
typedef struct kt5bus_buffer {
    void *data;    /* heap bytes */
    size_t length; /* bytes, the terminating zero byte of a PEM text included */
    uintptr_t reserved;
    int encoding; /* KT5BUS_ENCODING_PEM */
} kt5bus_buffer;

/** An X.509 identity: node certificate chain, private key and trusted CA. */
typedef struct kt5bus_x509 {
    kt5bus_buffer **chain; /* NULL-terminated; [0] is the node certificate */
    kt5bus_buffer *private_key;
    void *reserved;
    kt5bus_buffer **trust; /* NULL-terminated; [0] is the CA certificate */
    void *extra;           /* never set by callers; freed with the identity */
} kt5bus_x509;

typedef struct kt5bus_identity {
    int kind; /* KT5BUS_IDENTITY_X509, or 0 when released */
    kt5bus_x509 x509;
} kt5bus_identity;

/** One link of an address chain. */
typedef struct kt5bus_address {
    int kind; /* KT5BUS_ADDR_* */
    union {
        char *name;  /* KT5BUS_ADDR_UA, KT5BUS_ADDR_GROUP */
        int special; /* KT5BUS_ADDR_SPECIAL */
    } value;
    struct kt5bus_address *next;
} kt5bus_address;

/** A message handed to kt5bus_send_message or received by the message callback. */
typedef struct kt5bus_message {
    const char *content_type;    /* e.g. "application/json" */
    kt5bus_address *destination; /* outgoing: destination chain */
    kt5bus_address *source;      /* incoming: the sender's first address */
    uintptr_t reserved3;         /* incoming: the reply route; read it with kt5bus_reply_route */
    uintptr_t reserved4;
    void *data;    /* payload bytes */
    size_t length; /* payload length in bytes */
    uintptr_t reserved7;
    uint32_t id; /* assigned by kt5bus_send_message */
    uintptr_t reserved9;
} kt5bus_message;

typedef struct kt5bus_client kt5bus_client;

typedef void (*kt5bus_stopped_cb)(kt5bus_client *client);
typedef void (*kt5bus_presence_cb)(kt5bus_client *client, kt5bus_address *connected,
                                   kt5bus_address *disconnected);
typedef void (*kt5bus_status_cb)(kt5bus_client *client, int status);
typedef void (*kt5bus_delivered_cb)(kt5bus_client *client, kt5bus_message *message, void *unused,
                                    int ok);
typedef void (*kt5bus_message_cb)(kt5bus_client *client, kt5bus_message *message);

/** The client record; the caller zero-fills it and sets mode, identity and callbacks. */
struct kt5bus_client {
    int mode; /* 1: the library runs the client on its own thread */
    kt5bus_identity identity;
    kt5bus_stopped_cb on_stopped;
    kt5bus_presence_cb on_presence;
    kt5bus_status_cb on_status;
    kt5bus_delivered_cb on_delivered;
    kt5bus_message_cb on_message;
    void *internal; /* the library's own state; leave NULL */
    void *reserved13;
    void *owner; /* free for the caller */
    void *reserved15;
};

/** Low-level configuration. */
typedef struct kt5bus_ll_config {
    void *reserved0;
    void *reserved1;
    void *reserved2;
    void (*debug)(const char *text); /* receives the library's debug texts, or NULL */
    void *reserved4;
} kt5bus_ll_config;

/*
 * Prepare the library (reference-counted: every call needs one
 * kt5bus_fini_ll). Returns 0.
 */
KT5BUS_EXTERN int kt5bus_init_ll(kt5bus_ll_config *config);

/* Undo one kt5bus_init_ll. Returns 0. */
KT5BUS_EXTERN int kt5bus_fini_ll(void);

/*
 * Store in *out a new chain of the addresses named by the identity's
 * certificate, in certificate order. The two further pointers are unused.
 * Returns 0, or KT5BUS_ERR_INVALID / KT5BUS_ERR_IDENTITY. Release the chain with
 * kt5bus_free_address(chain, 1).
 */
KT5BUS_EXTERN int kt5bus_get_identity_data(kt5bus_identity *identity, kt5bus_address **out,
                                           void *unused1, void *unused2);

/*
 * Start the client with its identity and callbacks and connect it to url
 * ("tcp://host:port"). The identity is copied; the record must stay valid
 * until the stopped callback. Returns 0 when the client thread runs (the
 * broker need not be reachable yet: the client keeps trying), or a negative
 * KT5BUS_ERR_* code when the identity or URL is unusable.
 */
KT5BUS_EXTERN int kt5bus_init_client(kt5bus_client *client, const char *url);

/*
 * Stop the client: every pending message is reported not delivered, the
 * presence record is withdrawn by publishing it empty (the Will only when the
 * broker does not acknowledge that), the stopped callback runs (on the calling
 * thread when the client thread is gone), and the call returns once the
 * client thread has ended. After it no callback of the record runs. Accepts a
 * record that never started (the stopped callback still runs). Returns 0.
 */
KT5BUS_EXTERN int kt5bus_stop_client(kt5bus_client *client);

/*
 * Append an address to the chain in *list (NULL = empty). For kinds
 * KT5BUS_ADDR_UA and KT5BUS_ADDR_GROUP the further arguments are the name
 * (const char *) and an int copy flag (1: the library copies the name; 0: it
 * takes the heap text over); for KT5BUS_ADDR_SPECIAL an int code. Names that
 * are empty or hold '+', '#' are refused. Returns 0 or a negative code.
 */
KT5BUS_EXTERN int kt5bus_chain_address(kt5bus_address **list, int kind, ...);

/* Release a chain; with free_names 1 also the names. NULL is accepted. */
KT5BUS_EXTERN void kt5bus_free_address(kt5bus_address *chain, int free_names);

/*
 * Accept a message for delivery to its destination chain (QoS 1). On 0 the
 * library owns the record until it hands it to the delivered callback exactly
 * once, never before this call has returned; the callback's receiver releases
 * it. On a nonzero result the caller keeps the record. The third argument is
 * unused. "Delivered" (ok 1) means the broker accepted the message; where
 * the broker reports that no subscription matched (MQTT 5 reason 0x10, which
 * brokers need not send) the message is reported not delivered.
 */
KT5BUS_EXTERN int kt5bus_send_message(kt5bus_client *client, kt5bus_message *message, void *unused);

/*
 * The reply route of a message the message callback received: the text that
 * names the one connection that sent it, or NULL when the sender named none
 * (its broker does not let it receive answers that way, or it is an older
 * client: answer it at its address, message->source). The text lives as long
 * as the callback runs; copy it to answer later.
 */
KT5BUS_EXTERN const char *kt5bus_reply_route(const kt5bus_message *message);

/*
 * Accept a message as the answer to a received message, for delivery to the
 * connection that its route (a copy of kt5bus_reply_route's text) names. The
 * destination chain is not used and may be NULL; the receiver sees this
 * client's first address as the source, as with kt5bus_send_message, whose
 * ownership and delivery rules apply. The broker accepts an answer only from
 * the nodes that may answer the receiver (its ACL); a refused answer is
 * reported not delivered. Returns KT5BUS_ERR_INVALID when route is not a
 * reply route.
 */
KT5BUS_EXTERN int kt5bus_send_reply(kt5bus_client *client, kt5bus_message *message,
                                    const char *route);

#ifdef __cplusplus
}
#endif

#endif /* KT5BUS_H */
