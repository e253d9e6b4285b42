// The bus client: one thread per client runs the MQTT 5 connection over TLS,
// reconnects, tracks peers' presence and reports every sent message once.
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <stdlib.h>
#include <string.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

#include "kt5bus/inbox.h"
#include "kt5bus/kt5bus_internal.h"

namespace kt5 {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kKeepaliveSeconds = 30;
// The longest the client thread waits in mosquitto_loop with nothing to do;
// it only paces the scan for expired messages: a send, a stop and the broker
// all wake it at once.
constexpr int kLoopTimeoutMs = 100;
constexpr auto kFirstRetry = std::chrono::milliseconds(100);
constexpr auto kLastRetry = std::chrono::milliseconds(5000);
constexpr int kReasonNormalDisconnect = 0x00;
constexpr int kReasonDisconnectWithWill = 0x04;
// How long a clean stop waits at most for the broker to take the withdrawn
// presence (each turn ends as soon as the broker answers).
constexpr int kWithdrawLoops = 50;
constexpr int kWithdrawLoopMs = 10;
constexpr int kQos = 1;

// A message accepted by kt5bus_send_message and not yet reported.
struct Pending {
    kt5bus_message *message = nullptr;
    std::vector<std::string> topics;     // where it goes
    const char *content_type = nullptr;  // the message's own: valid until it is reported
    bool answer = false;                 // sent with kt5bus_send_reply: names no route
    int outstanding = 0;                 // publishes without an acknowledgement
    bool ok = true;                      // every acknowledgement so far said delivered
    bool returned = false;               // kt5bus_send_message has finished with it
    Clock::time_point deadline;
};

struct Url {
    std::string host;
    int port = 0;
};

bool parse_url(const char *url, Url *out) {
    const char *scheme = "tcp://";
    if (url == nullptr || strncmp(url, scheme, strlen(scheme)) != 0)
        return false;
    std::string rest = url + strlen(scheme);
    size_t colon = rest.rfind(':');
    if (colon == std::string::npos)
        return false;
    char *end = nullptr;
    long port = strtol(rest.c_str() + colon + 1, &end, 10);
    if (end == rest.c_str() + colon + 1 || *end != '\0' || port <= 0 || port > 65535)
        return false;
    out->host = rest.substr(0, colon);
    out->port = static_cast<int>(port);
    return true;
}

std::string random_suffix() {
    std::random_device device;
    char text[17];
    snprintf(text, sizeof(text), "%08x%08x", device(), device());
    return text;
}

class Client {
  public:
    Client(kt5bus_client *record, const Url &url, const CertificateInfo &identity,
           std::string certificate_pem, SSL_CTX *tls)
        : record_(record),
          url_(url),
          cn_(identity.common_name),
          addresses_(identity.addresses),
          certificate_pem_(std::move(certificate_pem)),
          tls_(tls),
          client_id_(cn_ + "-" + random_suffix()),
          reply_route_(reply_route(cn_, client_id_)),
          inbox_(record, client_id_, SSL_CTX_get_cert_store(tls)) {}
    ~Client();

    int start();
    void stop();
    int send(kt5bus_message *message);
    int send_reply(kt5bus_message *message, const char *route);
    bool on_client_thread() const { return std::this_thread::get_id() == thread_.get_id(); }

  private:
    static void on_connect(mosquitto *, void *self, int rc, int, const mosquitto_property *);
    static void on_subscribe(mosquitto *, void *self, int, int count, const int *granted,
                             const mosquitto_property *);
    static void on_publish(mosquitto *, void *self, int mid, int reason,
                           const mosquitto_property *);
    static void on_message(mosquitto *, void *self, const mosquitto_message *message,
                           const mosquitto_property *properties);

    void run();
    bool connect();
    void wait_before_retry(std::chrono::milliseconds *delay);
    void status(int code);
    void subscribe_and_announce();
    void acknowledge(int mid, int reason);
    void report_finished();
    void expire_pending();
    void fail_all_pending();
    void finish_if_done(std::map<uint32_t, Pending>::iterator entry);
    int publish(uint32_t id, Pending &pending);
    bool probe_route();
    void become_ready(bool routed);
    void release_held(bool routed);
    int accept(kt5bus_message *message, std::vector<std::string> topics, bool answer);
    bool begin_withdrawal();
    bool await_withdrawal();

