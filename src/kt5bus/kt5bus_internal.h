// Internals of the bus library shared by its source files.
#ifndef KT5BUS_INTERNAL_H
#define KT5BUS_INTERNAL_H

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <string>
#include <string_view>
#include <vector>

#include "kt5bus/kt5bus.h"

namespace kt5 {

// One bus address as the certificate names it.
struct Address {
    int kind = 0;
    std::string name;  // update agent or group name
    int special = 0;   // special code
};

// What a node certificate says about its owner.
struct CertificateInfo {
    std::string common_name;
    std::vector<Address> addresses;
};

// Writes a debug text to the sink given to kt5bus_init_ll, if any.
void debug(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Parses a PEM certificate; nullptr when it is not one.
X509 *parse_certificate(const char *pem, size_t length);
// CN and subjectAltName addresses ("kt5:ua:", "kt5:group:", "kt5:special:dm-client").
CertificateInfo certificate_info(X509 *certificate);
// True when the certificate chains up to a CA of the store.
bool verify_certificate(X509_STORE *store, X509 *certificate);
// The TLS context of a client: its certificate and key, the CA as the only
// trust anchor, peer verification and the broker's host name checked.
SSL_CTX *new_tls_context(const kt5bus_identity *identity, const std::string &host);
// The PEM text of a buffer (without its terminating zero byte).
std::string buffer_text(const kt5bus_buffer *buffer);

// A chain of the addresses (names copied); release with kt5bus_free_address.
kt5bus_address *new_address_chain(const std::vector<Address> &addresses);
bool valid_name(const char *name);

// Topic of a message sent by `sender_cn` to one address; empty when the
// address cannot be a destination.
std::string message_topic(const std::string &sender_cn, const kt5bus_address &destination);
// Subscription for messages to one of the own addresses.
std::string subscription_for(const Address &address);
std::string presence_topic(const std::string &cn, const std::string &client_id);
// The reply route of one connection, "kt5/reply/<cn>/<client id>"; an answer
// goes to the route followed by "/<answering cn>".
std::string reply_route(const std::string &cn, const std::string &client_id);
// True when `route` is a reply route of a connection of node `cn` (of any
// node when cn is empty): the sender may name no other node's connection.
bool valid_reply_route(std::string_view route, std::string_view cn = {});

}  // namespace kt5

#endif
