// ReadDTCInformation (0x19) answers of a simulated ECU, byte for byte as
// ISO 14229-1 lays them out, by the report types of dtc_reports.h.
#ifndef UOZ_TOOLS_READ_DTC_H
#define UOZ_TOOLS_READ_DTC_H

#include <stddef.h>
#include <stdint.h>

#include "vehicle.h"

namespace uozecusim {

constexpr uint8_t kDtcFormatIso14229 = 0x01;

// The answer to a whole ReadDTCInformation request (19 report ...): the
// positive response 59 report ..., or 7F 19 NRC: 0x12 for a report the ECU
// does not support, 0x13 for a request of the wrong length, 0x31 for a DTC,
// record number or memory selection it does not know.
Bytes read_dtc_response(const SimulatedEcu &ecu, const uint8_t *request, size_t length);

}  // namespace uozecusim

#endif
