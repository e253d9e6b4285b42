#include "dtc_response.h"

#include "dtc_reports.h"
#include "hex_text.h"
#include "uds.h"

namespace uozuds {

namespace {

using Layout = DtcResponseLayout;

// Bytes of a response body read front to back.
struct Reader {
    const uint8_t *bytes;
    size_t length;
    size_t at = 0;

    size_t left() const { return length - at; }
    const uint8_t *here() const { return bytes + at; }
    std::string rest() const { return hex_spaced(here(), left()); }
};

uint32_t dtc_at(const uint8_t *bytes) {
    return static_cast<uint32_t>(bytes[0]) << 16 | static_cast<uint32_t>(bytes[1]) << 8 | bytes[2];
}

Dtc make_dtc(uint32_t code, int status) {
    Dtc dtc;
    dtc.code = code;
    dtc.text = dtc_text(code);
    dtc.status = status;
    if (status >= 0)
        dtc.status_names = status_bit_names(static_cast<uint8_t>(status));
    return dtc;
}

// Stops decoding: the rest of the body is kept as it is, with the reason.
void leave_undecoded(DtcReport &report, const Reader &body, const std::string &why) {
    report.undecoded = body.rest();
    report.note = why;
}

// The size the caller knows, else the built-in one (-1: not known).
template <typename Key>
int known_size(const std::map<Key, int> *caller, Key key, int built_in) {
    if (caller != nullptr) {
        auto known = caller->find(key);
        if (known != caller->end())
            return known->second;
    }
    return built_in;
}

int known_did_size(uint16_t did, const DataSizes *sizes) {
    return known_size(sizes != nullptr ? &sizes->dids : nullptr, did, did_size(did));
}

int known_record_size(uint8_t record, const DataSizes *sizes) {
    return known_size(sizes != nullptr ? &sizes->extended_records : nullptr, record,
                      extended_record_size(record));
}

DataRecord extended_record(uint8_t number, const uint8_t *data, size_t size) {
    DataRecord record;
    record.number = number;
    const char *name = extended_record_name(number);
    record.name = name != nullptr ? name : "";
    record.hex = hex_spaced(data, size);
    return record;
}

std::string unknown_size(const char *what, uint32_t number, int digits) {
    return std::string(what) + " " + hex_number(number, digits) +
           " has no known size: the rest is left undecoded";
}

// Fixed-size items; a remainder that is no whole item is noted.
template <typename Each>
void decode_items(Reader &body, size_t item, DtcReport &report, Each each) {
    for (; body.left() >= item; body.at += item)
        each(body.here());
    if (body.left() > 0) {
        report.note = "trailing " + std::to_string(body.left()) +
                      " byte(s) that form no whole record: " + body.rest();
    }
}

bool take_byte(Reader &body, int *field, DtcReport &report, const char *missing) {
    if (body.left() < 1) {
        report.note = missing;
        return false;
    }
    *field = *body.here();
    ++body.at;
    return true;
}

// The number of identifiers, then each DID and its data. False when decoding
// stopped (the reason is in the report).
bool decode_identifiers(Reader &body, DataRecord &record, const DataSizes *sizes,
                        DtcReport &report) {
    const std::string where = "record " + hex_number(record.number, 2);
    if (body.left() < 1) {
        leave_undecoded(report, body, where + " without its number of identifiers");
        return false;
    }
    record.identifier_count = *body.here();
    ++body.at;
    for (int i = 0; i < record.identifier_count; ++i) {
        if (body.left() < 2) {
            leave_undecoded(report, body, where + " cut short");
            return false;
        }
        uint16_t did = static_cast<uint16_t>(body.here()[0] << 8 | body.here()[1]);
        int size = known_did_size(did, sizes);
        if (size < 0) {
            leave_undecoded(report, body,
                            "DID " + hex_number(did, 4) + " of " + where +
                                " has no known size: the rest is left undecoded");
            return false;
        }
        if (body.left() < 2 + static_cast<size_t>(size)) {
            leave_undecoded(report, body,
                            "DID " + hex_number(did, 4) + " of " + where + " cut short");
            return false;
        }
        const char *name = did_name(did);
        record.dids.push_back(
            {did, name != nullptr ? name : "", hex_spaced(body.here() + 2, size)});
        body.at += 2 + size;
    }
    return true;
}

void decode_snapshot_records(Reader &body, Dtc &dtc, const DataSizes *sizes, DtcReport &report) {
    while (body.left() > 0) {
        DataRecord record;
        record.kind = RecordKind::kSnapshot;
        record.number = *body.here();
        ++body.at;
        bool complete = decode_identifiers(body, record, sizes, report);
        dtc.records.push_back(record);
        if (!complete)
            return;
    }
}

void decode_extended_records(Reader &body, Dtc &dtc, const DataSizes *sizes, DtcReport &report) {
    while (body.left() > 0) {
        uint8_t number = *body.here();
        int size = known_record_size(number, sizes);
        if (size < 0) {
            leave_undecoded(report, body, unknown_size("extended data record", number, 2));
            return;
        }
        if (body.left() < 1 + static_cast<size_t>(size)) {
            leave_undecoded(report, body,
                            "extended data record " + hex_number(number, 2) + " cut short");
            return;
        }
        dtc.records.push_back(extended_record(number, body.here() + 1, size));
        body.at += 1 + size;
    }
}

// One DTC, its status, then its snapshot or extended data records.
void decode_dtc_with_records(Layout layout, Reader &body, const DataSizes *sizes,
                             DtcReport &report) {
    if (body.left() < 4) {
        report.note = "response too short for a DTC and its status: " + body.rest();
        return;
    }
    Dtc dtc = make_dtc(dtc_at(body.here()), body.here()[3]);
    body.at += 4;
    if (layout == Layout::kSnapshotRecords)
        decode_snapshot_records(body, dtc, sizes, report);
    else
        decode_extended_records(body, dtc, sizes, report);
    report.dtcs.push_back(dtc);
}

// The record number, then per record: number, DTC, status, identifiers.
// The number alone says the record holds no data.
void decode_stored_data(Reader &body, const DataSizes *sizes, DtcReport &report) {
    if (body.left() < 1) {
        report.note = "response without a record number";
        return;
    }
    report.record_number = *body.here();
    if (body.left() == 1)
        return;
    while (body.left() > 0) {
        if (body.left() < 5) {
            leave_undecoded(report, body, "stored data record cut short");
            return;
        }
        Dtc dtc = make_dtc(dtc_at(body.here() + 1), body.here()[4]);
        DataRecord record;
        record.kind = RecordKind::kStoredData;
        record.number = *body.here();
        dtc.record_number = record.number;
        body.at += 5;
        bool complete = decode_identifiers(body, record, sizes, report);
        dtc.records.push_back(record);
        report.dtcs.push_back(dtc);
        if (!complete)
            return;
    }
}

// The record number, then per DTC: DTC, status and the record's data.
void decode_extended_by_record(Reader &body, const DataSizes *sizes, DtcReport &report) {
    if (!take_byte(body, &report.record_number, report, "response without a record number"))
        return;
    const uint8_t number = static_cast<uint8_t>(report.record_number);
    const int size = known_record_size(number, sizes);
    while (body.left() > 0) {
        if (body.left() < 4) {
            leave_undecoded(report, body, "DTC and status cut short");
            return;
        }
        report.dtcs.push_back(make_dtc(dtc_at(body.here()), body.here()[3]));
        body.at += 4;
        if (size < 0) {
            leave_undecoded(report, body, unknown_size("extended data record", number, 2));
            return;
        }
        if (body.left() < static_cast<size_t>(size)) {
            leave_undecoded(report, body,
                            "extended data record " + hex_number(number, 2) + " cut short");
            return;
        }
        report.dtcs.back().records.push_back(extended_record(number, body.here(), size));
        body.at += size;
    }
}

void decode_count(Reader &body, DtcReport &report) {
    if (body.left() < 4) {
        report.note = "response too short for a count: " + body.rest();
        return;
    }
    const uint8_t *count = body.here();
    report.availability_mask = count[0];
    report.format = count[1];
    report.count = (count[2] << 8) | count[3];
    body.at += 4;
    if (body.left() > 0)
        report.note = "extra bytes after the count: " + body.rest();
}

void decode_status_list(Reader &body, DtcReport &report) {
    if (!take_byte(body, &report.availability_mask, report,
                   "response without an availability mask"))
        return;
    decode_items(body, 4, report, [&](const uint8_t *item) {
        report.dtcs.push_back(make_dtc(dtc_at(item), item[3]));
    });
}

void decode_severity_list(Reader &body, DtcReport &report) {
    if (!take_byte(body, &report.availability_mask, report,
                   "response without an availability mask"))
        return;
    decode_items(body, 6, report, [&](const uint8_t *item) {
        Dtc dtc = make_dtc(dtc_at(item + 2), item[5]);
        dtc.severity = item[0];
        dtc.functional_unit = item[1];
        report.dtcs.push_back(dtc);
    });
}

void decode_body(Layout layout, Reader &body, const DataSizes *sizes, DtcReport &report) {
    switch (layout) {
        case Layout::kCount:
            return decode_count(body, report);
        case Layout::kStatusList:
            return decode_status_list(body, report);
        case Layout::kSeverityList:
            return decode_severity_list(body, report);
        case Layout::kSnapshotIdentification:
            return decode_items(body, 4, report, [&](const uint8_t *item) {
                report.dtcs.push_back(make_dtc(dtc_at(item), -1));
                report.dtcs.back().record_number = item[3];
            });
        case Layout::kFaultCounters:
            return decode_items(body, 4, report, [&](const uint8_t *item) {
                report.dtcs.push_back(make_dtc(dtc_at(item), -1));
                report.dtcs.back().fault_detection_counter = item[3];
            });
        case Layout::kSnapshotRecords:
        case Layout::kExtendedRecords:
            return decode_dtc_with_records(layout, body, sizes, report);
        case Layout::kStoredData:
            return decode_stored_data(body, sizes, report);
        case Layout::kExtendedByRecord:
            return decode_extended_by_record(body, sizes, report);
    }
}

void decode_positive(const uint8_t *bytes, size_t length, const DataSizes *sizes,
                     DtcReport &report) {
    report.report = bytes[1];
    Reader body{bytes + 2, length - 2};
    const DtcReportType *type = find_dtc_report(bytes[1]);
    if (type == nullptr) {
        report.report_name = "unknown report";
        report.note = "unknown report; bytes: " + body.rest();
        return;
    }
    report.report_name = type->title;
    if (type->memory_selection &&
        !take_byte(body, &report.memory_selection, report, "response without a memory selection"))
        return;
    decode_body(type->response, body, sizes, report);
}

}  // namespace

DtcReport decode_dtc_response(const uint8_t *bytes, size_t length, const DataSizes *sizes) {
    DtcReport report;
    if (length == 0 || bytes == nullptr) {
        report.note = "empty response";
        return report;
    }
    if (bytes[0] == kNegativeResponse) {
        report.negative = true;
        if (length >= 3) {
            report.nrc = bytes[2];
            report.nrc_name = nrc_name(bytes[2]);
        } else {
            report.note = "negative response cut short: " + hex_spaced(bytes, length);
        }
        return report;
    }
    if (bytes[0] != sid::kReadDtcInformation + kPositiveOffset || length < 2) {
        report.note = "not a ReadDTCInformation response: " + hex_spaced(bytes, length);
        return report;
    }
    decode_positive(bytes, length, sizes, report);
    return report;
}

}  // namespace uozuds
