// One diagnostic request, one answer: send the query, wait for the reply that
// the bus thread routes to the addressed ECU record, match and decode it.
#include "UDSOverZelko/exchange.h"

#include <ctype.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <utility>

#include "kt5Utils/kt5_json.h"
#include "zelkobus/zelkobus.h"

namespace {

int hex_digit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Reads byte k / 2 as sscanf(text + k, "%02hhx") does: white space at k is
// skipped, then at most two characters (sign, "0x" and digits count) are
// converted. A pair that does not convert leaves the byte as it is.
void decode_at(const char *text, uint8_t *byte) {
    int high = hex_digit(text[0]);
    int low = high >= 0 ? hex_digit(text[1]) : -1;
    if (low >= 0) {
        *byte = static_cast<uint8_t>(high * 16 + low);
        return;
    }
    // The field ends two characters after the white space, so a bounded copy
    // of them converts exactly as the whole text would, without the C
    // library measuring the rest of the text at every position.
    while (isspace(static_cast<unsigned char>(*text)))
        ++text;
    char field[3] = {text[0], text[0] != '\0' ? text[1] : '\0', '\0'};
    sscanf(field, "%02hhx", byte);
}

// Decodes hexadecimal text into entry->data (length + 1 bytes, zero-filled);
// an odd last digit goes into the spare byte that length does not count.
bool decode_hex(const char *text, DTCBufferEntry *entry) {
    size_t digits = strlen(text);
    size_t length = digits / 2;
    if (length > INT32_MAX - 1)
        return false;
    entry->data = static_cast<uint8_t *>(calloc(length + 1, 1));
    if (entry->data == nullptr)
        return false;
    entry->length = static_cast<int32_t>(length);
    for (size_t k = 0; k < digits; k += 2)
        decode_at(text + k, &entry->data[k / 2]);
    return true;
}

// Fills one entry from one "data-record" element; false when the element
// lacks "phy-req-id" or "data".
bool decode_element(UDSOverZelkoHandle *handle, json_object *element, DTCBufferEntry *entry) {
    const char *request_id = nullptr;
    const char *data = nullptr;
    if (kt5_json_get(element, json_type_string, &request_id, "phy-req-id", nullptr) != 0 ||
        kt5_json_get(element, json_type_string, &data, "data", nullptr) != 0) {
        UOZ_SET_ERROR("could not find ''data");
        return false;
    }
    const EcuConfig *record = find_ecu_by_request_id(handle, request_id);
    if (record != nullptr) {
        entry->target_address = record->target_address;
        entry->ecu_name = uoz_strdup(record->name);
    }
    return decode_hex(data, entry);
}

const char *source_name(const kt5bus_address *source, std::string *scratch) {
    if (source == nullptr)
        return "(unknown)";
    if (source->kind == KT5BUS_ADDR_UA || source->kind == KT5BUS_ADDR_GROUP) {
        return source->value.name != nullptr ? source->value.name : "(unnamed)";
    }
    // Special addresses carry no name: log their text form instead.
    char *text = zebus_address_to_text(source);
    *scratch = text != nullptr ? text : "(unknown)";
    free(text);
    return scratch->c_str();
}

// "body"."targetAddress" as strtol reads it with base 16, saturated to 32 bits.
int32_t reply_target_address(const char *text) {
    long long value = strtoll(text, nullptr, 16);
    if (value > INT32_MAX)
        return INT32_MAX;
    if (value < INT32_MIN)
        return INT32_MIN;
    return static_cast<int32_t>(value);
}

EcuConfig *record_for_reply(UDSOverZelkoHandle *handle, int32_t target_address) {
    return target_address == -1 ? handle->broadcast_ecu : find_ecu(handle, target_address);
}

void route_query_reply(UDSOverZelkoHandle *handle, JsonPtr message, TextPtr text) {
    const char *target = nullptr;
    if (kt5_json_get(message.get(), json_type_string, &target, "body", "targetAddress", nullptr) !=
        0) {
        UOZ_DBGLOG(UOZ_LOG_ERR, "Could not find target Address\n");
        return;
    }
    EcuConfig *record = record_for_reply(handle, reply_target_address(target));
    if (record != nullptr)
        reply_wait_deliver(&record->reply_wait, text.release(), std::move(message));
}

int32_t decode_version_reply(json_object *reply, DTCBuffer *result) {
    const char *version = nullptr;
    if (kt5_json_get(reply, json_type_string, &version, "body", "version", nullptr) != 0) {
        UOZ_SET_ERROR("could not find 'version'");
        return -2;
    }
    auto **entries = static_cast<DTCBufferEntry **>(calloc(1, sizeof(DTCBufferEntry *)));
    auto *entry = static_cast<DTCBufferEntry *>(calloc(1, sizeof(DTCBufferEntry)));
    char *copy = uoz_strdup(version);
    if (entries == nullptr || entry == nullptr || copy == nullptr) {
        free(entries), free(entry), free(copy);
        UOZ_SET_ERROR("Memory Allocation failed");
        return -2;
    }
    entry->data = reinterpret_cast<uint8_t *>(copy);
    entry->length = static_cast<int32_t>(strlen(copy));
    entries[0] = entry;
    result->entries = entries;
    result->count = 1;
    return 0;
}

// True when the parsed reply's "reply-to" is reply_id; otherwise reports why not.
bool reply_answers(json_object *reply, const char *reply_id) {
    const char *reply_to = nullptr;
    if (kt5_json_get(reply, json_type_string, &reply_to, "reply-to", nullptr) != 0) {
        UOZ_SET_ERROR("could not find 'reply-to'");
        return false;
    }
    if (strcmp(reply_to, reply_id) != 0) {
        UOZ_SET_ERRORF("Wrong reply-id %s %s", reply_id, reply_to);
        return false;
    }
    return true;
}

}  // namespace