    kt5bus_client *record_;
    Url url_;
    std::string cn_;
    std::vector<Address> addresses_;
    std::string certificate_pem_;
    SSL_CTX *tls_;
    std::string client_id_;
    std::string reply_route_;
    Inbox inbox_;  // only touched on the client thread
    mosquitto *mosq_ = nullptr;
    std::thread thread_;

    std::mutex lock_;  // guards everything below
    std::condition_variable wake_;
    bool stopping_ = false;
    bool session_up_ = false;
    bool ready_ = false;          // connected and subscribed
    bool routed_ = false;         // answers reach this connection on reply_route_
    std::vector<uint32_t> held_;  // sent before ready: published once ready
    uint32_t next_id_ = 0;
    std::map<uint32_t, Pending> pending_;  // by message id
    std::map<int, uint32_t> publishes_;    // MQTT message id -> message id
    // Reported messages and their outcome, in order; a vector so that an
    // empty report costs no allocation.
    std::vector<std::pair<kt5bus_message *, bool>> finished_;
    int withdrawal_mid_ = -1;  // the presence withdrawal's publish, once stop() sent it
    bool withdrawal_acknowledged_ = false;
    int probe_mid_ = -1;                    // the reply route probe's publish, until acknowledged
    Clock::time_point next_expiry_scan_{};  // client thread only
};

Client::~Client() {
    if (mosq_ != nullptr)
        mosquitto_destroy(mosq_);
    SSL_CTX_free(tls_);
}

int Client::start() {
    mosq_ = mosquitto_new(client_id_.c_str(), true, this);
    if (mosq_ == nullptr)
        return KT5BUS_ERR_NOMEM;
    std::string presence = presence_topic(cn_, client_id_);
    bool configured =
        mosquitto_int_option(mosq_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5) == 0 &&
        mosquitto_int_option(mosq_, MOSQ_OPT_TCP_NODELAY, 1) == 0 &&
        mosquitto_void_option(mosq_, MOSQ_OPT_SSL_CTX, tls_) == 0 &&
        mosquitto_int_option(mosq_, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0) == 0 &&
        mosquitto_threaded_set(mosq_, true) == 0 &&
        // An empty retained presence tells the others we are gone, also when
        // this process dies.
        mosquitto_will_set_v5(mosq_, presence.c_str(), 0, nullptr, kQos, true, nullptr) == 0;
    if (!configured)
        return KT5BUS_ERR_MQTT;
    mosquitto_connect_v5_callback_set(mosq_, &Client::on_connect);
    mosquitto_subscribe_v5_callback_set(mosq_, &Client::on_subscribe);
    mosquitto_publish_v5_callback_set(mosq_, &Client::on_publish);
    mosquitto_message_v5_callback_set(mosq_, &Client::on_message);
    thread_ = std::thread(&Client::run, this);
    return KT5BUS_OK;
}

// The client thread may be waiting in wait_before_retry, which the condition
// variable ends, or in mosquitto_loop, which ends as soon as anything is
// queued for the broker (libmosquitto then writes to the socket pair its
// loop watches). So the stop queues the first step of the goodbye itself:
// the withdrawal of the presence record while the session is up, else (or
// when the withdrawal cannot be queued) the disconnect that asks for the Will.
void Client::stop() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        stopping_ = true;
        if (!session_up_ || !begin_withdrawal())
            mosquitto_disconnect_v5(mosq_, kReasonDisconnectWithWill, nullptr);
    }
    wake_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

void Client::status(int code) {
    if (record_->on_status != nullptr)
        record_->on_status(record_, code);
}

bool Client::connect() {
    int rc = mosquitto_connect_bind_v5(mosq_, url_.host.c_str(), url_.port, kKeepaliveSeconds,
                                       nullptr, nullptr);
    if (rc == MOSQ_ERR_SUCCESS)
        return true;
    debug("connect to %s:%d failed: %s", url_.host.c_str(), url_.port, mosquitto_strerror(rc));
    status(rc == MOSQ_ERR_EAI ? KT5BUS_STATUS_RESOLUTION_FAILED : KT5BUS_STATUS_CONNECTION_FAILED);
    return false;
}

