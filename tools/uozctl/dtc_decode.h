// uozctl's readable text and JSON of a decoded ReadDTCInformation answer.
#ifndef UOZ_TOOLS_DTC_DECODE_H
#define UOZ_TOOLS_DTC_DECODE_H

#include <json-c/json.h>

#include <string>

#include "dtc_response.h"
#include "hex_text.h"
#include "uds.h"

namespace uozctl {

using uozuds::DataRecord;
using uozuds::DataSizes;
using uozuds::decode_dtc_response;
using uozuds::DidValue;
using uozuds::Dtc;
using uozuds::DtcReport;
// Until main.cpp calls uozuds::nrc_name and uozuds::hex_spaced itself.
using uozuds::nrc_name;
inline std::string hex_of(const uint8_t *bytes, size_t length) {
    return uozuds::hex_spaced(bytes, length);
}

std::string report_to_text(const DtcReport &report);
json_object *report_to_json(const DtcReport &report);

}  // namespace uozctl

#endif
