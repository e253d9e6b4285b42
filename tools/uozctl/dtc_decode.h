// Decoding of ReadDTCInformation responses into readable DTCs.
#ifndef UOZ_TOOLS_DTC_DECODE_H
#define UOZ_TOOLS_DTC_DECODE_H

#include <json-c/json.h>
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace uozctl {

struct DataRecord {
    int number = -1;  // -1 when the layout gives no record number
    std::string hex;  // the record's bytes
};

struct Dtc {
    uint32_t code = 0;  // three bytes
    std::string text;   // "P0301-00"
    int status = -1;    // -1 when the report carries none
    std::vector<std::string> status_names;
    int severity = -1;
    int functional_unit = -1;
    int fault_detection_counter = -1;
    int record_number = -1;  // snapshot identification, stored data
    std::vector<DataRecord> records;
};

struct DtcReport {
    bool negative = false;
    int nrc = -1;
    std::string nrc_name;
    int report = -1;
    std::string report_name;
    int availability_mask = -1;
    int format = -1;
    int count = -1;
    std::vector<Dtc> dtcs;
    std::string note;  // what could not be decoded, and why
};

// "P0301-00" style text of a three-byte DTC.
std::string dtc_text(uint32_t code);
std::vector<std::string> status_bit_names(uint8_t status);
std::string nrc_name(uint8_t nrc);
std::string hex_of(const uint8_t *bytes, size_t length);

// Decodes a response; never fails: what does not fit is named in `note`.
DtcReport decode_dtc_response(const uint8_t *bytes, size_t length);

std::string report_to_text(const DtcReport &report);
json_object *report_to_json(const DtcReport &report);

}  // namespace uozctl

#endif
