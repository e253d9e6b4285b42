#include "log_lines.h"

#include <stdio.h>
#include <unistd.h>

namespace uoztools {

std::string without_colour(const std::string &text) {
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\x1b' && i + 1 < text.size() && text[i + 1] == '[') {
            size_t end = text.find_first_of("ABCDEFGHJKSTfmnsu", i + 2);
            if (end != std::string::npos) {
                i = end;
                continue;
            }
        }
        plain += text[i];
    }
    return plain;
}

namespace {

bool write_all(int fd, const std::string &text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t wrote = write(fd, text.data() + done, text.size() - done);
        if (wrote <= 0)
            return false;
        done += static_cast<size_t>(wrote);
    }
    return true;
}

}  // namespace

LogLines::LogLines(int from, int to, bool keep_colour)
    : LogLines(from, to, [this, keep_colour](const std::string &line) {
          write_all(to_, keep_colour ? line : without_colour(line));
      }) {}

LogLines::LogLines(int from, int to, Sink sink) : from_(from), sink_(std::move(sink)) {
    fflush(stdout);
    to_ = dup(to);
    int ends[2];
    if (to_ < 0 || pipe(ends) != 0) {
        dup2(to, from_);
        return;
    }
    dup2(ends[1], from_);
    pipe_write_ = ends[1];
    copier_ = std::thread(&LogLines::copy, this, ends[0]);
}

LogLines::~LogLines() {
    fflush(stdout);
    if (copier_.joinable()) {
        // The copier ends when no write end of the pipe is left.
        dup2(to_, from_);
        close(pipe_write_);
        copier_.join();
    }
    if (to_ >= 0)
        close(to_);
}

// Line by line, so that a colour code is never split.
void LogLines::copy(int pipe_read) {
    std::string pending;
    char chunk[4096];
    ssize_t got;
    while ((got = read(pipe_read, chunk, sizeof(chunk))) > 0) {
        pending.append(chunk, static_cast<size_t>(got));
        size_t start = 0;
        for (size_t end; (end = pending.find('\n', start)) != std::string::npos; start = end + 1)
            sink_(pending.substr(start, end + 1 - start));
        pending.erase(0, start);
    }
    if (!pending.empty())
        sink_(pending);
    close(pipe_read);
}

}  // namespace uoztools
