#include "entity_info.h"

#include <algorithm>

#include "hex_text.h"

namespace uozdoip {

std::vector<uint8_t> encode(const EntityStatus &status, uint8_t version) {
    std::vector<uint8_t> body = {status.node_type, status.max_open_sockets, status.open_sockets};
    if (status.max_data_size) {
        for (int shift = 24; shift >= 0; shift -= 8)
            body.push_back(static_cast<uint8_t>(*status.max_data_size >> shift));
    }
    return encode_message(payload::kEntityStatusResponse, body.data(), body.size(), version);
}

std::optional<EntityStatus> parse_entity_status(const Message &message) {
    const std::vector<uint8_t> &body = message.payload;
    if (message.payload_type != payload::kEntityStatusResponse ||
        (body.size() != 3 && body.size() != 7))
        return std::nullopt;
    EntityStatus status{body[0], body[1], body[2], std::nullopt};
    if (body.size() == 7) {
        status.max_data_size = static_cast<uint32_t>(body[3]) << 24 |
                               static_cast<uint32_t>(body[4]) << 16 |
                               static_cast<uint32_t>(body[5]) << 8 | body[6];
    }
    return status;
}

std::vector<uint8_t> encode_entity_status_request(uint8_t version) {
    return encode_message(payload::kEntityStatusRequest, nullptr, 0, version);
}

std::vector<uint8_t> encode_power_mode_request(uint8_t version) {
    return encode_message(payload::kPowerModeRequest, nullptr, 0, version);
}

std::vector<uint8_t> encode_power_mode(uint8_t mode, uint8_t version) {
    return encode_message(payload::kPowerModeResponse, &mode, 1, version);
}

std::optional<uint8_t> parse_power_mode(const Message &message) {
    if (message.payload_type != payload::kPowerModeResponse || message.payload.size() != 1)
        return std::nullopt;
    return message.payload[0];
}

bool answers(const VehicleIdRequest &request, const VehicleAnnouncement &announcement) {
    switch (request.payload_type) {
        case payload::kVehicleIdRequestByEid:
            return std::equal(request.filter.begin(), request.filter.end(),
                              announcement.eid.begin(), announcement.eid.end());
        case payload::kVehicleIdRequestByVin:
            return std::equal(request.filter.begin(), request.filter.end(),
                              announcement.vin.begin(), announcement.vin.end());
        default:
            return true;
    }
}

std::string node_type_name(uint8_t type) {
    switch (type) {
        case node_type::kGateway:
            return "gateway";
        case node_type::kNode:
            return "node";
    }
    return "reserved (" + uozuds::hex_number(type, 2) + ")";
}

std::string power_mode_name(uint8_t mode) {
    switch (mode) {
        case power_mode::kNotReady:
            return "not ready";
        case power_mode::kReady:
            return "ready";
        case power_mode::kNotSupported:
            return "not supported";
    }
    return "reserved (" + uozuds::hex_number(mode, 2) + ")";
}

std::string further_action_name(uint8_t code) {
    if (code == further_action::kNone)
        return "none";
    if (code == further_action::kCentralSecurity)
        return "routing activation for central security";
    return (code > further_action::kCentralSecurity ? "maker-specific (" : "reserved (") +
           uozuds::hex_number(code, 2) + ")";
}

std::string sync_status_name(uint8_t status) {
    switch (status) {
        case sync_status::kSynchronized:
            return "synchronized";
        case sync_status::kIncomplete:
            return "not synchronized";
    }
    return "reserved (" + uozuds::hex_number(status, 2) + ")";
}

std::string vin_text(const std::array<uint8_t, 17> &vin) {
    bool printable = true;
    for (uint8_t byte : vin)
        printable = printable && byte > 0x20 && byte < 0x7F;
    if (printable)
        return std::string(vin.begin(), vin.end());
    return uozuds::hex_compact(vin.data(), vin.size());
}

std::string id_text(const std::array<uint8_t, 6> &id) {
    return uozuds::hex_compact(id.data(), id.size());
}

bool parse_vin(const std::string &text, std::vector<uint8_t> *vin) {
    if (text.size() != 17 || !std::all_of(text.begin(), text.end(), [](char c) {
            return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        }))
        return false;
    vin->assign(text.begin(), text.end());
    return true;
}

bool parse_eid(const std::string &text, std::vector<uint8_t> *eid) {
    // "020000001000", or the same with a colon between each two bytes.
    const bool colons = text.size() == 17;
    const size_t step = colons ? 3 : 2;
    if (text.size() != 12 && !colons)
        return false;
    std::vector<uint8_t> bytes;
    for (size_t at = 0; at < text.size(); at += step) {
        int high = uozuds::hex_digit(text[at]);
        int low = uozuds::hex_digit(text[at + 1]);
        if (high < 0 || low < 0 || (colons && at + 2 < text.size() && text[at + 2] != ':'))
            return false;
        bytes.push_back(static_cast<uint8_t>(high << 4 | low));
    }
    *eid = bytes;
    return true;
}

}  // namespace uozdoip
