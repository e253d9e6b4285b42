#include "document_check.h"

#include <strings.h>

#include <tuple>

#include "hex_text.h"
#include "json_helpers.h"

namespace uozctl {

namespace {

bool get_text(json_object *object, const char *key, std::string *value) {
    const char *text = uoztools::text_member(object, key);
    if (text != nullptr)
        *value = text;
    return text != nullptr;
}

bool parse_time(const std::string &text, time_t *value) {
    struct tm calendar = {};
    const char *end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &calendar);
    if (end == nullptr || *end != '\0')
        return false;
    *value = timegm(&calendar);
    return true;
}

std::string check_period(json_object *document, time_t now) {
    json_object *period = nullptr;
    if (!json_object_object_get_ex(document, "diagnostic_period", &period))
        return "";
    std::string start, end;
    time_t start_time = 0, end_time = 0;
    for (auto [key, text, time] : {std::make_tuple("start_time", &start, &start_time),
                                   std::make_tuple("end_time", &end, &end_time)}) {
        if (!get_text(period, key, text) || !parse_time(*text, time)) {
            return std::string("diagnostic_period.") + key +
                   ": expected a UTC time such as \"2026-01-31T23:59:59Z\"";
        }
    }
    if (end_time < start_time)
        return "diagnostic_period: end_time " + end + " is before start_time " + start;
    if (now < start_time)
        return "diagnostic_period: the command is not valid before " + start;
    if (now > end_time)
        return "diagnostic_period: the command expired at " + end;
    return "";
}

// What the agent needs of a command it sends as written: the whole request
// in hex, or a one-byte service with optional sub-function and data bytes.
std::string check_custom_command(json_object *command, const std::string &field) {
    std::string text;
    std::vector<uint8_t> bytes;
    if (get_text(command, "request", &text)) {
        if (!uozuds::parse_hex_bytes(text.c_str(), &bytes) || bytes.empty())
            return field + ".request: '" + text + "' is not hex bytes such as \"22F190\"";
        return "";
    }
    uint32_t service = 0;
    if (!get_text(command, "service", &text) || !uozuds::parse_hex_number(text.c_str(), &service) ||
        service > 0xFF) {
        return field +
               ".service: a command needs a one-byte service such as \"0x22\" (or the whole "
               "\"request\" in hex)";
    }
    for (const char *key : {"subfn", "data"}) {
        if (get_text(command, key, &text) && !uozuds::parse_hex_bytes(text.c_str(), &bytes))
            return field + "." + key + ": '" + text + "' is not hex bytes";
    }
    return "";
}

bool known_routine(const ConfigReport &config, const std::string &name) {
    for (const std::string &routine : config.routines) {
        if (routine == name)
            return true;
    }
    return false;
}

std::string check_commands(json_object *document, const ConfigReport &config) {
    json_object *commands = nullptr;
    if (!json_object_object_get_ex(document, "commands", &commands) ||
        !json_object_is_type(commands, json_type_array) ||
        json_object_array_length(commands) == 0) {
        return "commands: expected a non-empty array of commands";
    }
    for (size_t i = 0; i < json_object_array_length(commands); ++i) {
        json_object *command = json_object_array_get_idx(commands, i);
        std::string field = "commands[" + std::to_string(i) + "]";
        if (!json_object_is_type(command, json_type_object))
            return field + ": expected an object";
        std::string type, name;
        if (!get_text(command, "type", &type) || type != "predefined") {
            std::string problem = check_custom_command(command, field);
            if (!problem.empty())
                return problem;
            continue;
        }
        if (!get_text(command, "command", &name))
            return field + ".command: a predefined command needs the routine's name";
        if (!known_routine(config, name)) {
            std::string known;
            for (const std::string &routine : config.routines)
                known += (known.empty() ? "" : ", ") + routine;
            return field + ".command: the configuration has no pre-defined routine '" + name +
                   "' (it has: " + (known.empty() ? "none" : known) + ")";
        }
    }
    return "";
}

std::string check_server_address(json_object *document, const ConfigReport &config) {
    json_object *ecu = nullptr;
    std::string address;
    if (!json_object_object_get_ex(document, "ecu", &ecu) ||
        !get_text(ecu, "ServerAddress", &address)) {
        return "ecu.ServerAddress: expected the target address as a text, e.g. \"0x7E0\"";
    }
    char *end = nullptr;
    long value = strtol(address.c_str(), &end, 16);
    if (address.empty() || *end != '\0')
        return "ecu.ServerAddress: '" + address + "' is not a hexadecimal address";
    if (value == 0xFFFFFFFFL)
        return "";  // every CAN and IOC ECU
    for (const EntryReport &entry : config.entries) {
        if (entry.loaded && entry.target_address == value)
            return "";
    }
    return "ecu.ServerAddress: no configured ECU has the address " + address +
           " (see 'uozctl ecus')";
}

}  // namespace

std::string check_document(const std::string &text, const ConfigReport &config, time_t now) {
    std::string error;
    json_object *document = parse_json_text(text, "the document", &error);
    if (document == nullptr)
        return error;
    if (!json_object_is_type(document, json_type_object)) {
        json_object_put(document);
        return "the document must be a JSON object";
    }
    for (auto check : {check_commands(document, config), check_server_address(document, config),
                       check_period(document, now)}) {
        if (!check.empty()) {
            error = check;
            break;
        }
    }
    json_object_put(document);
    return error;
}

}  // namespace uozctl
