// The query message sent to the diagnostic agent.
#ifndef UOZ_CORE_QUERY_H
#define UOZ_CORE_QUERY_H

#include <json-c/json.h>
#include <stddef.h>
#include <stdint.h>

#include "UDSOverZelko/records.h"

enum QueryKind : uint8_t {
    QUERY_UDS_DATA = 0,
    QUERY_VERSION = 1,
};

#define REPLY_ID_ALPHABET "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789,.-#'?!"

// New heap text of `length` random alphabet characters, or NULL.
char *generate_reply_id(int32_t length);
// New JSON string of the mode text, with the block key (static text) in
// *key. NULL for a type outside 0..3 (*key untouched).
json_object *transport_mode_name(TransportType type, const char **key);
// Transport block (object) of one ECU, or the array of every CAN and IOC block
// for -1; *record receives the addressed record whenever one was found.
json_object *build_transport_block(UDSOverZelkoHandle *handle, int32_t target_address,
                                   EcuConfig **record);
// Body of a query_exchange query, or NULL. A QUERY_UDS_DATA body holds a
// reference to uds, which must not change while the body lives. A
// QUERY_VERSION body is built under the record's reply_wait.lock, which the
// caller must not hold.
json_object *build_query_body(UDSOverZelkoHandle *handle, int32_t target_address, QueryKind kind,
                              json_object *uds, EcuConfig **record);
// Body {"mode", "targetAddress": address_text, <block>, "routine"} of a query
// that runs a routine (routine taken over; NULL sends JSON null), or NULL
// after reporting "Could not get Transport Information", mode_failure or the
// addition that failed. *record receives the addressed record.
json_object *build_routine_body(UDSOverZelkoHandle *handle, int32_t target_address,
                                const char *address_text, json_object *routine,
                                const char *mode_failure, EcuConfig **record);
// Envelope {"type","reply-id","body"}; takes the body over (also on failure).
// Queries are wrapped through prepare_query (exchange.h), which also draws
// their reply identifier.
json_object *wrap_query(const char *reply_id, json_object *body);

#endif
