#include "uds_requests.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "dtc_reports.h"
#include "query_targets.h"

namespace uozagent {

namespace {

constexpr uint8_t kDefaultSecuritySession = uozuds::session::kExtended;

bool status_mask_of(json_object *names, uint8_t *mask, std::string *error) {
    *mask = 0;
    if (!json_object_is_type(names, json_type_array)) {
        *error = "a status-mask report needs a \"record\" array of status names";
        return false;
    }
    for (size_t i = 0; i < json_object_array_length(names); ++i) {
        const char *name = json_object_get_string(json_object_array_get_idx(names, i));
        int bit = 0;
        while (bit < 8 && (name == nullptr || strcmp(uozuds::kQueryStatusBitNames[bit], name) != 0))
            ++bit;
        if (bit == 8) {
            *error = std::string("unknown status bit name \"") + (name ? name : "") + "\"";
            return false;
        }
        *mask |= static_cast<uint8_t>(1u << bit);
    }
    return true;
}

// The DTC and/or record number of a "data-record" whose "record" is hex text:
// DTC as six digits, record as two, or both run together.
bool dtc_and_record_of(json_object *data_record, uozuds::DtcRequest *request, std::string *error) {
    const char *text = text_member(data_record, "record");
    size_t digits = text != nullptr ? strlen(text) : 0;
    size_t record_digits = uozuds::carries_record(request->type->request) ? 2 : 0;
    bool needs_dtc = uozuds::carries_dtc(request->type->request);
    if (text == nullptr || digits < record_digits + (needs_dtc ? 1 : 0) ||
        (!needs_dtc && digits != record_digits)) {
        *error = "the report needs its DTC and/or record number as hex text in \"record\"";
        return false;
    }
    uint32_t value = 0;
    std::string dtc_text(text, digits - record_digits);
    if (needs_dtc &&
        (!parse_hex_number(dtc_text.c_str(), &request->dtc) || request->dtc > 0xFFFFFF)) {
        *error = std::string("\"") + text + "\" holds no three-byte DTC number";
        return false;
    }
    if (record_digits != 0 && !parse_hex_number(text + digits - record_digits, &value)) {
        *error = std::string("\"") + text + "\" holds no record number";
        return false;
    }
    request->record = static_cast<uint8_t>(value);
    return true;
}

Bytes command_request(json_object *command, std::string *error) {
    Bytes request;
    const char *whole = text_member(command, "request");
    if (whole != nullptr) {
        if (!parse_hex_bytes(whole, &request) || request.empty())
            *error = std::string("\"request\" \"") + whole + "\" is not hex bytes";
        return request;
    }
    uint32_t service = 0;
    const char *service_text = text_member(command, "service");
    if (service_text == nullptr || !parse_hex_number(service_text, &service) || service > 0xFF) {
        *error = "a command needs a one-byte \"service\" such as \"0x22\"";
        return {};
    }
    request.push_back(static_cast<uint8_t>(service));
    const char *subfn = text_member(command, "subfn");
    Bytes more;
    if (subfn != nullptr && !parse_hex_bytes(subfn, &more)) {
        *error = std::string("\"subfn\" \"") + subfn + "\" is not hex";
        return {};
    }
    request.insert(request.end(), more.begin(), more.end());
    const char *data = text_member(command, "data");
    if (data != nullptr && !parse_hex_bytes(data, &more)) {
        *error = std::string("\"data\" \"") + data + "\" is not hex";
        return {};
    }
    if (data != nullptr)
        request.insert(request.end(), more.begin(), more.end());
    return request;
}

}  // namespace

std::string hex_text(const Bytes &bytes) {
    return uozuds::hex_compact(bytes.data(), bytes.size());
}

bool is_negative_response(const Bytes &response, uint8_t *code) {
    if (response.size() < 3 || response[0] != uozuds::kNegativeResponse)
        return false;
    if (code != nullptr)
        *code = response[2];
    return true;
}

Bytes read_dtc_request(json_object *uds, std::string *error) {
    const char *sid = text_member(uds, "SID");
    uint32_t service = 0;
    if (sid == nullptr || !parse_hex_number(sid, &service) ||
        service != uozuds::sid::kReadDtcInformation) {
        *error = "only ReadDTCInformation (\"SID\" \"0x19\") is served as \"uds\"";
        return {};
    }
    const char *name = text_member(uds, "subfunction");
    uozuds::DtcRequest request;
    request.type = uozuds::find_dtc_report(name);
    if (request.type == nullptr || !uozuds::asked_by_queries(*request.type)) {
        *error = std::string("unknown report \"") + (name ? name : "") + "\"";
        return {};
    }
    if (request.type->request == uozuds::DtcRequestLayout::kNothing)
        return uozuds::encode_dtc_request(request);
    json_object *data_record = nullptr;
    if (!json_object_object_get_ex(uds, "data-record", &data_record) ||
        !json_object_is_type(data_record, json_type_object)) {
        *error = std::string("report \"") + name + "\" needs a \"data-record\"";
        return {};
    }
    bool read = false;
    if (request.type->request == uozuds::DtcRequestLayout::kStatusMask) {
        json_object *names = nullptr;
        json_object_object_get_ex(data_record, "record", &names);
        read = status_mask_of(names, &request.status_mask, error);
    } else {
        read = dtc_and_record_of(data_record, &request, error);
    }
    return read ? uozuds::encode_dtc_request(request) : Bytes{};
}

std::vector<VersionItem> version_items(json_object *version, std::string *error) {
    json_object *uds = nullptr;
    if (!json_object_object_get_ex(version, "uds", &uds) ||
        !json_object_is_type(uds, json_type_array) || json_object_array_length(uds) == 0) {
        *error = "the version description has no \"uds\" identifiers to read";
        return {};
    }
    std::vector<VersionItem> items;
    for (size_t i = 0; i < json_object_array_length(uds); ++i) {
        json_object *entry = json_object_array_get_idx(uds, i);
        uint32_t did = 0;
        const char *did_text = text_member(entry, "did");
        if (!parse_hex_number(did_text, &did) || did > 0xFFFF) {
            *error = std::string("version identifier \"") + (did_text ? did_text : "") +
                     "\" is not a two-byte DID";
            return {};
        }
        const char *name = text_member(entry, "name");
        items.push_back({static_cast<uint16_t>(did), name != nullptr ? name : ""});
    }
    return items;
}

Bytes read_did_request(uint16_t did) {
    return {uozuds::sid::kReadDataByIdentifier, static_cast<uint8_t>(did >> 8),
            static_cast<uint8_t>(did)};
}

Bytes read_dids_request(const std::vector<VersionItem> &items) {
    if (items.size() < 2)
        return {};
    Bytes request = {uozuds::sid::kReadDataByIdentifier};
    for (size_t i = 0; i < items.size(); ++i) {
        if (i + 1 < items.size() && uozuds::did_size(items[i].did) < 0)
            return {};
        request.push_back(static_cast<uint8_t>(items[i].did >> 8));
        request.push_back(static_cast<uint8_t>(items[i].did));
    }
    return request;
}

bool split_dids_answer(const std::vector<VersionItem> &items, const Bytes &response,
                       std::vector<Bytes> *answers) {
    const uint8_t positive = uozuds::sid::kReadDataByIdentifier + uozuds::kPositiveOffset;
    if (response.empty() || response[0] != positive)
        return false;
    answers->clear();
    size_t at = 1;
    for (size_t i = 0; i < items.size(); ++i) {
        const bool last = i + 1 == items.size();
        const size_t size = last ? 0 : static_cast<size_t>(uozuds::did_size(items[i].did));
        if (response.size() < at + 2 + size || response[at] != (items[i].did >> 8) ||
            response[at + 1] != (items[i].did & 0xFF))
            return false;
        const size_t end = last ? response.size() : at + 2 + size;
        Bytes answer = {positive};
        answer.insert(answer.end(), response.begin() + at, response.begin() + end);
        answers->push_back(std::move(answer));
        at = end;
    }
    return true;
}

std::string did_value_text(uint16_t did, const Bytes &response, std::string *error) {
    if (response.size() < 3 ||
        response[0] != uozuds::sid::kReadDataByIdentifier + uozuds::kPositiveOffset ||
        response[1] != (did >> 8) || response[2] != (did & 0xFF)) {
        char text[80];
        snprintf(text, sizeof(text), "the answer to DID 0x%04X is not its value: %s", did,
                 hex_text(response).c_str());
        *error = text;
        return "";
    }
    Bytes value(response.begin() + 3, response.end());
    while (!value.empty() && (value.back() == 0 || value.back() == ' '))
        value.pop_back();
    for (uint8_t byte : value) {
        if (byte < 0x20 || byte > 0x7E)
            return hex_text(Bytes(response.begin() + 3, response.end()));
    }
    return std::string(value.begin(), value.end());
}

std::string version_text(const std::vector<VersionItem> &items,
                         const std::vector<std::string> &values) {
    if (values.size() == 1)
        return values[0];
    std::string text;
    for (size_t i = 0; i < values.size() && i < items.size(); ++i) {
        char did[16];
        snprintf(did, sizeof(did), "0x%04X", items[i].did);
        text +=
            (i == 0 ? "" : ", ") + (items[i].name.empty() ? did : items[i].name) + ": " + values[i];
    }
    return text;
}

std::vector<UdsCommand> routine_commands(json_object *routine, std::string *error) {
    json_object *commands = nullptr;
    if (!json_object_object_get_ex(routine, "commands", &commands) ||
        !json_object_is_type(commands, json_type_array) ||
        json_object_array_length(commands) == 0) {
        *error = "the routine has no \"commands\"";
        return {};
    }
    std::vector<UdsCommand> result;
    for (size_t i = 0; i < json_object_array_length(commands); ++i) {
        json_object *command = json_object_array_get_idx(commands, i);
        const char *name = text_member(command, "command");
        std::string label = name != nullptr ? name : "command " + std::to_string(i + 1);
        std::string why;
        Bytes request = command_request(command, &why);
        if (request.empty()) {
            *error = label + ": " + why;
            return {};
        }
        result.push_back({label, request});
    }
    return result;
}

SecurityRequest security_request(json_object *routine, std::string *error) {
    SecurityRequest wanted;
    json_object *access = nullptr;
    if (!json_object_object_get_ex(routine, "security_access", &access))
        return wanted;
    uint32_t level = 0;
    const char *level_text = text_member(access, "level");
    if (!parse_hex_number(level_text, &level) || level == 0 || level > 0x7D || level % 2 == 0) {
        *error = "\"security_access\" needs an odd \"level\" from 0x01 to 0x7D";
        return wanted;
    }
    uint32_t session = kDefaultSecuritySession;
    const char *session_text = text_member(access, "session");
    if (session_text != nullptr && (!parse_hex_number(session_text, &session) || session > 0xFF)) {
        *error = "\"security_access\" \"session\" is not a one-byte session";
        return wanted;
    }
    wanted.wanted = true;
    wanted.level = static_cast<uint8_t>(level);
    wanted.session = static_cast<uint8_t>(session);
    return wanted;
}

bool session_timing(const Bytes &response, uint32_t *p2_ms, uint32_t *p2_star_ms) {
    if (response.size() != 6 ||
        response[0] != uozuds::sid::kDiagnosticSessionControl + uozuds::kPositiveOffset)
        return false;
    *p2_ms = static_cast<uint32_t>(response[2] << 8 | response[3]);
    *p2_star_ms = static_cast<uint32_t>(response[4] << 8 | response[5]) * 10;
    return true;
}

bool is_seed_request(const Bytes &request) {
    return request.size() == 2 && request[0] == uozuds::sid::kSecurityAccess &&
           request[1] % 2 == 1 && request[1] <= 0x7D;
}

bool seed_of(const Bytes &response, uint8_t level, Bytes *seed) {
    if (response.size() < 2 ||
        response[0] != uozuds::sid::kSecurityAccess + uozuds::kPositiveOffset ||
        response[1] != level) {
        return false;
    }
    seed->assign(response.begin() + 2, response.end());
    return true;
}

Bytes send_key_request(uint8_t level, const Bytes &key) {
    Bytes request(2 + key.size());
    request[0] = uozuds::sid::kSecurityAccess;
    request[1] = static_cast<uint8_t>(level + 1);
    std::copy(key.begin(), key.end(), request.begin() + 2);
    return request;
}

}  // namespace uozagent
