// Queries that carry a routine for the agent to run (ClearDTC, remote
// commands) and hand the reply's "body" back as text.
#ifndef UOZ_CORE_ROUTINE_QUERY_H
#define UOZ_CORE_ROUTINE_QUERY_H

#include <json-c/json.h>

#include "UDSOverZelko/records.h"

// Sends {"mode", "targetAddress": address_text, <block>, "routine"} for
// target_address (routine taken over; NULL sends JSON null), waits for the
// matching reply and stores its "body" in response. Returns 0; -1 when the
// query cannot be built ("Could not get Transport Information", "Unable to get
// replyID", mode_failure) or the reply is unusable; -5 on time-out.
int run_routine_query(UDSOverZelkoHandle *handle, int32_t target_address, const char *address_text,
                      json_object *routine, const char *mode_failure, CommandResponse *response);

#endif
