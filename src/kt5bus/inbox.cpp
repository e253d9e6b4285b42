#include "kt5bus/inbox.h"

#include <mqtt_protocol.h>
#include <stdlib.h>

namespace kt5 {

void Inbox::receive(const char *topic_text, const void *payload, int payload_length,
                    const mosquitto_property *properties) {
    std::string_view topic = topic_text != nullptr ? topic_text : "";
    constexpr std::string_view presence = "kt5/presence/", direct = "kt5/msg/",
                               reply = "kt5/reply/";
    if (payload_length < 0)
        return;
    if (topic.substr(0, presence.size()) == presence) {
        std::string_view rest = topic.substr(presence.size());
        size_t slash = rest.find('/');
        if (slash == std::string_view::npos)
            return;
        std::string cn(rest.substr(0, slash)), client_id(rest.substr(slash + 1));
        if (client_id == own_client_id_)
            return;
        if (payload_length == 0) {
            handle_absence(cn, client_id);
        } else {
            handle_presence(cn, client_id, payload, payload_length);
        }
    } else if (topic.substr(0, direct.size()) == direct) {
        std::string_view rest = topic.substr(direct.size());
        handle_message(rest.substr(0, rest.find('/')), payload, payload_length, properties);
    } else if (topic.substr(0, reply.size()) == reply) {
        // Only the own route is subscribed; the answering node is its last level.
        handle_message(topic.substr(topic.rfind('/') + 1), payload, payload_length, properties);
    }
}

// An empty retained record: that connection is gone; the peer with it once
// its last connection is.
void Inbox::handle_absence(const std::string &cn, const std::string &client_id) {
    auto peer = peers_.find(cn);
    if (peer == peers_.end() || peer->second.connections.erase(client_id) == 0)
        return;
    if (!peer->second.connections.empty())
        return;
    kt5bus_address *gone = new_address_chain(peer->second.addresses);
    peers_.erase(peer);
    if (record_->on_presence != nullptr && gone != nullptr)
        record_->on_presence(record_, nullptr, gone);
    kt5bus_free_address(gone, 1);
}

// A presence record holds the certificate of one connection of its node; it
// counts only when that certificate comes from our CA and names the topic's CN.
void Inbox::handle_presence(const std::string &cn, const std::string &client_id,
                            const void *payload, int payload_length) {
    X509 *certificate =
        parse_certificate(static_cast<const char *>(payload), static_cast<size_t>(payload_length));
    bool trusted = certificate != nullptr && verify_certificate(trust_, certificate);
    CertificateInfo info;
    if (trusted)
        info = certificate_info(certificate);
    X509_free(certificate);
    if (!trusted || info.common_name != cn) {
        debug("presence of %s/%s ignored: certificate not trusted or not its own", cn.c_str(),
              client_id.c_str());
        return;
    }
    Peer &known = peers_[cn];
    bool first = known.connections.empty();
    known.addresses = info.addresses;
    known.connections.insert(client_id);
    if (!first || record_->on_presence == nullptr)
        return;
    kt5bus_address *appeared = new_address_chain(info.addresses);
    if (appeared != nullptr)
        record_->on_presence(record_, appeared, nullptr);
    kt5bus_free_address(appeared, 1);
}

// The source of a message is the first address of its sender's verified
// presence; a sender whose presence is not (yet) known is passed on with no
// source, since nothing vouches for its addresses.
void Inbox::handle_message(std::string_view sender_cn, const void *payload, int payload_length,
                           const mosquitto_property *properties) {
    if (record_->on_message == nullptr)
        return;
    char *content_type = nullptr, *route = nullptr;
    mosquitto_property_read_string(properties, MQTT_PROP_CONTENT_TYPE, &content_type, false);
    mosquitto_property_read_string(properties, MQTT_PROP_RESPONSE_TOPIC, &route, false);
    if (route != nullptr && !valid_reply_route(route, sender_cn)) {
        debug("reply route %s of %.*s ignored: not one of its own", route,
              static_cast<int>(sender_cn.size()), sender_cn.data());
        free(route);
        route = nullptr;
    }
    kt5bus_address source{};
    auto peer = peers_.find(sender_cn);
    bool known = peer != peers_.end() && !peer->second.addresses.empty();
    if (known) {
        const Address &first = peer->second.addresses.front();
        source.kind = first.kind;
        if (first.kind == KT5BUS_ADDR_SPECIAL) {
            source.value.special = first.special;
        } else {
            source.value.name = const_cast<char *>(first.name.c_str());
        }
    } else {
        debug("message from %.*s without a known presence", static_cast<int>(sender_cn.size()),
              sender_cn.data());
    }
    kt5bus_message received{};
    received.content_type = content_type;
    received.source = known ? &source : nullptr;
    received.data = const_cast<void *>(payload);
    received.length = static_cast<size_t>(payload_length);
    received.reserved3 = reinterpret_cast<uintptr_t>(route);
    record_->on_message(record_, &received);
    free(content_type);
    free(route);
}

}  // namespace kt5
