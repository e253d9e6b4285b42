// tools/common holds what every program of the project shares: command-line
// parsing, exit codes, the terminal, whole files, JSON look-ups and owned
// descriptors; one header each.
//
// What a tool may do on its output streams.
#ifndef UOZ_TOOLS_TERMINAL_H
#define UOZ_TOOLS_TERMINAL_H

namespace uoztools {

// Colours only on a terminal, and never when NO_COLOR is set (to anything
// but an empty text) or TERM is "dumb".
bool colour_allowed(int fd);

// The version line of --version: "<tool> <project version>".
const char *project_version();

}  // namespace uoztools

#endif
