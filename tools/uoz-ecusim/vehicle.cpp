#include "vehicle.h"

#include <ctype.h>
#include <json-c/json.h>
#include <stdio.h>
#include <string.h>

#include <stdexcept>

#include "hex_text.h"
#include "json_helpers.h"
#include "uds.h"

namespace uozecusim {

namespace {

constexpr uint32_t kLargestCanId = 0x1FFFFFFF;  // 29 bits

[[noreturn]] void fail(const std::string &where, const std::string &what) {
    throw std::runtime_error(where + ": " + what);
}

// "0x7E0", "7E0" or "7e0", within max; anything else is an error.
uint32_t parse_number(const std::string &where, const char *text, uint32_t max) {
    if (text == nullptr)
        fail(where, "expected a hex number text such as \"0x7E0\"");
    uint32_t value = 0;
    if (!uozuds::parse_hex_number(text, &value))
        fail(where, std::string("\"") + text + "\" is not a hex number");
    if (value > max) {
        char limit[16];
        snprintf(limit, sizeof(limit), "0x%X", max);
        fail(where, std::string("\"") + text + "\" is above " + limit);
    }
    return value;
}

// Hex bytes with optional spaces between them: "0C1A2B" or "0C 1A 2B".
Bytes parse_bytes(const std::string &where, const char *text) {
    if (text == nullptr)
        fail(where, "expected hex bytes such as \"0C1A\"");
    std::string digits;
    for (const char *c = text; *c != '\0'; ++c) {
        if (*c == ' ')
            continue;
        if (!isxdigit(static_cast<unsigned char>(*c)))
            fail(where, std::string("\"") + text + "\" is not hex bytes");
        digits += *c;
    }
    if (digits.size() % 2 != 0)
        fail(where, std::string("\"") + text + "\" has an odd number of hex digits");
    Bytes bytes;
    for (size_t i = 0; i < digits.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return bytes;
}

json_object *member(json_object *object, const char *key, json_type type,
                    const std::string &where) {
    json_object *value = nullptr;
    if (!json_object_object_get_ex(object, key, &value))
        return nullptr;
    if (!json_object_is_type(value, type)) {
        fail(where, std::string("\"") + key + "\" must be " + json_type_to_name(type) + ", not " +
                        json_type_to_name(json_object_get_type(value)));
    }
    return value;
}

// The text of a string member, nullptr when absent; another type is an error.
const char *string_member(json_object *object, const char *key, const std::string &where) {
    member(object, key, json_type_string, where);
    return uoztools::text_member(object, key);
}

uint32_t number_member(json_object *object, const char *key, const std::string &where, uint32_t max,
                       uint32_t fallback) {
    const char *text = string_member(object, key, where);
    return text != nullptr ? parse_number(where + " \"" + key + "\"", text, max) : fallback;
}

bool flag_member(json_object *object, const char *key, const std::string &where) {
    json_object *value = member(object, key, json_type_boolean, where);
    return value != nullptr && json_object_get_boolean(value);
}

// A DID's value: a string is ASCII text, {"hex": "..."} raw bytes.
Bytes did_value(json_object *value, const std::string &where) {
    if (json_object_is_type(value, json_type_string)) {
        const char *text = json_object_get_string(value);
        return Bytes(text, text + strlen(text));
    }
    if (json_object_is_type(value, json_type_object))
        return parse_bytes(where, string_member(value, "hex", where));
    fail(where, "a DID's value is a text or {\"hex\": \"...\"}");
}

void check_size(const std::string &where, int known, size_t actual) {
    if (known >= 0 && actual != static_cast<size_t>(known)) {
        fail(where,
             "has " + std::to_string(actual) + " bytes where its size is " + std::to_string(known));
    }
}

std::vector<DidValue> snapshot_dids(json_object *record, const std::string &where) {
    if (!json_object_is_type(record, json_type_object))
        fail(where,
             "a snapshot record is an object of DIDs and their data, e.g. {\"0xF40C\": "
             "\"1A2B\"}");
    std::vector<DidValue> dids;
    json_object_object_foreach(record, key, data) {
        std::string at = where + " DID " + key;
        DidValue value;
        value.did = static_cast<uint16_t>(parse_number(at, key, 0xFFFF));
        value.data = parse_bytes(at, json_object_is_type(data, json_type_string)
                                         ? json_object_get_string(data)
                                         : nullptr);
        check_size(at, uozuds::did_size(value.did), value.data.size());
        dids.push_back(value);
    }
    if (dids.empty() || dids.size() > 0xFF)
        fail(where, "a snapshot record holds 1 to 255 DIDs");
    return dids;
}

SimulatedDtc dtc_from_json(json_object *item, const std::string &ecu_where) {
    if (!json_object_is_type(item, json_type_object))
        fail(ecu_where, "every DTC is an object");
    SimulatedDtc dtc;
    if (string_member(item, "code", ecu_where) == nullptr)
        fail(ecu_where, "every DTC needs a \"code\"");
    dtc.code = number_member(item, "code", ecu_where + " DTC", 0xFFFFFF, 0);
    std::string where = ecu_where + " DTC " + uozuds::hex_number(dtc.code, 6);
    dtc.status = static_cast<uint8_t>(number_member(item, "status", where, 0xFF, 0));
    std::string contradiction = status_contradiction(dtc.status);
    if (!contradiction.empty())
        fail(where, "status " + uozuds::hex_number(dtc.status, 2) + ": " + contradiction);
    dtc.severity = static_cast<uint8_t>(number_member(item, "severity", where, 0xFF, 0));
    dtc.functional_unit =
        static_cast<uint8_t>(number_member(item, "functional-unit", where, 0xFF, 0x10));
    dtc.fault_detection_counter = static_cast<uint8_t>(number_member(item, "fdc", where, 0x7F, 0));
    dtc.emission_related = flag_member(item, "obd", where);
    dtc.permanent = flag_member(item, "permanent", where);
    if (json_object *snapshots = member(item, "snapshots", json_type_object, where)) {
        json_object_object_foreach(snapshots, number, record) {
            std::string at = where + " snapshot " + number;
            uint8_t value = static_cast<uint8_t>(parse_number(at, number, 0xFE));
            dtc.snapshots[value] = snapshot_dids(record, at);
        }
    }
    if (json_object *extended = member(item, "extended", json_type_object, where)) {
        json_object_object_foreach(extended, number, data) {
            std::string at = where + " extended record " + number;
            uint8_t value = static_cast<uint8_t>(parse_number(at, number, 0xEF));
            Bytes bytes = parse_bytes(at, json_object_is_type(data, json_type_string)
                                              ? json_object_get_string(data)
                                              : nullptr);
            check_size(at, uozuds::extended_record_size(value), bytes.size());
            dtc.extended[value] = bytes;
        }
    }
    return dtc;
}

std::vector<SimulatedDtc> dtcs_from_json(json_object *array, const std::string &where) {
    std::vector<SimulatedDtc> dtcs;
    for (size_t i = 0; i < json_object_array_length(array); ++i) {
        SimulatedDtc dtc = dtc_from_json(json_object_array_get_idx(array, i), where);
        for (const SimulatedDtc &earlier : dtcs) {
            if (earlier.code == dtc.code)
                fail(where, "DTC " + uozuds::hex_number(dtc.code, 6) + " is listed twice");
        }
        dtcs.push_back(dtc);
    }
    return dtcs;
}

Routine routine_from_json(json_object *object, uint16_t id, const std::string &where) {
    if (!json_object_is_type(object, json_type_object))
        fail(where, "a routine is an object");
    Routine routine;
    routine.id = id;
    const char *name = string_member(object, "name", where);
    routine.name = name != nullptr ? name : "";
    const char *start = string_member(object, "start", where);
    routine.start_result = parse_bytes(where + " \"start\"", start != nullptr ? start : "");
    const char *results = string_member(object, "results", where);
    routine.results = parse_bytes(where + " \"results\"", results != nullptr ? results : "");
    const char *stop = string_member(object, "stop", where);
    routine.stoppable = stop != nullptr;
    routine.stop_result = parse_bytes(where + " \"stop\"", stop != nullptr ? stop : "");
    if (json_object *duration = member(object, "duration-ms", json_type_int, where)) {
        int64_t value = json_object_get_int64(duration);
        if (value < 0 || value > 60000)
            fail(where, "\"duration-ms\" is 0 to 60000");
        routine.duration_ms = static_cast<uint32_t>(value);
    }
    routine.security_level =
        static_cast<uint8_t>(number_member(object, "security-level", where, 0x7D, 0));
    if (routine.security_level != 0 && routine.security_level % 2 == 0)
        fail(where, "\"security-level\" is an odd (request seed) level");
    return routine;
}

void read_ecu_lists(SimulatedEcu &ecu, json_object *entry, const std::string &where) {
    if (json_object *levels = member(entry, "security-levels", json_type_array, where)) {
        for (size_t i = 0; i < json_object_array_length(levels); ++i) {
            json_object *item = json_object_array_get_idx(levels, i);
            uint32_t level = parse_number(where + " security level",
                                          json_object_is_type(item, json_type_string)
                                              ? json_object_get_string(item)
                                              : nullptr,
                                          0x7D);
            if (level % 2 == 0)
                fail(where, "security levels are odd (request seed) levels such as \"0x01\"");
            ecu.security_levels.insert(static_cast<uint8_t>(level));
        }
    } else {
        ecu.security_levels.insert(0x01);
    }
    if (json_object *unsupported = member(entry, "unsupported-reports", json_type_array, where)) {
        for (size_t i = 0; i < json_object_array_length(unsupported); ++i) {
            json_object *item = json_object_array_get_idx(unsupported, i);
            ecu.unsupported_reports.insert(static_cast<uint8_t>(parse_number(
                where + " unsupported report",
                json_object_is_type(item, json_type_string) ? json_object_get_string(item)
                                                            : nullptr,
                0xFF)));
        }
    }
}

// Record numbers the ECU supports: those its DTCs hold when the file is read.
void collect_record_numbers(SimulatedEcu &ecu) {
    auto collect = [&](const std::vector<SimulatedDtc> &memory) {
        for (const SimulatedDtc &dtc : memory) {
            for (const auto &snapshot : dtc.snapshots)
                ecu.snapshot_record_numbers.insert(snapshot.first);
            for (const auto &extended : dtc.extended)
                ecu.extended_record_numbers.insert(extended.first);
        }
    };
    collect(ecu.dtcs);
    for (const auto &memory : ecu.user_memories)
        collect(memory.second);
}

std::vector<std::string> texts_of(json_object *array, const std::string &where, size_t most) {
    std::vector<std::string> texts;
    for (size_t i = 0; array != nullptr && i < json_object_array_length(array); ++i) {
        json_object *text = json_object_array_get_idx(array, i);
        if (!json_object_is_type(text, json_type_string) || i >= most ||
            strchr(json_object_get_string(text), '*') != nullptr)
            fail(where, "lists up to " + std::to_string(most) + " texts without '*'");
        texts.push_back(json_object_get_string(text));
    }
    return texts;
}

// "j1939": {"source-address": "0x03", "software-identification": [texts],
// "component-identification": [make, model, serial number, unit number]}
void read_j1939(SimulatedEcu &ecu, json_object *entry, const std::string &where) {
    json_object *j1939 = member(entry, "j1939", json_type_object, where);
    if (j1939 == nullptr)
        return;
    const std::string at = where + " \"j1939\"";
    if (string_member(j1939, "source-address", at) == nullptr)
        fail(at, "needs \"source-address\"");
    ecu.j1939.present = true;
    ecu.j1939.address = static_cast<uint8_t>(number_member(j1939, "source-address", at, 0xFD, 0));
    ecu.j1939.software = texts_of(member(j1939, "software-identification", json_type_array, at),
                                  at + " \"software-identification\"", 255);
    ecu.j1939.component = texts_of(member(j1939, "component-identification", json_type_array, at),
                                   at + " \"component-identification\"", 4);
}

void read_can_ids(SimulatedEcu &ecu, json_object *entry, const std::string &where) {
    const char *response = string_member(entry, "phy-resp-id", where);
    if (response == nullptr)
        return;
    ecu.on_can = true;
    ecu.can_request_id =
        parse_number(where + " \"phy-req-id\"", ecu.request_id.c_str(), kLargestCanId);
    ecu.can_response_id = parse_number(where + " \"phy-resp-id\"", response, kLargestCanId);
    ecu.can_functional_id =
        number_member(entry, "func-addr", where, kLargestCanId, ecu.can_functional_id);
    if (ecu.can_response_id == ecu.can_request_id || ecu.can_functional_id == ecu.can_response_id)
        fail(where, "\"phy-resp-id\" must differ from \"phy-req-id\" and \"func-addr\"");
}

SimulatedEcu ecu_from_json(json_object *entry, size_t index) {
    std::string where = "ECU #" + std::to_string(index + 1);
    if (!json_object_is_type(entry, json_type_object))
        fail(where, "every ECU is an object");
    SimulatedEcu ecu;
    const char *name = string_member(entry, "name", where);
    const char *address = string_member(entry, "targetAddress", where);
    const char *request_id = string_member(entry, "phy-req-id", where);
    if (name == nullptr || *name == '\0' || address == nullptr || request_id == nullptr)
        fail(where, "every ECU needs \"name\", \"targetAddress\" and \"phy-req-id\"");
    ecu.name = name;
    where = "ECU \"" + ecu.name + "\"";
    ecu.target_address =
        static_cast<int32_t>(parse_number(where + " \"targetAddress\"", address, 0x7FFFFFFF));
    ecu.request_id = request_id;
    uint32_t logical = number_member(entry, "logical-address", where, 0xFFFF,
                                     static_cast<uint32_t>(ecu.target_address));
    if (logical > 0xFFFF)
        fail(where, "\"targetAddress\" above 0xFFFF needs a \"logical-address\"");
    ecu.logical_address = static_cast<uint16_t>(logical);
    read_can_ids(ecu, entry, where);
    if (json_object *dtcs = member(entry, "dtcs", json_type_array, where))
        ecu.dtcs = dtcs_from_json(dtcs, where);
    ecu.dtc_availability_mask = static_cast<uint8_t>(
        number_member(entry, "dtc-status-availability-mask", where, 0xFF, 0xFF));
    if (json_object *memories = member(entry, "user-memories", json_type_object, where)) {
        json_object_object_foreach(memories, selection, dtcs) {
            std::string at = where + " user memory " + selection;
            uint8_t value = static_cast<uint8_t>(parse_number(at, selection, 0xFF));
            if (!json_object_is_type(dtcs, json_type_array))
                fail(at, "a user memory is an array of DTCs");
            ecu.user_memories[value] = dtcs_from_json(dtcs, at);
        }
    }
    if (json_object *dids = member(entry, "dids", json_type_object, where)) {
        json_object_object_foreach(dids, key, value) {
            std::string at = where + " DID " + key;
            uint16_t did = static_cast<uint16_t>(parse_number(at, key, 0xFFFF));
            Bytes data = did_value(value, at);
            check_size(at, uozuds::did_size(did), data.size());
            ecu.dids[did] = data;
        }
    }
    if (json_object *routines = member(entry, "routine-control", json_type_object, where)) {
        json_object_object_foreach(routines, key, value) {
            std::string at = where + " routine " + key;
            uint16_t id = static_cast<uint16_t>(parse_number(at, key, 0xFFFF));
            ecu.routine_control[id] = routine_from_json(value, id, at);
        }
    }
    read_ecu_lists(ecu, entry, where);
    read_j1939(ecu, entry, where);
    collect_record_numbers(ecu);
    return ecu;
}

void read_gateway(VehicleFile &vehicle, json_object *root) {
    json_object *gateway = member(root, "gateway", json_type_object, "vehicle");
    if (gateway == nullptr)
        return;
    const std::string where = "\"gateway\"";
    vehicle.gateway_address = static_cast<uint16_t>(
        number_member(gateway, "logical-address", where, 0xFFFF, vehicle.gateway_address));
    vehicle.functional_address = static_cast<uint16_t>(
        number_member(gateway, "functional-address", where, 0xFFFF, vehicle.functional_address));
    if (const char *vin = string_member(gateway, "vin", where)) {
        if (strlen(vin) != 17)
            fail(where, "\"vin\" has 17 characters");
        vehicle.vin = vin;
    }
    for (auto [key, target] :
         {std::pair<const char *, std::array<uint8_t, 6> *>{"eid", &vehicle.eid},
          {"gid", &vehicle.gid}}) {
        const char *text = string_member(gateway, key, where);
        if (text == nullptr)
            continue;
        Bytes bytes = parse_bytes(where + " \"" + key + "\"", text);
        if (bytes.size() != 6)
            fail(where, std::string("\"") + key + "\" is 6 bytes");
        std::copy(bytes.begin(), bytes.end(), target->begin());
    }
}

}  // namespace

std::string status_contradiction(uint8_t status) {
    const bool test_failed = status & 0x01;
    const bool failed_this_cycle = status & 0x02;
    const bool pending = status & 0x04;
    const bool failed_since_clear = status & 0x20;
    if (test_failed && !failed_this_cycle)
        return "testFailed without testFailedThisOperationCycle";
    if ((test_failed || failed_this_cycle || pending) && !failed_since_clear)
        return std::string(test_failed         ? "testFailed"
                           : failed_this_cycle ? "testFailedThisOperationCycle"
                                               : "pendingDTC") +
               " without testFailedSinceLastClear";
    return "";
}

VehicleFile parse_vehicle(const std::string &text) {
    uoztools::JsonPtr root(json_tokener_parse(text.c_str()));
    if (!root || !json_object_is_type(root.get(), json_type_object))
        throw std::runtime_error("a vehicle file is a JSON object with an \"ecus\" array");
    json_object *ecus = member(root.get(), "ecus", json_type_array, "vehicle");
    if (ecus == nullptr)
        throw std::runtime_error("a vehicle file is a JSON object with an \"ecus\" array");
    VehicleFile vehicle;
    read_gateway(vehicle, root.get());
    for (size_t i = 0; i < json_object_array_length(ecus); ++i) {
        SimulatedEcu ecu = ecu_from_json(json_object_array_get_idx(ecus, i), i);
        for (const SimulatedEcu &earlier : vehicle.ecus) {
            if (ecu.on_can && earlier.on_can &&
                (earlier.can_request_id == ecu.can_request_id ||
                 earlier.can_response_id == ecu.can_response_id))
                fail("ECU \"" + ecu.name + "\"",
                     "CAN ids " + uozuds::hex_number(ecu.can_request_id, 3) + "/" +
                         uozuds::hex_number(ecu.can_response_id, 3) + " clash with \"" +
                         earlier.name + "\"'s");
            if (earlier.logical_address == ecu.logical_address)
                fail("ECU \"" + ecu.name + "\"", "logical address " +
                                                     uozuds::hex_number(ecu.logical_address, 4) +
                                                     " is also \"" + earlier.name + "\"'s");
            if (ecu.j1939.present && earlier.j1939.present &&
                ecu.j1939.address == earlier.j1939.address)
                fail("ECU \"" + ecu.name + "\"", "J1939 source address " +
                                                     uozuds::hex_number(ecu.j1939.address, 2) +
                                                     " is also \"" + earlier.name + "\"'s");
        }
        if (ecu.logical_address == vehicle.functional_address)
            fail("ECU \"" + ecu.name + "\"", "logical address " +
                                                 uozuds::hex_number(ecu.logical_address, 4) +
                                                 " is the functional address");
        if (ecu.logical_address == vehicle.gateway_address)
            fail("ECU \"" + ecu.name + "\"", "logical address " +
                                                 uozuds::hex_number(ecu.logical_address, 4) +
                                                 " is the gateway's own");
        vehicle.ecus.push_back(ecu);
    }
    return vehicle;
}

}  // namespace uozecusim
