#include "mosquitto_pair.h"

#include <stdio.h>
#include <string.h>

#include <chrono>
#include <random>
#include <stdexcept>

namespace uozbench {

namespace {

// Identities and topics of their own, so that the pairs can run beside the
// library's "app" and "agent" on the same broker without either seeing the
// other's messages. The pair whose caller runs the loop goes through groups
// that only one side of the pair reads.
constexpr const char *kRequester = "peer1";
constexpr const char *kReplier = "peer2";
constexpr PairRoute kAddressRoute = {"kt5/msg/peer1/ua/test/peer2", "kt5/msg/peer2/ua/test/peer1",
                                     "kt5/msg/+/ua/test/peer2", "kt5/msg/+/ua/test/peer1"};
constexpr PairRoute kGroupRoute = {"kt5/msg/peer1/group/grp-a", "kt5/msg/peer2/group/grp-b",
                                   "kt5/msg/+/group/grp-a", "kt5/msg/+/group/grp-b"};
constexpr int kQos = 1;
constexpr auto kReplyTimeout = std::chrono::seconds(5);

std::string random_client_id(const std::string &node) {
    std::random_device device;
    char suffix[17];
    snprintf(suffix, sizeof(suffix), "%08x%08x", device(), device());
    return node + "-" + suffix;
}

void check(int rc, const char *what) {
    if (rc != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error(std::string(what) + ": " + mosquitto_strerror(rc));
    }
}

}  // namespace

MosquittoPair::MosquittoPair(const std::string &pki_dir, int port, size_t payload_size, int slots,
                             Waiting waiting)
    : waiting_(waiting),
      route_(waiting == Waiting::kConditionVariable ? kAddressRoute : kGroupRoute),
      pki_dir_(pki_dir),
      port_(port),
      payload_size_(payload_size),
      slots_(slots) {
    mosquitto_lib_init();
    replier_ = connect_client(kReplier);
    requester_ = connect_client(kRequester);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::unique_lock<std::mutex> hold(subscribed_lock_);
    while (subscribed_ < 2 && std::chrono::steady_clock::now() < deadline) {
        if (waiting_ == Waiting::kCallerRunsLoop) {
            hold.unlock();
            mosquitto_loop(requester_, 10, 1);
            hold.lock();
        } else {
            subscribed_changed_.wait_until(hold, deadline);
        }
    }
    if (subscribed_ < 2)
        throw std::runtime_error("anchor clients did not subscribe within 10 s");
}

MosquittoPair::~MosquittoPair() {
    for (mosquitto *client : {requester_, replier_}) {
        if (client == nullptr)
            continue;
        mosquitto_disconnect(client);
        if (client != requester_ || waiting_ == Waiting::kConditionVariable)
            mosquitto_loop_stop(client, false);
        mosquitto_destroy(client);
    }
    mosquitto_lib_cleanup();
}

mosquitto *MosquittoPair::connect_client(const std::string &node) {
    std::string id = random_client_id(node);
    mosquitto *client = mosquitto_new(id.c_str(), true, this);
    if (client == nullptr)
        throw std::runtime_error("mosquitto_new failed");
    check(mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5), "protocol");
    check(mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1), "tcp_nodelay");
    std::string ca = pki_dir_ + "/ca/ca.pem";
    std::string cert = pki_dir_ + "/" + node + "/cert.pem";
    std::string key = pki_dir_ + "/" + node + "/private.pem";
    check(mosquitto_tls_set(client, ca.c_str(), nullptr, cert.c_str(), key.c_str(), nullptr),
          "tls_set");
    bool replier = node == kReplier;
    mosquitto_message_v5_callback_set(
        client, replier ? &MosquittoPair::on_request : &MosquittoPair::on_reply);
    mosquitto_connect_v5_callback_set(client, replier ? &MosquittoPair::on_replier_connect
                                                      : &MosquittoPair::on_requester_connect);
    mosquitto_subscribe_v5_callback_set(client, &MosquittoPair::on_subscribe);
    check(mosquitto_connect_bind_v5(client, "localhost", port_, 30, nullptr, nullptr), "connect");
    if (replier || waiting_ == Waiting::kConditionVariable)
        check(mosquitto_loop_start(client), "loop_start");
    return client;
}

