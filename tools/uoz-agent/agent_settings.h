// The agent's own settings: what a query's transport block does not carry
// (DoIP port, TLS, protocol version and activation type per gateway, which
// gateways may be reached, routing of CAN and IOC ECUs through a DoIP
// gateway, UDS timing, key algorithms). Read from a JSON file;
// every member is optional. docs/agent.md describes the file.
#ifndef UOZ_TOOLS_AGENT_AGENT_SETTINGS_H
#define UOZ_TOOLS_AGENT_AGENT_SETTINGS_H

#include <stdint.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "doip_client.h"
#include "ecu_link.h"

namespace uozagent {

// A gateway named by its vehicle's VIN or its entity's EID instead of an
// address: found by vehicle identification (UDP) when the agent starts and
// again whenever its connection has been lost.
struct GatewayIdentity {
    std::string vin;  // 17 characters, or
    std::string eid;  // 12 hex digits
    bool empty() const { return vin.empty() && eid.empty(); }
    std::string text() const { return vin.empty() ? "EID " + eid : "VIN " + vin; }
};

// Where and how long the agent asks for a gateway named by VIN or EID.
struct GatewayDiscovery {
    std::vector<std::string> to = {"255.255.255.255"};  // "ADDR[:PORT]" (port 13400)
    Millis wait{1000};
};

// CAN, IOC and CANFD ECUs reached through a vehicle gateway's DoIP entity.
struct GatewayRoute {
    bool enabled = false;
    std::string host;
    GatewayIdentity identity;  // instead of host
    uint16_t port = 13400;
    uint16_t tester_address = 0x0E80;
    bool all = false;  // every CAN and IOC ECU, not only those listed
    // ECU name or "phy-req-id" text -> logical address at the gateway
    // (-1: the ECU's target address).
    std::map<std::string, int32_t> ecus;
};

// Asking a DoIP gateway for the vehicle's power mode (UDP) before each
// request to an ECU behind it, and refusing diagnostics while it says "not
// ready". No answer within the timeout, or "not supported": they go ahead.
struct PowerModeCheck {
    bool enabled = false;
    Millis timeout{1000};
};

// Extended addressing of one CAN ECU: the target address byte that starts
// every frame to it, and the byte that starts every frame of its answers.
struct ExtendedAddress {
    uint8_t target = 0;
    uint8_t answer = 0;
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
    // ECUs (names or "phy-req-id" texts) reached with extended addressing.
    std::map<std::string, ExtendedAddress> extended_addressing;
};

// A CAN FD ECU: the library's configuration gives it no transport block, so
// the agent's settings hold it, in the form of a "can" block plus the frames.
struct CanFdEcu {
    std::string block;             // {"ifname", "phy-req-id", "phy-resp-id", "st-min", "bsize"}
    uint8_t data_length = 64;      // bytes per frame sent: 8, 12, 16, 20, 24, 32, 48 or 64
    bool bit_rate_switch = false;  // the data phase at the faster bit rate (BRS)
};

// The agent on J1939 networks: its own source address (static, no address
// claim) and how long it waits for the answer to a request.
struct J1939Settings {
    uint8_t address = 0xF9;  // off-board diagnostic tool #1
    Millis timeout{1250};
};

// Keeping ECUs' sessions and security access open between queries with a
// TesterPresent (session_keeper.h).
struct SessionKeeping {
    Millis keep{0};  // after an ECU's last request; 0: sessions are not kept
    Millis interval{2000};
    Bytes tester_present = {uozuds::sid::kTesterPresent, uozuds::kSuppressPositiveResponse};
};

// What the agent knows of an ECU from the library's configuration file.
struct KnownEcu {
    std::string name;
    int32_t target_address = 0;
};

// A DoIP ECU of the library's configuration file: its "doip" block as JSON.
struct KnownDoipEcu {
    std::string name;
    std::string block;
};

// Where a query for all ECUs finds the vehicle's DoIP ECUs, which the
// library leaves out of its broadcast.
enum class DoipEcuSource { kNone, kEcuConfig };

struct AgentSettings {
    uint16_t doip_port = 13400;
    bool allow_remote_gateways = false;
    std::map<std::string, std::string> gateway_addresses;       // "gw-ip" -> address used
    std::map<std::string, GatewayIdentity> gateway_identities;  // "gw-ip" -> VIN or EID
    GatewayDiscovery discovery;
    Millis connect_timeout{2000};
    Millis activation_timeout{2000};
    Millis processing_time{2000};  // for the final routing activation answer after 0x11
    Millis ack_timeout{2000};
    DoipGatewayPolicy doip;  // activation type, version and TLS of every gateway...
    std::map<std::string, DoipGatewayPolicy> doip_gateways;  // ...unless its host has its own
    UdsTiming timing;
    CanSettings can;
    std::map<std::string, CanFdEcu> canfd_ecus;  // by ECU name
    J1939Settings j1939;
    GatewayRoute gateway;
    std::map<std::string, KnownEcu> ecus_by_request_id;  // "phy-req-id" text -> ECU
    std::vector<KnownDoipEcu> doip_ecus;                 // in the configuration's order
    std::map<uint32_t, std::string> canfd_names;         // target address -> CANFD ECU name
    DoipEcuSource all_ecus_doip = DoipEcuSource::kNone;  // "all-ecus": {"doip": ...}
    std::map<uint8_t, std::string> key_algorithms;       // level -> "builtin" or plug-in path
    PowerModeCheck power_mode;
    SessionKeeping sessions;
    bool trace = false;  // print every request and answer (not from the file: --trace)

    // Throws std::runtime_error naming the member that is wrong.
    static AgentSettings from_json(const std::string &text);
    // Adds the ECU names and target addresses of a library configuration
    // file, and its DoIP ECUs.
    void learn_ecus(const std::string &config_text);
    // The policy for the gateway at host (the address connected to).
    const DoipGatewayPolicy &doip_policy(const std::string &host) const;
};

}  // namespace uozagent

#endif
