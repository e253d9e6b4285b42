// Bytes written the way tests spell them: "19 02 FF" or "1902FF".
#ifndef UOZ_TESTS_HEX_BYTES_H
#define UOZ_TESTS_HEX_BYTES_H

#include <stdint.h>

#include <string>
#include <vector>

namespace uoztest {

// "19 02 FF" -> {0x19, 0x02, 0xFF}; spaces are optional.
inline std::vector<uint8_t> hex_bytes(const std::string &hex) {
    std::vector<uint8_t> out;
    std::string digits;
    for (char c : hex) {
        if (c != ' ')
            digits += c;
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return out;
}

}  // namespace uoztest

#endif
