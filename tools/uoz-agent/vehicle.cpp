#include "vehicle.h"

#include <json-c/json.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <stdexcept>

#include "UDSOverZelko/read_dtc.h"
#include "kt5Utils/kt5_json.h"

namespace uozagent {

namespace {

constexpr uint8_t kAvailabilityMask = 0xFF;
constexpr uint8_t kFormatIso14229 = 0x01;
constexpr uint8_t kNrcSubFunctionNotSupported = 0x12;

uint32_t hex_number(const char *text) {
    return text != nullptr ? strtoul(text, nullptr, 16) : 0;
}

std::vector<uint8_t> hex_bytes(const char *text) {
    std::vector<uint8_t> bytes;
    std::string digits;
    for (const char *c = text; c != nullptr && *c != '\0'; ++c) {
        if (isxdigit(static_cast<unsigned char>(*c)))
            digits += *c;
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(strtoul(digits.substr(i, 2).c_str(), nullptr, 16)));
    }
    return bytes;
}

const char *text_member(json_object *object, const char *key) {
    json_object *value = nullptr;
    if (!json_object_object_get_ex(object, key, &value) ||
        !json_object_is_type(value, json_type_string)) {
        return nullptr;
    }
    return json_object_get_string(value);
}

std::map<uint8_t, std::vector<uint8_t>> records_of(json_object *dtc, const char *key) {
    std::map<uint8_t, std::vector<uint8_t>> records;
    json_object *object = nullptr;
    if (!json_object_object_get_ex(dtc, key, &object) ||
        !json_object_is_type(object, json_type_object)) {
        return records;
    }
    json_object_object_foreach(object, number, data) {
        records[static_cast<uint8_t>(hex_number(number))] = hex_bytes(json_object_get_string(data));
    }
    return records;
}

SimulatedEcu ecu_from_json(json_object *entry) {
    SimulatedEcu ecu;
    const char *name = text_member(entry, "name");
    const char *address = text_member(entry, "targetAddress");
    const char *request_id = text_member(entry, "phy-req-id");
    if (name == nullptr || address == nullptr || request_id == nullptr) {
        throw std::runtime_error("every ECU needs \"name\", \"targetAddress\" and \"phy-req-id\"");
    }
    ecu.name = name;
    ecu.target_address = static_cast<int32_t>(hex_number(address));
    ecu.request_id = request_id;
    const char *version = text_member(entry, "version");
    ecu.version = version != nullptr ? version : "";
    json_object *dtcs = nullptr;
    if (json_object_object_get_ex(entry, "dtcs", &dtcs) &&
        json_object_is_type(dtcs, json_type_array)) {
        for (size_t i = 0; i < json_object_array_length(dtcs); ++i) {
            json_object *item = json_object_array_get_idx(dtcs, i);
            SimulatedDtc dtc;
            dtc.code = hex_number(text_member(item, "code")) & 0xFFFFFF;
            dtc.status = static_cast<uint8_t>(hex_number(text_member(item, "status")));
            dtc.severity = static_cast<uint8_t>(hex_number(text_member(item, "severity")));
            dtc.fault_detection_counter =
                static_cast<uint8_t>(hex_number(text_member(item, "fdc")));
            dtc.snapshots = records_of(item, "snapshots");
            dtc.extended = records_of(item, "extended");
            ecu.dtcs.push_back(dtc);
        }
    }
    json_object *routines = nullptr;
    if (json_object_object_get_ex(entry, "routines", &routines) &&
        json_object_is_type(routines, json_type_object)) {
        json_object_object_foreach(routines, routine, response) {
            ecu.routines[routine] = to_hex(hex_bytes(json_object_get_string(response)));
        }
    }
    json_object *unsupported = nullptr;
    if (json_object_object_get_ex(entry, "unsupported-reports", &unsupported) &&
        json_object_is_type(unsupported, json_type_array)) {
        for (size_t i = 0; i < json_object_array_length(unsupported); ++i) {
            ecu.unsupported_reports.insert(static_cast<uint8_t>(
                hex_number(json_object_get_string(json_object_array_get_idx(unsupported, i)))));
        }
    }
    return ecu;
}

void put_dtc(std::vector<uint8_t> &out, uint32_t code) {
    out.push_back(static_cast<uint8_t>(code >> 16));
    out.push_back(static_cast<uint8_t>(code >> 8));
    out.push_back(static_cast<uint8_t>(code));
}

const SimulatedDtc *find_dtc(const SimulatedEcu &ecu, uint32_t code) {
    for (const SimulatedDtc &dtc : ecu.dtcs) {
        if (dtc.code == code)
            return &dtc;
    }
    return nullptr;
}

// First/most recent DTC with a status bit: the list is kept in occurrence order.
void put_first_or_last(std::vector<uint8_t> &out, const SimulatedEcu &ecu, uint8_t bit, bool last) {
    const SimulatedDtc *chosen = nullptr;
    for (const SimulatedDtc &dtc : ecu.dtcs) {
        if ((dtc.status & bit) == 0)
            continue;
        if (chosen == nullptr || last)
            chosen = &dtc;
    }
    if (chosen == nullptr)
        return;
    put_dtc(out, chosen->code);
    out.push_back(chosen->status);
}

void put_records(std::vector<uint8_t> &out, const std::map<uint8_t, std::vector<uint8_t>> &records,
                 uint8_t record) {
    for (const auto &[number, data] : records) {
        if (record != 0xFF && number != record)
            continue;
        out.push_back(number);
        out.insert(out.end(), data.begin(), data.end());
    }
}

uint8_t report_number(const char *name) {
    for (uint8_t i = 1; name != nullptr && i < 26; ++i) {
        if (strcmp(uds_report_names[i], name) == 0)
            return i;
    }
    return 0;
}

uint8_t mask_from_names(json_object *names) {
    uint8_t mask = 0;
    for (size_t i = 0;
         json_object_is_type(names, json_type_array) && i < json_object_array_length(names); ++i) {
        const char *name = json_object_get_string(json_object_array_get_idx(names, i));
        for (int bit = 0; bit < 8; ++bit) {
            if (name != nullptr && strcmp(uds_status_mask_names[bit], name) == 0)
                mask |= 1u << bit;
        }
    }
    return mask;
}

std::string reply_text(json_object *query, json_object *body) {
    JsonPtr reply(json_object_new_object());
    json_object_object_add(reply.get(), "type",
                           json_object_new_string("zelko.skyharbor-query-update"));
    const char *reply_id = text_member(query, "reply-id");
    json_object_object_add(reply.get(), "reply-to",
                           json_object_new_string(reply_id ? reply_id : ""));
    json_object_object_add(reply.get(), "body", body);
    return json_object_to_json_string_ext(reply.get(), JSON_C_TO_STRING_PLAIN);
}

}  // namespace

