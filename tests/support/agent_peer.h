// A scripted bus peer for the tests: it connects with an identity, records
// every message it receives, and answers through a replaceable responder,
// with delays, several answers or none, as a test wants. It stands in for the
// agent in the library's tests, and for any other node in the bus tests.
//
//   uozagent::AgentPeer agent(uoztest::identity_dir("agent"), broker.url());
//   agent.wait_running();
//   agent.set_responder([](const uozagent::Received &query) {
//       return std::vector<uozagent::Action>{{reply_text_for(query), 0}};
//   });
//   ... agent.wait_for_messages(1, 2000); agent.received()[0].text ...
#ifndef UOZ_TESTS_AGENT_PEER_H
#define UOZ_TESTS_AGENT_PEER_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bus_client.h"

namespace uozagent {

using Received = uozbus::Received;

// Send `text` to the sender of the message after delay_ms, as the agent
// answers (on its reply route, else to its address); to `kind`/`name`
// instead when a destination is given.
struct Action {
    Action() = default;
    Action(std::string reply, int delay = 0) : text(std::move(reply)), delay_ms(delay) {}
    std::string text;
    int delay_ms = 0;
    int kind = 0;
    std::string name;
    std::string route;               // a reply route: used instead of kind/name
    bool include_terminator = true;  // send the trailing NUL as the library does
};

using Responder = std::function<std::vector<Action>(const Received &)>;

class AgentPeer {
  public:
    // Throws std::runtime_error when the client cannot start.
    AgentPeer(const std::string &identity_dir, const std::string &url);
    ~AgentPeer();
    AgentPeer(const AgentPeer &) = delete;
    AgentPeer &operator=(const AgentPeer &) = delete;

    // False when the peer was not connected and subscribed within timeout_ms.
    bool wait_running(int timeout_ms = 10000) { return bus_->wait_running(timeout_ms); }
    // Waits until a peer with this update-agent or group name is present.
    bool wait_for_peer(const std::string &name, int timeout_ms = 10000) {
        return bus_->wait_for_peer(name, timeout_ms);
    }
    bool wait_for_peer_gone(const std::string &name, int timeout_ms = 10000) {
        return bus_->wait_for_peer_gone(name, timeout_ms);
    }
    // Waits until the bus client has reported this status code.
    bool wait_for_status(int status, int timeout_ms = 10000) {
        return bus_->wait_for_status(status, timeout_ms);
    }
    bool wait_for_messages(size_t count, int timeout_ms);
    bool wait_for_deliveries(unsigned long count, int timeout_ms);
    std::vector<Received> received();
    void clear_received();
    void set_responder(Responder responder);
    // Sends now (or after the action's delay) to the action's destination.
    void send(const Action &action);
    // Stops the bus client (every pending message is reported); the
    // recorded messages and counts stay readable. Idempotent.
    void stop();
    unsigned long delivered_ok() const;
    unsigned long delivered_failed() const;

  private:
    void on_message(const Received &received);
    void count_delivery(bool ok);
    void sender_loop();
    void transmit(const Action &action);

    mutable std::mutex lock_;
    std::condition_variable changed_;
    bool stopping_ = false;
    std::vector<Received> received_;
    Responder responder_;
    std::multimap<std::chrono::steady_clock::time_point, Action> scheduled_;
    unsigned long delivered_ok_ = 0;
    unsigned long delivered_failed_ = 0;
    std::thread sender_;
    std::unique_ptr<uozbus::BusClient> bus_;
};

}  // namespace uozagent

#endif