void Client::wait_before_retry(std::chrono::milliseconds *delay) {
    std::unique_lock<std::mutex> hold(lock_);
    wake_.wait_for(hold, *delay, [this] { return stopping_; });
    *delay =
        std::min(*delay * 2, std::chrono::duration_cast<std::chrono::milliseconds>(kLastRetry));
}

void Client::run() {
    status(KT5BUS_STATUS_START);
    auto delay = std::chrono::duration_cast<std::chrono::milliseconds>(kFirstRetry);
    bool socket_open = false;
    for (;;) {
        {
            std::lock_guard<std::mutex> hold(lock_);
            if (stopping_)
                break;
        }
        if (!socket_open) {
            socket_open = connect();
            if (!socket_open)
                wait_before_retry(&delay);
            continue;  // a stop that came meanwhile is seen first
        }
        int rc = mosquitto_loop(mosq_, kLoopTimeoutMs, 1);
        report_finished();
        expire_pending();
        if (rc == MOSQ_ERR_SUCCESS) {
            std::lock_guard<std::mutex> hold(lock_);
            if (session_up_)
                delay = std::chrono::duration_cast<std::chrono::milliseconds>(kFirstRetry);
            continue;
        }
        bool was_up = false;
        {
            std::lock_guard<std::mutex> hold(lock_);
            was_up = session_up_;
            session_up_ = false;
            ready_ = false;
            probe_mid_ = -1;
        }
        debug("connection lost: %s", mosquitto_strerror(rc));
        mosquitto_disconnect(mosq_);
        socket_open = false;
        if (rc != MOSQ_ERR_CONN_REFUSED) {
            status(was_up ? KT5BUS_STATUS_CONNECTION_BROKE : KT5BUS_STATUS_CONNECTION_FAILED);
        }
        wait_before_retry(&delay);
    }
    if (socket_open) {
        // The Will stays for crashes. A clean stop withdraws the presence
        // itself, so that peers learn of it whatever the broker does with a
        // disconnect reason; only when the broker did not take the withdrawal
        // is the Will asked for as well.
        int reason = await_withdrawal() ? kReasonNormalDisconnect : kReasonDisconnectWithWill;
        mosquitto_disconnect_v5(mosq_, reason, nullptr);
        for (int i = 0; i < 5 && mosquitto_loop(mosq_, 10, 1) == MOSQ_ERR_SUCCESS; ++i) {
        }
    }
    report_finished();
    fail_all_pending();
    status(KT5BUS_STATUS_CLIENT_STOPPED);
    if (record_->on_stopped != nullptr)
        record_->on_stopped(record_);
}

void Client::on_connect(mosquitto *, void *self, int rc, int, const mosquitto_property *) {
    auto *client = static_cast<Client *>(self);
    if (rc != 0) {
        debug("broker refused the connection: %s", mosquitto_reason_string(rc));
        client->status(KT5BUS_STATUS_REGISTRATION_FAILED);
        return;
    }
    {
        std::lock_guard<std::mutex> hold(client->lock_);
        client->session_up_ = true;
    }
    client->subscribe_and_announce();
}

// Subscribes to the own addresses and to presence, and publishes the own
// presence, on every (re)connect: the session starts clean each time.
void Client::subscribe_and_announce() {
    std::vector<std::string> topics;
    for (const Address &address : addresses_) {
        std::string topic = subscription_for(address);
        if (!topic.empty())
            topics.push_back(topic);
    }
    topics.push_back("kt5/presence/#");
    topics.push_back(reply_route_ + "/+");
    std::vector<char *> pointers;
    pointers.reserve(topics.size());
    for (std::string &topic : topics)
        pointers.push_back(&topic[0]);
    mosquitto_subscribe_multiple(mosq_, nullptr, static_cast<int>(pointers.size()), pointers.data(),
                                 kQos, 0, nullptr);
    std::string presence = presence_topic(cn_, client_id_);
    mosquitto_publish_v5(mosq_, nullptr, presence.c_str(),
                         static_cast<int>(certificate_pem_.size()), certificate_pem_.data(), kQos,
                         true, nullptr);
}

