// The path to one ECU (a DoIP connection's target, a CAN ISO-TP socket), and
// the UDS request/response rules on top of it: P2 and P2* with response
// pending (NRC 0x78), a bounded retry on busy (NRC 0x21), and one overall
// deadline that stays below the library's 10-second reply limit.
#ifndef UOZ_TOOLS_AGENT_ECU_LINK_H
#define UOZ_TOOLS_AGENT_ECU_LINK_H

#include <chrono>
#include <string>

#include "uds_requests.h"

namespace uozagent {

using Clock = std::chrono::steady_clock;
using Millis = std::chrono::milliseconds;

class EcuLink {
  public:
    virtual ~EcuLink() = default;
    // Delivers one request to the ECU; false with *error when it could not
    // be (connection refused or dropped, routing denied, NACK). A request that
    // may have reached the ECU is never sent again by the link.
    virtual bool send(const Bytes &request, Clock::time_point deadline, std::string *error) = 0;
    // The ECU's next answer to the request sent; false with *error when none
    // came before `until` (*timed_out is then true) or the link broke.
    virtual bool receive(Clock::time_point until, Bytes *response, std::string *error,
                         bool *timed_out) = 0;
};

struct UdsTiming {
    Millis p2{1000};       // first answer, from the request sent
    Millis p2_star{5000};  // each further wait after response pending
    Millis overall{8000};  // the whole request, pending answers and retries included
    int busy_retries = 3;
    Millis busy_delay{100};
};

struct UdsOutcome {
    bool answered = false;  // the ECU's final answer is in `response`
    Bytes response;
    std::string error;  // why there is no answer
    int pending_answers = 0;
    int busy_answers = 0;
};

// The timing to use after an ECU announced its own P2 and P2* (0x10): never
// shorter than the configured waits, with room for the way there and back,
// and never beyond the overall deadline.
UdsTiming timing_for_ecu(const UdsTiming &configured, Millis p2_server, Millis p2_star_server);

// One request and its final answer (positive or negative, never 0x78).
UdsOutcome uds_request(EcuLink &link, const Bytes &request, const UdsTiming &timing);

}  // namespace uozagent

#endif
