#include "read_dtc.h"

#include "dtc_reports.h"
#include "uds.h"

namespace uozecusim {

namespace {

using uozuds::DtcReportType;
using uozuds::DtcRequest;
using Layout = uozuds::DtcResponseLayout;
using Selection = uozuds::DtcSelection;
using Memory = std::vector<SimulatedDtc>;
using Listed = std::vector<const SimulatedDtc *>;

constexpr uint8_t kAllRecords = 0xFF;
constexpr uint8_t kAllObdRecords = 0xFE;
constexpr uint8_t kLastExtendedRecord = 0xEF;  // above: the "all records" numbers
constexpr uint8_t kFdcFailed = 0x7F;

Bytes negative(uint8_t code) {
    return {uozuds::kNegativeResponse, uozuds::sid::kReadDtcInformation, code};
}

void put_dtc(Bytes &out, uint32_t code) {
    out.push_back(static_cast<uint8_t>(code >> 16));
    out.push_back(static_cast<uint8_t>(code >> 8));
    out.push_back(static_cast<uint8_t>(code));
}

void put_dtc_and_status(Bytes &out, const SimulatedDtc &dtc) {
    put_dtc(out, dtc.code);
    out.push_back(dtc.status);
}

// The number of identifiers, then each DID (2 bytes) and its data.
void put_identifiers(Bytes &out, const std::vector<DidValue> &dids) {
    out.push_back(static_cast<uint8_t>(dids.size()));
    for (const DidValue &value : dids) {
        out.push_back(static_cast<uint8_t>(value.did >> 8));
        out.push_back(static_cast<uint8_t>(value.did));
        out.insert(out.end(), value.data.begin(), value.data.end());
    }
}

void put_snapshot(Bytes &out, uint8_t number, const std::vector<DidValue> &dids) {
    out.push_back(number);
    put_identifiers(out, dids);
}

void put_extended(Bytes &out, uint8_t number, const Bytes &data) {
    out.push_back(number);
    out.insert(out.end(), data.begin(), data.end());
}

bool obd_record(uint8_t number) {
    return number >= 0x90 && number <= 0xEF;
}

// Records of one DTC: all of them for 0xFF, the OBD ones for 0xFE (extended
// data only), else the one asked for if the DTC holds it.
template <typename Record, typename Put>
void put_records(Bytes &out, const std::map<uint8_t, Record> &records, uint8_t wanted, Put put) {
    for (const auto &[number, record] : records) {
        if (wanted == kAllRecords || number == wanted ||
            (wanted == kAllObdRecords && obd_record(number)))
            put(out, number, record);
    }
}

bool known_snapshot_record(const SimulatedEcu &ecu, uint8_t record) {
    return record == kAllRecords || ecu.snapshot_record_numbers.count(record) != 0;
}

bool known_extended_record(const SimulatedEcu &ecu, uint8_t record) {
    return record == kAllRecords || record == kAllObdRecords ||
           ecu.extended_record_numbers.count(record) != 0;
}

bool matches(Selection selection, const SimulatedDtc &dtc, const DtcRequest &request) {
    switch (selection) {
        case Selection::kByStatusMask:
            return (dtc.status & request.status_mask) != 0;
        case Selection::kEmissionsByStatusMask:
            return dtc.emission_related && (dtc.status & request.status_mask) != 0;
        case Selection::kBySeverityMask:
            return (dtc.severity & request.severity_mask) != 0 &&
                   (dtc.status & request.status_mask) != 0;
        case Selection::kAll:
            return true;
        case Selection::kPermanent:
            return dtc.permanent;
        case Selection::kPreFailed:
            return dtc.fault_detection_counter != 0 && dtc.fault_detection_counter < kFdcFailed &&
                   (dtc.status & uozuds::kStatusConfirmedDtc) == 0;
        case Selection::kFirstTestFailed:
        case Selection::kMostRecentTestFailed:
            return (dtc.status & uozuds::kStatusTestFailed) != 0;
        case Selection::kFirstConfirmed:
        case Selection::kMostRecentConfirmed:
            return (dtc.status & uozuds::kStatusConfirmedDtc) != 0;
        case Selection::kRequestedDtc:
            return dtc.code == request.dtc;
    }
    return false;
}

// The DTCs the report lists, in the memory's order, which is the order in
// which they occurred.
Listed select(const Memory &memory, const DtcRequest &request) {
    const Selection selection = request.type->selection;
    Listed listed;
    for (const SimulatedDtc &dtc : memory) {
        if (matches(selection, dtc, request))
            listed.push_back(&dtc);
    }
    if (listed.size() > 1 &&
        (selection == Selection::kFirstTestFailed || selection == Selection::kFirstConfirmed))
        listed.resize(1);
    if (listed.size() > 1 && (selection == Selection::kMostRecentTestFailed ||
                              selection == Selection::kMostRecentConfirmed))
        listed.erase(listed.begin(), listed.end() - 1);
    return listed;
}

void put_count(Bytes &out, const SimulatedEcu &ecu, size_t count) {
    out.insert(out.end(), {ecu.dtc_availability_mask, kDtcFormatIso14229,
                           static_cast<uint8_t>(count >> 8), static_cast<uint8_t>(count)});
}

// One block per record number (number, DTC, status, identifiers), each from
// the first DTC that holds that snapshot; the echoed number alone when none
// does.
Bytes stored_data(const SimulatedEcu &ecu, const Listed &listed, uint8_t record, Bytes out) {
    const size_t header = out.size();
    for (uint8_t number : ecu.snapshot_record_numbers) {
        if (record != kAllRecords && number != record)
            continue;
        for (const SimulatedDtc *dtc : listed) {
            auto snapshot = dtc->snapshots.find(number);
            if (snapshot == dtc->snapshots.end())
                continue;
            out.push_back(number);
            put_dtc_and_status(out, *dtc);
            put_identifiers(out, snapshot->second);
            break;
        }
    }
    if (out.size() == header)
        out.push_back(record);
    return out;
}

// The record number, then each DTC that holds it with its data.
Bytes extended_by_record(const SimulatedEcu &ecu, const Listed &listed, uint8_t record, Bytes out) {
    if (record > kLastExtendedRecord || ecu.extended_record_numbers.count(record) == 0)
        return negative(uozuds::nrc::kRequestOutOfRange);
    out.push_back(record);
    for (const SimulatedDtc *dtc : listed) {
        auto extended = dtc->extended.find(record);
        if (extended == dtc->extended.end())
            continue;
        put_dtc_and_status(out, *dtc);
        out.insert(out.end(), extended->second.begin(), extended->second.end());
    }
    return out;
}

// The requested DTC and its snapshot or extended data records.
Bytes records_of_dtc(const SimulatedEcu &ecu, const Listed &listed, Layout layout, uint8_t record,
                     Bytes out) {
    const bool snapshot = layout == Layout::kSnapshotRecords;
    if (!(snapshot ? known_snapshot_record(ecu, record) : known_extended_record(ecu, record)))
        return negative(uozuds::nrc::kRequestOutOfRange);
    const SimulatedDtc &dtc = *listed.front();
    put_dtc_and_status(out, dtc);
    if (snapshot)
        put_records(out, dtc.snapshots, record, put_snapshot);
    else
        put_records(out, dtc.extended, record, put_extended);
    return out;
}

void put_severity_item(Bytes &out, const SimulatedDtc &dtc) {
    out.insert(out.end(), {dtc.severity, dtc.functional_unit});
    put_dtc_and_status(out, dtc);
}

void put_snapshot_identification(Bytes &out, const SimulatedDtc &dtc) {
    for (const auto &snapshot : dtc.snapshots) {
        put_dtc(out, dtc.code);
        out.push_back(snapshot.first);
    }
}

void put_fault_counter(Bytes &out, const SimulatedDtc &dtc) {
    put_dtc(out, dtc.code);
    out.push_back(dtc.fault_detection_counter);
}

// The same item for every DTC listed.
template <typename PutItem>
Bytes put_each(Bytes out, const Listed &listed, PutItem put_item) {
    for (const SimulatedDtc *dtc : listed)
        put_item(out, *dtc);
    return out;
}

// The positive answer of the layout to the DTCs listed.
Bytes answer(const SimulatedEcu &ecu, const DtcRequest &request, const Listed &listed, Bytes out) {
    const Layout layout = request.type->response;
    switch (layout) {
        case Layout::kCount:
            put_count(out, ecu, listed.size());
            return out;
        case Layout::kStatusList:
            out.push_back(ecu.dtc_availability_mask);
            return put_each(out, listed, put_dtc_and_status);
        case Layout::kSeverityList:
            out.push_back(ecu.dtc_availability_mask);
            return put_each(out, listed, put_severity_item);
        case Layout::kSnapshotIdentification:
            return put_each(out, listed, put_snapshot_identification);
        case Layout::kFaultCounters:
            return put_each(out, listed, put_fault_counter);
        case Layout::kSnapshotRecords:
        case Layout::kExtendedRecords:
            return records_of_dtc(ecu, listed, layout, request.record, out);
        case Layout::kStoredData:
            if (!known_snapshot_record(ecu, request.record))
                return negative(uozuds::nrc::kRequestOutOfRange);
            return stored_data(ecu, listed, request.record, out);
        case Layout::kExtendedByRecord:
            return extended_by_record(ecu, listed, request.record, out);
    }
    return out;
}

}  // namespace

Bytes read_dtc_response(const SimulatedEcu &ecu, const uint8_t *request, size_t length) {
    if (length < 2)
        return negative(uozuds::nrc::kIncorrectMessageLength);
    const DtcReportType *type = uozuds::find_dtc_report(request[1]);
    if (type == nullptr || ecu.unsupported_reports.count(type->number) != 0)
        return negative(uozuds::nrc::kSubFunctionNotSupported);
    if (length != uozuds::dtc_request_length(*type))
        return negative(uozuds::nrc::kIncorrectMessageLength);
    const DtcRequest parsed = uozuds::parse_dtc_request(*type, request);
    Bytes out = {uozuds::sid::kReadDtcInformation + uozuds::kPositiveOffset, type->number};
    const Memory *memory = &ecu.dtcs;
    if (type->memory_selection) {
        auto found = ecu.user_memories.find(parsed.memory_selection);
        if (found == ecu.user_memories.end())
            return negative(uozuds::nrc::kRequestOutOfRange);
        memory = &found->second;
        out.push_back(parsed.memory_selection);
    }
    const Listed listed = select(*memory, parsed);
    if (type->selection == Selection::kRequestedDtc && listed.empty())
        return negative(uozuds::nrc::kRequestOutOfRange);
    return answer(ecu, parsed, listed, out);
}

}  // namespace uozecusim
