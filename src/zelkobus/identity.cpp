// The node's X.509 identity: private key, certificate and CA certificate read
// from PEM files, and the addresses its certificate names.
#include <stdlib.h>
#include <string.h>

#include "zelkobus/zelkobus_internal.h"

namespace {

kt5bus_buffer **new_buffer_list() {
    return static_cast<kt5bus_buffer **>(calloc(2, sizeof(kt5bus_buffer *)));
}

void release_buffer_list(kt5bus_buffer **list) {
    if (list == nullptr)
        return;
    for (kt5bus_buffer **entry = list; *entry != nullptr; ++entry)
        zebus_release_buffer(*entry);
    free(list);
}

}  // namespace

void zebus_release_identity(kt5bus_identity *identity) {
    if (identity == nullptr || identity->kind != KT5BUS_IDENTITY_X509)
        return;
    release_buffer_list(identity->x509.trust);
    identity->x509.trust = nullptr;
    release_buffer_list(identity->x509.chain);
    identity->x509.chain = nullptr;
    free(identity->x509.extra);
    identity->x509.extra = nullptr;
    zebus_release_buffer(identity->x509.private_key);
    identity->x509.private_key = nullptr;
    identity->kind = 0;
}

namespace {

// Reports why the identity could not be loaded and releases what was read.
int identity_failure(kt5bus_identity *identity, const char *what) {
    ZEBUS_ERROR("%s", what);
    zebus_release_identity(identity);
    return 1;
}

}  // namespace

// Files are read in the order private key, CA certificate, node certificate;
// the first failure stops the load and releases what was read.
int zebus_load_x509_identity(kt5bus_identity *identity, const char *key_path, const char *cert_path,
                             const char *ca_path) {
    memset(identity, 0, sizeof(*identity));
    identity->kind = KT5BUS_IDENTITY_X509;
    kt5bus_x509 &x509 = identity->x509;
    x509.private_key = zebus_read_file(key_path);
    if (x509.private_key == nullptr)
        return identity_failure(identity, "identity->x509.private_key is NULL");
    x509.trust = new_buffer_list();
    if (x509.trust == nullptr)
        return identity_failure(identity, "identity->x509.trust is NULL");
    x509.chain = new_buffer_list();
    if (x509.chain == nullptr)
        return identity_failure(identity, "identity->x509.chain is NULL");
    x509.trust[0] = zebus_read_file(ca_path);
    if (x509.trust[0] == nullptr)
        return identity_failure(identity, "identity->x509.trust[0] is NULL");
    x509.chain[0] = zebus_read_file(cert_path);
    if (x509.chain[0] == nullptr)
        return identity_failure(identity, "identity->x509.chain[0] is NULL");
    return 0;
}

int zebus_load_identity(kt5bus_identity *identity, const char *directory) {
    char *key_path = zebus_asprintf("%s/private.pem", directory);
    char *cert_path = zebus_asprintf("%s/cert.pem", directory);
    char *ca_path = zebus_asprintf("%s/../ca/ca.pem", directory);
    int result = 1;
    if (key_path != nullptr && cert_path != nullptr && ca_path != nullptr) {
        result = zebus_load_x509_identity(identity, key_path, cert_path, ca_path);
    }
    free(key_path);
    free(cert_path);
    free(ca_path);
    return result;
}

char *zebus_identity_name(kt5bus_identity *identity, int kind) {
    kt5bus_address *chain = nullptr;
    char *name = nullptr;
    if (zebus_ops.get_identity_data(identity, &chain, nullptr, nullptr) == 0) {
        for (kt5bus_address *address = chain; address != nullptr; address = address->next) {
            switch (address->kind) {
                case KT5BUS_ADDR_UA:
                case KT5BUS_ADDR_GROUP:
                    if (name == nullptr && kind == address->kind) {
                        name = uoz_strdup(address->value.name);
                        UOZ_DBGLOG(UOZ_LOG_INFO, "type=%d, %s=%s", address->kind,
                                   kind == KT5BUS_ADDR_UA ? "ua" : "group", address->value.name);
                    }
                    break;
                case KT5BUS_ADDR_SPECIAL:
                    UOZ_DBGLOG(UOZ_LOG_INFO, "type=%d, special=%d", address->kind,
                               address->value.special);
                    break;
                default:
                    UOZ_DBGLOG(UOZ_LOG_ERR, "type=%d", address->kind);
                    break;
            }
        }
    }
    zebus_ops.free_address(chain, 1);
    return name;
}
