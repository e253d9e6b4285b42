// Memory, text and file utilities of the bus wrapper, and its last-error text.
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "zelkobus/zelkobus_internal.h"

thread_local char zebus_last_error[ZEBUS_LAST_ERROR_SIZE];

void zebus_format_error(const char *format, ...) {
    va_list args;
    va_start(args, format);
    vsnprintf(zebus_last_error, sizeof(zebus_last_error), format, args);
    va_end(args);
}

void *zebus_zalloc(size_t size) {
    void *block = calloc(1, size);
    if (block == nullptr) {
        ZEBUS_ERROR("Failed to malloc %ld bytes", static_cast<long>(size));
    }
    return block;
}

char *zebus_asprintf(const char *format, ...) {
    va_list args;
    va_start(args, format);
    char *text = nullptr;
    int length = vasprintf(&text, format, args);
    va_end(args);
    return length < 0 ? nullptr : text;
}

void zebus_debug_sink(const char *text) {
    UOZ_DBGLOG(UOZ_LOG_DBG, "%s\n", text);
}

void zebus_release_buffer(kt5bus_buffer *buffer) {
    if (buffer == nullptr)
        return;
    free(buffer->data);
    free(buffer);
}

namespace {

// Reads `size` bytes of the open file into data; true when all arrived.
bool read_all(int fd, const char *path, char *data, size_t size) {
    size_t done = 0;
    while (done < size) {
        size_t chunk = size - done < 1024 ? size - done : 1024;
        ssize_t got = read(fd, data + done, chunk);
        if (got < 0) {
            ZEBUS_ERROR("Failed to read from %s", path);
            return false;
        }
        if (got == 0) {
            ZEBUS_ERROR(
                "Premature EOF reading %s, file declared %zu bytes, read %ld bytes, "
                "remaining %ld bytes",
                path, size, static_cast<long>(done), static_cast<long>(size - done));
            return false;
        }
        done += static_cast<size_t>(got);
    }
    return true;
}

}  // namespace

kt5bus_buffer *zebus_read_file(const char *path) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        ZEBUS_ERROR("unable to open path");
        return nullptr;
    }
    auto *buffer = static_cast<kt5bus_buffer *>(calloc(1, sizeof(kt5bus_buffer)));
    if (buffer == nullptr) {
        ZEBUS_ERROR("Memory Allocation failed");
        close(fd);
        return nullptr;
    }
    buffer->encoding = KT5BUS_ENCODING_PEM;
    off_t size = lseek(fd, 0, SEEK_END);
    if (size < 0 || lseek(fd, 0, SEEK_SET) < 0) {
        ZEBUS_ERROR("Failed to seek %s", path);
        close(fd);
        free(buffer);
        return nullptr;
    }
    buffer->length = static_cast<size_t>(size) + 1;
    buffer->data = zebus_zalloc(buffer->length);
    bool complete = buffer->data != nullptr && read_all(fd, path, static_cast<char *>(buffer->data),
                                                        static_cast<size_t>(size));
    close(fd);
    if (!complete) {
        zebus_release_buffer(buffer);
        return nullptr;
    }
    return buffer;
}
