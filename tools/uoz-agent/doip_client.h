// The tester side of DoIP: one connection per gateway and tester address,
// shared by every ECU behind it, over plain TCP or TLS. The connection
// activates routing before its first diagnostic message (waiting for the
// final answer after "confirmation required"), moves to TLS when the gateway
// asks for it and the settings allow it, tries the other protocol version
// once when the gateway refuses the first, answers alive checks at any time
// (a reader thread of its own takes every incoming message), takes an ECU's
// answer that comes before its acknowledge as the acknowledge, fails a
// request at once on a NACK or generic NACK, and after a drop (or a close
// by the gateway seen before the next request) connects and activates again
// for the next request without replaying the one that was under way. An
// idle connection is closed by the agent before the gateway's inactivity
// time, or kept open with a keep-alive message (DoipIdle).
#ifndef UOZ_TOOLS_AGENT_DOIP_CLIENT_H
#define UOZ_TOOLS_AGENT_DOIP_CLIENT_H

#include <stdint.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "doip.h"
#include "ecu_link.h"
#include "stream.h"
#include "tls.h"

namespace uozagent {

// When a connection runs over TLS (port 3496).
enum class TlsUse {
    kNever,
    kWhenRequired,  // after the gateway denied routing activation with 0x07
    kAlways
};

struct DoipTls {
    TlsUse use = TlsUse::kNever;
    uint16_t port = uozdoip::kTlsPort;
    uozdoip::TlsFiles files;  // the vehicle's CA; a tester certificate and key if the gateway asks
    std::string host;         // the name the gateway's certificate carries; "" for the address
};

// What becomes of a connection that nothing went over for a while. A
// gateway closes such a connection after its own inactivity time (5 minutes
// in general); the agent closes it first, or keeps it open with a message
// the gateway passes on (by default a TesterPresent without answers to
// every ECU behind it), so that a request never meets a connection closing.
struct DoipIdle {
    Millis close_after{240000};  // 0: left open until the gateway closes it
    Millis keep_alive{0};        // instead of closing: the message this often
    uint16_t target = 0xE400;    // the gateway's functional address
    Bytes message = {uozuds::sid::kTesterPresent, uozuds::kSuppressPositiveResponse};
};

// What may differ from one gateway to another.
struct DoipGatewayPolicy {
    uint8_t activation_type = uozdoip::routing::kTypeDefault;
    uint8_t version = 0;  // protocol version sent; 0: 0x02 on plain TCP, 0x03 on TLS
    DoipTls tls;
    DoipIdle idle;
};

struct DoipOptions {
    std::string host;
    uint16_t port = uozdoip::kDefaultPort;
    uint16_t tester_address = 0x0E80;
    DoipGatewayPolicy policy;
    bool allow_remote = false;  // only loopback gateways unless set
    Millis connect_timeout{2000};
    Millis activation_timeout{2000};
    Millis processing_time{2000};  // for the final answer after "confirmation required"
    Millis ack_timeout{2000};
};

class DoipConnection {
  public:
    explicit DoipConnection(DoipOptions options);
    ~DoipConnection();
    DoipConnection(const DoipConnection &) = delete;
    DoipConnection &operator=(const DoipConnection &) = delete;

    // Sends the UDS bytes to the ECU at `target`, connecting and activating
    // routing first when needed. False with *error for a refused connection,
    // denied routing or a drop. The caller has at most one request per target
    // under way.
    bool send(uint16_t target, const Bytes &uds, Clock::time_point deadline, std::string *error);
    // The next answer of the ECU at `target` to the request sent. False with
    // *error for a NACK, no acknowledge in time, or a drop.
    bool receive(uint16_t target, Clock::time_point until, Bytes *response, std::string *error,
                 bool *timed_out);

    // Closes the connection: requests under way fail at once; the next
    // request connects again, unless for_good (the agent is stopping).
    void close(bool for_good = false);

    // For tests and logs.
    int activations() const { return locked(activations_); }
    int alive_checks_answered() const { return locked(alive_checks_answered_); }
    bool connected() const { return locked(active_); }
    uint16_t entity_address() const { return locked(entity_address_); }
    bool over_tls() const { return tls_; }
    uint8_t version() const { return locked(version_); }

