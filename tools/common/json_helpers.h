// tools/common holds what every program of the project shares: command-line
// parsing, exit codes, the terminal, whole files, JSON look-ups and owned
// descriptors; one header each.
//
// The JSON look-ups every tool makes on json-c values: an owning pointer and
// the text of a member.
#ifndef UOZ_TOOLS_JSON_HELPERS_H
#define UOZ_TOOLS_JSON_HELPERS_H

#include <json-c/json.h>

#include <memory>

namespace uoztools {

struct JsonPut {
    void operator()(json_object *object) const { json_object_put(object); }
};
// Owns one reference to a json-c value.
using JsonPtr = std::unique_ptr<json_object, JsonPut>;

// The string member `key` of an object; nullptr when it is absent, not a
// string, or `object` is not an object. The text belongs to `object`.
const char *text_member(json_object *object, const char *key);

}  // namespace uoztools

#endif
