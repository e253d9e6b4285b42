// Logger of the library: uoz_dbglog, uoz_dbg_level and the UOZ_DBGLOG macro
// are declared in the public header; this header adds the helpers the core
// uses to report failures through the calling thread's last-error text.
#ifndef UOZ_LOGGING_UOZ_LOG_H
#define UOZ_LOGGING_UOZ_LOG_H

#include "udsoverzelko.h"

// Width of the time stamp buffer and of the message buffer of one log line.
#define UOZ_LOG_TIME_BUFFER_SIZE 32
#define UOZ_LOG_MESSAGE_BUFFER_SIZE 1024

#endif
