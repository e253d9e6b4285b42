// External consent for an update campaign, answered by the bus's policy agent.
#include <stdlib.h>
#include <strings.h>

#include "UDSOverZelko/records.h"

#include "kt5Utils/kt5_json.h"
#include "zelkobus/zelkobus.h"

namespace {

json_object *consent_message(int32_t consent_type, const char *campaign_id) {
    bool download = consent_type == CONSENT_DOWNLOAD;
    json_object *body = json_object_new_object();
    json_object_object_add(body, "campaign-id", json_object_new_string(campaign_id));
    json_object_object_add(body, "download-consent",
                           json_object_new_string(download ? "Yes" : "No"));
    json_object_object_add(body, "install-consent",
                           json_object_new_string(download ? "No" : "Yes"));
    json_object *message = json_object_new_object();
    json_object_object_add(message, "type", json_object_new_string("zelko.external-consent"));
    json_object_object_add(message, "body", body);
    return message;
}

int consent_result(json_object *answer) {
    const char *status = nullptr;
    if (kt5_json_get(answer, json_type_string, &status, "body", "consent-status", nullptr) != 0) {
        UOZ_DBGLOG(UOZ_LOG_ERR, "No property found\n");
        return CONSENT_NO_STATUS;
    }
    return strcasecmp(status, "accepted") == 0 ? CONSENT_ACCEPTED : CONSENT_REJECTED;
}

}  // namespace

int UDSOverZelkoSendExternalConsent(UDSOverZelkoHandle *handle, int32_t consent_type,
                                    const char *campaign_id) {
    UOZ_LOG_BANNER();
    if (handle == nullptr) {
        UOZ_DBGLOG(UOZ_LOG_ERR, "Invalid Handle");
        return CONSENT_INVALID_HANDLE;
    }
    ReplyWait *wait = &handle->consent_wait;
    pthread_mutex_lock(&wait->lock);
    int result = CONSENT_NO_REPLY;
    if (consent_type != CONSENT_DOWNLOAD && consent_type != CONSENT_INSTALL) {
        UOZ_DBGLOG(UOZ_LOG_ERR, "Invalid Consent Type received");
        result = CONSENT_INVALID_TYPE;
    } else if (campaign_id == nullptr) {
        UOZ_DBGLOG(UOZ_LOG_ERR, "Invalid campaign id");
        result = CONSENT_INVALID_CAMPAIGN;
    } else {
        // An answer left from an earlier request is not this request's answer.
        reply_slot_clear(wait);
        JsonPtr message(consent_message(consent_type, campaign_id));
        const char *const groups[] = {UOZ_POLICY_AGENT_GROUP, nullptr};
        zebus_send_message(handle->bus, json_object_to_json_string(message.get()), groups);
        TextPtr answer_text;
        JsonPtr answer;
        result = reply_slot_wait(wait, &answer_text, &answer) ? consent_result(answer.get())
                                                              : CONSENT_NO_REPLY;
    }
    pthread_mutex_unlock(&wait->lock);
    return result;
}