// "running" is reported once the subscriptions hold, so that a peer may rely
// on receiving what is sent to it from then on.
void Client::on_subscribe(mosquitto *, void *self, int, int count, const int *granted,
                          const mosquitto_property *) {
    auto *client = static_cast<Client *>(self);
    for (int i = 0; i < count; ++i) {
        if (granted[i] >= 0x80) {
            debug("subscription %d refused with reason 0x%02x", i, granted[i]);
            client->status(KT5BUS_STATUS_REGISTRATION_FAILED);
            return;
        }
    }
    if (!client->probe_route())
        client->become_ready(false);
}

// The broker grants any subscription and filters what it delivers, so
// whether answers can reach the reply route is asked by a publish to the
// bare route: the access rules that grant the route let a connection write
// there (where nobody listens), older rules refuse it.
bool Client::probe_route() {
    std::lock_guard<std::mutex> hold(lock_);
    int mid = 0;
    if (mosquitto_publish_v5(mosq_, &mid, reply_route_.c_str(), 0, nullptr, kQos, false, nullptr) !=
        MOSQ_ERR_SUCCESS) {
        return false;
    }
    probe_mid_ = mid;
    return true;
}

// Without its reply route the client names none, and answers come to its
// addresses as they did before routes existed.
void Client::become_ready(bool routed) {
    if (!routed)
        debug(
            "no reply route (the broker's access rules do not grant it): answers come to the "
            "node's addresses");
    release_held(routed);
    status(KT5BUS_STATUS_RUNNING);
}

// Messages sent before the subscriptions held go out now, so that an answer
// to them always finds this client subscribed.
void Client::release_held(bool routed) {
    std::lock_guard<std::mutex> hold(lock_);
    ready_ = true;
    routed_ = routed;
    for (uint32_t id : held_) {
        auto entry = pending_.find(id);
        if (entry == pending_.end())
            continue;
        if (publish(id, entry->second) == 0)
            entry->second.ok = false;
        finish_if_done(entry);
    }
    held_.clear();
}

// Publishes the empty retained presence record; false when it was not
// queued. Called with lock_ held, so that its acknowledgement cannot be
// looked for before its id is known.
bool Client::begin_withdrawal() {
    std::string presence = presence_topic(cn_, client_id_);
    int mid = 0;
    if (mosquitto_publish_v5(mosq_, &mid, presence.c_str(), 0, nullptr, kQos, true, nullptr) !=
        MOSQ_ERR_SUCCESS) {
        return false;
    }
    withdrawal_mid_ = mid;
    return true;
}

// Runs the connection until the broker acknowledges the withdrawal; false
// when none was sent or the broker did not take it within half a second.
bool Client::await_withdrawal() {
    for (int i = 0; i < kWithdrawLoops; ++i) {
        {
            std::lock_guard<std::mutex> hold(lock_);
            if (withdrawal_mid_ < 0 || withdrawal_acknowledged_)
                return withdrawal_acknowledged_;
        }
        if (mosquitto_loop(mosq_, kWithdrawLoopMs, 1) != MOSQ_ERR_SUCCESS)
            return false;
    }
    std::lock_guard<std::mutex> hold(lock_);
    return withdrawal_acknowledged_;
}

// The broker's acknowledgement means it accepted the message. 0x00 also says
// that a subscription matched and 0x10 that none did, but brokers need not
// send 0x10 (MQTT 5 makes it optional), so a message nobody receives may
// still be reported delivered; >= 0x80: refused.
void Client::on_publish(mosquitto *, void *self, int mid, int reason, const mosquitto_property *) {
    static_cast<Client *>(self)->acknowledge(mid, reason);
}

void Client::finish_if_done(std::map<uint32_t, Pending>::iterator entry) {
    Pending &pending = entry->second;
    if (pending.outstanding > 0 || !pending.returned)
        return;
    finished_.emplace_back(pending.message, pending.ok);
    pending_.erase(entry);
}

void Client::acknowledge(int mid, int reason) {
    std::unique_lock<std::mutex> hold(lock_);
    if (mid == probe_mid_) {
        probe_mid_ = -1;
        hold.unlock();
        become_ready(reason < 0x80);
        return;
    }
    if (mid == withdrawal_mid_) {
        withdrawal_acknowledged_ = reason < 0x80;
        return;
    }
    bool ok = reason == 0;
    auto publish = publishes_.find(mid);
    if (publish == publishes_.end())
        return;  // own presence, or already expired
    auto entry = pending_.find(publish->second);
    publishes_.erase(publish);
    if (entry == pending_.end())
        return;
    entry->second.outstanding--;
    entry->second.ok = entry->second.ok && ok;
    finish_if_done(entry);
}

