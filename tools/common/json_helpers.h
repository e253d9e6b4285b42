// The JSON helpers every tool uses on json-c values: an owning pointer.
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

}  // namespace uoztools

#endif