std::string to_hex(const std::vector<uint8_t> &bytes) {
    std::string text;
    char pair[3];
    for (uint8_t byte : bytes) {
        snprintf(pair, sizeof(pair), "%02X", byte);
        text += pair;
    }
    return text;
}

std::vector<uint8_t> read_dtc_response(const SimulatedEcu &ecu, uint8_t report, uint8_t mask,
                                       uint32_t dtc_code, uint8_t record) {
    if (ecu.unsupported_reports.count(report) != 0 || report == 0 || report > 0x16) {
        return {0x7F, 0x19, kNrcSubFunctionNotSupported};
    }
    std::vector<uint8_t> out = {0x59, report};
    switch (report) {
        case 0x01:
        case 0x11:
        case 0x12: {  // number of DTCs
            uint16_t count = 0;
            for (const SimulatedDtc &dtc : ecu.dtcs)
                count += (dtc.status & mask) != 0;
            out.insert(out.end(), {kAvailabilityMask, kFormatIso14229,
                                   static_cast<uint8_t>(count >> 8), static_cast<uint8_t>(count)});
            break;
        }
        case 0x02:
        case 0x0A:
        case 0x0F:
        case 0x13:
        case 0x15: {  // DTCs and their status
            out.push_back(kAvailabilityMask);
            for (const SimulatedDtc &dtc : ecu.dtcs) {
                bool listed = report == 0x0A || (report == 0x15 ? (dtc.status & 0x08) != 0
                                                                : (dtc.status & mask) != 0);
                if (!listed)
                    continue;
                put_dtc(out, dtc.code);
                out.push_back(dtc.status);
            }
            break;
        }
        case 0x0B:
        case 0x0C:
        case 0x0D:
        case 0x0E:
            out.push_back(kAvailabilityMask);
            put_first_or_last(out, ecu, report == 0x0B || report == 0x0D ? 0x01 : 0x08,
                              report >= 0x0D);
            break;
        case 0x03:  // snapshot identification
            for (const SimulatedDtc &dtc : ecu.dtcs) {
                for (const auto &snapshot : dtc.snapshots) {
                    put_dtc(out, dtc.code);
                    out.push_back(snapshot.first);
                }
            }
            break;
        case 0x04:
        case 0x06:
        case 0x10: {  // records of one DTC
            const SimulatedDtc *dtc = find_dtc(ecu, dtc_code);
            if (dtc == nullptr)
                return {0x7F, 0x19, 0x31};  // requestOutOfRange
            put_dtc(out, dtc->code);
            out.push_back(dtc->status);
            put_records(out, report == 0x04 ? dtc->snapshots : dtc->extended, record);
            break;
        }
        case 0x05:  // stored data by record number
            for (const SimulatedDtc &dtc : ecu.dtcs) {
                auto snapshot = dtc.snapshots.find(record);
                if (snapshot == dtc.snapshots.end())
                    continue;
                out.push_back(record);
                put_dtc(out, dtc.code);
                out.push_back(dtc.status);
                out.insert(out.end(), snapshot->second.begin(), snapshot->second.end());
                break;
            }
            break;
        case 0x09: {  // severity of one DTC
            out.push_back(kAvailabilityMask);
            const SimulatedDtc *dtc = find_dtc(ecu, dtc_code);
            if (dtc != nullptr) {
                out.push_back(dtc->severity);
                out.push_back(0x10);  // functional unit
                put_dtc(out, dtc->code);
                out.push_back(dtc->status);
            }
            break;
        }
        case 0x14:  // fault detection counters
            for (const SimulatedDtc &dtc : ecu.dtcs) {
                if (dtc.fault_detection_counter == 0)
                    continue;
                put_dtc(out, dtc.code);
                out.push_back(dtc.fault_detection_counter);
            }
            break;
        case 0x16:  // extended data by record number
            out.push_back(record);
            for (const SimulatedDtc &dtc : ecu.dtcs) {
                auto extended = dtc.extended.find(record);
                if (extended == dtc.extended.end())
                    continue;
                put_dtc(out, dtc.code);
                out.push_back(dtc.status);
                out.insert(out.end(), extended->second.begin(), extended->second.end());
            }
            break;
        default:
            return {0x7F, 0x19, kNrcSubFunctionNotSupported};
    }
    return out;
}

