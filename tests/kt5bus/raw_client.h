// A bare MQTT 5 client with a node's certificate, to try what our library
// never does: subscribe to others' topics, publish under another CN.
#ifndef UOZ_TESTS_RAW_CLIENT_H
#define UOZ_TESTS_RAW_CLIENT_H

#include <mosquitto.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "broker_fixture.h"

namespace uoztest {

class RawClient {
  public:
    RawClient(const std::string &node, int port) {
        mosquitto_lib_init();
        client_ = mosquitto_new(nullptr, true, this);
        mosquitto_int_option(client_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
        std::string dir = identity_dir(node);
        mosquitto_tls_set(client_, (pki_dir() + "/ca/ca.pem").c_str(), nullptr,
                          (dir + "/cert.pem").c_str(), (dir + "/private.pem").c_str(), nullptr);
        mosquitto_message_v5_callback_set(
            client_,
            [](mosquitto *, void *self, const mosquitto_message *, const mosquitto_property *) {
                static_cast<RawClient *>(self)->received_++;
            });
        mosquitto_publish_v5_callback_set(
            client_, [](mosquitto *, void *self, int, int reason, const mosquitto_property *) {
                static_cast<RawClient *>(self)->published_ = reason;
            });
        connected_ = mosquitto_connect(client_, "localhost", port, 30) == MOSQ_ERR_SUCCESS &&
                     mosquitto_loop_start(client_) == MOSQ_ERR_SUCCESS;
    }
    ~RawClient() {
        mosquitto_disconnect(client_);
        mosquitto_loop_stop(client_, false);
        mosquitto_destroy(client_);
        mosquitto_lib_cleanup();
    }
    RawClient(const RawClient &) = delete;
    RawClient &operator=(const RawClient &) = delete;

    // Taken before any later publish of this client is answered.
    void subscribe(const char *topic) {
        mosquitto_subscribe_v5(client_, nullptr, topic, 1, 0, nullptr);
    }
    // The PUBACK reason code; -1 when the broker did not answer.
    int publish(const std::string &topic, const std::string &payload = "spam",
                bool retain = false) {
        mosquitto_publish_v5(client_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                             payload.data(), 1, retain, nullptr);
        for (int i = 0; i < 300 && published_.load() < 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return published_.exchange(-1);
    }
    bool connected() const { return connected_; }
    int received() const { return received_.load(); }

  private:
    mosquitto *client_ = nullptr;
    bool connected_ = false;
    std::atomic<int> published_{-1};
    std::atomic<int> received_{0};
};

}  // namespace uoztest

#endif
