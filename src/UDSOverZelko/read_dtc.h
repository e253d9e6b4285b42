// ReadDTCInformation request bodies.
#ifndef UOZ_CORE_READ_DTC_H
#define UOZ_CORE_READ_DTC_H

#include <json-c/json.h>
#include <stdint.h>

#include "UDSOverZelko/records.h"

// Parameter kinds of a report subfunction (bit flags).
#define PARAM_NONE 0x1u
#define PARAM_STATUS_MASK 0x2u
#define PARAM_DTC 0x4u
#define PARAM_RECORD 0x8u

extern const char *const uds_status_mask_names[8];
extern const char *const uds_report_names[26];

// 0 when the subfunction is served, -3 otherwise.
int dtc_subfunction_supported(uint32_t subfunction);
uint32_t dtc_subfunction_params(uint32_t subfunction);
const char *report_name(uint32_t subfunction);
json_object *status_mask_to_names(uint32_t status_mask);
const char *status_mask_bit_name(uint32_t bit);
int lowest_set_bit(int32_t value);
// The "uds" object of a request, or NULL after reporting.
json_object *build_read_dtc_body(uint32_t subfunction, uint32_t status_mask, uint32_t dtc_number,
                                 uint8_t record_number);
int read_dtc_info(UDSOverZelkoHandle *handle, int32_t target_address, uint32_t subfunction,
                  uint32_t status_mask, uint32_t dtc_number, uint8_t record_number,
                  DTCBuffer *dtc_buffer);

#endif
