#include "hex_text.h"

#include <stdio.h>

namespace uozuds {

namespace {

std::string hex_joined(const uint8_t *bytes, size_t length, const char *separator) {
    static const char kDigits[] = "0123456789ABCDEF";
    std::string text;
    for (size_t i = 0; i < length; ++i) {
        if (i > 0)
            text += separator;
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 0xF];
    }
    return text;
}

}  // namespace

std::string hex_compact(const uint8_t *bytes, size_t length) {
    return hex_joined(bytes, length, "");
}

std::string hex_spaced(const uint8_t *bytes, size_t length) {
    return hex_joined(bytes, length, " ");
}

std::string hex_number(uint32_t value, int digits) {
    char text[16];
    snprintf(text, sizeof(text), "0x%0*X", digits, value);
    return text;
}

}  // namespace uozuds