// Subscriptions are made once connected, as the bus library does.
void MosquittoPair::on_replier_connect(mosquitto *client, void *self, int rc, int,
                                       const mosquitto_property *) {
    auto *pair = static_cast<MosquittoPair *>(self);
    if (rc == 0) {
        mosquitto_subscribe_v5(client, nullptr, pair->route_.request_subscription, kQos, 0,
                               nullptr);
    }
}

void MosquittoPair::on_requester_connect(mosquitto *client, void *self, int rc, int,
                                         const mosquitto_property *) {
    auto *pair = static_cast<MosquittoPair *>(self);
    if (rc == 0)
        mosquitto_subscribe_v5(client, nullptr, pair->route_.reply_subscription, kQos, 0, nullptr);
}

void MosquittoPair::on_subscribe(mosquitto *, void *self, int, int, const int *,
                                 const mosquitto_property *) {
    auto *pair = static_cast<MosquittoPair *>(self);
    std::lock_guard<std::mutex> hold(pair->subscribed_lock_);
    ++pair->subscribed_;
    pair->subscribed_changed_.notify_all();
}

// The replier echoes every request unchanged, as an agent that does no work.
void MosquittoPair::on_request(mosquitto *client, void *self, const mosquitto_message *message,
                               const mosquitto_property *) {
    auto *pair = static_cast<MosquittoPair *>(self);
    mosquitto_publish_v5(client, nullptr, pair->route_.reply_topic, message->payloadlen,
                         message->payload, kQos, false, nullptr);
}

// A reply names its slot in its first four bytes.
void MosquittoPair::on_reply(mosquitto *, void *self, const mosquitto_message *message,
                             const mosquitto_property *) {
    auto *pair = static_cast<MosquittoPair *>(self);
    if (message->payloadlen < 4)
        return;
    int slot = 0;
    if (sscanf(static_cast<const char *>(message->payload), "%4d", &slot) != 1)
        return;
    if (slot < 0 || slot >= static_cast<int>(pair->slots_.size()))
        return;
    Slot &target = pair->slots_[slot];
    std::lock_guard<std::mutex> hold(target.lock);
    ++target.received;
    target.replied.notify_one();
}

bool MosquittoPair::round_trip(int slot) {
    std::string payload(payload_size_ < 4 ? 4 : payload_size_, 'x');
    char prefix[5];
    snprintf(prefix, sizeof(prefix), "%04d", slot);
    memcpy(&payload[0], prefix, 4);
    Slot &own = slots_[slot];
    std::unique_lock<std::mutex> hold(own.lock);
    unsigned long expected = ++own.sent;
    int rc = mosquitto_publish_v5(requester_, nullptr, route_.request_topic,
                                  static_cast<int>(payload.size()), payload.data(), kQos, false,
                                  nullptr);
    if (rc != MOSQ_ERR_SUCCESS)
        return false;
    return await_reply(own, hold, expected);
}

bool MosquittoPair::await_reply(Slot &own, std::unique_lock<std::mutex> &hold,
                                unsigned long expected) {
    if (waiting_ == Waiting::kConditionVariable) {
        return own.replied.wait_for(hold, kReplyTimeout, [&] { return own.received >= expected; });
    }
    // The reply is read, and counted by on_reply, on this thread.
    auto deadline = std::chrono::steady_clock::now() + kReplyTimeout;
    while (own.received < expected && std::chrono::steady_clock::now() < deadline) {
        hold.unlock();
        int rc = mosquitto_loop(requester_, 1000, 1);
        hold.lock();
        if (rc != MOSQ_ERR_SUCCESS)
            return false;
    }
    return own.received >= expected;
}

}  // namespace uozbench
