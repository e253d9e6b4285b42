// The translation of a query's request into UDS request bytes (ISO 14229-1),
// and of the ECUs' answers back into the reply's texts. Pure functions: no
// transport, no clock, so every byte is checked by table-driven tests.
#ifndef UOZ_TOOLS_AGENT_UDS_REQUESTS_H
#define UOZ_TOOLS_AGENT_UDS_REQUESTS_H

#include <json-c/json.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "hex_text.h"
#include "uds.h"

namespace uozagent {

using Bytes = std::vector<uint8_t>;

// Hex numbers and bytes as queries and settings write them (see hex_text.h).
using uozuds::parse_hex_bytes;
using uozuds::parse_hex_number;
std::string hex_text(const Bytes &bytes);  // "59 02" -> "5902"

// One UDS request of a routine, with the command name it came from.
struct UdsCommand {
    std::string name;
    Bytes request;
};

// The answer to a request is negative when it is 7F <service> <code>.
bool is_negative_response(const Bytes &response, uint8_t *code = nullptr);

// ReadDTCInformation (0x19) from the query's "uds" object: SID, report name
// and its "data-record", laid out by the report's row in dtc_reports.h. On
// failure the result is empty and *error says why.
Bytes read_dtc_request(json_object *uds, std::string *error);

// The identifiers of a "version" object's "uds" array, in order. None gives
// an empty list and *error says why (a J1939 description is read by
// j1939_version.h).
struct VersionItem {
    uint16_t did = 0;
    std::string name;
};
std::vector<VersionItem> version_items(json_object *version, std::string *error);
Bytes read_did_request(uint16_t did);
// One request for every DID (22 DID DID ...) when the answer can be split
// exactly: every DID but the last of a size known here (the answer is each
// DID and its data in turn). Empty when it cannot, or for a single DID.
Bytes read_dids_request(const std::vector<VersionItem> &items);
// The answer to read_dids_request split into one 62 DID data answer per
// item; false when the answer does not hold every DID in order.
bool split_dids_answer(const std::vector<VersionItem> &items, const Bytes &response,
                       std::vector<Bytes> *answers);
// The value of one DID from a positive 0x62 answer: printable ASCII as text
// (trailing NULs and spaces dropped), anything else as hex digits. Empty with
// *error when the answer is not for this DID.
std::string did_value_text(uint16_t did, const Bytes &response, std::string *error);
// One value alone as it is; several as "name: value, name: value".
std::string version_text(const std::vector<VersionItem> &items,
                         const std::vector<std::string> &values);

// The commands of a "routine" object, in order, each as its request bytes
// ("service", "subfn", "data"; or "request" with the bytes whole). Empty with
// *error for a routine without commands or with a command that has no
// readable service.
std::vector<UdsCommand> routine_commands(json_object *routine, std::string *error);

// Security access asked for by a routine's "security_access" object:
// {"level": "0x01", "session": "0x03"} (session defaults to extended).
struct SecurityRequest {
    bool wanted = false;
    uint8_t level = 0;    // odd: requestSeed sub-function
    uint8_t session = 0;  // DiagnosticSessionControl before it; 0 = none
};
SecurityRequest security_request(json_object *routine, std::string *error);

// The ECU's own timing from a positive DiagnosticSessionControl answer
// (50 <session> P2 P2*): P2 in ms, P2* in units of 10 ms. False for any
// other answer.
bool session_timing(const Bytes &response, uint32_t *p2_ms, uint32_t *p2_star_ms);

// A SecurityAccess requestSeed (27 <odd level>) with no key to send yet:
// the agent answers the seed itself with the key algorithm of the level.
bool is_seed_request(const Bytes &request);
// The seed of a positive 67 <level> answer; false when it is none.
bool seed_of(const Bytes &response, uint8_t level, Bytes *seed);
Bytes send_key_request(uint8_t level, const Bytes &key);

}  // namespace uozagent

#endif