Vehicle Vehicle::from_json(const std::string &text) {
    JsonPtr root(json_tokener_parse(text.c_str()));
    json_object *ecus = nullptr;
    if (!root || !json_object_object_get_ex(root.get(), "ecus", &ecus) ||
        !json_object_is_type(ecus, json_type_array)) {
        throw std::runtime_error("a vehicle file is a JSON object with an \"ecus\" array");
    }
    Vehicle vehicle;
    for (size_t i = 0; i < json_object_array_length(ecus); ++i) {
        vehicle.ecus_.push_back(ecu_from_json(json_object_array_get_idx(ecus, i)));
    }
    const char *policy = text_member(root.get(), "policy");
    if (policy != nullptr && strcmp(policy, "reject") == 0)
        vehicle.policy_ = ConsentPolicy::kReject;
    if (policy != nullptr && strcmp(policy, "ask") == 0)
        vehicle.policy_ = ConsentPolicy::kAsk;
    return vehicle;
}

Vehicle::Vehicle(const Vehicle &other) {
    std::lock_guard<std::mutex> hold(other.lock_);
    ecus_ = other.ecus_;
    policy_ = other.policy_;
}

std::vector<std::string> Vehicle::ecu_names() const {
    std::lock_guard<std::mutex> hold(lock_);
    std::vector<std::string> names;
    for (const SimulatedEcu &ecu : ecus_)
        names.push_back(ecu.name);
    return names;
}

