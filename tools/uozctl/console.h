// uozctl's two output streams: results (text or JSON) on the real standard
// output, and everything else on standard error, including the library's
// log lines, which it writes to standard output. The agent's replies, which
// the library logs, are kept for the reasons of failures.
#ifndef UOZ_TOOLS_UOZCTL_CONSOLE_H
#define UOZ_TOOLS_UOZCTL_CONSOLE_H

#include <stdio.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "log_lines.h"

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

    // The library log level that lets the agent's replies be kept, while
    // only lines up to `shown_level` reach standard error.
    int library_level(int shown_level);
    // The latest agent reply the library logged, once every line written so
    // far has been read; "" when there is none.
    std::string latest_agent_reply();

  private:
    void handle_line(const std::string &text, bool keep_colour);

    FILE *results_ = stdout;
    std::mutex lock_;  // the members below
    std::condition_variable marked_;
    int shown_level_ = 1 << 30;
    unsigned marks_seen_ = 0;
    unsigned marks_sent_ = 0;
    std::string latest_reply_;
    std::unique_ptr<uoztools::LogLines> library_lines_;  // last: its thread uses the above
};

}  // namespace uozctl

#endif
