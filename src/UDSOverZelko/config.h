// The ECU configuration file: loading it into ECU records and printing them.
#ifndef UOZ_CORE_CONFIG_H
#define UOZ_CORE_CONFIG_H

#include <json-c/json.h>

#include "UDSOverZelko/records.h"

// Fill handle->ecus and handle->broadcast_ecu from the file at path. Returns
// 0, or -1 when the file cannot be used; the handle's owner releases it.
int load_ecu_config(UDSOverZelkoHandle *handle, const char *path);
// Log every record of handle->ecus at INFO.
void print_ecu_config(UDSOverZelkoHandle *handle);
// Release a record's name, transport texts and ecu_version (not the record
// itself nor its reply_wait).
void free_ecu_config(EcuConfig *record);
TransportType parse_transport_type(const char *text);
// Read a hexadecimal target address as strtoul with base 16 does, kept in 32 bits.
int32_t parse_target_address(const char *text);
int read_ecu_version(json_object *entry, EcuConfig *record);

#endif
