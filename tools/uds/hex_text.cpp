#include "hex_text.h"

#include <ctype.h>
#include <stdio.h>
#include <string.h>

namespace uozuds {

namespace {

const char *skip_prefix(const char *text) {
    return text[0] == '0' && (text[1] == 'x' || text[1] == 'X') ? text + 2 : text;
}

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

int hex_digit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

bool parse_hex_number(const char *text, uint32_t *value) {
    if (text == nullptr)
        return false;
    const char *digits = skip_prefix(text);
    if (*digits == '\0' || strlen(digits) > 8)
        return false;
    uint32_t result = 0;
    for (const char *c = digits; *c != '\0'; ++c) {
        int digit = hex_digit(*c);
        if (digit < 0)
            return false;
        result = result << 4 | static_cast<uint32_t>(digit);
    }
    *value = result;
    return true;
}

bool parse_hex_bytes(const char *text, std::vector<uint8_t> *bytes) {
    bytes->clear();
    if (text == nullptr)
        return true;
    std::string digits;
    for (const char *c = skip_prefix(text); *c != '\0'; ++c) {
        if (*c == ' ')
            continue;
        if (hex_digit(*c) < 0)
            return false;
        digits += *c;
    }
    if (digits.size() % 2 != 0)
        digits.insert(digits.begin(), '0');
    for (size_t i = 0; i < digits.size(); i += 2)
        bytes->push_back(
            static_cast<uint8_t>(hex_digit(digits[i]) << 4 | hex_digit(digits[i + 1])));
    return true;
}

std::string hex_number(uint32_t value, int digits) {
    char text[16];
    snprintf(text, sizeof(text), "0x%0*X", digits, value);
    return text;
}

}  // namespace uozuds
