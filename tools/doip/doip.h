// DoIP (ISO 13400-2) for every program that speaks it (tools/doip): the
// diagnostic agent (tester side) and the ECU simulator (entity side).
//
// This header: the messages. Header encoding, a frame reader that copes with
// split and coalesced TCP reads, and the payloads both sides build and parse;
// nothing here does I/O. The byte stream the messages travel on is
// stream.h: plain TCP today, and the place for DoIP over TLS (port 3496),
// so that both sides get it at once.
#ifndef UOZ_TOOLS_DOIP_H
#define UOZ_TOOLS_DOIP_H

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <optional>
#include <string>
#include <vector>

namespace uozdoip {

// Protocol versions: 0x02 (2012) and 0x03 (2019); 0xFF ("any version") only
// in vehicle identification requests and their answers.
constexpr uint8_t kVersion2012 = 0x02;
constexpr uint8_t kVersion2019 = 0x03;
constexpr uint8_t kVersionAny = 0xFF;
constexpr uint8_t kDefaultVersion = kVersion2012;

constexpr size_t kHeaderSize = 8;
constexpr uint16_t kDefaultPort = 13400;
constexpr uint16_t kTlsPort = 3496;
// Largest payload a reader accepts unless told otherwise: a 4 KiB UDS message
// plus addresses leaves room for every request and answer this project sends.
constexpr uint32_t kDefaultMaxPayload = 64 * 1024;

namespace payload {
constexpr uint16_t kGenericNack = 0x0000;
constexpr uint16_t kVehicleIdRequest = 0x0001;
constexpr uint16_t kVehicleIdRequestByEid = 0x0002;
constexpr uint16_t kVehicleIdRequestByVin = 0x0003;
constexpr uint16_t kVehicleAnnouncement = 0x0004;  // also the identification response
constexpr uint16_t kRoutingActivationRequest = 0x0005;
constexpr uint16_t kRoutingActivationResponse = 0x0006;
constexpr uint16_t kAliveCheckRequest = 0x0007;
constexpr uint16_t kAliveCheckResponse = 0x0008;
constexpr uint16_t kEntityStatusRequest = 0x4001;
constexpr uint16_t kEntityStatusResponse = 0x4002;
constexpr uint16_t kPowerModeRequest = 0x4003;
constexpr uint16_t kPowerModeResponse = 0x4004;
constexpr uint16_t kDiagnosticMessage = 0x8001;
constexpr uint16_t kDiagnosticAck = 0x8002;
constexpr uint16_t kDiagnosticNack = 0x8003;
}  // namespace payload

// Generic DoIP header negative acknowledge codes (payload 0x0000).
namespace generic_nack {
constexpr uint8_t kIncorrectPattern = 0x00;  // bad version pair: the connection closes
constexpr uint8_t kUnknownPayloadType = 0x01;
constexpr uint8_t kMessageTooLarge = 0x02;
constexpr uint8_t kOutOfMemory = 0x03;
constexpr uint8_t kInvalidPayloadLength = 0x04;
}  // namespace generic_nack

// Routing activation response codes (payload 0x0006).
namespace routing {
constexpr uint8_t kDeniedUnknownSource = 0x00;
constexpr uint8_t kDeniedAllSocketsActive = 0x01;
constexpr uint8_t kDeniedSourceMismatch = 0x02;
constexpr uint8_t kDeniedSourceActiveElsewhere = 0x03;
constexpr uint8_t kDeniedMissingAuthentication = 0x04;
constexpr uint8_t kDeniedRejectedConfirmation = 0x05;
constexpr uint8_t kDeniedUnsupportedType = 0x06;
constexpr uint8_t kDeniedTlsRequired = 0x07;
constexpr uint8_t kSuccess = 0x10;
constexpr uint8_t kConfirmationRequired = 0x11;

// Activation types of the request.
constexpr uint8_t kTypeDefault = 0x00;
constexpr uint8_t kTypeWwhObd = 0x01;
constexpr uint8_t kTypeCentralSecurity = 0xE0;
}  // namespace routing

// Diagnostic message acknowledge (0x8002) and negative acknowledge (0x8003) codes.
namespace diag {
constexpr uint8_t kAck = 0x00;
constexpr uint8_t kNackInvalidSource = 0x02;
constexpr uint8_t kNackUnknownTarget = 0x03;
constexpr uint8_t kNackMessageTooLarge = 0x04;
constexpr uint8_t kNackOutOfMemory = 0x05;
constexpr uint8_t kNackTargetUnreachable = 0x06;
constexpr uint8_t kNackUnknownNetwork = 0x07;
constexpr uint8_t kNackTransportError = 0x08;
}  // namespace diag

// Readable name of a payload type, routing activation code or diagnostic NACK
// code, for logs and traces ("unknown" for codes not listed above).
const char *payload_type_name(uint16_t type);
const char *routing_code_name(uint8_t code);
const char *diag_nack_name(uint8_t code);
const char *generic_nack_name(uint8_t code);

struct Header {
    uint8_t version = kDefaultVersion;
    uint16_t payload_type = 0;
    uint32_t payload_length = 0;
};

// True for 0x02 or 0x03 followed by its bitwise inverse; with
// accept_any_version also 0xFF/0x00, which only vehicle identification
// requests may carry.
bool version_pair_valid(uint8_t version, uint8_t inverse, bool accept_any_version = false);

std::array<uint8_t, kHeaderSize> encode_header(const Header &header);
// Whether a message of this payload type may carry version 0xFF: vehicle
// identification requests, and their answer, which some entities send with
// the version of the request.
bool any_version_allowed(uint16_t payload_type);
// Decodes the first kHeaderSize bytes; std::nullopt for fewer bytes or an
// invalid version pair. With accept_any_version, 0xFF passes where
// any_version_allowed() says so.
std::optional<Header> decode_header(const uint8_t *bytes, size_t length,
                                    bool accept_any_version = false);

// One whole DoIP message.
struct Message {
    uint8_t version = kDefaultVersion;
    uint16_t payload_type = 0;
    std::vector<uint8_t> payload;
};

// The other protocol version (0x02 <-> 0x03): what a tester tries once when
// an entity refuses the first with generic NACK 0x00.
uint8_t other_version(uint8_t version);

// Header and payload in one buffer, ready to be written in one call.
std::vector<uint8_t> encode_message(uint16_t payload_type, const uint8_t *payload, size_t length,
                                    uint8_t version = kDefaultVersion);
std::vector<uint8_t> encode_message(const Message &message);

// Frames a byte stream by the header's length: feed() whatever a read returned
// (part of a message, or several), then call next() until it says kNeedMore.
//   kMessage      `out` holds the next message.
//   kNeedMore     no whole message buffered yet.
//   kBadVersion   the header's version pair is invalid: answer generic NACK
//                 0x00 and close; the reader stays in this state.
//   kTooLarge     the payload length exceeds the cap: answer generic NACK 0x02;
//                 the reader then skips that payload and carries on framing.
// bad_header() is the offending header after kBadVersion or kTooLarge.
// Not thread-safe: one reader per connection, used by one thread at a time.
class FrameReader {
  public:
    enum class Result { kMessage, kNeedMore, kBadVersion, kTooLarge };

