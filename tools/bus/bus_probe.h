// Part of the programs' bus client (tools/bus, see bus_client.h): a quick
// look at the broker before a tool waits on the bus. Can the name be
// resolved, does the port accept, does the TLS handshake succeed with the
// tool's identity, does the broker let the identity in? A tool tells the
// reason at once instead of waiting for a reply that cannot come.
#ifndef UOZ_TOOLS_BUS_PROBE_H
#define UOZ_TOOLS_BUS_PROBE_H

#include <set>
#include <string>

namespace uozbus {

struct ProbeResult {
    bool ok = false;
    std::string reason;  // one line, for the user; empty when ok
    // With presence asked for: whether the broker told it in time, and the
    // bus addresses of the nodes present (presence.h).
    bool presence_known = false;
    std::set<std::string> present;
};

// With the identity in identity_dir (identity.h). Gives up after timeout_ms
// in all. With `presence`, also asks who is on the bus, on the same
// connection (one round trip more).
ProbeResult probe_broker(const std::string &host, int port, const std::string &identity_dir,
                         int timeout_ms, bool presence = false);

// The reason why the identity cannot be used (unreadable, expired, not yet
// valid), or empty.
std::string identity_problem(const std::string &identity_dir);

// What a tool checks of its identity before it uses it, from one reading of
// its certificate (each reading costs a public-key decoding).
struct IdentityFacts {
    std::string problem;  // identity_problem()'s reason, or empty
    // The serving node's address (presence.h: kDiagnosticAgentUri,
    // kPolicyAgentUri) that the certificate holds; empty for an application's.
    std::string serving_address;
    // Set when the certificate names no update-agent address (kt5:ua:...),
    // where replies go when the broker grants no reply route.
    std::string reply_address_warning;
};
IdentityFacts identity_facts(const std::string &identity_dir);

}  // namespace uozbus

#endif
