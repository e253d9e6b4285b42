#include "parse.h"

#include <ctype.h>

namespace uoztools {

namespace {

bool all_hex(const std::string &digits) {
    if (digits.empty())
        return false;
    for (char c : digits) {
        if (!isxdigit(static_cast<unsigned char>(c)))
            return false;
    }
    return true;
}

std::string hex_limit(uint32_t max) {
    char text[16];
    snprintf(text, sizeof(text), "0x%X", max);
    return text;
}

}  // namespace

bool parse_hex(const std::string &text, uint32_t max, const std::string &option, uint32_t *value,
               std::string *error) {
    std::string digits = text;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X'))
        digits = digits.substr(2);
    size_t significant = digits.find_first_not_of('0');
    bool fits = significant == std::string::npos || digits.size() - significant <= 8;
    if (!all_hex(digits) || !fits) {
        *error = option + " '" + text + "' is not a hexadecimal number (e.g. 0x1F or 1F)";
        return false;
    }
    unsigned long long parsed = std::stoull(digits, nullptr, 16);
    if (parsed > max) {
        *error = option + " '" + text + "' is out of range: at most " + hex_limit(max);
        return false;
    }
    *value = static_cast<uint32_t>(parsed);
    return true;
}

bool parse_dtc(const std::string &text, const std::string &option, uint32_t *value,
               std::string *error) {
    static const std::string kLetters = "PCBU";
    size_t letter =
        text.empty() ? std::string::npos : kLetters.find(static_cast<char>(toupper(text[0])));
    if (letter != std::string::npos && text.size() >= 5) {
        std::string code = text.substr(1, 4);
        std::string failure_type = "00";
        bool shaped = text.size() == 5 || (text.size() == 8 && text[5] == '-');
        if (text.size() == 8)
            failure_type = text.substr(6, 2);
        // The first digit of the code holds two bits only.
        if (shaped && all_hex(code) && all_hex(failure_type) && code[0] >= '0' && code[0] <= '3') {
            uint32_t high = static_cast<uint32_t>(letter) << 22;
            *value = high | static_cast<uint32_t>(std::stoul(code, nullptr, 16)) << 8 |
                     static_cast<uint32_t>(std::stoul(failure_type, nullptr, 16));
            return true;
        }
    }
    std::string ignored;
    if (parse_hex(text, 0xFFFFFF, option, value, &ignored))
        return true;
    *error = option + " '" + text +
             "' is not a DTC: give three bytes in hexadecimal (0x030100) or a code such as "
             "P0301 or P0301-00";
    return false;
}

bool parse_decimal(const std::string &text, long min, long max, const std::string &option,
                   long *value, std::string *error) {
    bool digits = !text.empty() && text.size() <= 10;
    for (size_t i = 0; digits && i < text.size(); ++i)
        digits = isdigit(static_cast<unsigned char>(text[i])) || (i == 0 && text[i] == '-');
    long parsed = digits && text != "-" ? std::stol(text) : min - 1;
    if (!digits || text == "-" || parsed < min || parsed > max) {
        *error = option + " '" + text + "' must be a whole number from " + std::to_string(min) +
                 " to " + std::to_string(max);
        return false;
    }
    *value = parsed;
    return true;
}

bool parse_host_port(const std::string &text, const std::string &option, std::string *host,
                     int *port, std::string *error) {
    size_t colon = text.rfind(':');
    std::string name = colon == std::string::npos ? "" : text.substr(0, colon);
    if (name.size() > 2 && name.front() == '[' && name.back() == ']')
        name = name.substr(1, name.size() - 2);
    long number = 0;
    std::string ignored;
    if (name.empty() ||
        !parse_decimal(text.substr(colon + 1), 1, 65535, option, &number, &ignored)) {
        *error = option + " '" + text + "' must be HOST:PORT with a port from 1 to 65535";
        return false;
    }
    *host = name;
    *port = static_cast<int>(number);
    return true;
}

}  // namespace uoztools
