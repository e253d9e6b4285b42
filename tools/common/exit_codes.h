// tools/common holds what every program of the project shares: command-line
// parsing, exit codes, the terminal, whole files, JSON look-ups and owned
// descriptors; one header each.
//
// The exit codes every tool of the project uses, so that scripts can tell
// failures apart the same way whichever tool they call.
#ifndef UOZ_TOOLS_EXIT_CODES_H
#define UOZ_TOOLS_EXIT_CODES_H

namespace uoztools {

enum ExitCode {
    kExitOk = 0,
    kExitCannotStart = 1,     // configuration, certificates, connection to the broker
    kExitInvalidInput = 2,    // usage error or a value refused before anything was sent
    kExitNoReply = 3,         // the bus is up but nobody answered within the timeout
    kExitFailureReported = 4  // the agent or the ECU answered with a failure
};

// The table as the help texts show it.
inline const char *exit_code_help() {
    return "Exit codes: 0 success, 1 cannot start (configuration, certificates, connection), "
           "2 invalid input or usage, 3 no reply within the timeout, 4 failure reported by the "
           "agent or ECU.";
}

}  // namespace uoztools

#endif
