// Which ECUs a query addresses and how each is reached: the query's
// transport blocks, read together with the agent's settings.
#ifndef UOZ_TOOLS_AGENT_QUERY_TARGETS_H
#define UOZ_TOOLS_AGENT_QUERY_TARGETS_H

#include <json-c/json.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

#include "agent_settings.h"
#include "json_helpers.h"

namespace uozagent {

struct DoipAddress {
    std::string host;  // the gateway, after the settings' address map
    uint16_t port = 13400;
    uint16_t tester_address = 0;
    uint16_t logical_address = 0;
    GatewayIdentity identity;  // the gateway is found by it; host names it until then
};

struct CanAddress {
    std::string ifname;
    uint32_t request_id = 0;
    uint32_t response_id = 0;
    uint8_t st_min = 0;
    uint8_t block_size = 0;
    bool extended_ids = false;   // 29-bit frames, whatever the ids' values
    uint8_t fd_data_length = 0;  // bytes per CAN FD frame sent; 0: classic CAN frames
    bool bit_rate_switch = false;
    std::optional<ExtendedAddress> extended_address = std::nullopt;  // none: normal addressing
    // "func-addr": where a request for every ECU on the interface goes at
    // once; none when the block's text is not an id.
    std::optional<uint32_t> functional_id = std::nullopt;
    // The same key for the same socket: interface, ids and frame form.
    std::string link_key() const;
};

using uoztools::JsonPtr;
using uoztools::text_member;

enum class Transport { kNone, kDoip, kCan };

struct EcuTarget {
    std::string label;  // "phy-req-id" of the answer: the block's request id or DoIP "ta"
    std::string name;   // from the ECU configuration, when the agent has it
    Transport transport = Transport::kNone;
    DoipAddress doip;
    CanAddress can;
    std::string error;  // why the ECU cannot be reached at all
    // One outstanding request per ECU: targets with the same key share a lock.
    std::string key() const;
};

// The ECUs of a query's body, in the order of its blocks. *broadcast is set
// for a query to all ECUs (target address -1).
std::vector<EcuTarget> query_targets(json_object *body, const AgentSettings &settings,
                                     bool *broadcast);

}  // namespace uozagent

#endif
