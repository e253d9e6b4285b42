#include "console.h"

#include <unistd.h>

#include "terminal.h"

namespace uozctl {

namespace {

// Drops "ESC [ ... letter" sequences.
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

}  // namespace

Console::Console() {
    fflush(stdout);
    int saved = dup(STDOUT_FILENO);
    int ends[2];
    if (saved < 0 || pipe(ends) != 0) {
        // Without a pipe the library's lines go to standard error as they are.
        if (saved >= 0) {
            results_ = fdopen(saved, "w");
            dup2(STDERR_FILENO, STDOUT_FILENO);
        }
        return;
    }
    results_ = fdopen(saved, "w");
    dup2(ends[1], STDOUT_FILENO);
    pipe_write_ = ends[1];
    bool keep_colour = uoztools::colour_allowed(STDERR_FILENO);
    copier_ = std::thread(&Console::copy_library_lines, this, ends[0], keep_colour);
}

Console::~Console() {
    fflush(stdout);
    if (results_ != stdout)
        fflush(results_);
    if (copier_.joinable()) {
        // The copier ends when no write end of the pipe is left.
        dup2(STDERR_FILENO, STDOUT_FILENO);
        close(pipe_write_);
        copier_.join();
    }
}

void Console::copy_library_lines(int from, bool keep_colour) {
    std::string pending;
    char chunk[4096];
    ssize_t got;
    while ((got = read(from, chunk, sizeof(chunk))) > 0) {
        pending.append(chunk, static_cast<size_t>(got));
        size_t end = pending.rfind('\n');
        if (end == std::string::npos)
            continue;
        std::string lines = pending.substr(0, end + 1);
        pending.erase(0, end + 1);
        if (!keep_colour)
            lines = without_colour(lines);
        fputs(lines.c_str(), stderr);
    }
    if (!pending.empty())
        fputs((keep_colour ? pending : without_colour(pending)).c_str(), stderr);
    close(from);
}

}  // namespace uozctl
