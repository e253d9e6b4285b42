#include "ecu_link.h"

#include <algorithm>
#include <thread>

namespace uozagent {

namespace {

// An answer that belongs to another request (a late one after a time-out) is
// not this request's answer: its service must match.
bool answers(const Bytes &response, const Bytes &request) {
    if (response.empty() || request.empty())
        return false;
    if (response[0] == uozuds::kNegativeResponse)
        return response.size() >= 2 && response[1] == request[0];
    return response[0] == static_cast<uint8_t>(request[0] + 0x40);
}

}  // namespace

UdsTiming timing_for_ecu(const UdsTiming &configured, Millis p2_server, Millis p2_star_server) {
    const Millis kTransit(100);  // the gateway and the network, both ways
    UdsTiming timing = configured;
    timing.p2 = std::min(configured.overall, std::max(configured.p2, p2_server + kTransit));
    timing.p2_star =
        std::min(configured.overall, std::max(configured.p2_star, p2_star_server + kTransit));
    return timing;
}

UdsOutcome uds_request(EcuLink &link, const Bytes &request, const UdsTiming &timing) {
    UdsOutcome outcome;
    const Clock::time_point deadline = Clock::now() + timing.overall;
    for (int attempt = 0;; ++attempt) {
        if (!link.send(request, deadline, &outcome.error))
            return outcome;
        Clock::time_point until = std::min(deadline, Clock::now() + timing.p2);
        for (;;) {
            bool timed_out = false;
            Bytes response;
            if (!link.receive(until, &response, &outcome.error, &timed_out)) {
                if (timed_out) {
                    outcome.error = outcome.pending_answers > 0
                                        ? "the ECU said it would answer (response pending) but "
                                          "did not in time"
                                        : "no answer from the ECU within " +
                                              std::to_string(timing.p2.count()) + " ms";
                    if (until >= deadline)
                        outcome.error += " (overall limit " +
                                         std::to_string(timing.overall.count()) + " ms reached)";
                }
                return outcome;
            }
            if (!answers(response, request))
                continue;
            uint8_t code = 0;
            if (is_negative_response(response, &code) && code == uozuds::nrc::kResponsePending) {
                ++outcome.pending_answers;
                until = std::min(deadline, Clock::now() + timing.p2_star);
                continue;
            }
            if (is_negative_response(response, &code) && code == uozuds::nrc::kBusyRepeatRequest &&
                attempt < timing.busy_retries && Clock::now() + timing.busy_delay < deadline) {
                ++outcome.busy_answers;
                std::this_thread::sleep_for(timing.busy_delay);
                break;
            }
            outcome.answered = true;
            outcome.response = std::move(response);
            return outcome;
        }
    }
}

}  // namespace uozagent
