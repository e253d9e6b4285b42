// The library's log lines (written to standard output, with colour codes)
// passed on through a pipe and a thread of their own to where a program
// wants them, without colour codes unless the destination allows them.
#ifndef UOZ_TOOLS_LOG_LINES_H
#define UOZ_TOOLS_LOG_LINES_H

#include <functional>
#include <string>
#include <thread>

namespace uoztools {

// Drops "ESC [ ... letter" sequences.
std::string without_colour(const std::string &text);

class LogLines {
  public:
    // Takes each line written to `from`, with its '\n' (the last one may
    // lack it), on the copying thread.
    using Sink = std::function<void(const std::string &line)>;

    // From now on what the process writes to `from` goes to `to` (duplicated
    // here: the caller keeps its own), colour codes dropped unless
    // keep_colour. Without a pipe, `from` is simply pointed at `to`.
    // Start it after the signal mask of the program's threads is set: the
    // copying thread inherits it.
    LogLines(int from, int to, bool keep_colour);
    // The same, with each line given to `sink` instead of written to `to`.
    LogLines(int from, int to, Sink sink);
    // Hands on what is still in the pipe, then points `from` at `to`.
    ~LogLines();
    LogLines(const LogLines &) = delete;
    LogLines &operator=(const LogLines &) = delete;

    // Whether the lines go through the pipe (false: straight to `to`).
    bool piped() const { return copier_.joinable(); }

  private:
    void copy(int pipe_read);

    int from_;
    int to_ = -1;
    int pipe_write_ = -1;
    Sink sink_;
    std::thread copier_;
};

}  // namespace uoztools

#endif
