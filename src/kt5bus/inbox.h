// Incoming MQTT messages of one client: presence records that tell which
// peers are connected and with which addresses, and messages to the client's
// own addresses, handed to the application with their verified source.
#ifndef KT5BUS_INBOX_H
#define KT5BUS_INBOX_H

#include <mosquitto.h>
#include <openssl/x509.h>

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "kt5bus/kt5bus_internal.h"

namespace kt5 {

class Inbox {
  public:
    // `record` receives the callbacks; `own_client_id` is the client's MQTT
    // client id, whose own presence is ignored; `trust` holds the CA that
    // presence certificates must chain to (not owned).
    Inbox(kt5bus_client *record, std::string own_client_id, X509_STORE *trust)
        : record_(record), own_client_id_(std::move(own_client_id)), trust_(trust) {}

    // One message as libmosquitto delivered it: "kt5/presence/<cn>/<client
    // id>" updates the peers, "kt5/msg/<sender cn>/..." and answers on the
    // own reply route ("kt5/reply/<cn>/<client id>/<sender cn>") go to
    // on_message, any other topic is dropped. Not thread-safe: call from one
    // thread.
    void receive(const char *topic, const void *payload, int payload_length,
                 const mosquitto_property *properties);

  private:
    struct Peer {
        std::vector<Address> addresses;
        std::set<std::string> connections;  // client ids with a presence record
    };

    void handle_presence(const std::string &cn, const std::string &client_id, const void *payload,
                         int payload_length);
    void handle_absence(const std::string &cn, const std::string &client_id);
    void handle_message(std::string_view sender_cn, const void *payload, int payload_length,
                        const mosquitto_property *properties);

    kt5bus_client *record_;
    std::string own_client_id_;
    X509_STORE *trust_;
    std::map<std::string, Peer, std::less<>> peers_;  // by CN; found by string_view too
};

}  // namespace kt5

#endif
