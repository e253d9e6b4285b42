#include "dtc_decode.h"

#include <stdio.h>

namespace uozctl {

namespace {

const char *record_kind(uozuds::RecordKind kind) {
    switch (kind) {
        case uozuds::RecordKind::kSnapshot:
            return "snapshot record";
        case uozuds::RecordKind::kStoredData:
            return "stored data record";
        case uozuds::RecordKind::kExtended:
            return "extended data record";
    }
    return "";
}

std::string record_text(const DataRecord &record) {
    std::string text = std::string("      ") + record_kind(record.kind) + " " +
                       uozuds::hex_number(record.number, 2);
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
    if (report.negative && report.nrc < 0) {
        text += "  negative response\n";  // cut short before its code: the note says so
    } else if (report.negative) {
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
            text += record_text(record);
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

json_object *text_json(const std::string &text) {
    return json_object_new_string(text.c_str());
}

// An array of every item as to_json gives it, empty ones included.
template <typename Item, typename ToJson>
void add_array(json_object *target, const char *key, const std::vector<Item> &items,
               ToJson to_json) {
    json_object *array = json_object_new_array();
    for (const Item &item : items)
        json_object_array_add(array, to_json(item));
    json_object_object_add(target, key, array);
}

json_object *did_to_json(const DidValue &value) {
    json_object *did = json_object_new_object();
    add_int(did, "did", value.did);
    add_text(did, "name", value.name);
    json_object_object_add(did, "data", text_json(value.hex));
    return did;
}

json_object *record_to_json(const DataRecord &record) {
    json_object *entry = json_object_new_object();
    add_int(entry, "number", record.number);
    add_text(entry, "name", record.name);
    if (record.identifier_count < 0) {
        json_object_object_add(entry, "data", text_json(record.hex));
        return entry;
    }
    add_int(entry, "identifiers", record.identifier_count);
    add_array(entry, "dids", record.dids, did_to_json);
    return entry;
}

json_object *dtc_to_json(const Dtc &dtc) {
    json_object *item = json_object_new_object();
    json_object_object_add(item, "dtc", text_json(dtc.text));
    json_object_object_add(item, "code", json_object_new_int(static_cast<int>(dtc.code)));
    add_int(item, "status", dtc.status);
    add_array(item, "status_bits", dtc.status_names, text_json);
    add_int(item, "severity", dtc.severity);
    add_int(item, "functional_unit", dtc.functional_unit);
    add_int(item, "fault_detection_counter", dtc.fault_detection_counter);
    add_int(item, "record_number", dtc.record_number);
    add_array(item, "records", dtc.records, record_to_json);
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
    add_array(object, "dtcs", report.dtcs, dtc_to_json);
    add_text(object, "undecoded", report.undecoded);
    add_text(object, "note", report.note);
    return object;
}

}  // namespace uozctl
