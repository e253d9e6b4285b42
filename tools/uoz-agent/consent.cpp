#include "consent.h"

#include <json-c/json.h>
#include <string.h>

#include "json_helpers.h"

namespace uozagent {

using uoztools::JsonPtr;

std::string answer_consent(const std::string &message, ConsentPolicy policy,
                           bool (*ask)(const std::string &campaign)) {
    JsonPtr parsed(json_tokener_parse(message.c_str()));
    json_object *type = nullptr;
    json_object *body = nullptr;
    if (!json_object_object_get_ex(parsed.get(), "type", &type) ||
        strcmp(json_object_get_string(type), "zelko.external-consent") != 0 ||
        !json_object_object_get_ex(parsed.get(), "body", &body)) {
        return "";
    }
    json_object *campaign_value = nullptr;
    json_object_object_get_ex(body, "campaign-id", &campaign_value);
    const char *campaign = json_object_is_type(campaign_value, json_type_string)
                               ? json_object_get_string(campaign_value)
                               : "";
    bool accepted = policy == ConsentPolicy::kAccept ||
                    (policy == ConsentPolicy::kAsk && ask != nullptr && ask(campaign));
    JsonPtr answer(json_object_new_object());
    json_object_object_add(answer.get(), "type", json_object_new_string("zelko.external-consent"));
    json_object *answer_body = json_object_new_object();
    json_object_object_add(answer_body, "campaign-id", json_object_new_string(campaign));
    json_object_object_add(answer_body, "consent-status",
                           json_object_new_string(accepted ? "accepted" : "rejected"));
    json_object_object_add(answer.get(), "body", answer_body);
    return json_object_to_json_string_ext(answer.get(), JSON_C_TO_STRING_PLAIN);
}

}  // namespace uozagent
