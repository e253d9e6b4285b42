// An ECU on a CAN bus, as the agent reaches it: the query's "can" block turned
// into a kernel ISO-TP socket (tools/can), behind the agent's EcuLink. One
// link per ECU for the agent's life, used by one request at a time: what it
// received before a request is sent is a late answer to an earlier one, and
// is dropped.
#ifndef UOZ_TOOLS_AGENT_ISOTP_LINK_H
#define UOZ_TOOLS_AGENT_ISOTP_LINK_H

#include <memory>
#include <string>

#include "agent_settings.h"
#include "ecu_link.h"
#include "isotp_socket.h"
#include "query_targets.h"

namespace uozagent {

class IsotpLink : public EcuLink {
  public:
    // nullptr with *error when the machine has no such CAN interface or no
    // ISO-TP support ("no CAN interface can0 on this machine").
    static std::unique_ptr<IsotpLink> open(const CanAddress &address, const AgentSettings &settings,
                                           std::string *error);
    // A link that sends single frames on the address's functional id to
    // every ECU on the interface, and receives nothing: each ECU's answer
    // reaches only that ECU's own link.
    static std::unique_ptr<IsotpLink> open_functional(const CanAddress &address,
                                                      const AgentSettings &settings,
                                                      std::string *error);

    bool send(const Bytes &request, Clock::time_point deadline, std::string *error) override;
    bool receive(Clock::time_point until, Bytes *response, std::string *error,
                 bool *timed_out) override;

  private:
    explicit IsotpLink(std::unique_ptr<uozcan::IsotpSocket> socket) : socket_(std::move(socket)) {}

    std::unique_ptr<uozcan::IsotpSocket> socket_;
};

}  // namespace uozagent

#endif
