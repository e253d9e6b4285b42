// The agent's bus client: receives queries and consent requests and sends
// the answers at once from the thread that has them. Unlike the test peer it
// keeps nothing of what it received, so it can run for months.
#ifndef UOZ_TOOLS_AGENT_AGENT_BUS_H
#define UOZ_TOOLS_AGENT_AGENT_BUS_H

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

#include "agent_peer.h"
#include "kt5bus/kt5bus.h"

namespace uozagent {

class AgentBus {
  public:
    using Handler = std::function<void(AgentBus &bus, const Received &)>;

    // Throws std::runtime_error when the identity cannot be loaded or the
    // client cannot start. The handler runs on the bus library's thread.
    AgentBus(const std::string &identity_dir, const std::string &url, Handler handler);
    ~AgentBus();
    AgentBus(const AgentBus &) = delete;
    AgentBus &operator=(const AgentBus &) = delete;

    bool wait_running(int timeout_ms);
    // Sends text (with its terminating NUL, as the library does) to an update
    // agent or group; false when the bus refused it at once.
    bool send(const std::string &text, int kind, const std::string &name);
    // Stops the client; no handler runs afterwards. Idempotent.
    void stop();
    unsigned long failed_deliveries() const { return failed_.load(); }

  private:
    static void on_message(kt5bus_client *client, kt5bus_message *message);
    static void on_delivered(kt5bus_client *client, kt5bus_message *message, void *, int ok);
    static void on_status(kt5bus_client *client, int status);
    static void on_presence(kt5bus_client *, kt5bus_address *, kt5bus_address *) {}
    static void on_stopped(kt5bus_client *) {}

    kt5bus_client client_{};
    Handler handler_;
    std::mutex lock_;
    std::condition_variable changed_;
    bool running_ = false;
    bool stopped_ = false;
    std::atomic<unsigned long> failed_{0};
};

}  // namespace uozagent

#endif
