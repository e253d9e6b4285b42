// Remote command documents: validity period and routine selection.
#ifndef UOZ_CORE_REMOTE_COMMAND_H
#define UOZ_CORE_REMOTE_COMMAND_H

#include "UDSOverZelko/routine_query.h"

// Parses a remote command document (NUL-terminated JSON text), enforces its
// validity period, chooses its routine and builds the query for the ECU it
// names, without sending it. Returns 0 with *request filled; otherwise the code
// that UDSOverZelko_ExecuteRemoteCommand returns for the document: -10 when
// the period is not current, -1 for every other failure.
int build_remote_command_request(UDSOverZelkoHandle *handle, const char *document,
                                 Request *request);

// 1 when now lies within [start, end] (texts "%Y-%m-%dT%H:%M:%SZ", read as
// UTC whatever the system's time zone), 0 otherwise, unreadable texts included.
int check_command_validity(const char *start_time, const char *end_time);

#endif
