// Bytes and numbers as the tools print them, in upper-case hexadecimal.
#ifndef UOZ_TOOLS_UDS_HEX_TEXT_H
#define UOZ_TOOLS_UDS_HEX_TEXT_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace uozuds {

std::string hex_compact(const uint8_t *bytes, size_t length);  // "1A2B"
std::string hex_spaced(const uint8_t *bytes, size_t length);   // "1A 2B"
// "0x07E0" for (0x7E0, 4): at least `digits` digits.
std::string hex_number(uint32_t value, int digits);

// The value of a hex digit, either case; -1 for any other character.
int hex_digit(char c);
// "0x7E0", "7E0" -> 0x7E0. False for a text that is empty, has no digits,
// more than 8 of them, or anything else after them.
bool parse_hex_number(const char *text, uint32_t *value);
// "0xF190", "F1 90", "" -> bytes; a lone leading digit is its own byte
// ("0x7" -> 07). False for any character that is not a hex digit or space;
// nullptr gives no bytes.
bool parse_hex_bytes(const char *text, std::vector<uint8_t> *bytes);

}  // namespace uozuds

#endif
