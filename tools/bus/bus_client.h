// The programs' bus client (tools/bus): one connection to the broker with a
// node identity (identity.h), messages sent to and received from update
// agents and groups, the status of the connection, and which peers are
// present. The agent answers queries with it; the tests' scripted peer is
// built on it. A quick probe of the broker before waiting on it is in
// bus_probe.h.
//
//   uozbus::BusClient::Handlers handlers;
//   handlers.message = [](uozbus::BusClient &bus, const uozbus::Received &message) {
//       bus.answer(message, answer_to(message.text));
//   };
//   uozbus::BusClient bus(identity_dir, "tcp://localhost:8883", handlers);
//   bus.wait_running(10000);
#ifndef UOZ_TOOLS_BUS_CLIENT_H
#define UOZ_TOOLS_BUS_CLIENT_H

#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <string>

#include "kt5bus/kt5bus.h"

namespace uozbus {

// What a received message says: its text up to the first NUL, and its sender.
struct Received {
    std::string text;
    size_t length = 0;        // the payload length as received
    int source_kind = 0;      // KT5BUS_ADDR_*, 0 when the sender is unknown
    std::string source_name;  // update agent or group name
    std::string reply_route;  // the sending connection's, empty when it named none
};

// The name a peer is known by in the presence list: its update-agent or
// group name, "<DM-CLIENT>" for the device-management client.
std::string peer_name(const kt5bus_address *address);

class BusClient {
  public:
    // Every handler runs on the bus library's thread; each may be empty.
    struct Handlers {
        // A message to one of the node's addresses; the client is passed so
        // that an answer can be sent before the constructor has returned.
        std::function<void(BusClient &client, const Received &message)> message;
        // Once per message send() accepted: whether the broker took it.
        std::function<void(bool delivered)> delivered;
        // Each status report of the connection (KT5BUS_STATUS_*).
        std::function<void(int status)> status;
    };

    // Loads the identity in identity_dir and starts connecting to url
    // ("tcp://host:port"); the broker need not be up yet. Throws
    // std::runtime_error when the identity cannot be loaded or the bus
    // library refuses to start.
    BusClient(const std::string &identity_dir, const std::string &url, Handlers handlers);
    // Stops the client.
    ~BusClient();
    BusClient(const BusClient &) = delete;
    BusClient &operator=(const BusClient &) = delete;

    // Sends text to an update agent or group (KT5BUS_ADDR_UA, _GROUP) or the
    // device-management client (KT5BUS_ADDR_SPECIAL), with its terminating
    // NUL unless told otherwise, as the library sends its own. False when
    // there is nowhere to send (kind 0: the sender was unknown), the address
    // is refused or the bus refuses the message at once; the delivered
    // handler then never hears of it.
    bool send(const std::string &text, int kind, const std::string &name,
              bool with_terminator = true);
    // Sends text to the one connection a reply route names (see kt5bus.h);
    // false as for send().
    bool send_reply(const std::string &text, const std::string &route, bool with_terminator = true);
    // Answers a received message: on its reply route, or at its sender's
    // address when it named none.
    bool answer(const Received &to, const std::string &text, bool with_terminator = true);
    // Stops the client: pending messages are reported not delivered, and no
    // handler runs afterwards. Idempotent; safe from any thread but the
    // bus library's.
    void stop();

    // Each waits until the condition holds or timeout_ms passes; false then.
    bool wait_running(int timeout_ms);                 // connected and subscribed
    bool wait_for_status(int status, int timeout_ms);  // reported at least once
    bool wait_for_peer(const std::string &name, int timeout_ms);
    bool wait_for_peer_gone(const std::string &name, int timeout_ms);

  private:
    static void on_message(kt5bus_client *client, kt5bus_message *message);
    static void on_delivered(kt5bus_client *client, kt5bus_message *message, void *, int ok);
    static void on_status(kt5bus_client *client, int status);
    static void on_presence(kt5bus_client *client, kt5bus_address *connected,
                            kt5bus_address *disconnected);
    static void on_stopped(kt5bus_client *) {}
    template <typename Condition>
    bool wait(int timeout_ms, Condition condition);

    const Handlers handlers_;
    kt5bus_client client_{};
    std::mutex lock_;
    std::condition_variable changed_;
    bool running_ = false;
    bool stopped_ = false;
    std::set<int> statuses_;
    std::set<std::string> peers_;
};

}  // namespace uozbus

#endif