// Delivery reports run here, on the client thread, outside the lock.
void Client::report_finished() {
    std::vector<std::pair<kt5bus_message *, bool>> finished;
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (finished_.empty())
            return;
        finished.swap(finished_);
    }
    for (auto &[message, ok] : finished) {
        if (record_->on_delivered != nullptr) {
            record_->on_delivered(record_, message, nullptr, ok ? 1 : 0);
        }
    }
}

// Deadlines are seconds long: looking for expired messages once per loop
// timeout is enough, and spares the scan on every packet.
void Client::expire_pending() {
    Clock::time_point now = Clock::now();
    if (now < next_expiry_scan_)
        return;
    next_expiry_scan_ = now + std::chrono::milliseconds(kLoopTimeoutMs);
    {
        std::lock_guard<std::mutex> hold(lock_);
        for (auto entry = pending_.begin(); entry != pending_.end();) {
            auto current = entry++;
            if (!current->second.returned || current->second.deadline > now)
                continue;
            finished_.emplace_back(current->second.message, false);
            pending_.erase(current);
        }
    }
    report_finished();
}

void Client::fail_all_pending() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        for (auto &entry : pending_)
            finished_.emplace_back(entry.second.message, false);
        pending_.clear();
        publishes_.clear();
    }
    report_finished();
}

// Publishes every topic of a pending message; returns how many went out.
// Called with lock_ held.
int Client::publish(uint32_t id, Pending &pending) {
    mosquitto_property *properties = nullptr;
    if (pending.content_type != nullptr && pending.content_type[0] != '\0') {
        mosquitto_property_add_string(&properties, MQTT_PROP_CONTENT_TYPE, pending.content_type);
    }
    if (routed_ && !pending.answer)
        mosquitto_property_add_string(&properties, MQTT_PROP_RESPONSE_TOPIC, reply_route_.c_str());
    int published = 0;
    for (const std::string &topic : pending.topics) {
        int mid = 0;
        int rc = mosquitto_publish_v5(mosq_, &mid, topic.c_str(),
                                      static_cast<int>(pending.message->length),
                                      pending.message->data, kQos, false, properties);
        // While disconnected the MQTT layer queues the message and says so.
        if (rc == MOSQ_ERR_SUCCESS || rc == MOSQ_ERR_NO_CONN) {
            publishes_[mid] = id;
            ++published;
        } else {
            debug("publish to %s refused: %s", topic.c_str(), mosquitto_strerror(rc));
            pending.ok = false;
            pending.outstanding--;
        }
    }
    mosquitto_property_free_all(&properties);
    return published;
}

int Client::send(kt5bus_message *message) {
    std::vector<std::string> topics;
    for (const kt5bus_address *destination = message->destination; destination != nullptr;
         destination = destination->next) {
        std::string topic = message_topic(cn_, *destination);
        if (topic.empty())
            return KT5BUS_ERR_INVALID;
        topics.push_back(topic);
    }
    if (topics.empty())
        return KT5BUS_ERR_INVALID;
    return accept(message, std::move(topics), false);
}

// An answer goes to the route followed by the own CN, which tells the
// receiver who answered; the broker lets only this node write there.
int Client::send_reply(kt5bus_message *message, const char *route) {
    if (route == nullptr || !valid_reply_route(route))
        return KT5BUS_ERR_INVALID;
    return accept(message, {std::string(route) + "/" + cn_}, true);
}