ExchangeOutcome exchange_request(BusConnection *bus, Request request, JsonPtr *answer) {
    reply_wait_discard(request.wait);
    const char *text = json_object_to_json_string(request.message.get());
    if (request.recipient == RECIPIENT_DIAGNOSTIC_AGENT) {
        zebus_send_message_to(bus, text, KT5BUS_ADDR_UA, UOZ_AGENT_ADDRESS);
    } else {
        const char *const groups[] = {UOZ_POLICY_AGENT_GROUP, nullptr};
        zebus_send_message(bus, text, groups);
    }
    request.message.reset();

    TextPtr answer_text;
    if (!reply_wait_take(request.wait, &answer_text, answer)) {
        if (request.recipient == RECIPIENT_DIAGNOSTIC_AGENT)
            UOZ_DBGLOG(UOZ_LOG_ERR, "response not received");
        return EXCHANGE_NO_ANSWER;
    }
    UOZ_DBGLOG(request.answer_log_level, "%s\n", answer_text.get());
    if (request.reply_id && !reply_answers(answer->get(), request.reply_id.get()))
        return EXCHANGE_MISMATCH;
    return EXCHANGE_ANSWERED;
}

int32_t decode_uds_reply(UDSOverZelkoHandle *handle, json_object *reply, DTCBuffer *result) {
    // Read in place: the reply outlives the decoding, so no copy is needed.
    json_object *records =
        kt5_json_borrow(reply, json_type_array, "body", "uds", "data-record", nullptr);
    if (records == nullptr) {
        UOZ_SET_ERROR("could not find ''data-record");
        return -2;
    }
    size_t count = json_object_array_length(records);
    result->count = static_cast<int32_t>(count);
    result->entries = static_cast<DTCBufferEntry **>(calloc(count + 1, sizeof(DTCBufferEntry *)));
    if (result->entries == nullptr) {
        result->count = 0;
        UOZ_SET_ERROR("Memory Allocation failed");
        return -2;
    }
    int64_t bytes = 0;
    for (size_t i = 0; i < count; ++i) {
        result->entries[i] = static_cast<DTCBufferEntry *>(calloc(1, sizeof(DTCBufferEntry)));
        if (result->entries[i] == nullptr ||
            !decode_element(handle, json_object_array_get_idx(records, i), result->entries[i])) {
            UOZ_SET_ERROR("immature response recieved!!");
            break;
        }
        bytes += result->entries[i]->length;
    }
    return bytes > INT32_MAX ? INT32_MAX : static_cast<int32_t>(bytes);
}

bool prepare_query(json_object *body, EcuConfig *record, int answer_log_level, Request *request) {
    JsonPtr owned_body(body);
    request->reply_id.reset(generate_reply_id(REPLY_ID_LENGTH));
    if (!request->reply_id) {
        UOZ_SET_ERROR("Unable to get replyID");
        return false;
    }
    request->message.reset(wrap_query(request->reply_id.get(), owned_body.release()));
    if (!request->message)
        return false;
    request->wait = &record->reply_wait;
    request->answer_log_level = answer_log_level;
    return true;
}

int32_t query_exchange(UDSOverZelkoHandle *handle, int32_t target_address, DTCBuffer *result,
                       JsonPtr uds, QueryKind kind) {
    EcuConfig *record = nullptr;
    json_object *body = build_query_body(handle, target_address, kind, uds.get(), &record);
    uds.reset();
    Request request;
    if (body == nullptr || !prepare_query(body, record, UOZ_LOG_INFO, &request))
        return -2;
    JsonPtr reply;
    switch (exchange_request(handle->bus, std::move(request), &reply)) {
        case EXCHANGE_NO_ANSWER:
            return -5;
        case EXCHANGE_MISMATCH:
            return -2;
        case EXCHANGE_ANSWERED:
            break;
    }
    return kind == QUERY_VERSION ? decode_version_reply(reply.get(), result)
                                 : decode_uds_reply(handle, reply.get(), result);
}

int on_bus_message(const char *data, size_t length, const kt5bus_address *source, void *user_data) {
    if (data == nullptr) {
        UOZ_SET_ERROR("msg is NULL");
        return 0;
    }
    if (length == 0) {
        UOZ_SET_ERROR("len is 0");
        return 0;
    }
    // The text ends at its first NUL or after `length` bytes, whichever is
    // first. This one copy is what a query reply's slot keeps.
    TextPtr text(strndup(data, strnlen(data, length)));
    if (!text) {
        UOZ_SET_ERROR("Memory Allocation failed");
        return 0;
    }
    std::string scratch;
    UOZ_DBGLOG(UOZ_LOG_INFO, "%s %s\n", source_name(source, &scratch), text.get());
    JsonPtr message(json_tokener_parse(text.get()));
    const char *type = nullptr;
    if (kt5_json_get(message.get(), json_type_string, &type, "type", nullptr) != 0) {
        UOZ_SET_ERROR("No type found");
        return 0;
    }
    auto *handle = static_cast<UDSOverZelkoHandle *>(user_data);
    // The parsed message goes with the text to the waiting caller, which then
    // need not parse it again.
    if (strcmp(type, "zelko.skyharbor-query-update") == 0) {
        route_query_reply(handle, std::move(message), std::move(text));
    } else if (strcmp(type, "zelko.external-consent") == 0) {
        char *serialised = uoz_strdup(json_object_to_json_string(message.get()));
        reply_wait_deliver(&handle->consent_wait, serialised, std::move(message));
    }
    return 0;
}
