// The agent's former in-memory answers: a query answered straight from the
// simulated vehicle, without a transport. Only uoz-agent uses this, until it
// asks the simulator over DoIP; then this file goes.
#include <json-c/json.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <stdexcept>

#include "UDSOverZelko/read_dtc.h"
#include "kt5Utils/kt5_json.h"
#include "read_dtc.h"
#include "vehicle.h"

namespace uozagent {

namespace {

uint32_t hex_number(const char *text) {
    return text != nullptr ? strtoul(text, nullptr, 16) : 0;
}

const char *text_member(json_object *object, const char *key) {
    json_object *value = nullptr;
    if (!json_object_object_get_ex(object, key, &value) ||
        !json_object_is_type(value, json_type_string)) {
        return nullptr;
    }
    return json_object_get_string(value);
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

// The request bytes the library's report name and "data-record" stand for.
std::vector<uint8_t> legacy_request(uint8_t report, uint8_t mask, uint32_t dtc, uint8_t record) {
    std::vector<uint8_t> request = {0x19, report};
    const uint8_t dtc_bytes[] = {static_cast<uint8_t>(dtc >> 16), static_cast<uint8_t>(dtc >> 8),
                                 static_cast<uint8_t>(dtc)};
    switch (uozecusim::read_dtc_request_length(report)) {
        case 3:
            request.push_back(report == 0x05 || report == 0x16 ? record : mask);
            break;
        case 4:
            request.insert(request.end(), {report == 0x17 ? mask : uint8_t{0xFF},
                                           report == 0x17 ? uint8_t{0x00} : mask});
            break;
        case 5:
            request.insert(request.end(), dtc_bytes, dtc_bytes + 3);
            break;
        case 6:
        case 7:
            request.insert(request.end(), dtc_bytes, dtc_bytes + 3);
            request.push_back(record);
            if (report >= 0x18)
                request.push_back(0x00);
            break;
    }
    return request;
}

}  // namespace

Vehicle Vehicle::from_json(const std::string &text) {
    uozecusim::VehicleFile file = uozecusim::parse_vehicle(text);
    Vehicle vehicle;
    vehicle.ecus_ = file.ecus;
    if (file.policy == "reject")
        vehicle.policy_ = ConsentPolicy::kReject;
    if (file.policy == "ask")
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
    std::vector<uint8_t> request = legacy_request(report, mask, dtc, record);
    json_object *elements = json_object_new_array();
    for (const SimulatedEcu *ecu : ecus) {
        json_object *element = json_object_new_object();
        json_object_object_add(element, "phy-req-id",
                               json_object_new_string(ecu->request_id.c_str()));
        json_object_object_add(
            element, "data",
            json_object_new_string(
                to_hex(uozecusim::read_dtc_response(*ecu, request.data(), request.size()))
                    .c_str()));
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
        } else if (name != nullptr && ecu->named_routines.count(name) != 0) {
            response = ecu->named_routines[name];
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
