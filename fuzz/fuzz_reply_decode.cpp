// Decodes arbitrary input as a query reply, and as the "data" text of one
// reply element. The second checks every byte against the C conversion that
// defines the decoding: sscanf(text + k, "%02hhx") at each even position k.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "UDSOverZelko/exchange.h"
#include "fuzz_handle.h"

namespace {

void decode_whole_reply(UDSOverZelkoHandle *handle, const std::string &text) {
    JsonPtr reply(json_tokener_parse(text.c_str()));
    DTCBuffer buffer{};
    int32_t bytes = decode_uds_reply(handle, reply.get(), &buffer);
    int64_t counted = 0;
    for (int32_t i = 0; i < buffer.count; ++i) {
        if (buffer.entries[i] != nullptr)
            counted += buffer.entries[i]->length;
    }
    if (bytes >= 0 && counted != bytes)
        abort();
    UDSOverZelko_FreeDTCBuffer(&buffer);
}

void decode_as_data(UDSOverZelkoHandle *handle, const std::string &data) {
    JsonPtr reply(json_object_new_object());
    JsonPtr element(json_object_new_object());
    kt5_json_add(element.get(), "phy-req-id", json_object_new_string("0x7E0"));
    kt5_json_add(element.get(), "data", json_object_new_string_len(data.data(), data.size()));
    json_object *records = json_object_new_array();
    json_object_array_add(records, element.release());
    json_object *uds = json_object_new_object();
    kt5_json_add(uds, "data-record", records);
    json_object *body = json_object_new_object();
    kt5_json_add(body, "uds", uds);
    kt5_json_add(reply.get(), "body", body);

    DTCBuffer buffer{};
    int32_t bytes = decode_uds_reply(handle, reply.get(), &buffer);
    // The text ends at its first NUL, as a C text does.
    const char *text = data.c_str();
    size_t digits = strlen(text);
    if (buffer.count != 1 || bytes != static_cast<int32_t>(digits / 2))
        abort();
    const DTCBufferEntry *entry = buffer.entries[0];
    if (entry->target_address != 0x7E0 || strcmp(entry->ecu_name, "engine") != 0)
        abort();
    for (size_t k = 0; k < digits; k += 2) {
        unsigned char expected = 0;
        sscanf(text + k, "%02hhx", &expected);
        if (entry->data[k / 2] != expected)
            abort();
    }
    UDSOverZelko_FreeDTCBuffer(&buffer);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static UDSOverZelkoHandle *handle = uozfuzz::offline_handle();
    std::string input(reinterpret_cast<const char *>(data), size);
    decode_whole_reply(handle, input);
    decode_as_data(handle, input);
    return 0;
}
