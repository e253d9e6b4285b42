// The agent's J1939 link: a version read whose description is a J1939 one
// ({"pgn", "source-address", "ifname"}) asks the ECU at that source address
// for the parameter group with a request (PGN 0xEA00) over the kernel's
// J1939 socket (tools/can), and turns the answer, which the kernel has
// reassembled from its transport packets, into the version text.
#ifndef UOZ_TOOLS_AGENT_J1939_VERSION_H
#define UOZ_TOOLS_AGENT_J1939_VERSION_H

#include <json-c/json.h>
#include <stdint.h>

#include <string>

#include "agent_settings.h"
#include "query_targets.h"
#include "uds_requests.h"

namespace uozagent {

// Whether a query's "version" object is a J1939 description: the "j1939"
// object itself (a CAN ECU's, with "ifname"), or an object holding one.
bool is_j1939_description(json_object *version);

// The ECU's answer as text, or "" with *error. An ECU that the settings
// route through a DoIP gateway cannot be asked: J1939 does not cross DoIP.
std::string read_j1939_version(json_object *version, const EcuTarget &target,
                               const AgentSettings &settings, std::string *error);

// A parameter group's data as text: software identification (0xFEDA) as
// its '*'-separated fields, component identification (0xFEEB) as make,
// model, serial number and unit number; other groups as text when
// printable, else hex digits.
std::string j1939_text(uint32_t pgn, const Bytes &data);

}  // namespace uozagent

#endif
