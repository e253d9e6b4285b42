// Decoding of ReadDTCInformation responses into readable DTCs.
#ifndef UOZ_TOOLS_DTC_DECODE_H
#define UOZ_TOOLS_DTC_DECODE_H

#include <json-c/json.h>
#include <stddef.h>
#include <stdint.h>

#include <map>
#include <string>
#include <vector>

namespace uozctl {

// One data identifier of a snapshot or stored data record.
struct DidValue {
    uint16_t did = 0;
    std::string name;  // "" for a DID whose meaning is not known here
    std::string hex;
};

// A snapshot, stored data or extended data record.
struct DataRecord {
    int number = -1;            // -1 when the layout gives no record number
    std::string name;           // a known extended data record's meaning
    std::string hex;            // extended data: the record's bytes
    int identifier_count = -1;  // snapshot and stored data: identifiers announced
    std::vector<DidValue> dids;
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
    int memory_selection = -1;  // user-defined memory reports
    int record_number = -1;     // the record asked for (stored data, extended data by record)
    int availability_mask = -1;
    int format = -1;
    int count = -1;
    std::vector<Dtc> dtcs;
    std::string undecoded;  // bytes left undecoded, e.g. data of unknown size
    std::string note;       // what could not be decoded, and why
};

// Sizes of DIDs and extended data records beyond the built-in table; an
// ECU defines its own, and only known sizes split data into records.
struct DataSizes {
    std::map<uint16_t, int> dids;
    std::map<uint8_t, int> extended_records;
};

// "P0301-00" style text of a three-byte DTC.
std::string dtc_text(uint32_t code);
std::vector<std::string> status_bit_names(uint8_t status);
std::string nrc_name(uint8_t nrc);
std::string hex_of(const uint8_t *bytes, size_t length);

// Decodes a response; never fails: what does not fit is named in `note`
// and its bytes kept in `undecoded`. Snapshot DIDs and extended data records
// are split by their known sizes (the built-in table, then `sizes`); data
// after one of unknown size stays undecoded rather than split by a guess.
DtcReport decode_dtc_response(const uint8_t *bytes, size_t length,
                              const DataSizes *sizes = nullptr);

std::string report_to_text(const DtcReport &report);
json_object *report_to_json(const DtcReport &report);

}  // namespace uozctl

#endif
