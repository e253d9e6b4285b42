// ReadDTCInformation answers read into DTCs, their status bits and their
// records, by the layout of the report type's row in dtc_reports.h.
#ifndef UOZ_TOOLS_UDS_DTC_RESPONSE_H
#define UOZ_TOOLS_UDS_DTC_RESPONSE_H

#include <stddef.h>
#include <stdint.h>

#include <map>
#include <string>
#include <vector>

namespace uozuds {

// One data identifier of a snapshot or stored data record.
struct DidValue {
    uint16_t did = 0;
    std::string name;  // "" for a DID whose meaning is not known here
    std::string hex;
};

enum class RecordKind { kSnapshot, kStoredData, kExtended };

// A snapshot, stored data or extended data record.
struct DataRecord {
    RecordKind kind = RecordKind::kExtended;
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

// Decodes a response; never fails: what does not fit is named in `note`
// and its bytes kept in `undecoded`. Snapshot DIDs and extended data records
// are split by their known sizes (the built-in table, then `sizes`); data
// after one of unknown size stays undecoded rather than split by a guess.
DtcReport decode_dtc_response(const uint8_t *bytes, size_t length,
                              const DataSizes *sizes = nullptr);

}  // namespace uozuds

#endif
