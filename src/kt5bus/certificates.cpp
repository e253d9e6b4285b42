// Identities: certificates, their bus addresses and the TLS context.
#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <string.h>

#include <memory>

#include "kt5bus/kt5bus_internal.h"

namespace kt5 {

namespace {

struct BioFree {
    void operator()(BIO *bio) const { BIO_free(bio); }
};
struct X509Free {
    void operator()(X509 *certificate) const { X509_free(certificate); }
};
struct KeyFree {
    void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
};
struct NamesFree {
    void operator()(GENERAL_NAMES *names) const { GENERAL_NAMES_free(names); }
};
struct StoreContextFree {
    void operator()(X509_STORE_CTX *context) const { X509_STORE_CTX_free(context); }
};

std::unique_ptr<BIO, BioFree> memory_bio(const char *data, size_t length) {
    return std::unique_ptr<BIO, BioFree>(BIO_new_mem_buf(data, static_cast<int>(length)));
}

// "kt5:ua:<name>", "kt5:group:<name>", "kt5:special:dm-client"
bool parse_address_uri(const std::string &uri, Address *address) {
    const std::string ua = "kt5:ua:", group = "kt5:group:";
    if (uri.compare(0, ua.size(), ua) == 0 && uri.size() > ua.size()) {
        address->kind = KT5BUS_ADDR_UA;
        address->name = uri.substr(ua.size());
    } else if (uri.compare(0, group.size(), group) == 0 && uri.size() > group.size()) {
        address->kind = KT5BUS_ADDR_GROUP;
        address->name = uri.substr(group.size());
    } else if (uri == "kt5:special:dm-client") {
        address->kind = KT5BUS_ADDR_SPECIAL;
        address->special = KT5BUS_SPECIAL_DM_CLIENT;
    } else {
        return false;
    }
    return address->kind == KT5BUS_ADDR_SPECIAL || valid_name(address->name.c_str());
}

// The broker's certificate must name the host we connect to: a DNS name or
// an IP address.
bool expect_broker_name(X509_VERIFY_PARAM *param, const std::string &host) {
    unsigned char address[16];
    bool literal = inet_pton(AF_INET, host.c_str(), address) == 1 ||
                   inet_pton(AF_INET6, host.c_str(), address) == 1;
    if (literal)
        return X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str()) == 1;
    return X509_VERIFY_PARAM_set1_host(param, host.c_str(), 0) == 1;
}

void log_tls_errors(const char *what) {
    unsigned long error = ERR_get_error();
    char text[256] = "unknown error";
    if (error != 0)
        ERR_error_string_n(error, text, sizeof(text));
    debug("%s: %s", what, text);
    ERR_clear_error();
}

}  // namespace

std::string buffer_text(const kt5bus_buffer *buffer) {
    if (buffer == nullptr || buffer->data == nullptr)
        return "";
    const char *data = static_cast<const char *>(buffer->data);
    return std::string(data, strnlen(data, buffer->length));
}

X509 *parse_certificate(const char *pem, size_t length) {
    auto bio = memory_bio(pem, length);
    return bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr;
}

CertificateInfo certificate_info(X509 *certificate) {
    CertificateInfo info;
    char common_name[256] = "";
    if (X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName, common_name,
                                  sizeof(common_name)) > 0) {
        info.common_name = common_name;
    }
    std::unique_ptr<GENERAL_NAMES, NamesFree> names(static_cast<GENERAL_NAMES *>(
        X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
    for (int i = 0; names && i < sk_GENERAL_NAME_num(names.get()); ++i) {
        const GENERAL_NAME *name = sk_GENERAL_NAME_value(names.get(), i);
        if (name->type != GEN_URI)
            continue;
        const ASN1_STRING *uri = name->d.uniformResourceIdentifier;
        std::string text(reinterpret_cast<const char *>(ASN1_STRING_get0_data(uri)),
                         static_cast<size_t>(ASN1_STRING_length(uri)));
        Address address;
        if (parse_address_uri(text, &address))
            info.addresses.push_back(address);
    }
    return info;
}

bool verify_certificate(X509_STORE *store, X509 *certificate) {
    std::unique_ptr<X509_STORE_CTX, StoreContextFree> context(X509_STORE_CTX_new());
    if (!context || X509_STORE_CTX_init(context.get(), store, certificate, nullptr) != 1) {
        return false;
    }
    return X509_verify_cert(context.get()) == 1;
}

SSL_CTX *new_tls_context(const kt5bus_identity *identity, const std::string &host) {
    const kt5bus_x509 &x509 = identity->x509;
    std::string certificate_pem = buffer_text(x509.chain[0]);
    std::string key_pem = buffer_text(x509.private_key);
    std::string ca_pem = buffer_text(x509.trust[0]);
    std::unique_ptr<X509, X509Free> certificate(
        parse_certificate(certificate_pem.data(), certificate_pem.size()));
    std::unique_ptr<X509, X509Free> ca(parse_certificate(ca_pem.data(), ca_pem.size()));
    auto key_bio = memory_bio(key_pem.data(), key_pem.size());
    std::unique_ptr<EVP_PKEY, KeyFree> key(
        key_bio ? PEM_read_bio_PrivateKey(key_bio.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!certificate || !ca || !key) {
        log_tls_errors("identity PEM unreadable");
        return nullptr;
    }
    SSL_CTX *context = SSL_CTX_new(TLS_client_method());
    if (context == nullptr)
        return nullptr;
    bool ok = SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) == 1 &&
              SSL_CTX_use_certificate(context, certificate.get()) == 1 &&
              SSL_CTX_use_PrivateKey(context, key.get()) == 1 &&
              SSL_CTX_check_private_key(context) == 1 &&
              X509_STORE_add_cert(SSL_CTX_get_cert_store(context), ca.get()) == 1 &&
              expect_broker_name(SSL_CTX_get0_param(context), host);
    if (!ok) {
        log_tls_errors("TLS context");
        SSL_CTX_free(context);
        return nullptr;
    }
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    return context;
}

}  // namespace kt5

int kt5bus_get_identity_data(kt5bus_identity *identity, kt5bus_address **out, void *, void *) {
    if (identity == nullptr || out == nullptr)
        return KT5BUS_ERR_INVALID;
    if (identity->kind != KT5BUS_IDENTITY_X509 || identity->x509.chain == nullptr ||
        identity->x509.chain[0] == nullptr) {
        return KT5BUS_ERR_IDENTITY;
    }
    std::string pem = kt5::buffer_text(identity->x509.chain[0]);
    std::unique_ptr<X509, kt5::X509Free> certificate(
        kt5::parse_certificate(pem.data(), pem.size()));
    if (!certificate)
        return KT5BUS_ERR_IDENTITY;
    *out = kt5::new_address_chain(kt5::certificate_info(certificate.get()).addresses);
    return KT5BUS_OK;
}
