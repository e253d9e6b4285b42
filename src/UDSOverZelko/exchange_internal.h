// Steps of the exchange that the services share.
#ifndef UOZ_CORE_EXCHANGE_INTERNAL_H
#define UOZ_CORE_EXCHANGE_INTERNAL_H

#include <json-c/json.h>

#include "UDSOverZelko/records.h"

// Empties the record's reply slot, sends the message's text to the diagnostic
// agent and waits up to REPLY_TIMEOUT_SECONDS for the next reply routed to the
// record. The message is released once sent, while the request is on its
// way, so that freeing it does not lengthen the round trip.
// True with the reply's text and its JSON (NULL when the text is no JSON);
// false on time-out, after logging "response not received".
bool send_and_wait(UDSOverZelkoHandle *handle, EcuConfig *record, JsonPtr message,
                   TextPtr *reply_text, JsonPtr *reply);

// True when the parsed reply's "reply-to" is reply_id; otherwise reports
// "could not find 'reply-to'" or "Wrong reply-id %s %s".
bool reply_answers(json_object *reply, const char *reply_id);

// Decodes the "data-record" elements of a matched reply into result; the
// total number of data bytes, or -2 when there is no "data-record" array.
int32_t decode_uds_reply(UDSOverZelkoHandle *handle, json_object *reply, DTCBuffer *result);

#endif
