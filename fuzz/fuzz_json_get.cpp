// Typed and borrowed look-ups at key paths in arbitrary JSON documents. The first bytes
// choose the expected type and the path; the rest is the document.
#include <json-c/json.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "kt5Utils/kt5_json.h"
#include "udsoverzelko.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2)
        return 0;
    static const json_type kTypes[] = {json_type_boolean, json_type_double, json_type_int,
                                       json_type_object,  json_type_array,  json_type_string,
                                       json_type_null};
    static const char *const kKeys[] = {
        "body", "uds",     "data-record",    "reply-to", "targetAddress",
        "type", "version", "consent-status", ""};
    uoz_dbg_level = -1;
    json_type type = kTypes[data[0] % 7];
    const char *first = kKeys[data[1] % 9];
    const char *second = kKeys[(data[1] / 9) % 9];
    std::string text(reinterpret_cast<const char *>(data + 2), size - 2);
    JsonPtr document(json_tokener_parse(text.c_str()));

    union {
        int boolean_or_int;
        double number;
        const char *string;
        json_object *object;
    } slot{};
    if (type == json_type_object || type == json_type_array) {
        slot.object = json_object_new_object();  // the look-up owns and releases it
    }
    kt5_json_get(document.get(), type, &slot, first, second, nullptr);
    if (type == json_type_object || type == json_type_array)
        json_object_put(slot.object);
    kt5_json_has(document.get(), first, second, nullptr);
    // A borrowed value is the document's own: it must have the asked type,
    // and serialising it must stay within the document.
    json_object *lent = kt5_json_borrow(document.get(), type, first, second, nullptr);
    if (lent != nullptr) {
        if (!json_object_is_type(lent, type))
            abort();
        json_object_to_json_string(lent);
    }
    return 0;
}
