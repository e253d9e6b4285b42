// The agent's own settings: what a query's transport block does not carry
// (DoIP port, which gateways may be reached, routing of CAN and IOC ECUs
// through a DoIP gateway, UDS timing, key algorithms). Read from a JSON file;
// every member is optional. docs/agent.md describes the file.
#ifndef UOZ_TOOLS_AGENT_AGENT_SETTINGS_H
#define UOZ_TOOLS_AGENT_AGENT_SETTINGS_H

#include <stdint.h>

#include <map>
#include <optional>
#include <set>
#include <string>

#include "ecu_link.h"

namespace uozagent {

// CAN, IOC and CANFD ECUs reached through a vehicle gateway's DoIP entity.
struct GatewayRoute {
    bool enabled = false;
    std::string host;
    uint16_t port = 13400;
    uint16_t tester_address = 0x0E80;
    bool all = false;  // every CAN and IOC ECU, not only those listed
    // ECU name or "phy-req-id" text -> logical address at the gateway
    // (-1: the ECU's target address).
    std::map<std::string, int32_t> ecus;
};

// How the agent's ISO-TP sockets fill and check CAN frames.
struct CanSettings {
    // The byte that fills every frame the agent sends to 8 bytes; none:
    // frames as short as their content.
    std::optional<uint8_t> padding = 0xCC;
    bool require_padding = false;  // ignore ECU frames shorter than 8 bytes
    // ECUs (names or "phy-req-id" texts) whose ids are 29-bit even below
    // 0x800; ids above 0x7FF are 29-bit anyway.
    std::set<std::string> extended_ids;
};

// What the agent knows of an ECU from the library's configuration file.
struct KnownEcu {
    std::string name;
    int32_t target_address = 0;
};

struct AgentSettings {
    uint16_t doip_port = 13400;
    bool allow_remote_gateways = false;
    std::map<std::string, std::string> gateway_addresses;  // "gw-ip" -> address used
    Millis connect_timeout{2000};
    Millis activation_timeout{2000};
    Millis ack_timeout{2000};
    uint8_t activation_type = 0x00;
    UdsTiming timing;
    CanSettings can;
    GatewayRoute gateway;
    std::map<std::string, KnownEcu> ecus_by_request_id;  // "phy-req-id" text -> ECU
    std::map<uint8_t, std::string> key_algorithms;       // level -> "builtin" or plug-in path
    bool trace = false;  // print every request and answer (not from the file: --trace)

    // Throws std::runtime_error naming the member that is wrong.
    static AgentSettings from_json(const std::string &text);
    // Adds the ECU names and target addresses of a library configuration file.
    void learn_ecus(const std::string &config_text);
};

}  // namespace uozagent

#endif
