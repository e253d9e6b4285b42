// The agent on the bus: it receives the queries to "/ZDATA/UDS" and the
// consent requests to "policy-agent" through the programs' bus client
// (tools/bus). Each query runs on a worker of its own, which sends the reply
// itself, so that the bus thread stays free and the ECUs of different
// queries work in parallel; a consent request is answered at once by
// policy. Every answer goes to the one connection that asked (its reply
// route), or to the sender's address when it named no route. It keeps nothing of what it received,
// so it can run for months.
#ifndef UOZ_TOOLS_AGENT_AGENT_BUS_H
#define UOZ_TOOLS_AGENT_AGENT_BUS_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bus_client.h"
#include "consent.h"
#include "diag_agent.h"

namespace uozagent {

struct BusSetup {
    std::string identity_dir;
    std::string url;  // "tcp://host:port"
    ConsentPolicy policy = ConsentPolicy::kAccept;
    bool (*ask)(const std::string &campaign) = nullptr;  // for ConsentPolicy::kAsk
    std::function<void(int status)> on_status;           // on the bus library's thread
};

class AgentBus {
  public:
    // Throws std::runtime_error when the bus client cannot start.
    AgentBus(DiagAgent &agent, const BusSetup &setup);
    ~AgentBus();
    AgentBus(const AgentBus &) = delete;
    AgentBus &operator=(const AgentBus &) = delete;

    // Ends the workers (queries not started are dropped), then the bus
    // client. Idempotent.
    void stop();

  private:
    struct Job {
        uozbus::BusClient *bus = nullptr;
        uozbus::Received query;
    };

    void on_message(uozbus::BusClient &bus, const uozbus::Received &message);
    void add(Job job);
    void work();
    static void reply(uozbus::BusClient &bus, const uozbus::Received &to, const std::string &text);

    DiagAgent &agent_;
    const BusSetup setup_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::deque<Job> queue_;
    bool stopping_ = false;
    std::vector<std::thread> workers_;
    std::unique_ptr<uozbus::BusClient> bus_;
};

}  // namespace uozagent

#endif
