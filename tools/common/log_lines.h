// The library's log lines (written to standard output, with colour codes)
// passed on through a pipe and a thread of their own to where a program
// wants them, without colour codes unless the destination allows them.
#ifndef UOZ_TOOLS_LOG_LINES_H
#define UOZ_TOOLS_LOG_LINES_H

#include <string>
#include <thread>

namespace uoztools {

// Drops "ESC [ ... letter" sequences.
std::string without_colour(const std::string &text);

class LogLines {
  public:
    // From now on what the process writes to `from` goes to `to` (duplicated
    // here: the caller keeps its own), colour codes dropped unless
    // keep_colour. Without a pipe, `from` is simply pointed at `to`.
    // Start it after the signal mask of the program's threads is set: the
    // copying thread inherits it.
    LogLines(int from, int to, bool keep_colour);
    // Copies what is still in the pipe, then points `from` at `to`.
    ~LogLines();
    LogLines(const LogLines &) = delete;
    LogLines &operator=(const LogLines &) = delete;

  private:
    void copy(int pipe_read, bool keep_colour);

    int from_;
    int to_ = -1;
    int pipe_write_ = -1;
    std::thread copier_;
};

}  // namespace uoztools

#endif