int Client::accept(kt5bus_message *message, std::vector<std::string> topics, bool answer) {
    // The lock is held across the publishes, so that an acknowledgement always
    // finds its pending entry; publishing never waits for the client thread.
    std::lock_guard<std::mutex> hold(lock_);
    if (stopping_)
        return KT5BUS_ERR_STATE;
    if (pending_.size() >= KT5BUS_MAX_PENDING)
        return KT5BUS_ERR_FULL;
    uint32_t id = ++next_id_;
    Pending &pending = pending_[id];
    pending.message = message;
    pending.topics = std::move(topics);
    pending.content_type = message->content_type;
    pending.answer = answer;
    pending.outstanding = static_cast<int>(pending.topics.size());
    pending.deadline = Clock::now() + std::chrono::seconds(KT5BUS_DELIVERY_TIMEOUT_SECONDS);
    message->id = id;
    if (!ready_) {
        held_.push_back(id);
    } else if (publish(id, pending) == 0) {
        pending_.erase(id);
        return KT5BUS_ERR_MQTT;
    }
    // Reported no earlier than the client thread's next turn.
    pending.returned = true;
    finish_if_done(pending_.find(id));
    return KT5BUS_OK;
}

void Client::on_message(mosquitto *, void *self, const mosquitto_message *message,
                        const mosquitto_property *properties) {
    static_cast<Client *>(self)->inbox_.receive(message->topic, message->payload,
                                                message->payloadlen, properties);
}

}  // namespace

}  // namespace kt5

namespace {

kt5::Client *client_of(kt5bus_client *record) {
    return static_cast<kt5::Client *>(record->internal);
}

bool usable_identity(const kt5bus_identity &identity) {
    const kt5bus_x509 &x509 = identity.x509;
    return identity.kind == KT5BUS_IDENTITY_X509 && x509.chain != nullptr &&
           x509.chain[0] != nullptr && x509.private_key != nullptr && x509.trust != nullptr &&
           x509.trust[0] != nullptr;
}

}  // namespace

int kt5bus_init_client(kt5bus_client *client, const char *url) {
    if (client == nullptr || client->internal != nullptr)
        return KT5BUS_ERR_INVALID;
    kt5::Url parsed;
    if (!kt5::parse_url(url, &parsed))
        return KT5BUS_ERR_URL;
    if (!usable_identity(client->identity))
        return KT5BUS_ERR_IDENTITY;
    std::string certificate_pem = kt5::buffer_text(client->identity.x509.chain[0]);
    X509 *certificate = kt5::parse_certificate(certificate_pem.data(), certificate_pem.size());
    if (certificate == nullptr)
        return KT5BUS_ERR_IDENTITY;
    kt5::CertificateInfo info = kt5::certificate_info(certificate);
    X509_free(certificate);
    if (info.common_name.empty())
        return KT5BUS_ERR_IDENTITY;
    SSL_CTX *tls = kt5::new_tls_context(&client->identity, parsed.host);
    if (tls == nullptr)
        return KT5BUS_ERR_IDENTITY;
    auto *state = new (std::nothrow) kt5::Client(client, parsed, info, certificate_pem, tls);
    if (state == nullptr) {
        SSL_CTX_free(tls);
        return KT5BUS_ERR_NOMEM;
    }
    client->internal = state;
    int rc = state->start();
    if (rc != KT5BUS_OK) {
        client->internal = nullptr;
        delete state;
    }
    return rc;
}

int kt5bus_stop_client(kt5bus_client *client) {
    if (client == nullptr)
        return KT5BUS_ERR_INVALID;
    kt5::Client *state = client_of(client);
    if (state == nullptr) {
        // Never started: there is no thread, so the caller's thread reports the stop.
        if (client->on_stopped != nullptr)
            client->on_stopped(client);
        return KT5BUS_OK;
    }
    if (state->on_client_thread())
        return KT5BUS_ERR_STATE;  // a callback cannot join its own thread
    state->stop();
    client->internal = nullptr;
    delete state;
    return KT5BUS_OK;
}

int kt5bus_send_message(kt5bus_client *client, kt5bus_message *message, void *) {
    if (client == nullptr || message == nullptr || message->data == nullptr) {
        return KT5BUS_ERR_INVALID;
    }
    kt5::Client *state = client_of(client);
    if (state == nullptr)
        return KT5BUS_ERR_STATE;
    return state->send(message);
}

int kt5bus_send_reply(kt5bus_client *client, kt5bus_message *message, const char *route) {
    if (client == nullptr || message == nullptr || message->data == nullptr) {
        return KT5BUS_ERR_INVALID;
    }
    kt5::Client *state = client_of(client);
    if (state == nullptr)
        return KT5BUS_ERR_STATE;
    return state->send_reply(message, route);
}
