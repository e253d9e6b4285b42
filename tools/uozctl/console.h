// uozctl's two output streams: results (text or JSON) on the real standard
// output, and everything else on standard error, including the library's
// log lines, which it writes to standard output.
#ifndef UOZ_TOOLS_UOZCTL_CONSOLE_H
#define UOZ_TOOLS_UOZCTL_CONSOLE_H

#include <stdio.h>

#include <memory>

#include "log_lines.h"

namespace uozctl {

// Moves standard output (fd 1) to standard error, without colour codes
// unless standard error is a terminal that allows them. results() is the
// original standard output.
class Console {
  public:
    Console();
    ~Console();
    Console(const Console &) = delete;
    Console &operator=(const Console &) = delete;

    FILE *results() const { return results_; }

  private:
    FILE *results_ = stdout;
    std::unique_ptr<uoztools::LogLines> library_lines_;
};

}  // namespace uozctl

#endif
