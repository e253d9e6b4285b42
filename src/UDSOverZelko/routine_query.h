// Queries that carry a routine for the agent to run (ClearDTC, remote
// commands) and hand the reply's "body" back as text.
#ifndef UOZ_CORE_ROUTINE_QUERY_H
#define UOZ_CORE_ROUTINE_QUERY_H

#include <json-c/json.h>

#include "UDSOverZelko/records.h"
#include "kt5Utils/kt5_json.h"

// A routine query built and ready to send.
struct RoutineQuery {
    EcuConfig *record = nullptr;  // the addressed record; its slot receives the reply
    TextPtr reply_id;
    JsonPtr envelope;
};

// Builds {"mode", "targetAddress": address_text, <block>, "routine"} for
// target_address (routine taken over; NULL sends JSON null). Returns 0; -1
// when it cannot be built ("Could not get Transport Information", "Unable to
// get replyID", mode_failure).
int build_routine_query(UDSOverZelkoHandle *handle, int32_t target_address,
                        const char *address_text, json_object *routine, const char *mode_failure,
                        RoutineQuery *query);

// Sends a built query (its envelope released once sent), waits for the
// matching reply and stores its "body" in response. Returns 0; -1 when the
// reply is unusable; -5 on time-out.
int send_routine_query(UDSOverZelkoHandle *handle, RoutineQuery query, CommandResponse *response);

// build_routine_query, then send_routine_query.
int run_routine_query(UDSOverZelkoHandle *handle, int32_t target_address, const char *address_text,
                      json_object *routine, const char *mode_failure, CommandResponse *response);

#endif
