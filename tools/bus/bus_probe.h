// Part of the programs' bus client (tools/bus, see bus_client.h): a quick
// look at the broker before a tool waits on the bus. Can the name be
// resolved, does the port accept, does the TLS handshake succeed with the
// tool's identity, does the broker let the identity in? A tool tells the
// reason at once instead of waiting for a reply that cannot come.
#ifndef UOZ_TOOLS_BUS_PROBE_H
#define UOZ_TOOLS_BUS_PROBE_H

#include <string>

namespace uozbus {

struct ProbeResult {
    bool ok = false;
    std::string reason;  // one line, for the user; empty when ok
};

// With the identity in identity_dir (identity.h). Gives up after timeout_ms
// in all.
ProbeResult probe_broker(const std::string &host, int port, const std::string &identity_dir,
                         int timeout_ms);

// The reason why the identity cannot be used (unreadable, expired, not yet
// valid), or empty.
std::string identity_problem(const std::string &identity_dir);

// Whether the certificate names at least one update-agent address
// (kt5:ua:...), which replies are sent to. Empty result when it does.
std::string missing_reply_address(const std::string &identity_dir);

}  // namespace uozbus

#endif
