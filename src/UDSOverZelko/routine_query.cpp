#include "UDSOverZelko/routine_query.h"

#include <stdlib.h>

#include <utility>

#include "UDSOverZelko/exchange_internal.h"
#include "UDSOverZelko/query.h"
#include "kt5Utils/kt5_json.h"

int build_routine_query(UDSOverZelkoHandle *handle, int32_t target_address,
                        const char *address_text, json_object *routine, const char *mode_failure,
                        RoutineQuery *query) {
    JsonPtr owned_routine(routine);
    JsonPtr block(build_transport_block(handle, target_address, &query->record));
    if (!block) {
        UOZ_SET_ERROR("Could not get Transport Information");
        return UOZ_ERR_GENERAL;
    }
    query->reply_id.reset(generate_reply_id(REPLY_ID_LENGTH));
    if (!query->reply_id) {
        UOZ_SET_ERROR("Unable to get replyID");
        return UOZ_ERR_GENERAL;
    }
    JsonPtr body(json_object_new_object());
    char key[8];
    json_object *mode = transport_mode_name(query->record->type, key, sizeof(key));
    if (!body || mode == nullptr) {
        UOZ_SET_ERROR(mode_failure);
        return UOZ_ERR_GENERAL;
    }
    bool added = json_object_object_add(body.get(), "mode", mode) == 0 &&
                 json_object_object_add(body.get(), "targetAddress",
                                        json_object_new_string(address_text)) == 0 &&
                 json_object_object_add(body.get(), key, block.release()) == 0 &&
                 json_object_object_add(body.get(), "routine", owned_routine.release()) == 0;
    if (!added) {
        UOZ_SET_ERROR("Memory Allocation failed");
        return UOZ_ERR_GENERAL;
    }
    query->envelope.reset(wrap_query(query->reply_id.get(), body.release()));
    return query->envelope ? UOZ_OK : UOZ_ERR_GENERAL;
}

int send_routine_query(UDSOverZelkoHandle *handle, RoutineQuery query, CommandResponse *response) {
    UOZ_DBGLOG(UOZ_LOG_DBG, "%s\n", json_object_to_json_string(query.envelope.get()));
    TextPtr reply_text;
    JsonPtr reply;
    if (!send_and_wait(handle, query.record, std::move(query.envelope), &reply_text, &reply))
        return UOZ_ERR_TIMEOUT;
    UOZ_DBGLOG(UOZ_LOG_DBG, "%s\n", reply_text.get());
    if (!reply_answers(reply.get(), query.reply_id.get()))
        return UOZ_ERR_GENERAL;
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

int run_routine_query(UDSOverZelkoHandle *handle, int32_t target_address, const char *address_text,
                      json_object *routine, const char *mode_failure, CommandResponse *response) {
    RoutineQuery query;
    int rc =
        build_routine_query(handle, target_address, address_text, routine, mode_failure, &query);
    return rc != UOZ_OK ? rc : send_routine_query(handle, std::move(query), response);
}
