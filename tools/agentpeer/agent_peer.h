// A bus peer for tests and the reference agent: it connects with an identity,
// records every message it receives, and answers through a replaceable
// responder, with delays, several answers or none, as a test wants.
//
//   uozagent::AgentPeer agent(uoztest::identity_dir("agent"), broker.url());
//   agent.wait_running();
//   agent.set_responder([](const uozagent::Received &query) {
//       return std::vector<uozagent::Action>{{reply_text_for(query), 0}};
//   });
//   ... agent.wait_for_messages(1, 2000); agent.received()[0].text ...
#ifndef UOZ_TOOLS_AGENT_PEER_H
#define UOZ_TOOLS_AGENT_PEER_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kt5bus/kt5bus.h"

namespace uozagent {

struct Received {
    std::string text;         // the payload up to its first NUL
    size_t length = 0;        // the payload length as received
    int source_kind = 0;      // 0 when the sender is unknown
    std::string source_name;  // update agent or group name
};

// Send `text` to the sender of the message after delay_ms (to `kind`/`name`
// instead when a destination is given).
struct Action {
    Action() = default;
    Action(std::string reply, int delay = 0) : text(std::move(reply)), delay_ms(delay) {}
    std::string text;
    int delay_ms = 0;
    int kind = 0;
    std::string name;
    bool include_terminator = true;  // send the trailing NUL as the library does
};

using Responder = std::function<std::vector<Action>(const Received &)>;

// Loads <dir>/private.pem, <dir>/cert.pem and <dir>/../ca/ca.pem into an
// identity; false when a file is missing (what was read is then released).
bool load_identity(kt5bus_identity *identity, const std::string &dir);
void free_identity(kt5bus_identity *identity);

// What a bus message says: its text up to the first NUL, and its sender.
Received received_from(const kt5bus_message *message);
// A JSON message of `length` bytes (the text and, when one longer, its NUL)
// to `kind`/`name`, owned by the caller; nullptr when the address is refused.
kt5bus_message *new_message(const std::string &text, size_t length, int kind,
                            const std::string &name);
// Releases a message made by new_message (nullptr is fine).
void free_message(kt5bus_message *message);

class AgentPeer {
  public:
    AgentPeer(const std::string &identity_dir, const std::string &url);
    ~AgentPeer();
    AgentPeer(const AgentPeer &) = delete;
    AgentPeer &operator=(const AgentPeer &) = delete;

    // False when the peer was not connected and subscribed within timeout_ms.
    bool wait_running(int timeout_ms = 10000);
    // Waits until a peer with this update-agent or group name is present.
    bool wait_for_peer(const std::string &name, int timeout_ms = 10000);
    bool wait_for_peer_gone(const std::string &name, int timeout_ms = 10000);
    // Waits until the bus client has reported this status code.
    bool wait_for_status(int status, int timeout_ms = 10000);
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
    static void on_message(kt5bus_client *client, kt5bus_message *message);
    static void on_delivered(kt5bus_client *client, kt5bus_message *message, void *, int ok);
    static void on_status(kt5bus_client *client, int status);
    static void on_presence(kt5bus_client *client, kt5bus_address *connected,
                            kt5bus_address *disconnected);
    static void on_stopped(kt5bus_client *) {}

    void sender_loop();
    void transmit(const Action &action);

    kt5bus_client client_{};
    mutable std::mutex lock_;
    std::condition_variable changed_;
    bool running_ = false;
    bool stopping_ = false;
    bool stopped_ = false;
    std::set<std::string> peers_;
    std::set<int> statuses_;
    std::vector<Received> received_;
    Responder responder_;
    std::multimap<std::chrono::steady_clock::time_point, Action> scheduled_;
    unsigned long delivered_ok_ = 0;
    unsigned long delivered_failed_ = 0;
    std::thread sender_;
};

}  // namespace uozagent

#endif
