// ReadDTCInformation (UDS 0x19): the request is described to the agent in
// words and hexadecimal text, never as raw UDS bytes.
#include <stdio.h>
#include <string.h>

#include <utility>

#include "UDSOverZelko/exchange.h"
#include "UDSOverZelko/read_dtc.h"
#include "kt5Utils/kt5_json.h"

const char *const uds_status_mask_names[8] = {
    "UDS_STATUS_MASK_TEST_FAILED",
    "UDS_STATUS_MASK_TEST_FAILED_THIS_OP_CYCLE",
    "UDS_STATUS_MASK_PENDING_DTC",
    "UDS_STATUS_MASK_CONFIRMED_DTC",
    "UDS_STATUS_MASK_TEST_NOT_COMPLETED_SINCE_LAST_CLEAR",
    "UDS_STATUS_MASK_TEST_FAILED_SINCE_LAST_CLEAR",
    "UDS_STATUS_MASK_TEST_NOT_COMPLETED_THIS_OP_CYCLE",
    "UDS_STATUS_MASK_WARNING_INDICATOR_REQUESTED",
};

const char *const uds_report_names[26] = {
    "",
    "UDS_REPORT_NO_DTC_BY_STATUS_MASK",
    "UDS_REPORT_DTC_BY_STATUS_MASK",
    "UDS_REPORT_DTC_SNAPSHOT_IDENTIFICATION",
    "UDS_REPORT_DTC_SNAPSHOT_RECORD_BY_DTC_NUMBER",
    "UDS_REPORT_DTC_STORED_DATA_BY_RECORD_NUMBER",
    "UDS_REPORT_DTC_EXT_DATA_RECORD_BY_DTC_NUMBER",
    "UDS_REPORT_NO_DTC_BY_SEVERITY_MASK_RECORD",
    "UDS_REPORT_DTC_BY_SEVERITY_MASK_RECORD",
    "UDS_REPORT_SEVERITY_INFORMATION_OF_DTC",
    "UDS_REPORT_SUPPORTED_DTCS",
    "UDS_REPORT_FIRST_TEST_FAILED_DTC",
    "UDS_REPORT_FIRST_CONFIRMED_DTC",
    "UDS_REPORT_MOST_RECENT_TEST_FAILED_DTC",
    "UDS_REPORT_MOST_RECENT_CONFIRMED_DTC",
    "UDS_REPORT_MIRROR_MR_DTC_BY_STATUS_MASK",
    "UDS_REPORT_MIRROR_MR_DTC_EXT_DATA_RECORD_BY_DTC",
    "UDS_REPORT_NO_MIRROR_MR_DTC_BY_STATUS_MASK",
    "UDS_REPORT_NO_EMISSION_OBD_DTC_BY_STATUS_MASK",
    "UDS_REPORT_EMISSION_OBD_DTC_BY_STATUS_MASK",
    "UDS_REPORT_DTC_FAULT_DETECTION_COUNTER",
    "UDS_REPORT_DTC_WITH_PERMANENT_STATUS",
    "UDS_REPORT_DTC_EXT_DATA_RECORD_BY_RECORD_NUMBER",
    "UDS_REPORT_USER_DEF_MR_DTC_BY_STATUS_MASK",
    "UDS_REPORT_USER_DEF_MR_DTC_SNAP_REC_BY_DTC",
    "UDS_REPORT_USER_DEF_MR_DTC_EXT_DATA_REC_BY_DTC",
};

namespace {

// Appends text to a bounded buffer, cutting what does not fit.
void append(char *buffer, size_t size, const char *text) {
    size_t used = strlen(buffer);
    if (used + 1 < size)
        snprintf(buffer + used, size - used, "%s", text);
}

// "type" and "record" of a DTC and/or record number request.
bool add_number_record(json_object *data_record, uint32_t params, uint32_t dtc_number,
                       uint8_t record_number) {
    char type[16] = "";
    char record[16] = "";
    char number[16];
    if (params & PARAM_DTC) {
        snprintf(number, sizeof(number), "%06X", dtc_number);
        append(record, sizeof(record), number);
        append(type, sizeof(type), "DTC");
    }
    if (params & PARAM_RECORD) {
        snprintf(number, sizeof(number), "%02X", record_number);
        append(record, sizeof(record), number);
        if (params & PARAM_DTC)
            append(type, sizeof(type), "_AND_");
        append(type, sizeof(type), "RECORD");
    }
    if (!kt5_json_add(data_record, "type", json_object_new_string(type))) {
        UOZ_SET_ERROR("Could not add 'type' to JSON");
        return false;
    }
    if (!kt5_json_add(data_record, "record", json_object_new_string(record))) {
        UOZ_SET_ERROR("Could not add 'record' to JSON");
        return false;
    }
    return true;
}

bool add_status_mask_record(json_object *data_record, uint32_t status_mask) {
    if (!kt5_json_add(data_record, "type", json_object_new_string("STATUS_MASK"))) {
        UOZ_SET_ERROR("Could not add 'type' to JSON");
        return false;
    }
    json_object *names = status_mask_to_names(status_mask);
    if (names == nullptr) {
        UOZ_SET_ERROR("Could not get Mask");
        return false;
    }
    if (!kt5_json_add(data_record, "record", names)) {
        UOZ_SET_ERROR("Could not add 'record' to JSON");
        return false;
    }
    return true;
}

int read_dtc_entry(UDSOverZelkoHandle *handle, int32_t target_address, uint32_t subfunction,
                   uint32_t status_mask, uint32_t dtc_number, uint8_t record_number,
                   DTCBuffer *dtc_buffer) {
    UOZ_LOG_BANNER();
    if (dtc_subfunction_supported(subfunction) != 0) {
        UOZ_DBGLOG(UOZ_LOG_ERR, "Subfunction not supported\n");
        return UOZ_ERR_UNSUPPORTED_SUBFUNCTION;
    }
    if (handle == nullptr) {
        UOZ_SET_ERROR("Invalid UDS Handler");
        return UOZ_ERR_GENERAL;
    }
    return read_dtc_info(handle, target_address, subfunction, status_mask, dtc_number,
                         record_number, dtc_buffer);
}

}  // namespace

