// Typed look-ups of JSON values at key paths, on json-c.
#ifndef UOZ_KT5UTILS_KT5_JSON_H
#define UOZ_KT5UTILS_KT5_JSON_H

#include <json-c/json.h>

#include <memory>

// Look up the value at a key path (keys as further const char * arguments,
// ended by NULL) and hand it out as `type` requires:
//   json_type_boolean -> int (0/1) in *(int *)out
//   json_type_double  -> double in *(double *)out
//   json_type_int     -> int32_t in *(int32_t *)out
//   json_type_string  -> const char * borrowed from obj in *(const char **)out
//   json_type_object / json_type_array -> an independent copy (kt5_json_copy)
//     in *(json_object **)out; the caller owns it. The slot is
//     owned by the call: a non-null object in it is released on success and
//     on failure (the slot is then NULL).
// Every missing key logs at INFO "No %s property in %s\n" with the key and the
// JSON text of obj. Returns 0, or -1 when a key is missing or the value has
// another type (the slot of scalar types is then untouched).
int kt5_json_get(json_object *obj, json_type type, void *out, ...) __attribute__((sentinel));

// Like kt5_json_get for json_type_object and json_type_array, with the same
// log lines, but lends the value instead of copying it: the result belongs to
// obj and lives as long as obj does. NULL when a key is missing, the value
// has another type, or type is neither object nor array. The path has at
// least one key.
json_object *kt5_json_borrow(json_object *obj, json_type type, const char *first_key, ...)
    __attribute__((sentinel));

// 1 when every key of the path (ended by NULL) exists (a JSON null value
// counts), else 0. Logs nothing.
int kt5_json_has(json_object *obj, ...) __attribute__((sentinel));

// Adds value under key; the object takes the value over (NULL adds JSON
// null). The key is not copied: it must live as long as the object (a
// literal or a static table's text). False when value is NULL or cannot be
// added (it is then released).
// The one way the library adds object members. Where a message is built
// without testing its additions (routines, the consent message), the result
// is ignored: an addition fails only when memory runs out, and the message
// then goes out without that member.
bool kt5_json_add(json_object *object, const char *key, json_object *value);

// Owning pointer for json-c values.
struct JsonPut {
    void operator()(json_object *obj) const { json_object_put(obj); }
};
using JsonPtr = std::unique_ptr<json_object, JsonPut>;

// Independent copy of a value, equal to what serialising it and parsing the
// text again would give (numbers keep their written form); NULL for NULL.
json_object *kt5_json_copy(json_object *obj);

#endif
