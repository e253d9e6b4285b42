// Helpers shared by the bus wrapper's source files.
#ifndef UOZ_ZELKOBUS_ZELKOBUS_INTERNAL_H
#define UOZ_ZELKOBUS_ZELKOBUS_INTERNAL_H

#include "kt5Utils/text.h"
#include "logging/uoz_log.h"
#include "zelkobus/zelkobus.h"

// Format into zebus_last_error (at most 255 characters).
void zebus_format_error(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Write a message into zebus_last_error and log it at ERR.
#define ZEBUS_ERROR(...)                                 \
    do {                                                 \
        zebus_format_error(__VA_ARGS__);                 \
        UOZ_DBGLOG(UOZ_LOG_ERR, "%s", zebus_last_error); \
    } while (0)

// Frees a message record sent by the wrapper: its text, its destination
// chain and the record. NULL is accepted.
void zebus_release_message(kt5bus_message *message);

// Frees a buffer read by zebus_read_file and its data; NULL is accepted.
void zebus_release_buffer(kt5bus_buffer *buffer);

#endif
