#include "terminal.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace uoztools {

bool colour_allowed(int fd) {
    const char *no_colour = getenv("NO_COLOR");
    if (no_colour != nullptr && no_colour[0] != '\0')
        return false;
    const char *term = getenv("TERM");
    if (term != nullptr && strcmp(term, "dumb") == 0)
        return false;
    return isatty(fd) == 1;
}

const char *project_version() {
    return UOZ_PROJECT_VERSION;
}

}  // namespace uoztools
