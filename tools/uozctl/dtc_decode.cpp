#include "dtc_decode.h"

#include <stdio.h>

#include "hex_text.h"
#include "uds.h"

namespace uozctl {

namespace {

const char *const kStatusBits[8] = {
    "testFailed",
    "testFailedThisOperationCycle",
    "pendingDTC",
    "confirmedDTC",
    "testNotCompletedSinceLastClear",
    "testFailedSinceLastClear",
    "testNotCompletedThisOperationCycle",
    "warningIndicatorRequested",
};

const char *report_title(int report) {
    switch (report) {
        case 0x01:
            return "number of DTCs by status mask";
        case 0x02:
            return "DTCs by status mask";
        case 0x03:
            return "snapshot identification";
        case 0x04:
            return "snapshot records of a DTC";
        case 0x05:
            return "stored data by record number";
        case 0x06:
            return "extended data records of a DTC";
        case 0x07:
            return "number of DTCs by severity mask";
        case 0x08:
            return "DTCs by severity mask";
        case 0x09:
            return "severity of a DTC";
        case 0x0A:
            return "supported DTCs";
        case 0x0B:
            return "first test-failed DTC";
        case 0x0C:
            return "first confirmed DTC";
        case 0x0D:
            return "most recent test-failed DTC";
        case 0x0E:
            return "most recent confirmed DTC";
        case 0x0F:
            return "mirror memory DTCs by status mask";
        case 0x10:
            return "mirror memory extended data of a DTC";
        case 0x11:
            return "number of mirror memory DTCs";
        case 0x12:
            return "number of emissions OBD DTCs";
        case 0x13:
            return "emissions OBD DTCs by status mask";
        case 0x14:
            return "fault detection counters";
        case 0x15:
            return "DTCs with permanent status";
        case 0x16:
            return "extended data by record number";
        case 0x17:
            return "user memory DTCs by status mask";
        case 0x18:
            return "user memory snapshot records of a DTC";
        case 0x19:
            return "user memory extended data of a DTC";
        default:
            return "unknown report";
    }
}

uint32_t dtc_at(const uint8_t *bytes) {
    return (uint32_t(bytes[0]) << 16) | (uint32_t(bytes[1]) << 8) | bytes[2];
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

// Bytes of a response body read front to back.
struct Reader {
    const uint8_t *bytes;
    size_t length;
    size_t at = 0;

    size_t left() const { return length - at; }
    const uint8_t *here() const { return bytes + at; }
};

// Stops decoding: the rest of the body is kept as it is, with the reason.
void leave_undecoded(DtcReport &report, const Reader &body, const std::string &why) {
    report.undecoded = hex_of(body.here(), body.left());
    report.note = why;
}

int did_size(uint16_t did, const DataSizes *sizes) {
    if (sizes != nullptr) {
        auto known = sizes->dids.find(did);
        if (known != sizes->dids.end())
            return known->second;
    }
    return uozuds::did_size(did);
}

int record_size(uint8_t record, const DataSizes *sizes) {
    if (sizes != nullptr) {
        auto known = sizes->extended_records.find(record);
        if (known != sizes->extended_records.end())
            return known->second;
    }
    return uozuds::extended_record_size(record);
}

std::string record_name(uint8_t record) {
    const char *name = uozuds::extended_record_name(record);
    return name != nullptr ? name : "";
}

// Fixed-size items after a header; a remainder that is no whole item is noted.
template <typename Each>
void decode_items(const uint8_t *bytes, size_t length, size_t item, DtcReport &report, Each each) {
    size_t at = 0;
    for (; at + item <= length; at += item)
        each(bytes + at);
    if (at < length) {
        report.note = "trailing " + std::to_string(length - at) +
                      " byte(s) that form no whole record: " + hex_of(bytes + at, length - at);
    }
}

// The number of identifiers, then each DID and its data. False when decoding
// stopped (the reason is in the report).
bool decode_identifiers(Reader &body, DataRecord &record, const DataSizes *sizes,
                        DtcReport &report) {
    const std::string where = "record " + uozuds::hex_number(record.number, 2);
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
        int size = did_size(did, sizes);
        if (size < 0) {
            leave_undecoded(report, body,
                            "DID " + uozuds::hex_number(did, 4) + " of " + where +
                                " has no known size: the rest is left undecoded");
            return false;
        }
        if (body.left() < 2 + static_cast<size_t>(size)) {
            leave_undecoded(report, body,
                            "DID " + uozuds::hex_number(did, 4) + " of " + where + " cut short");
            return false;
        }
        const char *name = uozuds::did_name(did);
        record.dids.push_back({did, name != nullptr ? name : "", hex_of(body.here() + 2, size)});
        body.at += 2 + size;
    }
    return true;
}

void decode_snapshot_records(Reader &body, Dtc &dtc, const DataSizes *sizes, DtcReport &report) {
    while (body.left() > 0) {
        DataRecord record;
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
        int size = record_size(number, sizes);
        if (size < 0) {
            leave_undecoded(report, body,
                            "extended data record " + uozuds::hex_number(number, 2) +
                                " has no known size: the rest is left undecoded");
            return;
        }
        if (body.left() < 1 + static_cast<size_t>(size)) {
            leave_undecoded(report, body,
                            "extended data record " + uozuds::hex_number(number, 2) + " cut short");
            return;
        }
        dtc.records.push_back({number, record_name(number), hex_of(body.here() + 1, size), -1, {}});
        body.at += 1 + size;
    }
}

// Reports 0x04, 0x06, 0x10 and, after their memory selection, 0x18 and 0x19:
// one DTC, its status, then its records.
void decode_dtc_with_records(int kind, Reader &body, const DataSizes *sizes, DtcReport &report) {
    if (kind == 0x18 || kind == 0x19) {
        if (body.left() < 1) {
            report.note = "response without a memory selection";
            return;
        }
        report.memory_selection = *body.here();
        ++body.at;
    }
    if (body.left() < 4) {
        report.note =
            "response too short for a DTC and its status: " + hex_of(body.here(), body.left());
        return;
    }
    Dtc dtc = make_dtc(dtc_at(body.here()), body.here()[3]);
    body.at += 4;
    if (kind == 0x04 || kind == 0x18)
        decode_snapshot_records(body, dtc, sizes, report);
    else
        decode_extended_records(body, dtc, sizes, report);
    report.dtcs.push_back(dtc);
}

// 0x05: the record number, then per record: number, DTC, status, identifiers.
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

// 0x16: the record number, then per DTC: DTC, status and the record's data.
void decode_extended_by_record(Reader &body, const DataSizes *sizes, DtcReport &report) {
    if (body.left() < 1) {
        report.note = "response without a record number";
        return;
    }
    const uint8_t number = *body.here();
    report.record_number = number;
    ++body.at;
    const int size = record_size(number, sizes);
    while (body.left() > 0) {
        if (body.left() < 4) {
            leave_undecoded(report, body, "DTC and status cut short");
            return;
        }
        Dtc dtc = make_dtc(dtc_at(body.here()), body.here()[3]);
        body.at += 4;
        if (size < 0) {
            report.dtcs.push_back(dtc);
            leave_undecoded(report, body,
                            "extended data record " + uozuds::hex_number(number, 2) +
                                " has no known size: the rest is left undecoded");
            return;
        }
        if (body.left() < static_cast<size_t>(size)) {
            report.dtcs.push_back(dtc);
            leave_undecoded(report, body,
                            "extended data record " + uozuds::hex_number(number, 2) + " cut short");
            return;
        }
        dtc.records.push_back({number, record_name(number), hex_of(body.here(), size), -1, {}});
        body.at += size;
        report.dtcs.push_back(dtc);
    }
}

void decode_status_list(const uint8_t *body, size_t length, DtcReport &report) {
    if (length < 1) {
        report.note = "response without an availability mask";
        return;
    }
    report.availability_mask = body[0];
    decode_items(body + 1, length - 1, 4, report, [&](const uint8_t *item) {
        report.dtcs.push_back(make_dtc(dtc_at(item), item[3]));
    });
}

void decode_body(int kind, const uint8_t *body, size_t length, const DataSizes *sizes,
                 DtcReport &report) {
    Reader reader{body, length};
    switch (kind) {
        case 0x01:
        case 0x07:
        case 0x11:
        case 0x12:
            if (length < 4) {
                report.note = "response too short for a count: " + hex_of(body, length);
                return;
            }
            report.availability_mask = body[0];
            report.format = body[1];
            report.count = (body[2] << 8) | body[3];
            if (length > 4)
                report.note = "extra bytes after the count: " + hex_of(body + 4, length - 4);
            return;
        case 0x02:
        case 0x0A:
        case 0x0B:
        case 0x0C:
        case 0x0D:
        case 0x0E:
        case 0x0F:
        case 0x13:
        case 0x15:
            decode_status_list(body, length, report);
            return;
        case 0x17:
            if (length < 1) {
                report.note = "response without a memory selection";
                return;
            }
            report.memory_selection = body[0];
            decode_status_list(body + 1, length - 1, report);
            return;
        case 0x03:
            decode_items(body, length, 4, report, [&](const uint8_t *item) {
                Dtc dtc = make_dtc(dtc_at(item), -1);
                dtc.record_number = item[3];
                report.dtcs.push_back(dtc);
            });
            return;
        case 0x04:
        case 0x06:
        case 0x10:
        case 0x18:
        case 0x19:
            decode_dtc_with_records(kind, reader, sizes, report);
            return;
        case 0x05:
            decode_stored_data(reader, sizes, report);
            return;
        case 0x08:
        case 0x09:
            if (length < 1) {
                report.note = "response without an availability mask";
                return;
            }
            report.availability_mask = body[0];
            decode_items(body + 1, length - 1, 6, report, [&](const uint8_t *item) {
                Dtc dtc = make_dtc(dtc_at(item + 2), item[5]);
                dtc.severity = item[0];
                dtc.functional_unit = item[1];
                report.dtcs.push_back(dtc);
            });
            return;
        case 0x14:
            decode_items(body, length, 4, report, [&](const uint8_t *item) {
                Dtc dtc = make_dtc(dtc_at(item), -1);
                dtc.fault_detection_counter = item[3];
                report.dtcs.push_back(dtc);
            });
            return;
        case 0x16:
            decode_extended_by_record(reader, sizes, report);
            return;
        default:
            report.note = "unknown report; bytes: " + hex_of(body, length);
            return;
    }
}

}  // namespace

std::string hex_of(const uint8_t *bytes, size_t length) {
    return uozuds::hex_spaced(bytes, length);
}

std::string dtc_text(uint32_t code) {
    static const char kLetters[] = "PCBU";
    char text[16];
    snprintf(text, sizeof(text), "%c%u%03X-%02X", kLetters[(code >> 22) & 0x3], (code >> 20) & 0x3,
             (code >> 8) & 0xFFF, code & 0xFF);
    return text;
}

std::vector<std::string> status_bit_names(uint8_t status) {
    std::vector<std::string> names;
    for (int bit = 0; bit < 8; ++bit) {
        if (status & (1u << bit))
            names.push_back(kStatusBits[bit]);
    }
    return names;
}

std::string nrc_name(uint8_t nrc) {
    return uozuds::nrc_name(nrc);
}

DtcReport decode_dtc_response(const uint8_t *bytes, size_t length, const DataSizes *sizes) {
    DtcReport report;
    if (length == 0 || bytes == nullptr) {
        report.note = "empty response";
        return report;
    }
    if (bytes[0] == 0x7F) {
        report.negative = true;
        if (length >= 3) {
            report.nrc = bytes[2];
            report.nrc_name = nrc_name(bytes[2]);
        } else {
            report.note = "negative response cut short: " + hex_of(bytes, length);
        }
        return report;
    }
    if (bytes[0] != 0x59 || length < 2) {
        report.note = "not a ReadDTCInformation response: " + hex_of(bytes, length);
        return report;
    }
    report.report = bytes[1];
    report.report_name = report_title(bytes[1]);
    decode_body(bytes[1], bytes + 2, length - 2, sizes, report);
    return report;
}

namespace {

std::string record_kind(int report) {
    switch (report) {
        case 0x04:
        case 0x18:
            return "snapshot record";
        case 0x05:
            return "stored data record";
    }
    return "extended data record";
}

std::string record_text(int report, const DataRecord &record) {
    std::string text = "      " + record_kind(report) + " " + uozuds::hex_number(record.number, 2);
    if (!record.name.empty())
        text += " (" + record.name + ")";
    if (record.identifier_count < 0)
        return text + ": " + record.hex + "\n";
    text += ", " + std::to_string(record.identifier_count) + " identifier(s)\n";
    for (const DidValue &value : record.dids) {
        text += "        DID " + uozuds::hex_number(value.did, 4);
        if (!value.name.empty())
            text += " (" + value.name + ")";
        text += ": " + value.hex + "\n";
    }
    return text;
}

std::string dtc_line(const Dtc &dtc) {
    char line[256];
    snprintf(line, sizeof(line), "  %s  (0x%06X)", dtc.text.c_str(), dtc.code);
    std::string text = line;
    if (dtc.status >= 0) {
        snprintf(line, sizeof(line), "  status 0x%02X", dtc.status);
        text += line;
        std::string names;
        for (const std::string &name : dtc.status_names)
            names += (names.empty() ? "" : ", ") + name;
        if (!names.empty())
            text += " [" + names + "]";
    }
    if (dtc.severity >= 0) {
        snprintf(line, sizeof(line), "  severity 0x%02X", dtc.severity);
        text += line;
    }
    if (dtc.fault_detection_counter >= 0) {
        snprintf(line, sizeof(line), "  fault detection counter %d",
                 static_cast<int8_t>(dtc.fault_detection_counter));
        text += line;
    }
    if (dtc.record_number >= 0 && dtc.records.empty()) {
        snprintf(line, sizeof(line), "  record 0x%02X", dtc.record_number);
        text += line;
    }
    return text + "\n";
}

}  // namespace

std::string report_to_text(const DtcReport &report) {
    std::string text;
    char line[256];
    if (report.negative) {
        snprintf(line, sizeof(line), "  negative response: NRC 0x%02X %s\n", report.nrc,
                 report.nrc_name.c_str());
        text += line;
    } else if (report.report >= 0) {
        snprintf(line, sizeof(line), "  report 0x%02X: %s\n", report.report,
                 report.report_name.c_str());
        text += line;
    }
    if (report.memory_selection >= 0)
        text += "  memory selection " + uozuds::hex_number(report.memory_selection, 2) + "\n";
    if (report.count >= 0) {
        snprintf(line, sizeof(line), "  %d DTC(s) (format 0x%02X, availability mask 0x%02X)\n",
                 report.count, report.format, report.availability_mask);
        text += line;
    }
    if (report.report >= 0 && report.dtcs.empty() && report.count < 0 && report.note.empty()) {
        text += report.record_number >= 0
                    ? "  no DTCs with record " + uozuds::hex_number(report.record_number, 2) + "\n"
                    : "  no DTCs\n";
    }
    for (const Dtc &dtc : report.dtcs) {
        text += dtc_line(dtc);
        for (const DataRecord &record : dtc.records)
            text += record_text(report.report, record);
    }
    if (!report.undecoded.empty())
        text += "  undecoded: " + report.undecoded + "\n";
    if (!report.note.empty())
        text += "  note: " + report.note + "\n";
    return text;
}

namespace {

void add_int(json_object *target, const char *key, int value) {
    if (value >= 0)
        json_object_object_add(target, key, json_object_new_int(value));
}

void add_text(json_object *target, const char *key, const std::string &value) {
    if (!value.empty())
        json_object_object_add(target, key, json_object_new_string(value.c_str()));
}

json_object *record_to_json(const DataRecord &record) {
    json_object *entry = json_object_new_object();
    add_int(entry, "number", record.number);
    add_text(entry, "name", record.name);
    if (record.identifier_count < 0) {
        json_object_object_add(entry, "data", json_object_new_string(record.hex.c_str()));
        return entry;
    }
    add_int(entry, "identifiers", record.identifier_count);
    json_object *dids = json_object_new_array();
    for (const DidValue &value : record.dids) {
        json_object *did = json_object_new_object();
        add_int(did, "did", value.did);
        add_text(did, "name", value.name);
        json_object_object_add(did, "data", json_object_new_string(value.hex.c_str()));
        json_object_array_add(dids, did);
    }
    json_object_object_add(entry, "dids", dids);
    return entry;
}

json_object *dtc_to_json(const Dtc &dtc) {
    json_object *item = json_object_new_object();
    json_object_object_add(item, "dtc", json_object_new_string(dtc.text.c_str()));
    json_object_object_add(item, "code", json_object_new_int(static_cast<int>(dtc.code)));
    add_int(item, "status", dtc.status);
    json_object *names = json_object_new_array();
    for (const std::string &name : dtc.status_names)
        json_object_array_add(names, json_object_new_string(name.c_str()));
    json_object_object_add(item, "status_bits", names);
    add_int(item, "severity", dtc.severity);
    add_int(item, "functional_unit", dtc.functional_unit);
    add_int(item, "fault_detection_counter", dtc.fault_detection_counter);
    add_int(item, "record_number", dtc.record_number);
    json_object *records = json_object_new_array();
    for (const DataRecord &record : dtc.records)
        json_object_array_add(records, record_to_json(record));
    json_object_object_add(item, "records", records);
    return item;
}

}  // namespace

json_object *report_to_json(const DtcReport &report) {
    json_object *object = json_object_new_object();
    json_object_object_add(object, "negative", json_object_new_boolean(report.negative));
    add_int(object, "nrc", report.nrc);
    add_text(object, "nrc_name", report.nrc_name);
    add_int(object, "report", report.report);
    add_int(object, "memory_selection", report.memory_selection);
    add_int(object, "record_number", report.record_number);
    add_int(object, "availability_mask", report.availability_mask);
    add_int(object, "format", report.format);
    add_int(object, "count", report.count);
    json_object *dtcs = json_object_new_array();
    for (const Dtc &dtc : report.dtcs)
        json_object_array_add(dtcs, dtc_to_json(dtc));
    json_object_object_add(object, "dtcs", dtcs);
    add_text(object, "undecoded", report.undecoded);
    add_text(object, "note", report.note);
    return object;
}

}  // namespace uozctl