int dtc_subfunction_supported(uint32_t subfunction) {
    bool accepted = (subfunction >= 0x01 && subfunction <= 0x06) ||
                    (subfunction >= 0x09 && subfunction <= 0x16);
    return accepted ? 0 : -3;
}

uint32_t dtc_subfunction_params(uint32_t subfunction) {
    switch (subfunction) {
        case 0x01:
        case 0x02:
        case 0x0F:
        case 0x11:
        case 0x12:
        case 0x13:
            return PARAM_STATUS_MASK;
        case 0x03:
        case 0x0A:
        case 0x0B:
        case 0x0C:
        case 0x0D:
        case 0x0E:
        case 0x14:
        case 0x15:
            return PARAM_NONE;
        case 0x04:
        case 0x06:
        case 0x10:
            return PARAM_DTC | PARAM_RECORD;
        case 0x05:
        case 0x16:
            return PARAM_RECORD;
        case 0x09:
            return PARAM_DTC;
        default:
            UOZ_DBGLOG(UOZ_LOG_WARN, "Invalid subfunction");
            return PARAM_NONE;
    }
}

const char *report_name(uint32_t subfunction) {
    return subfunction < 26 ? uds_report_names[subfunction] : "";
}

int lowest_set_bit(int32_t value) {
    if (value <= 0)
        return 0;
    int position = 0;
    while ((value & 1) == 0) {
        value >>= 1;
        ++position;
    }
    UOZ_DBGLOG(UOZ_LOG_INFO, "Bit at position %d is set\n", position);
    return position;
}

const char *status_mask_bit_name(uint32_t bit) {
    int position = lowest_set_bit(static_cast<int32_t>(bit));
    return position < 8 ? uds_status_mask_names[position] : "";
}

json_object *status_mask_to_names(uint32_t status_mask) {
    json_object *names = json_object_new_array();
    if (names == nullptr) {
        UOZ_SET_ERROR("Could not create json array");
        return nullptr;
    }
    for (uint32_t bit = 0x01; bit <= 0x80; bit <<= 1) {
        if (status_mask & bit) {
            json_object_array_add(names, json_object_new_string(status_mask_bit_name(bit)));
        }
    }
    return names;
}

json_object *build_read_dtc_body(uint32_t subfunction, uint32_t status_mask, uint32_t dtc_number,
                                 uint8_t record_number) {
    JsonPtr body(json_object_new_object());
    if (!body) {
        UOZ_SET_ERROR("Could not create new JSON Message");
        return nullptr;
    }
    if (!kt5_json_add(body.get(), "SID", json_object_new_string("0x19"))) {
        UOZ_SET_ERROR("Could not add 'SID' to JSON");
        return nullptr;
    }
    if (!kt5_json_add(body.get(), "subfunction",
                      json_object_new_string(report_name(subfunction)))) {
        UOZ_SET_ERROR("Could not add 'subfunction' to JSON");
        return nullptr;
    }
    uint32_t params = dtc_subfunction_params(subfunction);
    if (params & PARAM_NONE)
        return body.release();
    JsonPtr data_record(json_object_new_object());
    bool built = data_record &&
                 ((params & PARAM_STATUS_MASK)
                      ? add_status_mask_record(data_record.get(), status_mask)
                      : add_number_record(data_record.get(), params, dtc_number, record_number));
    if (!built)
        return nullptr;
    if (!kt5_json_add(body.get(), "data-record", data_record.release())) {
        UOZ_SET_ERROR("Could not add 'data-record' to JSON");
        return nullptr;
    }
    return body.release();
}

int read_dtc_info(UDSOverZelkoHandle *handle, int32_t target_address, uint32_t subfunction,
                  uint32_t status_mask, uint32_t dtc_number, uint8_t record_number,
                  DTCBuffer *dtc_buffer) {
    if (dtc_buffer == nullptr) {
        UOZ_SET_ERROR("DTCBuffer is NULL");
        return UOZ_ERR_GENERAL;
    }
    JsonPtr body(build_read_dtc_body(subfunction, status_mask, dtc_number, record_number));
    if (!body) {
        UOZ_SET_ERROR("Unable to get UDS Data");
        return UOZ_ERR_GENERAL;
    }
    int32_t result =
        query_exchange(handle, target_address, dtc_buffer, std::move(body), QUERY_UDS_DATA);
    if (result < 0) {
        UOZ_SET_ERROR("getting dtc failed");
        return UOZ_ERR_GENERAL;
    }
    return result;
}

int UDSOverZelko_ReadDTCInfo(UDSOverZelkoHandle *handle, int32_t target_address,
                             uint32_t subfunction, uint32_t status_mask, DTCBuffer *dtc_buffer) {
    return read_dtc_entry(handle, target_address, subfunction, status_mask, 0, 0, dtc_buffer);
}

int UDSOverZelko_ReadDTCInfoByDTCAndRecordNumber(UDSOverZelkoHandle *handle, int32_t target_address,
                                                 uint32_t subfunction, uint32_t dtc_number,
                                                 uint8_t record_number, DTCBuffer *dtc_buffer) {
    return read_dtc_entry(handle, target_address, subfunction, 0, dtc_number, record_number,
                          dtc_buffer);
}
