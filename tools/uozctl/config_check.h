// What the library will make of an ECU configuration file, entry by entry:
// which entries load, which it drops and why, and which a name or address
// look-up can never reach because an earlier entry has the same one.
#ifndef UOZ_TOOLS_UOZCTL_CONFIG_CHECK_H
#define UOZ_TOOLS_UOZCTL_CONFIG_CHECK_H

#include <json-c/json.h>

#include <string>
#include <vector>

namespace uozctl {

struct EntryReport {
    size_t index = 0;
    std::string name;            // empty when the entry has none
    std::string type;            // CAN, CANFD, DOIP, IOC
    long target_address = -1;    // -1 when unreadable
    std::string parameters;      // "key=value ..." of the transport block
    std::string version_source;  // UDS, J1939 or "-"
    bool loaded = false;
    std::string problem;  // why it is dropped, or why a loaded entry is unreachable
};

struct ConfigReport {
    std::string file_error;  // the file cannot be used at all; entries is empty
    std::vector<EntryReport> entries;
    std::vector<std::string> routines;  // names of "pre-defined-routines"
    bool all_usable() const;
};

ConfigReport check_config(const std::string &path);

// Parses a whole JSON text; nullptr with *error naming what, the problem and
// its line and column when it is not one JSON document.
json_object *parse_json_text(const std::string &text, const std::string &what, std::string *error);

// One entry as the --json output shows it.
json_object *entry_to_json(const EntryReport &entry);

}  // namespace uozctl

#endif
