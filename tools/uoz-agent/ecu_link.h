// The path to one ECU (a DoIP connection's target, a CAN ISO-TP socket), and
// the UDS request/response rules on top of it: P2 and P2* with response
// pending (NRC 0x78), a bounded retry on busy (NRC 0x21), one overall
// deadline that stays below the library's 10-second reply limit, and
// answers that always belong to their request (what the ECU echoes is
// checked; after an unanswered request the ECU is resynchronised first).
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
    // The ECU's final answer is in `response`; empty when the request asked
    // for no positive answer and none came (`suppressed`).
    bool answered = false;
    Bytes response;
    bool suppressed = false;
    std::string error;  // why there is no answer
    int pending_answers = 0;
    int busy_answers = 0;
    bool resynchronised = false;       // a TesterPresent went first (see EcuState)
    std::vector<Bytes> stale_answers;  // discarded: they answer another request
};

// What the UDS layer keeps of one ECU between requests; guarded by the lock
// that gives the ECU one request at a time.
struct EcuState {
    // A request ended without its answer, which may still come. An ECU
    // answers one request at a time and in order, so before the next request
    // a TesterPresent (3E 00) is sent and everything before its answer is
    // discarded: echoes alone cannot tell `19 02 FF`'s late answer from
    // `19 02 08`'s.
    bool answer_may_be_late = false;
    // The session keeper's TesterPresent with the suppress bit met silence.
    // A late negative answer to it can pass only for another TesterPresent's
    // answer, so only a TesterPresent is resynchronised first.
    bool tester_present_may_answer = false;
    // What the answers so far say of the ECU's session and security access.
    uint8_t session = uozuds::session::kDefault;
    uint8_t unlocked_level = 0;  // the request-seed level unlocked; 0: locked
    // Until when the session keeper holds the session open (see session_keeper.h).
    Clock::time_point kept_until{};
};

// Updates what the state says of the ECU's session and security access from
// a request and its outcome: a session change (which locks security), a
// reset, an unlock, or a negative answer that says the session or the access
// is not what the agent thought.
void note_session(EcuState &state, const Bytes &request, const UdsOutcome &outcome);

// The timing to use after an ECU announced its own P2 and P2* (0x10): never
// shorter than the configured waits, with room for the way there and back,
// and never beyond the overall deadline.
UdsTiming timing_for_ecu(const UdsTiming &configured, Millis p2_server, Millis p2_star_server);

// Whether the answer can be the one to the request: its service, and what
// the service echoes (sub-function, DID, routine, DTC report type and DTC),
// and for status-mask reports only DTCs the mask selects.
bool answers_request(const Bytes &response, const Bytes &request);

// Whether the request asks the ECU to send no positive answer (sub-function
// bit 7 of a service that has it).
bool suppresses_positive_answer(const Bytes &request);

// Before a request to an ECU whose answer to an earlier one may still come
// (see EcuState): TesterPresent, and what came before its answer dropped.
// False with outcome->error when the ECU does not answer it.
bool resynchronise_if_needed(EcuLink &link, const UdsTiming &timing, Clock::time_point deadline,
                             EcuState &state, UdsOutcome *outcome);

// The final answer to a request already sent (by this link, or to every ECU
// at once): P2, P2* after each response pending, until the deadline. False
// with outcome->error when none came; a suppressed request's silence is
// then outcome->answered. Keeps `state` as uds_request() does.
bool await_answer(EcuLink &link, const Bytes &request, const UdsTiming &timing,
                  Clock::time_point deadline, EcuState &state, UdsOutcome *outcome,
                  Bytes *response);

// One request and its final answer (positive or negative, never 0x78).
UdsOutcome uds_request(EcuLink &link, const Bytes &request, const UdsTiming &timing,
                       EcuState &state);

}  // namespace uozagent

#endif
