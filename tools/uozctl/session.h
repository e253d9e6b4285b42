// What every uozctl command starts from: the global options, where the
// results go, and, for the commands that talk to the bus, a library handle
// started only after the configuration, the identity and the broker were
// checked, so that a problem is told at once with its reason.
#ifndef UOZ_TOOLS_UOZCTL_SESSION_H
#define UOZ_TOOLS_UOZCTL_SESSION_H

#include <stdint.h>

#include <string>

#include "config_check.h"
#include "output.h"
#include "udsoverzelko.h"

namespace uozctl {

struct Options {
    std::string broker = "localhost:8883";
    std::string certs;
    std::string config;
    int debug = -1;
    int timeout = UOZ_REPLY_TIMEOUT_SECONDS;
    bool json = false;
};

struct Context {
    Options options;
    Output output;
};

// The node a command's queries go to.
enum class Server { kDiagnosticAgent, kPolicyAgent };

// One library handle for one command, terminated at the end.
class Session {
  public:
    explicit Session(const Context &context) : context_(context) {}
    ~Session() { UDSOverZelko_Terminate(handle_); }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    // Checks the options, the configuration (its warnings on standard error)
    // and the identity, then starts the library, whose queries go to
    // `server`: 0, or the exit code of the failure, which is told. The broker
    // is looked at only when the library cannot start or a reply is slow to
    // come (explain_silence), so that a query that is answered pays for one
    // connection, not two.
    int start(Server server = Server::kDiagnosticAgent);
    // start(), then the ECU named by `ecu` ("all", a configured name or a
    // target address in hex) into *address: 0, or the exit code.
    int start_for_ecu(const std::string &ecu, int32_t *address);

    // Why no reply has come, when the broker or the server is the reason: a
    // broker problem (exit 1) or no `server` on the bus (exit 3), told, with
    // its exit code; 0 when both are there, and the reply is only slow.
    int explain_silence() const;

    UDSOverZelkoHandle *handle() const { return handle_; }
    const Context &context() const { return context_; }
    // "diagnostic agent" or "policy agent".
    const char *server_title() const;
    // The configuration entry the library loaded for an address, if any.
    const EntryReport *loaded_entry(int32_t address) const;
    // "engine (0x7E0)", "unknown ECU (0x7E9)", or "all ECUs" for -1.
    std::string ecu_title(int32_t address) const;

  private:
    bool resolve_ecu(const std::string &text, int32_t *address) const;

    const Context &context_;
    Server server_ = Server::kDiagnosticAgent;
    std::string broker_host_;
    int broker_port_ = 0;
    UDSOverZelkoHandle *handle_ = nullptr;
    ConfigReport config_;
};

}  // namespace uozctl

#endif
