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
