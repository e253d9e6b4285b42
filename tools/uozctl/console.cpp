#include "console.h"

#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "log_lines.h"
#include "terminal.h"
#include "udsoverzelko.h"

namespace uozctl {

namespace {

using uoztools::without_colour;

// The library logs each reply of the agent to a DTC or version read whole,
// at UOZ_LOG_INFO.
constexpr char kReplyType[] = "\"type\":\"zelko.skyharbor-query-update\"";

// A line that the copier takes as "everything before me is read".
constexpr char kMark[] = "\x1euozctl-mark\n";

// The level of a library log line ("[stamp] LABEL file:line message"), or
// -2 for a line without one.
int level_of(const std::string &plain) {
    static const char *const kLabels[] = {"ERR ", "WARN", "INFO", "DBG ", "D2BG", "D3BG"};
    size_t stamp_end = plain.find("] ");
    if (plain.empty() || plain[0] != '[' || stamp_end == std::string::npos)
        return -2;
    for (int level = UOZ_LOG_ERR; level <= UOZ_LOG_D3BG; ++level) {
        if (plain.compare(stamp_end + 2, 4, kLabels[level]) == 0)
            return level;
    }
    return plain.compare(stamp_end + 2, 5, "FATAL") == 0 ? UOZ_LOG_FATAL : -2;
}

}  // namespace

Console::Console() {
    fflush(stdout);
    int saved = dup(STDOUT_FILENO);
    if (saved >= 0)
        results_ = fdopen(saved, "w");
    if (results_ == nullptr)
        results_ = stdout;
    bool keep_colour = uoztools::colour_allowed(STDERR_FILENO);
    library_lines_ = std::make_unique<uoztools::LogLines>(
        STDOUT_FILENO, STDERR_FILENO,
        [this, keep_colour](const std::string &line) { handle_line(line, keep_colour); });
}

Console::~Console() {
    fflush(stdout);
    if (results_ != stdout)
        fflush(results_);
    library_lines_.reset();
}

int Console::library_level(int shown_level) {
    if (!library_lines_->piped())
        return shown_level;
    std::lock_guard<std::mutex> hold(lock_);
    shown_level_ = shown_level;
    return std::max(shown_level, UOZ_LOG_INFO);
}

std::string Console::latest_agent_reply() {
    fflush(stdout);
    if (!library_lines_->piped())
        return "";
    unsigned mark;
    {
        std::lock_guard<std::mutex> hold(lock_);
        mark = ++marks_sent_;
    }
    if (write(STDOUT_FILENO, kMark, strlen(kMark)) != static_cast<ssize_t>(strlen(kMark)))
        return "";
    std::unique_lock<std::mutex> hold(lock_);
    // The copier reads on while the caller waits; the bound is for a copier
    // that cannot (standard error blocked).
    marked_.wait_for(hold, std::chrono::seconds(2), [&] { return marks_seen_ >= mark; });
    return latest_reply_;
}

void Console::handle_line(const std::string &text, bool keep_colour) {
    // The mark may follow part of a line that another thread's output flushed
    // unfinished: that part goes on as it is.
    const size_t mark_length = strlen(kMark);
    std::string line = text;
    if (line.size() >= mark_length &&
        line.compare(line.size() - mark_length, mark_length, kMark) == 0) {
        line.resize(line.size() - mark_length);
        fputs((keep_colour ? line : without_colour(line)).c_str(), stderr);
        std::lock_guard<std::mutex> hold(lock_);
        ++marks_seen_;
        marked_.notify_all();
        return;
    }
    std::string plain = without_colour(line);
    int level = level_of(plain);
    bool shown;
    {
        std::lock_guard<std::mutex> hold(lock_);
        shown = level <= shown_level_;  // lines the library prints without a level too
        if (level >= UOZ_LOG_INFO && plain.find(kReplyType) != std::string::npos) {
            size_t reply = plain.find('{');
            latest_reply_ = plain.substr(reply, plain.find_last_not_of("\r\n") + 1 - reply);
        }
    }
    if (shown)
        fputs((keep_colour ? line : plain).c_str(), stderr);
}

}  // namespace uozctl
