#include "dtc_reports.h"

#include <stdio.h>
#include <string.h>

namespace uozuds {

namespace {

using Request = DtcRequestLayout;
using Response = DtcResponseLayout;
using Selection = DtcSelection;
constexpr bool kMainMemory = false;
constexpr bool kUserMemory = true;

// clang-format off
const std::vector<DtcReportType> kReports = {
    {0x01, "UDS_REPORT_NO_DTC_BY_STATUS_MASK", "number of DTCs by status mask",
     Request::kStatusMask, kMainMemory, Response::kCount, Selection::kByStatusMask},
    {0x02, "UDS_REPORT_DTC_BY_STATUS_MASK", "DTCs by status mask",
     Request::kStatusMask, kMainMemory, Response::kStatusList, Selection::kByStatusMask},
    {0x03, "UDS_REPORT_DTC_SNAPSHOT_IDENTIFICATION", "snapshot identification",
     Request::kNothing, kMainMemory, Response::kSnapshotIdentification, Selection::kAll},
    {0x04, "UDS_REPORT_DTC_SNAPSHOT_RECORD_BY_DTC_NUMBER", "snapshot records of a DTC",
     Request::kDtcAndRecord, kMainMemory, Response::kSnapshotRecords, Selection::kRequestedDtc},
    {0x05, "UDS_REPORT_DTC_STORED_DATA_BY_RECORD_NUMBER", "stored data by record number",
     Request::kRecord, kMainMemory, Response::kStoredData, Selection::kAll},
    {0x06, "UDS_REPORT_DTC_EXT_DATA_RECORD_BY_DTC_NUMBER", "extended data records of a DTC",
     Request::kDtcAndRecord, kMainMemory, Response::kExtendedRecords, Selection::kRequestedDtc},
    {0x07, "UDS_REPORT_NO_DTC_BY_SEVERITY_MASK_RECORD", "number of DTCs by severity mask",
     Request::kSeverityAndStatusMask, kMainMemory, Response::kCount, Selection::kBySeverityMask},
    {0x08, "UDS_REPORT_DTC_BY_SEVERITY_MASK_RECORD", "DTCs by severity mask",
     Request::kSeverityAndStatusMask, kMainMemory, Response::kSeverityList,
     Selection::kBySeverityMask},
    {0x09, "UDS_REPORT_SEVERITY_INFORMATION_OF_DTC", "severity of a DTC",
     Request::kDtc, kMainMemory, Response::kSeverityList, Selection::kRequestedDtc},
    {0x0A, "UDS_REPORT_SUPPORTED_DTCS", "supported DTCs",
     Request::kNothing, kMainMemory, Response::kStatusList, Selection::kAll},
    {0x0B, "UDS_REPORT_FIRST_TEST_FAILED_DTC", "first test-failed DTC",
     Request::kNothing, kMainMemory, Response::kStatusList, Selection::kFirstTestFailed},
    {0x0C, "UDS_REPORT_FIRST_CONFIRMED_DTC", "first confirmed DTC",
     Request::kNothing, kMainMemory, Response::kStatusList, Selection::kFirstConfirmed},
    {0x0D, "UDS_REPORT_MOST_RECENT_TEST_FAILED_DTC", "most recent test-failed DTC",
     Request::kNothing, kMainMemory, Response::kStatusList, Selection::kMostRecentTestFailed},
    {0x0E, "UDS_REPORT_MOST_RECENT_CONFIRMED_DTC", "most recent confirmed DTC",
     Request::kNothing, kMainMemory, Response::kStatusList, Selection::kMostRecentConfirmed},
    {0x0F, "UDS_REPORT_MIRROR_MR_DTC_BY_STATUS_MASK", "mirror memory DTCs by status mask",
     Request::kStatusMask, kMainMemory, Response::kStatusList, Selection::kByStatusMask},
    {0x10, "UDS_REPORT_MIRROR_MR_DTC_EXT_DATA_RECORD_BY_DTC",
     "mirror memory extended data of a DTC",
     Request::kDtcAndRecord, kMainMemory, Response::kExtendedRecords, Selection::kRequestedDtc},
    {0x11, "UDS_REPORT_NO_MIRROR_MR_DTC_BY_STATUS_MASK", "number of mirror memory DTCs",
     Request::kStatusMask, kMainMemory, Response::kCount, Selection::kByStatusMask},
    {0x12, "UDS_REPORT_NO_EMISSION_OBD_DTC_BY_STATUS_MASK", "number of emissions OBD DTCs",
     Request::kStatusMask, kMainMemory, Response::kCount, Selection::kEmissionsByStatusMask},
    {0x13, "UDS_REPORT_EMISSION_OBD_DTC_BY_STATUS_MASK", "emissions OBD DTCs by status mask",
     Request::kStatusMask, kMainMemory, Response::kStatusList, Selection::kEmissionsByStatusMask},
    {0x14, "UDS_REPORT_DTC_FAULT_DETECTION_COUNTER", "fault detection counters",
     Request::kNothing, kMainMemory, Response::kFaultCounters, Selection::kPreFailed},
    {0x15, "UDS_REPORT_DTC_WITH_PERMANENT_STATUS", "DTCs with permanent status",
     Request::kNothing, kMainMemory, Response::kStatusList, Selection::kPermanent},
    {0x16, "UDS_REPORT_DTC_EXT_DATA_RECORD_BY_RECORD_NUMBER", "extended data by record number",
     Request::kRecord, kMainMemory, Response::kExtendedByRecord, Selection::kAll},
    {0x17, "UDS_REPORT_USER_DEF_MR_DTC_BY_STATUS_MASK", "user memory DTCs by status mask",
     Request::kStatusMask, kUserMemory, Response::kStatusList, Selection::kByStatusMask},
    {0x18, "UDS_REPORT_USER_DEF_MR_DTC_SNAP_REC_BY_DTC", "user memory snapshot records of a DTC",
     Request::kDtcAndRecord, kUserMemory, Response::kSnapshotRecords, Selection::kRequestedDtc},
    {0x19, "UDS_REPORT_USER_DEF_MR_DTC_EXT_DATA_REC_BY_DTC", "user memory extended data of a DTC",
     Request::kDtcAndRecord, kUserMemory, Response::kExtendedRecords, Selection::kRequestedDtc},
};
// clang-format on

void put_dtc(std::vector<uint8_t> &out, uint32_t dtc) {
    out.push_back(static_cast<uint8_t>(dtc >> 16));
    out.push_back(static_cast<uint8_t>(dtc >> 8));
    out.push_back(static_cast<uint8_t>(dtc));
}

uint32_t dtc_at(const uint8_t *bytes) {
    return static_cast<uint32_t>(bytes[0]) << 16 | static_cast<uint32_t>(bytes[1]) << 8 | bytes[2];
}

// Bytes after 19 <report>, before any memory selection.
size_t parameter_length(DtcRequestLayout layout) {
    switch (layout) {
        case Request::kNothing:
            return 0;
        case Request::kStatusMask:
        case Request::kRecord:
            return 1;
        case Request::kSeverityAndStatusMask:
            return 2;
        case Request::kDtc:
            return 3;
        case Request::kDtcAndRecord:
            return 4;
    }
    return 0;
}

}  // namespace

const char *const kStatusBitNames[8] = {
    "testFailed",
    "testFailedThisOperationCycle",
    "pendingDTC",
    "confirmedDTC",
    "testNotCompletedSinceLastClear",
    "testFailedSinceLastClear",
    "testNotCompletedThisOperationCycle",
    "warningIndicatorRequested",
};

const char *const kQueryStatusBitNames[8] = {
    "UDS_STATUS_MASK_TEST_FAILED",
    "UDS_STATUS_MASK_TEST_FAILED_THIS_OP_CYCLE",
    "UDS_STATUS_MASK_PENDING_DTC",
    "UDS_STATUS_MASK_CONFIRMED_DTC",
    "UDS_STATUS_MASK_TEST_NOT_COMPLETED_SINCE_LAST_CLEAR",
    "UDS_STATUS_MASK_TEST_FAILED_SINCE_LAST_CLEAR",
    "UDS_STATUS_MASK_TEST_NOT_COMPLETED_THIS_OP_CYCLE",
    "UDS_STATUS_MASK_WARNING_INDICATOR_REQUESTED",
};

const std::vector<DtcReportType> &dtc_reports() {
    return kReports;
}

const DtcReportType *find_dtc_report(uint8_t number) {
    for (const DtcReportType &type : kReports) {
        if (type.number == number)
            return &type;
    }
    return nullptr;
}

const DtcReportType *find_dtc_report(const char *query_name) {
    for (const DtcReportType &type : kReports) {
        if (query_name != nullptr && strcmp(type.query_name, query_name) == 0)
            return &type;
    }
    return nullptr;
}

bool carries_dtc(DtcRequestLayout layout) {
    return layout == Request::kDtc || layout == Request::kDtcAndRecord;
}

bool carries_record(DtcRequestLayout layout) {
    return layout == Request::kRecord || layout == Request::kDtcAndRecord;
}

bool asked_by_queries(const DtcReportType &type) {
    return !type.memory_selection && type.request != Request::kSeverityAndStatusMask;
}

std::vector<std::string> status_bit_names(uint8_t status) {
    std::vector<std::string> names;
    for (int bit = 0; bit < 8; ++bit) {
        if (status & (1u << bit))
            names.push_back(kStatusBitNames[bit]);
    }
    return names;
}

std::string dtc_text(uint32_t code) {
    static const char kLetters[] = "PCBU";
    char text[16];
    snprintf(text, sizeof(text), "%c%u%03X-%02X", kLetters[(code >> 22) & 0x3], (code >> 20) & 0x3,
             (code >> 8) & 0xFFF, code & 0xFF);
    return text;
}

size_t dtc_request_length(const DtcReportType &type) {
    return 2 + parameter_length(type.request) + (type.memory_selection ? 1 : 0);
}

std::vector<uint8_t> encode_dtc_request(const DtcRequest &request) {
    const DtcReportType &type = *request.type;
    std::vector<uint8_t> out = {0x19, type.number};
    if (type.request == Request::kSeverityAndStatusMask)
        out.push_back(request.severity_mask);
    if (type.request == Request::kStatusMask || type.request == Request::kSeverityAndStatusMask)
        out.push_back(request.status_mask);
    if (carries_dtc(type.request))
        put_dtc(out, request.dtc);
    if (carries_record(type.request))
        out.push_back(request.record);
    if (type.memory_selection)
        out.push_back(request.memory_selection);
    return out;
}

DtcRequest parse_dtc_request(const DtcReportType &type, const uint8_t *request) {
    DtcRequest parsed;
    parsed.type = &type;
    const uint8_t *at = request + 2;
    if (type.request == Request::kSeverityAndStatusMask)
        parsed.severity_mask = *at++;
    if (type.request == Request::kStatusMask || type.request == Request::kSeverityAndStatusMask)
        parsed.status_mask = *at++;
    if (carries_dtc(type.request)) {
        parsed.dtc = dtc_at(at);
        at += 3;
    }
    if (carries_record(type.request))
        parsed.record = *at++;
    if (type.memory_selection)
        parsed.memory_selection = *at;
    return parsed;
}

}  // namespace uozuds
