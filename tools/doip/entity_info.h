// What a DoIP entity says about itself over UDP (tools/doip, beside doip.h):
// its status (0x4001 -> 0x4002) and the vehicle's diagnostic power mode
// (0x4003 -> 0x4004), and readable names for those values and for the
// fields of a vehicle announcement. Messages only; discovery.h does the I/O.
#ifndef UOZ_TOOLS_DOIP_ENTITY_INFO_H
#define UOZ_TOOLS_DOIP_ENTITY_INFO_H

#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

#include "doip.h"

namespace uozdoip {

namespace node_type {
constexpr uint8_t kGateway = 0x00;
constexpr uint8_t kNode = 0x01;
}  // namespace node_type

namespace power_mode {
constexpr uint8_t kNotReady = 0x00;
constexpr uint8_t kReady = 0x01;
constexpr uint8_t kNotSupported = 0x02;
}  // namespace power_mode

// Further action codes and VIN/GID sync status of a vehicle announcement.
namespace further_action {
constexpr uint8_t kNone = 0x00;
constexpr uint8_t kCentralSecurity = 0x10;
}  // namespace further_action
namespace sync_status {
constexpr uint8_t kSynchronized = 0x00;
constexpr uint8_t kIncomplete = 0x10;
}  // namespace sync_status

// Entity status response (0x4002); the maximum data size is optional.
struct EntityStatus {
    uint8_t node_type = node_type::kGateway;
    uint8_t max_open_sockets = 0;
    uint8_t open_sockets = 0;
    std::optional<uint32_t> max_data_size;
};
std::vector<uint8_t> encode(const EntityStatus &status, uint8_t version = kDefaultVersion);
std::optional<EntityStatus> parse_entity_status(const Message &message);

std::vector<uint8_t> encode_entity_status_request(uint8_t version = kDefaultVersion);
std::vector<uint8_t> encode_power_mode_request(uint8_t version = kDefaultVersion);
// Diagnostic power mode response (0x4004): the mode byte.
std::vector<uint8_t> encode_power_mode(uint8_t mode, uint8_t version = kDefaultVersion);
std::optional<uint8_t> parse_power_mode(const Message &message);

// True when the announcement answers the request: the EID or VIN asked for,
// any vehicle for a plain request (0x0001).
bool answers(const VehicleIdRequest &request, const VehicleAnnouncement &announcement);

// "gateway", "node"; "ready", "not ready", "not supported"; "none",
// "routing activation for central security"; "synchronized",
// "not synchronized". Other values: "reserved (0x..)" or, for the further
// action codes the vehicle maker defines, "maker-specific (0x..)".
std::string node_type_name(uint8_t type);
std::string power_mode_name(uint8_t mode);
std::string further_action_name(uint8_t code);
std::string sync_status_name(uint8_t status);

// A VIN as text when all 17 bytes are printable, else as hex (an entity
// whose VIN is not configured yet sends 0x00 or 0xFF bytes).
std::string vin_text(const std::array<uint8_t, 17> &vin);
// 6 bytes (EID, GID) as 12 hex digits.
std::string id_text(const std::array<uint8_t, 6> &id);
// "WZL...": 17 letters and digits; "020000001000" or "02:00:00:00:10:00":
// 6 bytes. False for anything else.
bool parse_vin(const std::string &text, std::vector<uint8_t> *vin);
bool parse_eid(const std::string &text, std::vector<uint8_t> *eid);

}  // namespace uozdoip

#endif
