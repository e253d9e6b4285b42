// uozctl's commands, one function per command, grouped in one file per
// family: ecus_command.cpp (ecus, check-config), dtc_command.cpp (dtc read,
// dtc clear), version_command.cpp, run_command.cpp, consent_command.cpp,
// doip_command.cpp (doip discover: no bus, the vehicle network itself).
// Each gives the tool's exit code (exit_codes.h) and tells what it found
// through the context's Output.
#ifndef UOZ_TOOLS_UOZCTL_COMMANDS_H
#define UOZ_TOOLS_UOZCTL_COMMANDS_H

#include <stdint.h>

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "session.h"
#include "udsoverzelko.h"

namespace uozctl {

struct DtcRequest {
    std::string ecu;
    uint32_t report = 0x02;
    uint32_t mask = 0xFF;
    bool by_dtc_or_record = false;  // --dtc or --record given
    uint32_t dtc = 0;
    uint32_t record = 0;
};

// The configured ECUs as the library loads them; with check_only, a verdict
// per entry instead. Dropped and unreachable entries are named with why.
int run_ecus(const Context &context, bool check_only);
int run_dtc_read(const Context &context, const DtcRequest &request);
int run_dtc_clear(const Context &context, const std::string &ecu, uint32_t group);
int run_version(const Context &context, const std::string &ecu);
// Checks the remote command document in `path`, then runs it.
int run_document(const Context &context, const std::string &path);
int run_consent(const Context &context, const std::string &kind, const std::string &campaign);

// doip discover: where the identification request goes, which vehicle or
// entity, how long to listen.
struct DiscoverRequest {
    std::vector<std::string> to;  // empty: the limited broadcast
    std::string vin;
    std::string eid;
    int wait_ms = 2000;
    int announce_port = 13400;
};
// Adds "doip discover" to the command line; gives the discover command.
CLI::App *add_doip_commands(CLI::App &app, DiscoverRequest *request);
// Finds the DoIP entities and shows them with their status and power mode:
// 0, 3 when none answered, 1 when the network cannot be used, 2 for bad input.
int run_doip_discover(const Context &context, const DiscoverRequest &request);

// Shows what a routine (clear DTCs, a remote command) came to, from the
// library's result code and response: one result per ECU.
int show_routine_response(const Context &context, int rc, CommandResponse *response,
                          const char *what);

}  // namespace uozctl

#endif