namespace {

// The ECUs a query addresses: the one at its target address, or for a query
// to all ECUs those whose request ids its transport blocks list.
std::vector<SimulatedEcu *> addressed(std::vector<SimulatedEcu> &ecus, json_object *body,
                                      bool *broadcast) {
    const char *target = text_member(body, "targetAddress");
    long long value = target != nullptr ? strtoll(target, nullptr, 16) : 0;
    *broadcast = value == -1 || value == 0xFFFFFFFFLL;
    std::vector<SimulatedEcu *> found;
    if (!*broadcast) {
        for (SimulatedEcu &ecu : ecus) {
            if (ecu.target_address == value)
                found.push_back(&ecu);
        }
        return found;
    }
    json_object_object_foreach(body, key, value_object) {
        if (!json_object_is_type(value_object, json_type_array))
            continue;
        (void)key;
        for (size_t i = 0; i < json_object_array_length(value_object); ++i) {
            const char *request_id =
                text_member(json_object_array_get_idx(value_object, i), "phy-req-id");
            for (SimulatedEcu &ecu : ecus) {
                if (request_id != nullptr && ecu.request_id == request_id)
                    found.push_back(&ecu);
            }
        }
    }
    return found;
}

json_object *dtc_answer(const std::vector<SimulatedEcu *> &ecus, json_object *uds) {
    uint8_t report = report_number(text_member(uds, "subfunction"));
    json_object *data_record = nullptr;
    json_object_object_get_ex(uds, "data-record", &data_record);
    json_object *record_value = nullptr;
    json_object_object_get_ex(data_record, "record", &record_value);
    uint8_t mask = mask_from_names(record_value);
    const char *type = text_member(data_record, "type");
    std::string record_text = json_object_is_type(record_value, json_type_string)
                                  ? json_object_get_string(record_value)
                                  : "";
    uint32_t dtc = 0;
    uint8_t record = 0;
    if (type != nullptr && strcmp(type, "DTC") == 0)
        dtc = hex_number(record_text.c_str());
    if (type != nullptr && strcmp(type, "RECORD") == 0)
        record = hex_number(record_text.c_str());
    if (type != nullptr && strcmp(type, "DTC_AND_RECORD") == 0 && record_text.size() >= 8) {
        dtc = hex_number(record_text.substr(0, 6).c_str());
        record = hex_number(record_text.substr(6).c_str());
    }
    json_object *elements = json_object_new_array();
    for (const SimulatedEcu *ecu : ecus) {
        json_object *element = json_object_new_object();
        json_object_object_add(element, "phy-req-id",
                               json_object_new_string(ecu->request_id.c_str()));
        json_object_object_add(
            element, "data",
            json_object_new_string(
                to_hex(read_dtc_response(*ecu, report, mask, dtc, record)).c_str()));
        json_object_array_add(elements, element);
    }
    json_object *answer = json_object_new_object();
    json_object_object_add(answer, "data-record", elements);
    return answer;
}

json_object *routine_answer(const std::vector<SimulatedEcu *> &ecus, json_object *routine) {
    const char *name = text_member(routine, "name");
    json_object *results = json_object_new_array();
    bool clear = name != nullptr && strcmp(name, "ClearDTC_Routine") == 0;
    uint32_t group = 0xFFFFFF;
    if (clear) {
        json_object *commands = nullptr;
        json_object_object_get_ex(routine, "commands", &commands);
        group = hex_number(text_member(json_object_array_get_idx(commands, 0), "data"));
    }
    for (SimulatedEcu *ecu : ecus) {
        std::string response;
        if (clear) {
            auto cleared = std::remove_if(
                ecu->dtcs.begin(), ecu->dtcs.end(),
                [&](const SimulatedDtc &dtc) { return group == 0xFFFFFF || dtc.code == group; });
            ecu->dtcs.erase(cleared, ecu->dtcs.end());
            response = "54";
        } else if (name != nullptr && ecu->routines.count(name) != 0) {
            response = ecu->routines[name];
        } else if (name != nullptr && strcmp(name, "custom_commands") == 0) {
            response = "OK";
        } else {
            response = "7F3131";  // requestOutOfRange: no such routine
        }
        json_object *result = json_object_new_object();
        json_object_object_add(result, "ecu", json_object_new_string(ecu->name.c_str()));
        json_object_object_add(result, "response", json_object_new_string(response.c_str()));
        json_object_array_add(results, result);
    }
    json_object *answer = json_object_new_object();
    json_object_object_add(answer, "name", json_object_new_string(name != nullptr ? name : ""));
    json_object_object_add(answer, "results", results);
    return answer;
}

}  // namespace

