// Feeds sequences of incoming MQTT messages to the bus library's inbox. The
// input is fields separated by the byte 0xFF: topic, content type, payload,
// topic, ... (a missing field is empty). It holds presence records with real, forged and mangled
// certificates, absences, and messages to our addresses. Besides memory
// errors it catches a message delivered with a source that no certificate of
// our CA vouches for.
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <openssl/pem.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "kt5bus/inbox.h"

namespace {

std::string g_sender_cn;  // CN in the topic of the message being received

X509_STORE *trusted_store() {
    X509_STORE *store = X509_STORE_new();
    FILE *file = fopen(UOZ_FUZZ_CERT_DIR "/ca.pem", "r");
    X509 *ca = file != nullptr ? PEM_read_X509(file, nullptr, nullptr, nullptr) : nullptr;
    if (store == nullptr || ca == nullptr || X509_STORE_add_cert(store, ca) != 1)
        abort();
    fclose(file);
    X509_free(ca);
    return store;
}

void check_name(const char *name) {
    if (name == nullptr)
        abort();
    volatile size_t length = strlen(name);
    (void)length;
}

void check_chain(const kt5bus_address *chain) {
    for (; chain != nullptr; chain = chain->next) {
        if (chain->kind == KT5BUS_ADDR_UA || chain->kind == KT5BUS_ADDR_GROUP)
            check_name(chain->value.name);
    }
}

// Only the agent's and the DM client's certificates come from our CA.
void check_source(const kt5bus_address *source) {
    if (source == nullptr)
        return;
    if (g_sender_cn == "agent") {
        if (source->kind != KT5BUS_ADDR_UA || strcmp(source->value.name, "/ZDATA/UDS") != 0)
            abort();
    } else if (g_sender_cn == "dmc") {
        if (source->kind != KT5BUS_ADDR_SPECIAL ||
            source->value.special != KT5BUS_SPECIAL_DM_CLIENT)
            abort();
    } else {
        abort();  // a source for a sender that nothing vouches for
    }
}

void on_message(kt5bus_client *, kt5bus_message *message) {
    // An exact-size copy, so that a wrong length is caught.
    std::vector<char> bytes(static_cast<const char *>(message->data),
                            static_cast<const char *>(message->data) + message->length);
    if (message->content_type != nullptr)
        check_name(message->content_type);
    check_source(message->source);
}

void on_presence(kt5bus_client *, kt5bus_address *connected, kt5bus_address *disconnected) {
    check_chain(connected);
    check_chain(disconnected);
}

constexpr uint8_t kSeparator = 0xFF;

// The next field of the input, starting at *position.
std::string next_field(const uint8_t *data, size_t size, size_t *position) {
    size_t start = *position;
    size_t end = start;
    while (end < size && data[end] != kSeparator)
        ++end;
    *position = end < size ? end + 1 : size;
    return std::string(reinterpret_cast<const char *>(data) + start, end - start);
}

mosquitto_property *content_type_property(const std::string &content_type) {
    mosquitto_property *properties = nullptr;
    if (!content_type.empty())
        mosquitto_property_add_string(&properties, MQTT_PROP_CONTENT_TYPE, content_type.c_str());
    return properties;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static X509_STORE *store = trusted_store();
    kt5bus_client record{};
    record.on_message = on_message;
    record.on_presence = on_presence;
    kt5::Inbox inbox(&record, "app-0123456789abcdef", store);
    size_t position = 0;
    while (position < size) {
        // A topic is a C text for the inbox: it ends at its first NUL.
        std::string topic = next_field(data, size, &position).c_str();
        std::string content_type = next_field(data, size, &position);
        std::string payload = next_field(data, size, &position);
        std::string direct = "kt5/msg/";
        g_sender_cn =
            topic.compare(0, direct.size(), direct) == 0
                ? topic.substr(direct.size(), topic.find('/', direct.size()) - direct.size())
                : std::string();
        mosquitto_property *properties = content_type_property(content_type);
        // An exact-size heap copy of the payload, as libmosquitto hands it over.
        std::vector<char> bytes(payload.begin(), payload.end());
        inbox.receive(topic.c_str(), bytes.empty() ? nullptr : bytes.data(),
                      static_cast<int>(bytes.size()), properties);
        mosquitto_property_free_all(&properties);
    }
    return 0;
}
