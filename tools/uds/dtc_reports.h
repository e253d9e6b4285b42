// The report types of ReadDTCInformation (0x19), one row each: what a
// request carries, what its answer carries, which DTCs it lists, and the
// names queries and people know it by. The agent's request builder, the
// simulator's request parser and answers, and uozctl's decoder all read
// this table, so a new report type is one new row.
#ifndef UOZ_TOOLS_UDS_DTC_REPORTS_H
#define UOZ_TOOLS_UDS_DTC_REPORTS_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace uozuds {

// What a request carries after 19 <report>.
enum class DtcRequestLayout {
    kNothing,
    kStatusMask,             // status mask
    kRecord,                 // record number
    kSeverityAndStatusMask,  // severity mask, status mask
    kDtc,                    // DTC (3 bytes, high byte first)
    kDtcAndRecord,           // DTC, record number
};

// What a positive answer carries after 59 <report> (and the memory
// selection of a user-defined memory).
enum class DtcResponseLayout {
    kCount,                   // availability mask, format, count (2 bytes)
    kStatusList,              // availability mask, then DTC and status each
    kSnapshotIdentification,  // DTC and snapshot record number each
    kSnapshotRecords,         // DTC, status, then per record: number, DID count, DIDs and data
    kStoredData,              // record number, then per record: number, DTC, status, DIDs
    kExtendedRecords,         // DTC, status, then per record: number, data
    kSeverityList,            // availability mask, then severity, functional unit, DTC, status
    kFaultCounters,           // DTC and fault detection counter each
    kExtendedByRecord,        // record number, then DTC, status and the record's data each
};

// Which DTCs of the memory an answer lists.
enum class DtcSelection {
    kByStatusMask,           // status AND mask is not zero
    kEmissionsByStatusMask,  // the same among emissions-related (OBD) DTCs
    kBySeverityMask,         // severity AND severity mask, status AND status mask
    kAll,                    // every DTC the ECU supports
    kPermanent,
    kPreFailed,  // fault detection counter counting towards failure, not yet confirmed
    kFirstTestFailed,
    kFirstConfirmed,
    kMostRecentTestFailed,
    kMostRecentConfirmed,
    kRequestedDtc,  // the one DTC the request names
};

struct DtcReportType {
    uint8_t number;
    const char *query_name;  // "subfunction" of a query's "uds" object
    const char *title;       // as uozctl prints it
    DtcRequestLayout request;
    // A user-defined memory: its selection ends the request and begins the answer.
    bool memory_selection;
    DtcResponseLayout response;
    DtcSelection selection;
};

// The row of a report number or query name; nullptr for one not in the table.
const DtcReportType *find_dtc_report(uint8_t number);
const DtcReportType *find_dtc_report(const char *query_name);
// Every row, in report number order.
const std::vector<DtcReportType> &dtc_reports();

// Whether a query can ask for the report: its "data-record" can carry a
// status mask, a DTC and/or a record number, but no severity mask and no
// memory selection.
bool asked_by_queries(const DtcReportType &type);
bool carries_dtc(DtcRequestLayout layout);
bool carries_record(DtcRequestLayout layout);

// DTC status bits, by bit position: their ISO names ("testFailed") and the
// names a query's status mask uses ("UDS_STATUS_MASK_TEST_FAILED").
extern const char *const kStatusBitNames[8];
extern const char *const kQueryStatusBitNames[8];
constexpr uint8_t kStatusTestFailed = 0x01;
constexpr uint8_t kStatusConfirmedDtc = 0x08;
std::vector<std::string> status_bit_names(uint8_t status);

// "P0301-00": the letter and digits of a three-byte DTC as scan tools show it.
std::string dtc_text(uint32_t code);

// The parameters of one request; its layout says which of them it carries.
struct DtcRequest {
    const DtcReportType *type = nullptr;
    uint8_t status_mask = 0;
    uint8_t severity_mask = 0;
    uint32_t dtc = 0;  // three bytes
    uint8_t record = 0;
    uint8_t memory_selection = 0;
};

// The length of the type's requests, service byte included.
size_t dtc_request_length(const DtcReportType &type);
std::vector<uint8_t> encode_dtc_request(const DtcRequest &request);
// The parameters of a request of dtc_request_length(type) bytes.
DtcRequest parse_dtc_request(const DtcReportType &type, const uint8_t *request);

}  // namespace uozuds

#endif
