// The tester side of DoIP over TCP: one connection per gateway and tester
// address, shared by every ECU behind it. The connection activates routing
// before its first diagnostic message, answers alive checks at any time (a
// reader thread of its own takes every incoming message), takes an ECU's
// answer that comes before its acknowledge as the acknowledge, and after a
// drop connects and activates again for the next request without replaying
// the one that was under way.
#ifndef UOZ_TOOLS_AGENT_DOIP_CLIENT_H
#define UOZ_TOOLS_AGENT_DOIP_CLIENT_H

#include <stdint.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "doip.h"
#include "ecu_link.h"
#include "scoped_fd.h"

namespace uozagent {

struct DoipOptions {
    std::string host;
    uint16_t port = uozdoip::kDefaultPort;
    uint16_t tester_address = 0x0E80;
    uint8_t activation_type = uozdoip::routing::kTypeDefault;
    bool allow_remote = false;  // only loopback gateways unless set
    Millis connect_timeout{2000};
    Millis activation_timeout{2000};
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

  private:
    struct Mailbox {
        enum class Ack { kNone, kWaiting, kAcknowledged, kRefused } ack = Ack::kNone;
        uint8_t nack_code = 0;
        Clock::time_point ack_deadline;
        std::deque<Bytes> answers;
        bool dropped = false;
        std::condition_variable changed;
    };

    template <typename Value>
    Value locked(const Value &member) const {
        std::lock_guard<std::mutex> hold(lock_);
        return member;
    }
    bool ensure_active(Clock::time_point deadline, std::string *error);
    bool open_socket(Clock::time_point deadline, std::string *error);
    bool activate(Clock::time_point deadline, std::string *error);
    void close_locked();
    void reader_loop(int fd, uint64_t generation);
    void handle(const uozdoip::Message &message, int fd, uint64_t generation);
    void dropped(uint64_t generation, const std::string &why);
    bool write(int fd, const std::vector<uint8_t> &bytes);
    bool write_current(uint64_t generation, const std::vector<uint8_t> &bytes);
    std::string where() const;

    const DoipOptions options_;
    std::mutex connect_lock_;  // one connection attempt at a time
    std::mutex write_lock_;    // whole messages on the socket, from any thread
    mutable std::mutex lock_;  // everything below
    std::condition_variable changed_;
    uoztools::ScopedFd fd_;
    std::thread reader_;
    uint64_t generation_ = 0;
    bool active_ = false;
    bool closed_for_good_ = false;
    bool reader_running_ = false;
    std::optional<uozdoip::RoutingActivationResponse> activation_;
    std::string drop_reason_;
    std::map<uint16_t, Mailbox> mailboxes_;
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
