// uozctl's two output streams: results (text or JSON) on the real standard
// output, and everything else on standard error, including the library's
// log lines, which it writes to standard output.
#ifndef UOZ_TOOLS_UOZCTL_CONSOLE_H
#define UOZ_TOOLS_UOZCTL_CONSOLE_H

#include <stdio.h>

#include <string>
#include <thread>

namespace uozctl {

// Moves standard output (fd 1) to a pipe whose lines go to standard error,
// without colour codes unless standard error is a terminal that allows
// them. results() is the original standard output.
class Console {
  public:
    Console();
    ~Console();
    Console(const Console &) = delete;
    Console &operator=(const Console &) = delete;

    FILE *results() const { return results_; }

  private:
    void copy_library_lines(int from, bool keep_colour);

    FILE *results_ = stdout;
    int pipe_write_ = -1;
    std::thread copier_;
};

}  // namespace uozctl

#endif
