// External consent for an update campaign, answered by the bus's policy agent.
#include <stdlib.h>

#include <utility>

#include "UDSOverZelko/exchange.h"
#include "kt5Utils/kt5_json.h"

namespace {

// Built without testing the additions (see kt5_json_add).
json_object *consent_message(int32_t consent_type, const char *campaign_id) {
    bool download = consent_type == CONSENT_DOWNLOAD;
    json_object *body = json_object_new_object();
    kt5_json_add(body, "campaign-id", json_object_new_string(campaign_id));
    kt5_json_add(body, "download-consent", json_object_new_string(download ? "Yes" : "No"));
    kt5_json_add(body, "install-consent", json_object_new_string(download ? "No" : "Yes"));
    json_object *message = json_object_new_object();
    kt5_json_add(message, "type", json_object_new_string("zelko.external-consent"));
    kt5_json_add(message, "body", body);
    return message;
}

int consent_result(json_object *answer) {
    const char *status = nullptr;
    if (kt5_json_get(answer, json_type_string, &status, "body", "consent-status", nullptr) != 0) {
        UOZ_DBGLOG(UOZ_LOG_ERR, "No property found\n");
        return CONSENT_NO_STATUS;
    }
    return ascii_equal_ignoring_case(status, "accepted") ? CONSENT_ACCEPTED : CONSENT_REJECTED;
}

}  // namespace

int UDSOverZelkoSendExternalConsent(UDSOverZelkoHandle *handle, int32_t consent_type,
                                    const char *campaign_id) {
    UOZ_LOG_BANNER();
    if (handle == nullptr) {
        UOZ_DBGLOG(UOZ_LOG_ERR, "Invalid Handle");
        return CONSENT_INVALID_HANDLE;
    }
    if (consent_type != CONSENT_DOWNLOAD && consent_type != CONSENT_INSTALL) {
        UOZ_DBGLOG(UOZ_LOG_ERR, "Invalid Consent Type received");
        return CONSENT_INVALID_TYPE;
    }
    if (campaign_id == nullptr) {
        UOZ_DBGLOG(UOZ_LOG_ERR, "Invalid campaign id");
        return CONSENT_INVALID_CAMPAIGN;
    }
    // Answers carry no identifier: any consent answer is this request's.
    Request request;
    request.wait = &handle->consent_wait;
    request.recipient = RECIPIENT_POLICY_AGENT;
    request.message.reset(consent_message(consent_type, campaign_id));
    JsonPtr answer;
    if (exchange_request(handle->bus, std::move(request), &answer) != EXCHANGE_ANSWERED)
        return CONSENT_NO_REPLY;
    return consent_result(answer.get());
}
