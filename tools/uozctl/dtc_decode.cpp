#include "dtc_decode.h"

#include <stdio.h>

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

void decode_dtc_with_records(const uint8_t *bytes, size_t length, DtcReport &report) {
    if (length < 4) {
        report.note = "response too short for a DTC and its status: " + hex_of(bytes, length);
        return;
    }
    Dtc dtc = make_dtc(dtc_at(bytes), bytes[3]);
    if (length > 4)
        dtc.records.push_back({bytes[4], hex_of(bytes + 5, length - 5)});
    report.dtcs.push_back(dtc);
}

void decode_body(int kind, const uint8_t *body, size_t length, DtcReport &report) {
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
        case 0x17:
            if (length < 1) {
                report.note = "response without an availability mask";
                return;
            }
            report.availability_mask = body[0];
            decode_items(body + 1, length - 1, 4, report, [&](const uint8_t *item) {
                report.dtcs.push_back(make_dtc(dtc_at(item), item[3]));
            });
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
            decode_dtc_with_records(body, length, report);
            return;
        case 0x05:
            if (length < 5) {
                report.note =
                    "response too short for a stored data record: " + hex_of(body, length);
                return;
            }
            {
                Dtc dtc = make_dtc(dtc_at(body + 1), body[4]);
                dtc.record_number = body[0];
                if (length > 5)
                    dtc.records.push_back({body[0], hex_of(body + 5, length - 5)});
                report.dtcs.push_back(dtc);
            }
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
            if (length < 1) {
                report.note = "response without a record number";
                return;
            }
            report.note = length > 1
                              ? "extended data of record " + std::to_string(body[0]) +
                                    " (layout defined by the ECU): " + hex_of(body + 1, length - 1)
                              : "";
            return;
        default:
            report.note = "unknown report; bytes: " + hex_of(body, length);
            return;
    }
}

}  // namespace

std::string hex_of(const uint8_t *bytes, size_t length) {
    std::string text;
    char pair[4];
    for (size_t i = 0; i < length; ++i) {
        snprintf(pair, sizeof(pair), i == 0 ? "%02X" : " %02X", bytes[i]);
        text += pair;
    }
    return text;
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
    switch (nrc) {
        case 0x10:
            return "generalReject";
        case 0x11:
            return "serviceNotSupported";
        case 0x12:
            return "subFunctionNotSupported";
        case 0x13:
            return "incorrectMessageLengthOrInvalidFormat";
        case 0x14:
            return "responseTooLong";
        case 0x21:
            return "busyRepeatRequest";
        case 0x22:
            return "conditionsNotCorrect";
        case 0x31:
            return "requestOutOfRange";
        case 0x33:
            return "securityAccessDenied";
        case 0x78:
            return "requestCorrectlyReceivedResponsePending";
        case 0x7E:
            return "subFunctionNotSupportedInActiveSession";
        case 0x7F:
            return "serviceNotSupportedInActiveSession";
        default:
            return "unknown";
    }
}

DtcReport decode_dtc_response(const uint8_t *bytes, size_t length) {
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
    decode_body(bytes[1], bytes + 2, length - 2, report);
    return report;
}

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
    if (report.count >= 0) {
        snprintf(line, sizeof(line), "  %d DTC(s) (format 0x%02X, availability mask 0x%02X)\n",
                 report.count, report.format, report.availability_mask);
        text += line;
    }
    if (report.report >= 0 && report.dtcs.empty() && report.count < 0 && report.note.empty()) {
        text += "  no DTCs\n";
    }
    for (const Dtc &dtc : report.dtcs) {
        snprintf(line, sizeof(line), "  %s  (0x%06X)", dtc.text.c_str(), dtc.code);
        text += line;
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
        text += "\n";
        for (const DataRecord &record : dtc.records) {
            snprintf(line, sizeof(line), "      record 0x%02X: %s\n", record.number,
                     record.hex.c_str());
            text += line;
        }
    }
    if (!report.note.empty())
        text += "  note: " + report.note + "\n";
    return text;
}

json_object *report_to_json(const DtcReport &report) {
    json_object *object = json_object_new_object();
    auto add_int = [](json_object *target, const char *key, int value) {
        if (value >= 0)
            json_object_object_add(target, key, json_object_new_int(value));
    };
    json_object_object_add(object, "negative", json_object_new_boolean(report.negative));
    add_int(object, "nrc", report.nrc);
    if (!report.nrc_name.empty()) {
        json_object_object_add(object, "nrc_name", json_object_new_string(report.nrc_name.c_str()));
    }
    add_int(object, "report", report.report);
    add_int(object, "availability_mask", report.availability_mask);
    add_int(object, "format", report.format);
    add_int(object, "count", report.count);
    json_object *dtcs = json_object_new_array();
    for (const Dtc &dtc : report.dtcs) {
        json_object *item = json_object_new_object();
        json_object_object_add(item, "dtc", json_object_new_string(dtc.text.c_str()));
        json_object_object_add(item, "code", json_object_new_int(static_cast<int>(dtc.code)));
        add_int(item, "status", dtc.status);
        json_object *names = json_object_new_array();
        for (const std::string &name : dtc.status_names) {
            json_object_array_add(names, json_object_new_string(name.c_str()));
        }
        json_object_object_add(item, "status_bits", names);
        add_int(item, "severity", dtc.severity);
        add_int(item, "functional_unit", dtc.functional_unit);
        add_int(item, "fault_detection_counter", dtc.fault_detection_counter);
        add_int(item, "record_number", dtc.record_number);
        json_object *records = json_object_new_array();
        for (const DataRecord &record : dtc.records) {
            json_object *entry = json_object_new_object();
            add_int(entry, "number", record.number);
            json_object_object_add(entry, "data", json_object_new_string(record.hex.c_str()));
            json_object_array_add(records, entry);
        }
        json_object_object_add(item, "records", records);
        json_object_array_add(dtcs, item);
    }
    json_object_object_add(object, "dtcs", dtcs);
    if (!report.note.empty())
        json_object_object_add(object, "note", json_object_new_string(report.note.c_str()));
    return object;
}

}  // namespace uozctl
