// An ECU on a CAN bus through the kernel's ISO-TP sockets (CAN_ISOTP), which
// do segmentation and flow control with the ECU's ids, st-min and block size.
#ifndef UOZ_TOOLS_AGENT_ISOTP_LINK_H
#define UOZ_TOOLS_AGENT_ISOTP_LINK_H

#include <memory>
#include <string>

#include "doip.h"
#include "ecu_link.h"
#include "query_targets.h"

namespace uozagent {

class IsotpLink : public EcuLink {
  public:
    // nullptr with *error when the machine has no such CAN interface or no
    // ISO-TP support ("no CAN interface can0 on this machine").
    static std::unique_ptr<IsotpLink> open(const CanAddress &address, std::string *error);

    bool send(const Bytes &request, Clock::time_point deadline, std::string *error) override;
    bool receive(Clock::time_point until, Bytes *response, std::string *error,
                 bool *timed_out) override;

  private:
    IsotpLink(uozdoip::ScopedFd fd, std::string ifname)
        : fd_(std::move(fd)), ifname_(std::move(ifname)) {}

    uozdoip::ScopedFd fd_;
    std::string ifname_;
};

}  // namespace uozagent

#endif
