// The request/reply exchange with the diagnostic agent and the handler of
// every incoming bus message.
#ifndef UOZ_CORE_EXCHANGE_H
#define UOZ_CORE_EXCHANGE_H

#include <json-c/json.h>
#include <stddef.h>
#include <stdint.h>

#include "UDSOverZelko/query.h"
#include "UDSOverZelko/records.h"
#include "kt5bus/kt5bus.h"

// Send a query for target_address and decode its reply into result. The
// query carries a copy of uds (QUERY_UDS_DATA; taken over and released as
// soon as the copy is made, before the reply is awaited).
// QUERY_UDS_DATA: total data bytes (>= 0); QUERY_VERSION: 0; -5 no reply
// within REPLY_TIMEOUT_SECONDS; -2 every other failure.
int32_t query_exchange(UDSOverZelkoHandle *handle, int32_t target_address, DTCBuffer *result,
                       JsonPtr uds, QueryKind kind);

// Incoming-message handler given to zebus_init with the handle as user data.
// Routes query replies by "body"."targetAddress" and consent answers to the
// handle's consent slot. Always returns 0.
int on_bus_message(const char *data, size_t length, const kt5bus_address *source, void *user_data);

#endif
