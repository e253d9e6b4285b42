// Typed look-ups at key paths: one behaviour for missing keys, wrong types and
// ownership of results for every reader of JSON in the library.
#include "kt5Utils/kt5_json.h"

#include <stdarg.h>
#include <stdint.h>

#include "udsoverzelko.h"

namespace {

// The value at `key` of `current`, or nullptr when current is no object, the
// key is missing, or its value is JSON null. *found tells a present key.
json_object *member(json_object *current, const char *key, bool *found) {
    json_object *value = nullptr;
    *found = current != nullptr && json_object_is_type(current, json_type_object) &&
             json_object_object_get_ex(current, key, &value);
    return *found ? value : nullptr;
}

bool is_owned_copy(json_type type) {
    return type == json_type_object || type == json_type_array;
}

// Writes value, which has the expected type, into the slot in its hand-out form.
void store(json_object *value, json_type type, void *out) {
    switch (type) {
        case json_type_boolean:
            *static_cast<int *>(out) = json_object_get_boolean(value) ? 1 : 0;
            return;
        case json_type_double:
            *static_cast<double *>(out) = json_object_get_double(value);
            return;
        case json_type_int:
            *static_cast<int32_t *>(out) = json_object_get_int(value);
            return;
        case json_type_string:
            *static_cast<const char **>(out) = json_object_get_string(value);
            return;
        case json_type_object:
        case json_type_array: {
            auto **slot = static_cast<json_object **>(out);
            json_object_put(*slot);
            *slot = kt5_json_copy(value);
            return;
        }
        case json_type_null:
            return;
    }
}

}  // namespace

bool kt5_json_add(json_object *object, const char *key, json_object *value) {
    if (json_object_object_add_ex(object, key, value, JSON_C_OBJECT_ADD_CONSTANT_KEY) != 0) {
        json_object_put(value);
        return false;
    }
    return value != nullptr;
}

json_object *kt5_json_copy(json_object *obj) {
    if (obj == nullptr)
        return nullptr;
    // A deep copy is what serialising and parsing again gives, at a fraction
    // of the cost: numbers keep the text they were parsed from. A value that
    // json-c cannot copy (a custom serializer) still goes through its text.
    json_object *copy = nullptr;
    if (json_object_deep_copy(obj, &copy, nullptr) == 0)
        return copy;
    json_object_put(copy);
    return json_tokener_parse(json_object_to_json_string(obj));
}

namespace {

// The value at the key path (first_key, then the keys of the list up to
// NULL), with a log line for every missing key; nullptr when a key is missing
// or the value is JSON null.
json_object *walk(json_object *obj, const char *first_key, va_list keys, bool *missing) {
    json_object *current = obj;
    *missing = false;
    for (const char *key = first_key; key != nullptr; key = va_arg(keys, const char *)) {
        bool found = false;
        current = member(current, key, &found);
        if (!found) {
            UOZ_DBGLOG(UOZ_LOG_INFO, "No %s property in %s\n", key,
                       json_object_to_json_string(obj));
            *missing = true;
        }
    }
    return current;
}

bool is_handed_out_type(json_type type) {
    return type == json_type_boolean || type == json_type_double || type == json_type_int ||
           type == json_type_object || type == json_type_array || type == json_type_string;
}

}  // namespace

int kt5_json_get(json_object *obj, json_type type, void *out, ...) {
    va_list keys;
    va_start(keys, out);
    bool missing = false;
    const char *first_key = va_arg(keys, const char *);
    json_object *value = walk(obj, first_key, keys, &missing);
    va_end(keys);

    int result = 0;
    if (missing || !is_handed_out_type(type) || value == nullptr ||
        !json_object_is_type(value, type)) {
        result = -1;
    }
    if (result == 0) {
        store(value, type, out);
    } else if (is_owned_copy(type)) {
        auto **slot = static_cast<json_object **>(out);
        json_object_put(*slot);
        *slot = nullptr;
    }
    return result;
}

json_object *kt5_json_borrow(json_object *obj, json_type type, const char *first_key, ...) {
    va_list keys;
    va_start(keys, first_key);
    bool missing = false;
    json_object *value = walk(obj, first_key, keys, &missing);
    va_end(keys);
    if (missing || value == nullptr || !is_owned_copy(type) || !json_object_is_type(value, type))
        return nullptr;
    return value;
}

int kt5_json_has(json_object *obj, ...) {
    json_object *current = obj;
    int result = 1;
    va_list keys;
    va_start(keys, obj);
    for (const char *key = va_arg(keys, const char *); key != nullptr;
         key = va_arg(keys, const char *)) {
        bool found = false;
        current = member(current, key, &found);
        if (!found) {
            result = 0;
            break;
        }
    }
    va_end(keys);
    return result;
}
