#include "console.h"

#include <unistd.h>

#include "terminal.h"

namespace uozctl {

Console::Console() {
    fflush(stdout);
    int saved = dup(STDOUT_FILENO);
    if (saved >= 0)
        results_ = fdopen(saved, "w");
    if (results_ == nullptr)
        results_ = stdout;
    library_lines_ = std::make_unique<uoztools::LogLines>(STDOUT_FILENO, STDERR_FILENO,
                                                          uoztools::colour_allowed(STDERR_FILENO));
}

Console::~Console() {
    if (results_ != stdout)
        fflush(results_);
    library_lines_.reset();
}

}  // namespace uozctl
