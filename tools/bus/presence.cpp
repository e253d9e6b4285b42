#include "presence.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <memory>

namespace uozbus {

namespace {

constexpr unsigned char kSubscribe = 0x82, kSubAck = 0x90, kPublish = 0x30, kPingResp = 0xD0;
constexpr char kPresenceFilter[] = "kt5/presence/#";
constexpr char kPresencePrefix[] = "kt5/presence/";

struct X509Free {
    void operator()(X509 *certificate) const { X509_free(certificate); }
};
struct StoreFree {
    void operator()(X509_STORE *store) const { X509_STORE_free(store); }
};
struct StoreCtxFree {
    void operator()(X509_STORE_CTX *context) const { X509_STORE_CTX_free(context); }
};

// An MQTT variable byte integer at bytes[*at]; false when incomplete.
bool read_varint(const std::vector<unsigned char> &bytes, size_t *at, size_t *value) {
    *value = 0;
    for (int shift = 0; shift < 28 && *at < bytes.size(); shift += 7) {
        unsigned char byte = bytes[(*at)++];
        *value |= static_cast<size_t>(byte & 0x7F) << shift;
        if ((byte & 0x80) == 0)
            return true;
    }
    return false;
}

// A QoS 0 PUBLISH body: topic, properties, payload.
void add_publish(const std::vector<unsigned char> &body, PresenceRecords *presence) {
    if (body.size() < 2)
        return;
    size_t topic_length = (static_cast<size_t>(body[0]) << 8) | body[1], at = 2 + topic_length;
    size_t properties = 0;
    if (at > body.size() || !read_varint(body, &at, &properties) || at + properties > body.size())
        return;
    presence->records.emplace_back(std::string(body.begin() + 2, body.begin() + 2 + topic_length),
                                   std::string(body.begin() + at + properties, body.end()));
}

std::string common_name(X509 *certificate) {
    char text[256] = "";
    X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName, text,
                              sizeof(text));
    return text;
}

bool chains_to(X509_STORE *store, X509 *certificate) {
    std::unique_ptr<X509_STORE_CTX, StoreCtxFree> context(X509_STORE_CTX_new());
    return context && X509_STORE_CTX_init(context.get(), store, certificate, nullptr) == 1 &&
           X509_verify_cert(context.get()) == 1;
}

}  // namespace

std::vector<std::string> certificate_uris(X509 *certificate) {
    std::vector<std::string> uris;
    auto *names = static_cast<GENERAL_NAMES *>(
        X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr));
    for (int i = 0; names != nullptr && i < sk_GENERAL_NAME_num(names); ++i) {
        const GENERAL_NAME *name = sk_GENERAL_NAME_value(names, i);
        if (name->type != GEN_URI)
            continue;
        const ASN1_IA5STRING *value = name->d.uniformResourceIdentifier;
        std::string uri(reinterpret_cast<const char *>(ASN1_STRING_get0_data(value)),
                        ASN1_STRING_length(value));
        if (uri.rfind("kt5:ua:", 0) == 0 && uri.compare(7, 1, "/") != 0)
            uri.insert(7, "/");
        uris.push_back(uri);
    }
    GENERAL_NAMES_free(names);
    return uris;
}

std::vector<unsigned char> presence_request() {
    const size_t filter_length = sizeof(kPresenceFilter) - 1;
    // Packet id 1, no properties, the filter, options: QoS 0.
    std::vector<unsigned char> packet = {kSubscribe,
                                         static_cast<unsigned char>(2 + 1 + 2 + filter_length + 1),
                                         0,
                                         1,
                                         0,
                                         0,
                                         static_cast<unsigned char>(filter_length)};
    packet.reserve(packet.size() + filter_length + 3);
    packet.insert(packet.end(), kPresenceFilter, kPresenceFilter + filter_length);
    packet.push_back(0);
    packet.push_back(0xC0);  // PINGREQ
    packet.push_back(0);
    return packet;
}

PresenceRecords parse_presence(const std::vector<unsigned char> &bytes) {
    PresenceRecords presence;
    size_t at = 0;
    while (at < bytes.size() && !presence.complete) {
        unsigned char type = bytes[at++];
        size_t length = 0;
        if (!read_varint(bytes, &at, &length) || at + length > bytes.size())
            break;  // the rest has not arrived yet
        std::vector<unsigned char> body(bytes.begin() + at, bytes.begin() + at + length);
        at += length;
        if ((type & 0xF0) == kPublish && (type & 0x06) == 0) {
            add_publish(body, &presence);
        } else if (type == kSubAck) {
            // Packet id, properties, then one reason code.
            size_t offset = 2, properties = 0;
            presence.refused = !read_varint(body, &offset, &properties) ||
                               offset + properties >= body.size() ||
                               body[offset + properties] >= 0x80;
        } else if (type == kPingResp) {
            presence.complete = true;
        }
    }
    return presence;
}

std::set<std::string> present_addresses(const PresenceRecords &presence,
                                        const std::string &ca_path) {
    std::set<std::string> addresses;
    std::unique_ptr<X509_STORE, StoreFree> store(X509_STORE_new());
    if (!store || X509_STORE_load_file(store.get(), ca_path.c_str()) != 1)
        return addresses;
    for (const auto &[topic, payload] : presence.records) {
        if (payload.empty() || topic.rfind(kPresencePrefix, 0) != 0)
            continue;
        std::string cn = topic.substr(sizeof(kPresencePrefix) - 1);
        cn = cn.substr(0, cn.find('/'));
        std::unique_ptr<BIO, decltype(&BIO_free)> pem(
            BIO_new_mem_buf(payload.data(), static_cast<int>(payload.size())), &BIO_free);
        std::unique_ptr<X509, X509Free> certificate(
            pem ? PEM_read_bio_X509(pem.get(), nullptr, nullptr, nullptr) : nullptr);
        if (!certificate || common_name(certificate.get()) != cn ||
            !chains_to(store.get(), certificate.get()))
            continue;
        for (std::string &uri : certificate_uris(certificate.get()))
            addresses.insert(std::move(uri));
    }
    return addresses;
}

}  // namespace uozbus
