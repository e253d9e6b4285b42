#include "ecu_link.h"

#include <algorithm>
#include <thread>

#include "dtc_reports.h"

namespace uozagent {

namespace {

using uozuds::DtcRequestLayout;
using uozuds::DtcResponseLayout;
using uozuds::DtcSelection;

// True when response[from, from + count) repeats request[from, from + count).
bool echoed(const Bytes &response, const Bytes &request, size_t from, size_t count) {
    return request.size() >= from + count && response.size() >= from + count &&
           std::equal(request.begin() + from, request.begin() + from + count,
                      response.begin() + from);
}

// The services whose sub-function has the suppress-positive-response bit.
bool has_suppress_bit(uint8_t service) {
    switch (service) {
        case uozuds::sid::kDiagnosticSessionControl:
        case uozuds::sid::kEcuReset:
        case uozuds::sid::kSecurityAccess:
        case uozuds::sid::kCommunicationControl:
        case uozuds::sid::kRoutineControl:
        case uozuds::sid::kTesterPresent:
        case uozuds::sid::kControlDtcSetting:
            return true;
        default:
            return false;
    }
}

bool sub_function_echoed(const Bytes &response, const Bytes &request) {
    return request.size() >= 2 && response.size() >= 2 &&
           response[1] == (request[1] & ~uozuds::kSuppressPositiveResponse);
}

// A report lists what the request selects: the report type always, the DTC
// a request names, and for status-mask lists only DTCs with a status bit of
// the mask (a list of another mask's request fails this where it differs).
bool dtc_report_fits(const Bytes &response, const Bytes &request) {
    if (!echoed(response, request, 1, 1))
        return false;
    const uozuds::DtcReportType *type = uozuds::find_dtc_report(request[1]);
    if (type == nullptr || type->memory_selection)
        return true;
    bool names_dtc = uozuds::carries_dtc(type->request);
    if (names_dtc && (type->response == DtcResponseLayout::kSnapshotRecords ||
                      type->response == DtcResponseLayout::kExtendedRecords))
        return echoed(response, request, 2, 3);
    bool by_mask = type->selection == DtcSelection::kByStatusMask ||
                   type->selection == DtcSelection::kEmissionsByStatusMask;
    if (type->request == DtcRequestLayout::kStatusMask && by_mask &&
        type->response == DtcResponseLayout::kStatusList && request.size() >= 3) {
        const uint8_t mask = request[2];
        for (size_t status = 6; status < response.size(); status += 4) {
            if ((response[status] & mask) == 0)
                return false;
        }
    }
    return true;
}

bool is_final(const Bytes &response) {
    uint8_t code = 0;
    return !is_negative_response(response, &code) || code != uozuds::nrc::kResponsePending;
}

enum class Wait { kAnswered, kTimedOut, kBroken };

// Receives until the request's final answer, P2 first and P2* after each
// response pending; answers to other requests are kept in outcome->stale_answers.
Wait wait_for_answer(EcuLink &link, const Bytes &request, const UdsTiming &timing,
                     Clock::time_point deadline, UdsOutcome *outcome, Bytes *answer) {
    Clock::time_point until = std::min(deadline, Clock::now() + timing.p2);
    for (;;) {
        bool timed_out = false;
        Bytes response;
        if (!link.receive(until, &response, &outcome->error, &timed_out))
            return timed_out ? Wait::kTimedOut : Wait::kBroken;
        if (!answers_request(response, request)) {
            outcome->stale_answers.push_back(std::move(response));
            continue;
        }
        if (!is_final(response)) {
            ++outcome->pending_answers;
            until = std::min(deadline, Clock::now() + timing.p2_star);
            continue;
        }
        *answer = std::move(response);
        return Wait::kAnswered;
    }
}

std::string timeout_text(const UdsOutcome &outcome, const UdsTiming &timing,
                         Clock::time_point deadline) {
    std::string text =
        outcome.pending_answers > 0
            ? "the ECU said it would answer (response pending) but did not in time"
            : "no answer from the ECU within " + std::to_string(timing.p2.count()) + " ms";
    if (Clock::now() >= deadline)
        text += " (overall limit " + std::to_string(timing.overall.count()) + " ms reached)";
    return text;
}

// TesterPresent after an unanswered request: its answer comes after every
// answer still owed, which are discarded on the way. A busy answer (the ECU
// still works on the earlier request) proves nothing, so it is asked again.
bool resynchronise(EcuLink &link, const UdsTiming &timing, Clock::time_point deadline,
                   UdsOutcome *outcome) {
    const Bytes kTesterPresent = {uozuds::sid::kTesterPresent, 0x00};
    outcome->resynchronised = true;
    for (int attempt = 0;; ++attempt) {
        if (!link.send(kTesterPresent, deadline, &outcome->error))
            return false;
        Bytes answer;
        Wait wait = wait_for_answer(link, kTesterPresent, timing, deadline, outcome, &answer);
        if (wait == Wait::kTimedOut)
            outcome->error = timeout_text(*outcome, timing, deadline);
        if (wait != Wait::kAnswered)
            return false;
        outcome->pending_answers = 0;
        uint8_t code = 0;
        if (!is_negative_response(answer, &code) || code != uozuds::nrc::kBusyRepeatRequest)
            return true;
        if (attempt >= timing.busy_retries || Clock::now() + timing.busy_delay >= deadline) {
            outcome->error = "the ECU is still busy with an earlier request";
            return false;
        }
        std::this_thread::sleep_for(timing.busy_delay);
    }
}

}  // namespace

bool answers_request(const Bytes &response, const Bytes &request) {
    if (response.empty() || request.empty())
        return false;
    if (response[0] == uozuds::kNegativeResponse)
        return response.size() >= 3 && response[1] == request[0];
    if (response[0] != static_cast<uint8_t>(request[0] + uozuds::kPositiveOffset))
        return false;
    switch (request[0]) {
        case uozuds::sid::kRoutineControl:
            return sub_function_echoed(response, request) && echoed(response, request, 2, 2);
        case uozuds::sid::kReadDataByIdentifier:
        case uozuds::sid::kWriteDataByIdentifier:
            return echoed(response, request, 1, 2);
        case uozuds::sid::kReadDtcInformation:
            return dtc_report_fits(response, request);
        default:
            return !has_suppress_bit(request[0]) || sub_function_echoed(response, request);
    }
}

bool suppresses_positive_answer(const Bytes &request) {
    return request.size() >= 2 && (request[1] & uozuds::kSuppressPositiveResponse) != 0 &&
           has_suppress_bit(request[0]);
}

UdsTiming timing_for_ecu(const UdsTiming &configured, Millis p2_server, Millis p2_star_server) {
    const Millis kTransit(100);  // the gateway and the network, both ways
    UdsTiming timing = configured;
    timing.p2 = std::min(configured.overall, std::max(configured.p2, p2_server + kTransit));
    timing.p2_star =
        std::min(configured.overall, std::max(configured.p2_star, p2_star_server + kTransit));
    return timing;
}

bool resynchronise_if_needed(EcuLink &link, const UdsTiming &timing, Clock::time_point deadline,
                             EcuState &state, UdsOutcome *outcome) {
    if (!state.answer_may_be_late)
        return true;
    if (!resynchronise(link, timing, deadline, outcome))
        return false;
    state.answer_may_be_late = false;
    state.tester_present_may_answer = false;
    return true;
}

bool await_answer(EcuLink &link, const Bytes &request, const UdsTiming &timing,
                  Clock::time_point deadline, EcuState &state, UdsOutcome *outcome,
                  Bytes *response) {
    // Until the final answer (or the silence a suppressed request asks
    // for), whatever the ECU still sends may belong to this request.
    state.answer_may_be_late = true;
    switch (wait_for_answer(link, request, timing, deadline, outcome, response)) {
        case Wait::kAnswered:
            state.answer_may_be_late = false;
            state.tester_present_may_answer = false;  // an ECU answers in order
            return true;
        case Wait::kTimedOut:
            // Silence within P2 is the success a suppressed request asks for;
            // once the ECU said "response pending", its final answer is owed.
            if (suppresses_positive_answer(request) && outcome->pending_answers == 0) {
                outcome->answered = outcome->suppressed = true;
                outcome->error.clear();
            } else {
                outcome->error = timeout_text(*outcome, timing, deadline);
            }
            return false;
        case Wait::kBroken:
            return false;
    }
    return false;
}

namespace {

UdsOutcome request_in_turn(EcuLink &link, const Bytes &request, const UdsTiming &timing,
                           EcuState &state) {
    UdsOutcome outcome;
    const Clock::time_point deadline = Clock::now() + timing.overall;
    // A silent TesterPresent's late negative answer can pass only for another
    // TesterPresent's answer: only then is it resynchronised first.
    if (state.tester_present_may_answer && request[0] == uozuds::sid::kTesterPresent)
        state.answer_may_be_late = true;
    if (!resynchronise_if_needed(link, timing, deadline, state, &outcome))
        return outcome;
    for (int attempt = 0;; ++attempt) {
        if (!link.send(request, deadline, &outcome.error))
            return outcome;
        Bytes response;
        if (!await_answer(link, request, timing, deadline, state, &outcome, &response))
            return outcome;
        uint8_t code = 0;
        if (is_negative_response(response, &code) && code == uozuds::nrc::kBusyRepeatRequest &&
            attempt < timing.busy_retries && Clock::now() + timing.busy_delay < deadline) {
            ++outcome.busy_answers;
            std::this_thread::sleep_for(timing.busy_delay);
            continue;
        }
        outcome.answered = true;
        outcome.response = std::move(response);
        return outcome;
    }
}

}  // namespace

void note_session(EcuState &state, const Bytes &request, const UdsOutcome &outcome) {
    if (!outcome.answered || request.size() < 2)
        return;
    const uint8_t service = request[0];
    const uint8_t sub_function = request[1] & ~uozuds::kSuppressPositiveResponse;
    uint8_t code = 0;
    if (is_negative_response(outcome.response, &code)) {
        if (code == uozuds::nrc::kServiceNotSupportedInActiveSession ||
            code == uozuds::nrc::kSubFunctionNotSupportedInActiveSession) {
            state.session = uozuds::session::kDefault;
            state.unlocked_level = 0;
        } else if (code == uozuds::nrc::kSecurityAccessDenied) {
            state.unlocked_level = 0;
        }
        return;
    }
    switch (service) {
        case uozuds::sid::kDiagnosticSessionControl:
            state.session = sub_function;
            state.unlocked_level = 0;
            return;
        case uozuds::sid::kEcuReset:
            state.session = uozuds::session::kDefault;
            state.unlocked_level = 0;
            return;
        case uozuds::sid::kSecurityAccess: {
            if (sub_function % 2 == 0) {  // sendKey accepted
                state.unlocked_level = static_cast<uint8_t>(sub_function - 1);
                return;
            }
            const Bytes &seed = outcome.response;  // 67 <level> <seed>: zero when unlocked
            if (seed.size() > 2 &&
                std::all_of(seed.begin() + 2, seed.end(), [](uint8_t byte) { return byte == 0; }))
                state.unlocked_level = sub_function;
            return;
        }
        default:
            return;
    }
}

UdsOutcome uds_request(EcuLink &link, const Bytes &request, const UdsTiming &timing,
                       EcuState &state) {
    UdsOutcome outcome = request_in_turn(link, request, timing, state);
    note_session(state, request, outcome);
    return outcome;
}

}  // namespace uozagent
