#include "json_helpers.h"

namespace uoztools {

const char *text_member(json_object *object, const char *key) {
    json_object *member = nullptr;
    if (!json_object_object_get_ex(object, key, &member) ||
        !json_object_is_type(member, json_type_string)) {
        return nullptr;
    }
    return json_object_get_string(member);
}

}  // namespace uoztools
