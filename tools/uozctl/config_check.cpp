#include "config_check.h"

#include <errno.h>
#include <string.h>
#include <strings.h>

#include "files.h"
#include "flow_control.h"
#include "hex_text.h"
#include "json_helpers.h"

namespace uozctl {

namespace {

using uoztools::text_member;

struct Transport {
    const char *type;
    const char *block;
    std::vector<const char *> required;
};

const Transport kTransports[] = {
    {"CAN", "can", {"ifname", "func-addr", "phy-req-id", "phy-resp-id"}},
    {"DOIP", "doip", {"sa", "ta", "gw-ip"}},
    {"IOC", "ioc", {"bus-id", "func-addr", "phy-req-id", "phy-resp-id"}},
    {"CANFD", nullptr, {}},
};

bool known_type(const std::string &type) {
    for (const Transport &transport : kTransports) {
        if (type == transport.type)
            return true;
    }
    return false;
}

std::string unknown_type(const std::string &type) {
    return "unknown \"type\" \"" + type +
           "\" (CAN, DOIP, IOC or CANFD): the library reads it as CAN";
}

// The library reads any type it does not know as CAN.
const Transport &transport_of(const std::string &type) {
    for (const Transport &transport : kTransports) {
        if (type == transport.type)
            return transport;
    }
    return kTransports[0];
}

// The reason the library drops the entry, or empty; *unknown tells of a type
// the library reads as CAN.
std::string drop_reason(json_object *entry, EntryReport *report, std::string *unknown) {
    if (!json_object_is_type(entry, json_type_object))
        return "not a JSON object";
    const char *type = text_member(entry, "type");
    if (type == nullptr)
        return "no \"type\" text";
    report->type = known_type(type) ? type : "CAN";
    if (!known_type(type))
        *unknown = unknown_type(type);
    const char *address = text_member(entry, "targetAddress");
    if (address == nullptr)
        return "no \"targetAddress\" text";
    char *end = nullptr;
    errno = 0;
    long value = strtol(address, &end, 16);
    report->target_address = errno == 0 && *end == '\0' && end != address ? value : -1;
    const char *name = text_member(entry, "name");
    if (name == nullptr)
        return "no \"name\" text";
    report->name = name;
    const Transport &transport = transport_of(type);
    json_object *block = nullptr;
    if (transport.block != nullptr)
        json_object_object_get_ex(entry, transport.block, &block);
    for (const char *key : transport.required) {
        if (block == nullptr || text_member(block, key) == nullptr) {
            std::string missing =
                std::string("no \"") + transport.block + "\".\"" + key + "\" text";
            return unknown->empty() ? missing : *unknown + ", and finds " + missing;
        }
    }
    if (block != nullptr && json_object_is_type(block, json_type_object)) {
        json_object_object_foreach(block, key, value) {
            report->parameters += (report->parameters.empty() ? "" : " ") + std::string(key) + "=" +
                                  json_object_get_string(value);
        }
    }
    json_object *version = nullptr;
    report->version_source = "-";
    if (json_object_object_get_ex(entry, "ecu_version", &version) &&
        json_object_is_type(version, json_type_object)) {
        json_object *uds = nullptr, *j1939 = nullptr;
        bool has_uds = json_object_object_get_ex(version, "uds", &uds) &&
                       json_object_is_type(uds, json_type_array);
        bool has_j1939 = json_object_object_get_ex(version, "j1939", &j1939) &&
                         json_object_is_type(j1939, json_type_object);
        if (has_uds && has_j1939)
            return "\"ecu_version\" has both \"uds\" and \"j1939\"";
        report->version_source = has_uds ? "UDS" : has_j1939 ? "J1939" : "-";
    }
    return "";
}

// Why the agent refuses a loaded CAN entry's flow control values, or "".
std::string agent_refusal(json_object *entry, const EntryReport &report) {
    json_object *block = nullptr;
    if (report.type != "CAN" || !json_object_object_get_ex(entry, "can", &block))
        return "";
    for (const char *key : {"st-min", "bsize"}) {
        const char *text = text_member(block, key);
        if (text == nullptr)
            continue;
        uint32_t value = 0;
        std::string problem;
        if (!uozuds::parse_hex_number(text, &value))
            problem = std::string("(") + text + ") is not a hex byte";
        else if (strcmp(key, "st-min") == 0)
            problem = uozcan::st_min_problem(value);
        else if (value > uozcan::kLargestBlockSize)
            problem = std::string("(") + text + ") is not a byte: use 0x00-0xFF (0x00: no limit)";
        if (!problem.empty())
            return std::string("the agent refuses it: \"can\".\"") + key + "\" " + problem;
    }
    return "";
}

// Loaded entries that an earlier one hides from look-ups by name or address.
void mark_shadowed(std::vector<EntryReport> *entries) {
    for (size_t i = 0; i < entries->size(); ++i) {
        EntryReport &later = (*entries)[i];
        for (size_t j = 0; j < i && later.loaded && later.problem.empty(); ++j) {
            const EntryReport &earlier = (*entries)[j];
            if (!earlier.loaded)
                continue;
            if (strcasecmp(earlier.name.c_str(), later.name.c_str()) == 0) {
                later.problem = "the name is already used by entry " +
                                std::to_string(earlier.index) + ": look-ups by name reach that one";
            } else if (earlier.target_address == later.target_address) {
                later.problem = "the target address is already used by entry " +
                                std::to_string(earlier.index) + " (" + earlier.name + ")";
            }
        }
    }
}

// Line and column of a byte offset, both counted from 1.
std::string position_of(const std::string &text, size_t offset) {
    size_t line = 1, column = 1;
    for (size_t i = 0; i < offset && i < text.size(); ++i) {
        if (text[i] == '\n') {
            ++line;
            column = 1;
        } else {
            ++column;
        }
    }
    return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

}  // namespace

json_object *parse_json_text(const std::string &text, const std::string &what, std::string *error) {
    json_tokener *tokener = json_tokener_new();
    json_object *object =
        json_tokener_parse_ex(tokener, text.c_str(), static_cast<int>(text.size()));
    json_tokener_error state = json_tokener_get_error(tokener);
    size_t offset = json_tokener_get_parse_end(tokener);
    if (object != nullptr && state == json_tokener_success && offset < text.size() &&
        text.find_first_not_of(" \t\r\n", offset) != std::string::npos) {
        json_object_put(object);
        object = nullptr;
        *error = what + " is not JSON: text after the document at " + position_of(text, offset);
    } else if (object == nullptr || state != json_tokener_success) {
        if (state == json_tokener_continue)
            *error = what + " is not JSON: it ends in the middle of the document";
        else
            *error = what + " is not JSON: " + json_tokener_error_desc(state) + " at " +
                     position_of(text, offset);
        json_object_put(object);
        object = nullptr;
    }
    json_tokener_free(tokener);
    return object;
}

bool ConfigReport::all_usable() const {
    if (!file_error.empty())
        return false;
    for (const EntryReport &entry : entries) {
        if (!entry.loaded || !entry.problem.empty())
            return false;
    }
    return true;
}

ConfigReport check_config(const std::string &path) {
    ConfigReport report;
    std::string text;
    if (!uoztools::read_text_file(path, &text, &report.file_error))
        return report;
    json_object *document = parse_json_text(text, path, &report.file_error);
    if (document == nullptr)
        return report;
    json_object *configs = nullptr;
    if (!json_object_object_get_ex(document, "configs", &configs) ||
        !json_object_is_type(configs, json_type_array)) {
        report.file_error = path + " is not an ECU configuration: it has no \"configs\" array";
        json_object_put(document);
        return report;
    }
    for (size_t i = 0; i < json_object_array_length(configs); ++i) {
        EntryReport entry;
        entry.index = i;
        std::string unknown;
        entry.problem = drop_reason(json_object_array_get_idx(configs, i), &entry, &unknown);
        entry.loaded = entry.problem.empty();
        if (entry.loaded)
            entry.problem = unknown.empty()
                                ? agent_refusal(json_object_array_get_idx(configs, i), entry)
                                : unknown;
        report.entries.push_back(entry);
    }
    mark_shadowed(&report.entries);
    json_object *routines = nullptr;
    if (json_object_object_get_ex(document, "pre-defined-routines", &routines) &&
        json_object_is_type(routines, json_type_array)) {
        for (size_t i = 0; i < json_object_array_length(routines); ++i) {
            const char *name = text_member(json_object_array_get_idx(routines, i), "name");
            if (name != nullptr)
                report.routines.push_back(name);
        }
    }
    json_object_put(document);
    return report;
}

json_object *entry_to_json(const EntryReport &entry) {
    json_object *object = json_object_new_object();
    json_object_object_add(object, "index",
                           json_object_new_int64(static_cast<int64_t>(entry.index)));
    json_object_object_add(object, "name", json_object_new_string(entry.name.c_str()));
    json_object_object_add(object, "type", json_object_new_string(entry.type.c_str()));
    json_object_object_add(object, "target_address", json_object_new_int64(entry.target_address));
    json_object_object_add(object, "parameters", json_object_new_string(entry.parameters.c_str()));
    json_object_object_add(object, "version_source",
                           json_object_new_string(entry.version_source.c_str()));
    json_object_object_add(object, "loaded", json_object_new_boolean(entry.loaded));
    json_object_object_add(
        object, "problem",
        entry.problem.empty() ? nullptr : json_object_new_string(entry.problem.c_str()));
    return object;
}

}  // namespace uozctl
