#include "doip.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

namespace uozdoip {

namespace {

void put16(std::vector<uint8_t> &out, uint16_t value) {
    out.push_back(static_cast<uint8_t>(value >> 8));
    out.push_back(static_cast<uint8_t>(value));
}

void put32(std::vector<uint8_t> &out, uint32_t value) {
    put16(out, static_cast<uint16_t>(value >> 16));
    put16(out, static_cast<uint16_t>(value));
}

uint16_t get16(const uint8_t *bytes) {
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

uint32_t get32(const uint8_t *bytes) {
    return static_cast<uint32_t>(get16(bytes)) << 16 | get16(bytes + 2);
}

std::vector<uint8_t> with_header(uint16_t type, const std::vector<uint8_t> &payload,
                                 uint8_t version) {
    return encode_message(type, payload.data(), payload.size(), version);
}

}  // namespace

const char *payload_type_name(uint16_t type) {
    switch (type) {
        case payload::kGenericNack:
            return "generic NACK";
        case payload::kVehicleIdRequest:
            return "vehicle identification request";
        case payload::kVehicleIdRequestByEid:
            return "vehicle identification request by EID";
        case payload::kVehicleIdRequestByVin:
            return "vehicle identification request by VIN";
        case payload::kVehicleAnnouncement:
            return "vehicle announcement";
        case payload::kRoutingActivationRequest:
            return "routing activation request";
        case payload::kRoutingActivationResponse:
            return "routing activation response";
        case payload::kAliveCheckRequest:
            return "alive check request";
        case payload::kAliveCheckResponse:
            return "alive check response";
        case payload::kEntityStatusRequest:
            return "entity status request";
        case payload::kEntityStatusResponse:
            return "entity status response";
        case payload::kPowerModeRequest:
            return "power mode request";
        case payload::kPowerModeResponse:
            return "power mode response";
        case payload::kDiagnosticMessage:
            return "diagnostic message";
        case payload::kDiagnosticAck:
            return "diagnostic message ACK";
        case payload::kDiagnosticNack:
            return "diagnostic message NACK";
    }
    return "unknown";
}

const char *routing_code_name(uint8_t code) {
    switch (code) {
        case routing::kDeniedUnknownSource:
            return "denied: unknown source address";
        case routing::kDeniedAllSocketsActive:
            return "denied: all sockets registered and active";
        case routing::kDeniedSourceMismatch:
            return "denied: source address differs from the one activated on this socket";
        case routing::kDeniedSourceActiveElsewhere:
            return "denied: source address already active on another socket";
        case routing::kDeniedMissingAuthentication:
            return "denied: missing authentication";
        case routing::kDeniedRejectedConfirmation:
            return "denied: rejected confirmation";
        case routing::kDeniedUnsupportedType:
            return "denied: unsupported activation type";
        case routing::kDeniedTlsRequired:
            return "denied: TLS required";
        case routing::kSuccess:
            return "success";
        case routing::kConfirmationRequired:
            return "confirmation required";
    }
    return "unknown";
}

const char *diag_nack_name(uint8_t code) {
    switch (code) {
        case diag::kAck:
            return "ACK";
        case diag::kNackInvalidSource:
            return "invalid source address";
        case diag::kNackUnknownTarget:
            return "unknown target address";
        case diag::kNackMessageTooLarge:
            return "diagnostic message too large";
        case diag::kNackOutOfMemory:
            return "out of memory";
        case diag::kNackTargetUnreachable:
            return "target unreachable";
        case diag::kNackUnknownNetwork:
            return "unknown network";
        case diag::kNackTransportError:
            return "transport protocol error";
    }
    return "unknown";
}

const char *generic_nack_name(uint8_t code) {
    switch (code) {
        case generic_nack::kIncorrectPattern:
            return "incorrect pattern format";
        case generic_nack::kUnknownPayloadType:
            return "unknown payload type";
        case generic_nack::kMessageTooLarge:
            return "message too large";
        case generic_nack::kOutOfMemory:
            return "out of memory";
        case generic_nack::kInvalidPayloadLength:
            return "invalid payload length";
    }
    return "unknown";
}

bool version_pair_valid(uint8_t version, uint8_t inverse, bool accept_any_version) {
    if (static_cast<uint8_t>(~version) != inverse)
        return false;
    return version == kVersion2012 || version == kVersion2019 ||
           (accept_any_version && version == kVersionAny);
}

std::array<uint8_t, kHeaderSize> encode_header(const Header &header) {
    const uint32_t length = header.payload_length;
    return {header.version,
            static_cast<uint8_t>(~header.version),
            static_cast<uint8_t>(header.payload_type >> 8),
            static_cast<uint8_t>(header.payload_type),
            static_cast<uint8_t>(length >> 24),
            static_cast<uint8_t>(length >> 16),
            static_cast<uint8_t>(length >> 8),
            static_cast<uint8_t>(length)};
}

bool any_version_allowed(uint16_t payload_type) {
    return payload_type >= payload::kVehicleIdRequest &&
           payload_type <= payload::kVehicleAnnouncement;
}

std::optional<Header> decode_header(const uint8_t *bytes, size_t length, bool accept_any_version) {
    if (length < kHeaderSize || !version_pair_valid(bytes[0], bytes[1], accept_any_version))
        return std::nullopt;
    Header header;
    header.version = bytes[0];
    header.payload_type = get16(bytes + 2);
    header.payload_length = get32(bytes + 4);
    if (header.version == kVersionAny && !any_version_allowed(header.payload_type))
        return std::nullopt;
    return header;
}

uint8_t other_version(uint8_t version) {
    return version == kVersion2019 ? kVersion2012 : kVersion2019;
}

std::vector<uint8_t> encode_message(uint16_t payload_type, const uint8_t *payload, size_t length,
                                    uint8_t version) {
    Header header{version, payload_type, static_cast<uint32_t>(length)};
    std::array<uint8_t, kHeaderSize> head = encode_header(header);
    std::vector<uint8_t> out;
    out.reserve(kHeaderSize + length);
    out.insert(out.end(), head.begin(), head.end());
    if (length > 0)
        out.insert(out.end(), payload, payload + length);
    return out;
}

std::vector<uint8_t> encode_message(const Message &message) {
    return encode_message(message.payload_type, message.payload.data(), message.payload.size(),
                          message.version);
}

FrameReader::FrameReader(uint32_t max_payload, bool accept_any_version)
    : max_payload_(max_payload), accept_any_version_(accept_any_version) {}

void FrameReader::reset() {
    buffer_.clear();
    start_ = 0;
    skipping_ = 0;
    broken_ = false;
    bad_header_ = Header{};
}

void FrameReader::feed(const uint8_t *bytes, size_t length) {
    if (broken_ || length == 0)
        return;
    // Drop what belongs to an oversized message as it arrives, so that such a
    // message never occupies memory.
    if (skipping_ > 0 && buffered() == 0) {
        size_t dropped = static_cast<size_t>(skipping_ < length ? skipping_ : length);
        skipping_ -= dropped;
        bytes += dropped;
        length -= dropped;
    }
    compact();
    buffer_.insert(buffer_.end(), bytes, bytes + length);
}

// Moves the unread bytes to the front once the consumed part dominates, so
// that a long-lived connection does not grow its buffer.
void FrameReader::compact() {
    if (start_ > 0 && start_ >= buffer_.size() / 2) {
        buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<long>(start_));
        start_ = 0;
    }
}

FrameReader::Result FrameReader::next(Message &out) {
    if (broken_)
        return Result::kBadVersion;
    if (skipping_ > 0) {
        size_t dropped = static_cast<size_t>(skipping_ < buffered() ? skipping_ : buffered());
        start_ += dropped;
        skipping_ -= dropped;
        if (skipping_ > 0)
            return Result::kNeedMore;
    }
    if (buffered() < kHeaderSize)
        return Result::kNeedMore;
    const uint8_t *head = buffer_.data() + start_;
    std::optional<Header> header = decode_header(head, kHeaderSize, accept_any_version_);
    if (!header) {
        broken_ = true;
        bad_header_.version = head[0];
        bad_header_.payload_type = get16(head + 2);
        bad_header_.payload_length = get32(head + 4);
        return Result::kBadVersion;
    }
    if (header->payload_length > max_payload_) {
        bad_header_ = *header;
        start_ += kHeaderSize;
        skipping_ = header->payload_length;
        return Result::kTooLarge;
    }
    if (buffered() < kHeaderSize + header->payload_length)
        return Result::kNeedMore;
    out.version = header->version;
    out.payload_type = header->payload_type;
    const uint8_t *body = head + kHeaderSize;
    out.payload.assign(body, body + header->payload_length);
    start_ += kHeaderSize + header->payload_length;
    if (start_ == buffer_.size()) {
        buffer_.clear();
        start_ = 0;
    }
    return Result::kMessage;
}

std::vector<uint8_t> encode(const RoutingActivationRequest &request, uint8_t version) {
    std::vector<uint8_t> body;
    put16(body, request.source);
    body.push_back(request.activation_type);
    put32(body, request.reserved);
    if (request.oem)
        put32(body, *request.oem);
    return with_header(payload::kRoutingActivationRequest, body, version);
}

std::optional<RoutingActivationRequest> parse_routing_activation_request(const Message &message) {
    const std::vector<uint8_t> &body = message.payload;
    if (message.payload_type != payload::kRoutingActivationRequest ||
        (body.size() != 7 && body.size() != 11))
        return std::nullopt;
    RoutingActivationRequest request;
    request.source = get16(body.data());
    request.activation_type = body[2];
    request.reserved = get32(body.data() + 3);
    if (body.size() == 11)
        request.oem = get32(body.data() + 7);
    return request;
}

std::vector<uint8_t> encode(const RoutingActivationResponse &response, uint8_t version) {
    std::vector<uint8_t> body;
    put16(body, response.tester);
    put16(body, response.entity);
    body.push_back(response.code);
    put32(body, response.reserved);
    if (response.oem)
        put32(body, *response.oem);
    return with_header(payload::kRoutingActivationResponse, body, version);
}

std::optional<RoutingActivationResponse> parse_routing_activation_response(const Message &message) {
    const std::vector<uint8_t> &body = message.payload;
    if (message.payload_type != payload::kRoutingActivationResponse ||
        (body.size() != 9 && body.size() != 13))
        return std::nullopt;
    RoutingActivationResponse response;
    response.tester = get16(body.data());
    response.entity = get16(body.data() + 2);
    response.code = body[4];
    response.reserved = get32(body.data() + 5);
    if (body.size() == 13)
        response.oem = get32(body.data() + 9);
    return response;
}

std::vector<uint8_t> encode(const DiagnosticMessage &message, uint8_t version) {
    std::vector<uint8_t> body;
    body.reserve(4 + message.data.size());
    put16(body, message.source);
    put16(body, message.target);
    body.insert(body.end(), message.data.begin(), message.data.end());
    return with_header(payload::kDiagnosticMessage, body, version);
}

// A diagnostic message carries at least one UDS byte after the two addresses.
std::optional<DiagnosticMessage> parse_diagnostic_message(const Message &message) {
    const std::vector<uint8_t> &body = message.payload;
    if (message.payload_type != payload::kDiagnosticMessage || body.size() < 5)
        return std::nullopt;
    DiagnosticMessage parsed;
    parsed.source = get16(body.data());
    parsed.target = get16(body.data() + 2);
    parsed.data.assign(body.begin() + 4, body.end());
    return parsed;
}

std::vector<uint8_t> encode(const DiagnosticAck &ack, uint8_t version) {
    std::vector<uint8_t> body;
    put16(body, ack.source);
    put16(body, ack.target);
    body.push_back(ack.code);
    body.insert(body.end(), ack.previous.begin(), ack.previous.end());
    return with_header(ack.negative ? payload::kDiagnosticNack : payload::kDiagnosticAck, body,
                       version);
}

std::optional<DiagnosticAck> parse_diagnostic_ack(const Message &message) {
    const std::vector<uint8_t> &body = message.payload;
    bool negative = message.payload_type == payload::kDiagnosticNack;
    if ((!negative && message.payload_type != payload::kDiagnosticAck) || body.size() < 5)
        return std::nullopt;
    DiagnosticAck ack;
    ack.negative = negative;
    ack.source = get16(body.data());
    ack.target = get16(body.data() + 2);
    ack.code = body[4];
    ack.previous.assign(body.begin() + 5, body.end());
    return ack;
}

std::vector<uint8_t> encode_generic_nack(uint8_t code, uint8_t version) {
    return encode_message(payload::kGenericNack, &code, 1, version);
}

std::optional<uint8_t> parse_generic_nack(const Message &message) {
    if (message.payload_type != payload::kGenericNack || message.payload.size() != 1)
        return std::nullopt;
    return message.payload[0];
}

std::vector<uint8_t> encode_alive_check_request(uint8_t version) {
    return encode_message(payload::kAliveCheckRequest, nullptr, 0, version);
}

std::vector<uint8_t> encode_alive_check_response(uint16_t source, uint8_t version) {
    std::vector<uint8_t> body;
    put16(body, source);
    return with_header(payload::kAliveCheckResponse, body, version);
}

std::optional<uint16_t> parse_alive_check_response(const Message &message) {
    if (message.payload_type != payload::kAliveCheckResponse || message.payload.size() != 2)
        return std::nullopt;
    return get16(message.payload.data());
}

std::vector<uint8_t> encode(const VehicleIdRequest &request, uint8_t version) {
    return with_header(request.payload_type, request.filter, version);
}

std::optional<VehicleIdRequest> parse_vehicle_id_request(const Message &message) {
    size_t expected = 0;
    switch (message.payload_type) {
        case payload::kVehicleIdRequest:
            expected = 0;
            break;
        case payload::kVehicleIdRequestByEid:
            expected = 6;
            break;
        case payload::kVehicleIdRequestByVin:
            expected = 17;
            break;
        default:
            return std::nullopt;
    }
    if (message.payload.size() != expected)
        return std::nullopt;
    return VehicleIdRequest{message.payload_type, message.payload};
}

std::vector<uint8_t> encode(const VehicleAnnouncement &announcement, uint8_t version) {
    std::vector<uint8_t> body(announcement.vin.begin(), announcement.vin.end());
    put16(body, announcement.logical_address);
    body.insert(body.end(), announcement.eid.begin(), announcement.eid.end());
    body.insert(body.end(), announcement.gid.begin(), announcement.gid.end());
    body.push_back(announcement.further_action);
    if (announcement.sync_status)
        body.push_back(*announcement.sync_status);
    return with_header(payload::kVehicleAnnouncement, body, version);
}

std::optional<VehicleAnnouncement> parse_vehicle_announcement(const Message &message) {
    const std::vector<uint8_t> &body = message.payload;
    if (message.payload_type != payload::kVehicleAnnouncement ||
        (body.size() != 32 && body.size() != 33))
        return std::nullopt;
    VehicleAnnouncement announcement;
    const uint8_t *at = body.data();
    memcpy(announcement.vin.data(), at, 17);
    announcement.logical_address = get16(at + 17);
    memcpy(announcement.eid.data(), at + 19, 6);
    memcpy(announcement.gid.data(), at + 25, 6);
    announcement.further_action = at[31];
    if (body.size() == 33)
        announcement.sync_status = at[32];
    return announcement;
}

bool split_host_port(const char *text, uint16_t default_port, std::string &host, uint16_t &port) {
    if (text == nullptr || *text == '\0')
        return false;
    std::string value(text);
    std::string port_text;
    if (value[0] == '[') {
        size_t close = value.find(']');
        if (close == std::string::npos || close == 1)
            return false;
        host = value.substr(1, close - 1);
        if (close + 1 < value.size()) {
            if (value[close + 1] != ':')
                return false;
            port_text = value.substr(close + 2);
            if (port_text.empty())
                return false;
        }
    } else {
        size_t colon = value.rfind(':');
        if (colon != std::string::npos && value.find(':') != colon)
            colon = std::string::npos;  // a bare IPv6 address: no port
        host = value.substr(0, colon);
        if (colon != std::string::npos) {
            port_text = value.substr(colon + 1);
            if (port_text.empty())
                return false;
        }
    }
    if (host.empty())
        return false;
    if (port_text.empty()) {
        port = default_port;
        return true;
    }
    if (port_text.find_first_not_of("0123456789") != std::string::npos || port_text.size() > 5)
        return false;
    unsigned long value_port = strtoul(port_text.c_str(), nullptr, 10);
    if (value_port > 65535)
        return false;
    port = static_cast<uint16_t>(value_port);
    return true;
}

}  // namespace uozdoip
