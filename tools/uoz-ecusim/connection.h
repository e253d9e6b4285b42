// One tester's connection to the simulator's DoIP entity, plain TCP or TLS:
// a reader thread that shakes hands (TLS), frames, activates routing,
// acknowledges and hands requests on, and one worker thread per ECU
// addressed, so that a slow ECU does not hold up the others.
#ifndef UOZ_TOOLS_CONNECTION_H
#define UOZ_TOOLS_CONNECTION_H

#include <stdint.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "doip.h"
#include "doip_entity.h"
#include "scoped_fd.h"
#include "stream.h"
#include "tls.h"

namespace uozecusim {

class Connection : public std::enable_shared_from_this<Connection> {
  public:
    // With tls, the connection came to the TLS port: it shakes hands first.
    Connection(DoipEntity &entity, uoztools::ScopedFd fd, std::string peer, bool tls);
    ~Connection();
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    void start();
    // Ends the connection from any thread: its threads stop soon after.
    void close();
    bool finished() const { return finished_; }
    void join();
    // Sends an alive check request and waits for the answer; false when the
    // tester does not answer in time or the connection is gone.
    bool alive(std::chrono::milliseconds wait);

  private:
    struct Request {
        uint64_t number = 0;
        Bytes data;
        Bytes held_ack;           // sent with (coalesced) or after the answer
        bool functional = false;  // sent to every ECU at once
    };
    struct EcuWorker {
        std::thread thread;
        std::deque<Request> queue;
    };

    void read_loop();
    bool shake_hands();
    bool handle(const uozdoip::Message &message);
    bool activate_routing(const uozdoip::Message &message);
    uint8_t routing_code(const uozdoip::RoutingActivationRequest &request);
    bool confirm_routing(uozdoip::RoutingActivationResponse response);
    bool diagnostic(const uozdoip::Message &message);
    void enqueue(uint16_t target, Request request);
    void work(uint16_t target);
    void answer(uint16_t target, const Request &request);
    bool send(const Bytes &bytes);
    bool send_pending(uint16_t target, uint8_t service, Bytes &prefix);
    bool send_uds(uint16_t target, const Bytes &uds, Bytes &prefix);
    void cut_answer(uint16_t target, const Bytes &uds, Bytes &prefix, uint64_t number);
    // Sleeps unless the connection closes first; false when it closed.
    bool pause(std::chrono::milliseconds duration);
    void trace(const std::string &line);
    bool check_alive_timers(std::chrono::steady_clock::time_point now);
    std::chrono::steady_clock::time_point next_timer() const;

    DoipEntity &entity_;
    std::unique_ptr<uozdoip::Stream> stream_;
    uozdoip::TlsStream *tls_ = nullptr;  // stream_ when it is TLS
    std::string peer_;
    std::thread reader_;
    std::atomic<bool> closing_{false};
    std::atomic<bool> finished_{false};
    uint8_t version_ = uozdoip::kDefaultVersion;
    uint16_t tester_ = 0;
    bool activated_ = false;

    std::mutex write_lock_;  // one message at a time on the socket

    std::mutex lock_;  // workers, closing, alive check
    std::condition_variable wake_;
    std::map<uint16_t, std::unique_ptr<EcuWorker>> workers_;
    bool alive_answered_ = false;

    // Reader thread only.
    std::chrono::steady_clock::time_point last_received_;
    std::chrono::steady_clock::time_point alive_sent_{};
    bool alive_outstanding_ = false;
};

}  // namespace uozecusim

#endif
