// The library's logger: one time-stamped, coloured line per statement on
// standard output.
#include "logging/uoz_log.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

int uoz_dbg_level = 0;

namespace {

// Labels indexed by level + 2; levels 6 and 7 have none.
const char *const kLevelLabels[] = {
    "",
    "\x1b[1;31mFATAL\x1b[1;0m",
    "\x1b[1;31mERR \x1b[1;0m",
    "\x1b[1;33mWARN\x1b[1;0m",
    "\x1b[1;32mINFO\x1b[1;0m",
    "\x1b[1;35mDBG \x1b[1;0m",
    "\x1b[1;36mD2BG\x1b[1;0m",
    "\x1b[1;36mD3BG\x1b[1;0m",
    "",
    "",
};
constexpr int kLabelCount = sizeof(kLevelLabels) / sizeof(kLevelLabels[0]);
// Lines at this index and below (INFO and more severe) are flushed at once.
constexpr int kLastFlushedIndex = 4;
// A message this long or longer is cut and ends in "...".
constexpr int kTruncateFrom = 1020;

int label_index(int level) {
    // Widen first so that extreme levels cannot overflow.
    long index = static_cast<long>(level) + 2;
    if (index < 0)
        return 0;
    if (index >= kLabelCount)
        return kLabelCount - 1;
    return static_cast<int>(index);
}

const char *base_name(const char *file) {
    if (file == nullptr)
        return "";
    const char *slash = strrchr(file, '/');
    return slash != nullptr ? slash + 1 : file;
}

void format_time_stamp(char *stamp, size_t size) {
    struct timespec now = {};
    timespec_get(&now, TIME_UTC);
    struct tm calendar = {};
    gmtime_r(&now.tv_sec, &calendar);
    size_t used = strftime(stamp, size, "%m-%d:%H:%M:%S", &calendar);
    snprintf(stamp + used, size - used, ".%03ld", now.tv_nsec / 1000000L);
}

// Formats the message; returns the length it would have had, or -1 when the
// format itself fails.
int format_message(char *message, const char *format, va_list args) {
    int length = vsnprintf(message, UOZ_LOG_MESSAGE_BUFFER_SIZE - 1, format, args);
    if (length < 0)
        return -1;
    if (length < kTruncateFrom) {
        if (length > 0 && message[length - 1] == '\n')
            message[length - 1] = '\0';
        return length;
    }
    int stored =
        length < UOZ_LOG_MESSAGE_BUFFER_SIZE - 1 ? length : UOZ_LOG_MESSAGE_BUFFER_SIZE - 1;
    memcpy(message + stored - 4, "...", 4);
    return length;
}

}  // namespace

void uoz_dbglog(int level, const char *file, int line, const char *format, ...) {
    char stamp[UOZ_LOG_TIME_BUFFER_SIZE];
    format_time_stamp(stamp, sizeof(stamp));

    char message[UOZ_LOG_MESSAGE_BUFFER_SIZE] = "";
    va_list args;
    va_start(args, format);
    if (format == nullptr || format_message(message, format, args) < 0) {
        // Say so rather than dropping the line: the statement itself is faulty.
        snprintf(message, sizeof(message), "(unformattable log message: %s)",
                 format != nullptr ? format : "NULL");
    }
    va_end(args);

    int index = label_index(level);
    printf("[%s] %s %s:%d %s\n", stamp, kLevelLabels[index], base_name(file), line, message);
    if (index <= kLastFlushedIndex)
        fflush(stdout);
}