  private:
    struct Mailbox {
        enum class Ack { kNone, kWaiting, kAcknowledged, kRefused } ack = Ack::kNone;
        uint8_t nack_code = 0;
        bool generic_nack = false;  // refused by a generic (header) NACK
        Clock::time_point ack_deadline;
        std::deque<Bytes> answers;
        bool dropped = false;
        std::condition_variable changed;
    };
    // How one attempt to connect and activate ended.
    enum class Attempt { kActive, kFailed, kVersionRefused, kTlsRequired };
    enum class Write { kWritten, kNotCurrent, kFailed };

    template <typename Value>
    Value locked(const Value &member) const {
        std::lock_guard<std::mutex> hold(lock_);
        return member;
    }
    bool ensure_active(Clock::time_point deadline, std::string *error);
    bool peer_has_closed();
    void tear_down();
    Attempt connect_and_activate(Clock::time_point deadline, std::string *error);
    std::unique_ptr<uozdoip::Stream> open_stream(Clock::time_point deadline, std::string *error);
    bool open_socket(Clock::time_point deadline, uoztools::ScopedFd *fd, std::string *error);
    Attempt activate(Clock::time_point deadline, std::string *error);
    Attempt activation_refused(const uozdoip::RoutingActivationResponse &answer,
                               std::string *error);
    void close_locked();
    void reader_loop(uozdoip::Stream *stream, uint64_t generation);
    bool receive_locked(std::unique_lock<std::mutex> &hold, uint16_t target,
                        Clock::time_point until, Bytes *response, std::string *error,
                        bool *timed_out);
    void idle_loop();
    void on_idle(Millis period);
    void handle(const uozdoip::Message &message, uozdoip::Stream &stream, uint64_t generation);
    void settle_ack(uint16_t target);
    void generic_nack(uint8_t code);
    void dropped(uint64_t generation, const std::string &why);
    bool write(uozdoip::Stream &stream, const std::vector<uint8_t> &bytes);
    Write write_current(uint64_t generation, const std::vector<uint8_t> &bytes);
    std::string where() const;

    const DoipOptions options_;
    std::atomic<bool> tls_{false};  // this gateway is reached over TLS (where() reads it)
    std::mutex connect_lock_;       // one connection attempt at a time
    std::mutex write_lock_;         // whole messages on the stream, from any thread
    mutable std::mutex lock_;       // everything below
    std::condition_variable changed_;
    std::unique_ptr<uozdoip::Stream> stream_;
    std::shared_ptr<const uozdoip::TlsContext> tls_context_;  // made at the first TLS connection
    std::thread reader_;
    uint64_t generation_ = 0;
    bool active_ = false;
    bool closed_for_good_ = false;
    bool reader_running_ = false;
    uint8_t version_ = 0;                     // the protocol version sent
    std::optional<uint8_t> learned_version_;  // the other one, after a refusal
    std::optional<uozdoip::RoutingActivationResponse> activation_;
    std::optional<uint8_t> activation_nack_;  // generic NACK while activating
    std::string drop_reason_;
    std::map<uint16_t, Mailbox> mailboxes_;
    std::deque<uint16_t> awaiting_ack_;  // targets whose requests await their acknowledge, in order
    Clock::time_point last_traffic_{};   // the last message written, or request ended
    int receivers_ = 0;                  // requests waiting for their answers
    bool closed_by_agent_ = false;       // this connection's end is the agent's doing
    bool stopping_ = false;              // the destructor runs
    std::thread idle_watch_;             // with a DoipIdle time: closes or keeps alive
    int activations_ = 0;
    int alive_checks_answered_ = 0;
    uint16_t entity_address_ = 0;
};

// The link to one ECU behind a shared connection.
class DoipLink : public EcuLink {
  public:
    DoipLink(std::shared_ptr<DoipConnection> connection, uint16_t target)
        : connection_(std::move(connection)), target_(target) {}
    bool send(const Bytes &request, Clock::time_point deadline, std::string *error) override {
        return connection_->send(target_, request, deadline, error);
    }
    bool receive(Clock::time_point until, Bytes *response, std::string *error,
                 bool *timed_out) override {
        return connection_->receive(target_, until, response, error, timed_out);
    }

  private:
    std::shared_ptr<DoipConnection> connection_;
    uint16_t target_;
};

}  // namespace uozagent

#endif
