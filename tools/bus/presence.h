// Part of the programs' bus client (tools/bus, see bus_client.h): who is on
// the bus, read in one round trip from the presence records the broker
// retains (kt5/presence/<cn>/<client id>, each holding its node's
// certificate). The broker probe (bus_probe.h) asks with these packets on
// its own connection; a tool can then say at once that no agent is there.
#ifndef UOZ_TOOLS_BUS_PRESENCE_H
#define UOZ_TOOLS_BUS_PRESENCE_H

#include <openssl/x509.h>

#include <set>
#include <string>
#include <vector>

namespace uozbus {

// The addresses of the nodes that serve applications.
constexpr char kDiagnosticAgentUri[] = "kt5:ua:/ZDATA/UDS";
constexpr char kPolicyAgentUri[] = "kt5:group:policy-agent";

// The subjectAltName URIs of a certificate ("kt5:ua:/ZDATA/UDS", ...), in
// order; update-agent names with the leading '/' that the bus gives them.
std::vector<std::string> certificate_uris(X509 *certificate);

// An MQTT 5 SUBSCRIBE to every presence record (QoS 0), then a PINGREQ: the
// broker queues the retained records when it takes the subscription, so its
// PINGRESP comes after the last of them.
std::vector<unsigned char> presence_request();

// The presence records in the bytes a broker sent after presence_request().
struct PresenceRecords {
    bool complete = false;                                     // the PINGRESP arrived
    bool refused = false;                                      // the subscription was refused
    std::vector<std::pair<std::string, std::string>> records;  // topic, payload
};
PresenceRecords parse_presence(const std::vector<unsigned char> &bytes);

// The bus addresses ("kt5:ua:/ZDATA/UDS", "kt5:group:policy-agent", ...) of
// the nodes present: records whose certificate chains to the CA in ca_path
// and names the topic's CN. Empty records (gone) count for nothing.
std::set<std::string> present_addresses(const PresenceRecords &presence,
                                        const std::string &ca_path);

}  // namespace uozbus

#endif
