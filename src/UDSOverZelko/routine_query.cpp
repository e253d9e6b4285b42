#include "UDSOverZelko/routine_query.h"

#include <utility>

#include "kt5Utils/kt5_json.h"

int build_routine_request(UDSOverZelkoHandle *handle, int32_t target_address,
                          const char *address_text, json_object *routine, const char *mode_failure,
                          Request *request) {
    EcuConfig *record = nullptr;
    json_object *body =
        build_routine_body(handle, target_address, address_text, routine, mode_failure, &record);
    if (body == nullptr || !prepare_query(body, record, UOZ_LOG_DBG, request))
        return UOZ_ERR_GENERAL;
    return UOZ_OK;
}

int run_routine_request(UDSOverZelkoHandle *handle, Request request, CommandResponse *response) {
    UOZ_DBGLOG(UOZ_LOG_DBG, "%s\n", json_object_to_json_string(request.message.get()));
    JsonPtr reply;
    switch (exchange_request(handle->bus, std::move(request), &reply)) {
        case EXCHANGE_NO_ANSWER:
            return UOZ_ERR_TIMEOUT;
        case EXCHANGE_MISMATCH:
            return UOZ_ERR_GENERAL;
        case EXCHANGE_ANSWERED:
            break;
    }
    json_object *body = kt5_json_borrow(reply.get(), json_type_object, "body", nullptr);
    if (body == nullptr) {
        UOZ_SET_ERROR("Could not get");
        return UOZ_ERR_GENERAL;
    }
    char *body_text = uoz_strdup(json_object_to_json_string(body));
    if (body_text == nullptr) {
        UOZ_SET_ERROR("Memory Allocation failed");
        return UOZ_ERR_GENERAL;
    }
    response->body_text = body_text;
    response->status = 0;
    return UOZ_OK;
}
