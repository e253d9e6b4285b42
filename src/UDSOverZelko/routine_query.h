// Queries that carry a routine for the agent to run (ClearDTC, remote
// commands) and hand the reply's "body" back as text.
#ifndef UOZ_CORE_ROUTINE_QUERY_H
#define UOZ_CORE_ROUTINE_QUERY_H

#include <json-c/json.h>

#include "UDSOverZelko/exchange.h"

// Builds the request of a routine query for target_address, "targetAddress"
// written as address_text (routine taken over; NULL sends JSON null).
// Returns 0; -1 when it cannot be built ("Could not get Transport
// Information", "Unable to get replyID", mode_failure).
int build_routine_request(UDSOverZelkoHandle *handle, int32_t target_address,
                          const char *address_text, json_object *routine, const char *mode_failure,
                          Request *request);

// Sends a built request and stores the matching reply's "body" in response.
// Returns 0; -1 when the reply is unusable; -5 on time-out.
int run_routine_request(UDSOverZelkoHandle *handle, Request request, CommandResponse *response);

#endif
