// tools/common holds what every program of the project shares: command-line
// parsing, exit codes, the terminal, whole files, JSON look-ups and owned
// descriptors; one header each.
//
// Strict parsing of the numbers people type on the command line: a value
// that is not entirely a number of the accepted form, or out of range, is
// refused with a message that names the option and the form.
#ifndef UOZ_TOOLS_PARSE_H
#define UOZ_TOOLS_PARSE_H

#include <stdint.h>

#include <string>

namespace uoztools {

// Hexadecimal with or without "0x" ("FF", "0xff"), at most max. On failure
// *error says what is wrong, naming option (e.g. "--mask").
bool parse_hex(const std::string &text, uint32_t max, const std::string &option, uint32_t *value,
               std::string *error);

// A 24-bit DTC number: hexadecimal (0x030100, 030100) or a code as a scan
// tool shows it: P0301, P0301-00 (letter P, C, B or U, four hex digits, an
// optional failure type byte).
bool parse_dtc(const std::string &text, const std::string &option, uint32_t *value,
               std::string *error);

// A decimal integer in [min, max].
bool parse_decimal(const std::string &text, long min, long max, const std::string &option,
                   long *value, std::string *error);

// "HOST:PORT" (IPv6 as "[::1]:8883").
bool parse_host_port(const std::string &text, const std::string &option, std::string *host,
                     int *port, std::string *error);

}  // namespace uoztools

#endif
