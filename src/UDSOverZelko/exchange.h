// The request/reply exchange: every service sends its message and waits for
// the answer through one path, and the handler of incoming bus messages
// routes the answers.
#ifndef UOZ_CORE_EXCHANGE_H
#define UOZ_CORE_EXCHANGE_H

#include <json-c/json.h>
#include <stddef.h>
#include <stdint.h>

#include "UDSOverZelko/query.h"
#include "UDSOverZelko/records.h"
#include "kt5bus/kt5bus.h"

enum Recipient : uint8_t {
    RECIPIENT_DIAGNOSTIC_AGENT,  // the agent's address "/ZDATA/UDS"
    RECIPIENT_POLICY_AGENT,      // the group "policy-agent"
};

// Never reaches the log: for answers that are not logged.
constexpr int kNotLogged = 1 << 30;

// A message built and ready to send, and where its answer arrives.
struct Request {
    ReplyWait *wait = nullptr;  // the slot that the delivery thread fills
    Recipient recipient = RECIPIENT_DIAGNOSTIC_AGENT;
    JsonPtr message;  // released once sent
    // The "reply-to" that the answer must carry; empty: any answer matches.
    TextPtr reply_id;
    int answer_log_level = kNotLogged;  // the answer's text is logged at this level
};

enum ExchangeOutcome : uint8_t {
    EXCHANGE_ANSWERED,   // *answer holds the matching answer (NULL when no JSON)
    EXCHANGE_NO_ANSWER,  // nothing arrived within UOZ_REPLY_TIMEOUT_SECONDS
    EXCHANGE_MISMATCH,   // the answer lacks "reply-to" or answers another request
};

// Empties the request's slot, so that an answer left from an earlier request
// is not taken for this one, sends the message, releases it while the request
// is on its way, and waits without holding the slot's lock across the send.
// A request to the diagnostic agent logs "response not received" at ERR on
// time-out; a mismatch reports "could not find 'reply-to'" or "Wrong reply-id
// %s %s".
ExchangeOutcome exchange_request(BusConnection *bus, Request request, JsonPtr *answer);

// Makes a query (body taken over) into a request: draws its reply identifier,
// wraps body and identifier into the envelope, and awaits the answer in the
// addressed record's slot, logged at answer_log_level. The one place that
// draws reply identifiers. False after reporting ("Unable to get replyID",
// or the envelope's message).
bool prepare_query(json_object *body, EcuConfig *record, int answer_log_level, Request *request);

// Send a query for target_address and decode its reply into result. The
// query carries uds (QUERY_UDS_DATA; taken over, and released with the query
// once it is sent, before the reply is awaited).
// QUERY_UDS_DATA: total data bytes (>= 0); QUERY_VERSION: 0; -5 no reply
// within UOZ_REPLY_TIMEOUT_SECONDS; -2 every other failure.
int32_t query_exchange(UDSOverZelkoHandle *handle, int32_t target_address, DTCBuffer *result,
                       JsonPtr uds, QueryKind kind);

// Decodes the "data-record" elements of a matched reply into result; the
// total number of data bytes, or -2 when there is no "data-record" array.
int32_t decode_uds_reply(UDSOverZelkoHandle *handle, json_object *reply, DTCBuffer *result);

// Incoming-message handler given to zebus_init with the handle as user data.
// Routes query replies by "body"."targetAddress" and consent answers to the
// handle's consent slot. Always returns 0.
int on_bus_message(const char *data, size_t length, const kt5bus_address *source, void *user_data);

#endif
