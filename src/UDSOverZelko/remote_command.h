// Remote command documents: validity period and routine selection.
#ifndef UOZ_CORE_REMOTE_COMMAND_H
#define UOZ_CORE_REMOTE_COMMAND_H

// 1 when now lies within [start, end] (texts "%Y-%m-%dT%H:%M:%SZ", read as
// UTC whatever the system's time zone), 0 otherwise, unreadable texts included.
int check_command_validity(const char *start_time, const char *end_time);

#endif
