// What the agent says about its link to the broker: why it cannot connect
// (the broker probe's reason: refused, not resolved, which TLS check failed,
// certificate expired, not authorised), when the link drops and when it is
// back. The same lines go to the service manager's status.
#ifndef UOZ_TOOLS_AGENT_BROKER_LINK_H
#define UOZ_TOOLS_AGENT_BROKER_LINK_H

#include <chrono>
#include <mutex>
#include <string>

#include "lifetime.h"

namespace uozagent {

struct BrokerTarget {
    std::string host;
    int port = 0;
    std::string identity_dir;
    std::string text() const { return host + ":" + std::to_string(port); }
};

// Until the bus client runs (true) or a stop comes (true, stop_requested()
// then says so). Each failed attempt is told with its reason; without
// keep_trying the first one ends the start (false).
bool wait_connected(const BrokerTarget &broker, bool keep_trying, Lifetime &lifetime);

// Logs drops and returns of the broker link; status() is the bus client's
// status callback.
class LinkLog {
  public:
    explicit LinkLog(std::string broker) : broker_(std::move(broker)) {}
    void status(int status);

  private:
    std::string broker_;
    std::mutex lock_;
    bool down_ = false;
    std::chrono::steady_clock::time_point down_since_;
};

}  // namespace uozagent

#endif
