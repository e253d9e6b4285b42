// What a routine's answer (clear DTCs, a remote command) says, ECU by ECU.
#include <string.h>
#include <strings.h>

#include "commands.h"
#include "exit_codes.h"
#include "hex_text.h"
#include "json_helpers.h"

namespace uozctl {

namespace {

using uoztools::JsonPtr;
using uoztools::text_member;

// Every ECU's result of an agent's answer, wherever it is: an object with a
// "response" text, or an ECU's "error" when the agent could not run it there.
void collect_responses(json_object *object, json_object *into) {
    if (json_object_is_type(object, json_type_array)) {
        for (size_t i = 0; i < json_object_array_length(object); ++i)
            collect_responses(json_object_array_get_idx(object, i), into);
        return;
    }
    if (!json_object_is_type(object, json_type_object))
        return;
    if (text_member(object, "response") != nullptr ||
        (text_member(object, "ecu") != nullptr && text_member(object, "error") != nullptr)) {
        json_object_array_add(into, json_object_get(object));
        return;
    }
    json_object_object_foreach(object, key, value) {
        (void)key;
        collect_responses(value, into);
    }
}

// "7F" service NRC: a negative response; its text, or empty.
std::string negative_response_text(const std::string &response) {
    if (response.size() < 6 || strncasecmp(response.c_str(), "7F", 2) != 0)
        return "";
    uint8_t nrc = static_cast<uint8_t>(strtoul(response.substr(4, 2).c_str(), nullptr, 16));
    return "negative response: NRC " + uozuds::hex_number(nrc, 2) + " " + nrc_name(nrc);
}

// One ECU's result: a negative response, a failure with the agent's
// reason, or done.
RoutineResult routine_result(json_object *answer) {
    RoutineResult result;
    const char *ecu = text_member(answer, "ecu");
    const char *response = text_member(answer, "response");
    const char *error = text_member(answer, "error");
    result.ecu = ecu != nullptr ? ecu : "ECU";
    result.response = response != nullptr ? response : "";
    result.negative = negative_response_text(result.response);
    // The agent also names the command a negative response stopped: the
    // response's own text says it better.
    if (result.negative.empty() && error != nullptr)
        result.error = *error != '\0' ? error : "the agent gave no reason";
    return result;
}

}  // namespace

int show_routine_response(const Context &context, int rc, CommandResponse *response,
                          const char *what) {
    const Output &output = context.output;
    if (rc == UOZ_ERR_TIMEOUT)
        return output.no_reply("diagnostic agent", context.options.timeout);
    if (rc == UOZ_ERR_VALIDITY) {
        return output.fail(uoztools::kExitInvalidInput,
                           "the command is outside its diagnostic_period (or its times are "
                           "unreadable)");
    }
    if (rc != 0) {
        return output.fail(uoztools::kExitFailureReported,
                           std::string(what) + " failed: " + output.agent_failure(""));
    }
    JsonPtr body(json_tokener_parse(response->body_text != nullptr ? response->body_text : ""));
    UDSOverZelko_FreeCommandResponse(response);
    // The agent could not run the query at all.
    if (const char *error = text_member(body.get(), "error"))
        return output.fail(uoztools::kExitFailureReported, std::string(what) + " failed: " + error);
    JsonPtr answers(json_object_new_array());
    collect_responses(body.get(), answers.get());
    std::vector<RoutineResult> results;
    bool unsuccessful = false;
    for (size_t i = 0; i < json_object_array_length(answers.get()); ++i) {
        results.push_back(routine_result(json_object_array_get_idx(answers.get(), i)));
        unsuccessful =
            unsuccessful || !results.back().negative.empty() || !results.back().error.empty();
    }
    int code = unsuccessful ? uoztools::kExitFailureReported : uoztools::kExitOk;
    output.routine_results(what, results, code);
    return code;
}

}  // namespace uozctl