std::string Vehicle::answer_query(const std::string &query_text) {
    JsonPtr query(json_tokener_parse(query_text.c_str()));
    const char *type = text_member(query.get(), "type");
    json_object *body = nullptr;
    if (type == nullptr || strcmp(type, "zelko.skyharbor-query") != 0 ||
        !json_object_object_get_ex(query.get(), "body", &body)) {
        return "";
    }
    std::lock_guard<std::mutex> hold(lock_);
    bool broadcast = false;
    std::vector<SimulatedEcu *> ecus = addressed(ecus_, body, &broadcast);
    const char *target = text_member(body, "targetAddress");
    json_object *answer = json_object_new_object();
    // A query to all ECUs is answered with "-1", whatever form it was sent in.
    json_object_object_add(answer, "targetAddress",
                           json_object_new_string(broadcast ? "-1" : (target ? target : "")));
    json_object *member = nullptr;
    if (json_object_object_get_ex(body, "uds", &member)) {
        json_object_object_add(answer, "uds", dtc_answer(ecus, member));
    } else if (json_object_object_get_ex(body, "version", &member)) {
        if (!ecus.empty()) {
            json_object_object_add(answer, "version",
                                   json_object_new_string(ecus[0]->version.c_str()));
        }
    } else if (json_object_object_get_ex(body, "routine", &member)) {
        json_object_object_add(answer, "routine", routine_answer(ecus, member));
    }
    return reply_text(query.get(), answer);
}

std::string Vehicle::answer_consent(const std::string &message, ConsentPolicy policy,
                                    bool (*ask)(const std::string &campaign)) {
    JsonPtr parsed(json_tokener_parse(message.c_str()));
    const char *type = text_member(parsed.get(), "type");
    json_object *body = nullptr;
    if (type == nullptr || strcmp(type, "zelko.external-consent") != 0 ||
        !json_object_object_get_ex(parsed.get(), "body", &body)) {
        return "";
    }
    const char *campaign = text_member(body, "campaign-id");
    bool accepted =
        policy == ConsentPolicy::kAccept ||
        (policy == ConsentPolicy::kAsk && ask != nullptr && ask(campaign ? campaign : ""));
    JsonPtr answer(json_object_new_object());
    json_object_object_add(answer.get(), "type", json_object_new_string("zelko.external-consent"));
    json_object *answer_body = json_object_new_object();
    json_object_object_add(answer_body, "campaign-id",
                           json_object_new_string(campaign ? campaign : ""));
    json_object_object_add(answer_body, "consent-status",
                           json_object_new_string(accepted ? "accepted" : "rejected"));
    json_object_object_add(answer.get(), "body", answer_body);
    return json_object_to_json_string_ext(answer.get(), JSON_C_TO_STRING_PLAIN);
}

}  // namespace uozagent
