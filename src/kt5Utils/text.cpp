#include "kt5Utils/text.h"

#include <stdlib.h>
#include <string.h>

namespace {

char ascii_lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

char *uoz_strdup(const char *text) {
    if (text == nullptr)
        return nullptr;
    size_t size = strlen(text) + 1;
    auto *copy = static_cast<char *>(malloc(size));
    if (copy != nullptr)
        memcpy(copy, text, size);
    return copy;
}

bool ascii_equal_ignoring_case(const char *first, const char *second) {
    for (; *first != '\0' && *second != '\0'; ++first, ++second) {
        if (ascii_lower(*first) != ascii_lower(*second))
            return false;
    }
    return *first == *second;
}