    explicit FrameReader(uint32_t max_payload = kDefaultMaxPayload,
                         bool accept_any_version = false);

    void feed(const uint8_t *bytes, size_t length);
    Result next(Message &out);
    const Header &bad_header() const { return bad_header_; }
    // Bytes buffered but not yet returned as a message (for tests and traces).
    size_t buffered() const { return buffer_.size() - start_; }
    void reset();

  private:
    void compact();

    uint32_t max_payload_;
    bool accept_any_version_;
    std::vector<uint8_t> buffer_;
    size_t start_ = 0;       // first byte not yet consumed
    uint64_t skipping_ = 0;  // payload bytes still to drop after kTooLarge
    bool broken_ = false;
    Header bad_header_;
};

// ---- Payloads ----
// Each encode_* returns a whole message (header included); each parse_*
// takes a received message and returns std::nullopt when its payload type or
// length does not fit. Addresses are logical addresses, big-endian on the wire.

struct RoutingActivationRequest {
    uint16_t source = 0;  // tester logical address
    uint8_t activation_type = routing::kTypeDefault;
    uint32_t reserved = 0;
    std::optional<uint32_t> oem;
};
std::vector<uint8_t> encode(const RoutingActivationRequest &request,
                            uint8_t version = kDefaultVersion);
std::optional<RoutingActivationRequest> parse_routing_activation_request(const Message &message);

struct RoutingActivationResponse {
    uint16_t tester = 0;  // the tester's logical address, echoed
    uint16_t entity = 0;  // the DoIP entity's (gateway's) logical address
    uint8_t code = routing::kSuccess;
    uint32_t reserved = 0;
    std::optional<uint32_t> oem;
};
std::vector<uint8_t> encode(const RoutingActivationResponse &response,
                            uint8_t version = kDefaultVersion);
std::optional<RoutingActivationResponse> parse_routing_activation_response(const Message &message);

struct DiagnosticMessage {
    uint16_t source = 0;
    uint16_t target = 0;
    std::vector<uint8_t> data;  // the UDS bytes
};
std::vector<uint8_t> encode(const DiagnosticMessage &message, uint8_t version = kDefaultVersion);
std::optional<DiagnosticMessage> parse_diagnostic_message(const Message &message);

// Positive (0x8002, code 0x00) or negative (0x8003) acknowledge of a
// diagnostic message. source is the ECU's address, target the tester's;
// previous optionally echoes (a prefix of) the acknowledged UDS bytes.
struct DiagnosticAck {
    bool negative = false;
    uint16_t source = 0;
    uint16_t target = 0;
    uint8_t code = diag::kAck;
    std::vector<uint8_t> previous;
};
std::vector<uint8_t> encode(const DiagnosticAck &ack, uint8_t version = kDefaultVersion);
// Accepts 0x8002 and 0x8003.
std::optional<DiagnosticAck> parse_diagnostic_ack(const Message &message);

std::vector<uint8_t> encode_generic_nack(uint8_t code, uint8_t version = kDefaultVersion);
std::optional<uint8_t> parse_generic_nack(const Message &message);

std::vector<uint8_t> encode_alive_check_request(uint8_t version = kDefaultVersion);
std::vector<uint8_t> encode_alive_check_response(uint16_t source,
                                                 uint8_t version = kDefaultVersion);
// The tester's address from an alive check response.
std::optional<uint16_t> parse_alive_check_response(const Message &message);

// Vehicle identification request: plain (0x0001), by EID (0x0002, 6 bytes)
// or by VIN (0x0003, 17 bytes).
struct VehicleIdRequest {
    uint16_t payload_type = payload::kVehicleIdRequest;
    std::vector<uint8_t> filter;  // EID or VIN, empty for 0x0001
};
std::vector<uint8_t> encode(const VehicleIdRequest &request, uint8_t version = kVersionAny);
std::optional<VehicleIdRequest> parse_vehicle_id_request(const Message &message);

// Vehicle announcement / identification response (0x0004).
struct VehicleAnnouncement {
    std::array<uint8_t, 17> vin{};
    uint16_t logical_address = 0;
    std::array<uint8_t, 6> eid{};
    std::array<uint8_t, 6> gid{};
    uint8_t further_action = 0;
    std::optional<uint8_t> sync_status;
};
std::vector<uint8_t> encode(const VehicleAnnouncement &announcement,
                            uint8_t version = kDefaultVersion);
std::optional<VehicleAnnouncement> parse_vehicle_announcement(const Message &message);

// ---- Addresses ----

// Splits "ADDR:PORT", "[v6]:PORT" or "ADDR" (then default_port). Port 0 is
// accepted (the system picks one). Returns false for a malformed text or a
// port above 65535.
bool split_host_port(const char *text, uint16_t default_port, std::string &host, uint16_t &port);

}  // namespace uozdoip

#endif
