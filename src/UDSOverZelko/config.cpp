// The ECU configuration file: every valid entry of "configs" becomes an ECU
// record; invalid entries are dropped with a message and never fail the load.
#include "UDSOverZelko/config.h"

#include <ctype.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <memory>

#include "kt5Utils/kt5_json.h"

namespace {

constexpr const char *kDefaultCanTiming = "0x00";

// Reads the transport block's texts in order; -1 at the first missing
// required one, after reporting it. Texts copied before stay with the record.
int read_transport(EcuConfig *record, json_object *entry) {
    const char *block = transport_block_key(record->type);
    for (const TransportParam *param : transport_params(record->type)) {
        const char *text = param->missing == nullptr ? kDefaultCanTiming : nullptr;
        if (kt5_json_get(entry, json_type_string, &text, block, param->key, nullptr) != 0 &&
            param->missing != nullptr) {
            UOZ_SET_ERROR(param->missing);
            return -1;
        }
        record->*param->field = uoz_strdup(text);
        if (record->*param->field == nullptr) {
            UOZ_SET_ERROR("Memory Allocation failed");
            return -1;
        }
    }
    return 0;
}

void free_texts(EcuConfig *record) {
    char *EcuConfig::*const fields[] = {
        &EcuConfig::name,        &EcuConfig::ifname, &EcuConfig::func_addr, &EcuConfig::phy_req_id,
        &EcuConfig::phy_resp_id, &EcuConfig::st_min, &EcuConfig::bsize,     &EcuConfig::gw_ip,
        &EcuConfig::sa,          &EcuConfig::ta,     &EcuConfig::bus_id,
    };
    for (char *EcuConfig::*field : fields) {
        free(record->*field);
        record->*field = nullptr;
    }
}

// A record whose reply wait does not exist yet: its texts and itself.
struct DiscardRecord {
    void operator()(EcuConfig *record) const {
        free_ecu_config(record);
        free(record);
    }
};
using PartialRecord = std::unique_ptr<EcuConfig, DiscardRecord>;

// Builds the record of one "configs" element, or returns nullptr after
// reporting why the entry is dropped. *out_of_memory stops the load.
EcuConfig *read_entry(json_object *entry, bool *ioc_seen, bool *out_of_memory) {
    PartialRecord record(static_cast<EcuConfig *>(calloc(1, sizeof(EcuConfig))));
    if (!record) {
        UOZ_SET_ERROR("Memory Allocation failed");
        *out_of_memory = true;
        return nullptr;
    }
    const char *text = nullptr;
    if (entry == nullptr || kt5_json_get(entry, json_type_string, &text, "type", nullptr) != 0) {
        UOZ_DBGLOG(UOZ_LOG_ERR, "Could not parse 'type'");
        return nullptr;
    }
    record->type = parse_transport_type(text);
    if (kt5_json_get(entry, json_type_string, &text, "targetAddress", nullptr) != 0) {
        UOZ_DBGLOG(UOZ_LOG_ERR, "Could not parse ");
        return nullptr;
    }
    record->target_address = parse_target_address(text);
    UOZ_DBGLOG(UOZ_LOG_INFO, "Parsing %04X address\n", record->target_address);
    if (kt5_json_get(entry, json_type_string, &text, "name", nullptr) != 0) {
        UOZ_DBGLOG(UOZ_LOG_ERR, "Could not parse ");
        return nullptr;
    }
    record->name = uoz_strdup(text);
    if (record->name == nullptr) {
        *out_of_memory = true;
        return nullptr;
    }
    if (read_transport(record.get(), entry) != 0)
        return nullptr;
    // An IOC entry makes the broadcast record IOC even when it is dropped below.
    if (record->type == TRANSPORT_IOC)
        *ioc_seen = true;
    if (read_ecu_version(entry, record.get()) != 0 || reply_wait_init(&record->reply_wait) != 0)
        return nullptr;
    return record.release();
}

EcuConfig *new_broadcast_record(bool ioc_seen) {
    auto *record = static_cast<EcuConfig *>(calloc(1, sizeof(EcuConfig)));
    if (record == nullptr)
        return nullptr;
    record->type = ioc_seen ? TRANSPORT_IOC : TRANSPORT_CAN;
    record->target_address = -1;
    if (reply_wait_init(&record->reply_wait) != 0) {
        free(record);
        return nullptr;
    }
    return record;
}

}  // namespace

TransportType parse_transport_type(const char *text) {
    if (text == nullptr)
        return TRANSPORT_CAN;
    if (strcmp(text, "CANFD") == 0)
        return TRANSPORT_CANFD;
    if (strcmp(text, "DOIP") == 0)
        return TRANSPORT_DOIP;
    if (strcmp(text, "IOC") == 0)
        return TRANSPORT_IOC;
    return TRANSPORT_CAN;
}

// Reads the text as a 32-bit strtoul with base 16 would: a minus sign negates
// modulo 2^32 and a magnitude beyond 32 bits gives all bits set.
int32_t parse_target_address(const char *text) {
    if (text == nullptr)
        return 0;
    const char *start = text;
    while (isspace(static_cast<unsigned char>(*start)))
        ++start;
    bool negative = *start == '-';
    errno = 0;
    unsigned long long value = strtoull(text, nullptr, 16);
    unsigned long long magnitude = negative ? 0ULL - value : value;
    if (errno == ERANGE || magnitude > 0xFFFFFFFFULL)
        return -1;
    uint32_t bits = static_cast<uint32_t>(magnitude);
    return static_cast<int32_t>(negative ? 0u - bits : bits);
}

int read_ecu_version(json_object *entry, EcuConfig *record) {
    json_object *version = nullptr;
    if (kt5_json_get(entry, json_type_object, &version, "ecu_version", nullptr) != 0) {
        UOZ_SET_ERROR("No ecu version information available");
        return 0;
    }
    JsonPtr owned(version);
    UOZ_DBGLOG(UOZ_LOG_INFO, "%s\n", json_object_to_json_string(version));
    bool has_uds = kt5_json_borrow(version, json_type_array, "uds", nullptr) != nullptr;
    if (!has_uds)
        UOZ_DBGLOG(UOZ_LOG_INFO, "No uds ecu version information available");
    bool has_j1939 = kt5_json_borrow(version, json_type_object, "j1939", nullptr) != nullptr;
    if (!has_j1939)
        UOZ_DBGLOG(UOZ_LOG_INFO, "No j1939 ecu version information available");
    if (has_uds && has_j1939) {
        UOZ_SET_ERROR("Both J1939 and UDS can not be used to get the ECU version information");
        return -1;
    }
    record->ecu_version = owned.release();
    UOZ_DBGLOG(UOZ_LOG_INFO, "%s\n", json_object_to_json_string(record->ecu_version));
    return 0;
}

void free_ecu_config(EcuConfig *record) {
    if (record == nullptr)
        return;
    free_texts(record);
    json_object_put(record->ecu_version);
    record->ecu_version = nullptr;
}

// A "configs" member that is not an array fails the load like a missing one.
int load_ecu_config(UDSOverZelkoHandle *handle, const char *path) {
    JsonPtr document(path != nullptr ? json_object_from_file(path) : nullptr);
    if (!document) {
        UOZ_DBGLOG(UOZ_LOG_ERR, "Config failure");
        return -1;
    }
    json_object *configs = nullptr;
    if (!json_object_object_get_ex(document.get(), "configs", &configs) ||
        !json_object_is_type(configs, json_type_array)) {
        return -1;
    }
    bool ioc_seen = false;
    bool out_of_memory = false;
    EcuConfig **tail = &handle->ecus;
    size_t count = json_object_array_length(configs);
    for (size_t i = 0; i < count && !out_of_memory; ++i) {
        EcuConfig *record =
            read_entry(json_object_array_get_idx(configs, i), &ioc_seen, &out_of_memory);
        if (record == nullptr)
            continue;
        *tail = record;
        tail = &record->next;
    }
    handle->broadcast_ecu = new_broadcast_record(ioc_seen);
    if (handle->broadcast_ecu == nullptr || !index_request_ids(handle)) {
        UOZ_SET_ERROR("Memory Allocation failed");
        return -1;
    }
    return 0;
}

// A record without version information prints "ECU Version Information: null".
void print_ecu_config(UDSOverZelkoHandle *handle) {
    for (EcuConfig *record = handle->ecus; record != nullptr; record = record->next) {
        UOZ_DBGLOG(UOZ_LOG_INFO, "Target Address: 0x%04X\n", record->target_address);
        UOZ_DBGLOG(UOZ_LOG_INFO, "ECU Version Information: %s\n",
                   json_object_to_json_string(record->ecu_version));
        UOZ_DBGLOG(UOZ_LOG_INFO, "TP Info:");
        switch (record->type) {
            case TRANSPORT_CAN:
                UOZ_DBGLOG(UOZ_LOG_INFO, "CAN Interface Name %s:", record->ifname);
                UOZ_DBGLOG(UOZ_LOG_INFO, "Request ID:%s", record->phy_req_id);
                UOZ_DBGLOG(UOZ_LOG_INFO, "Response ID:%s", record->phy_resp_id);
                UOZ_DBGLOG(UOZ_LOG_INFO, "Block Size:%s", record->bsize);
                UOZ_DBGLOG(UOZ_LOG_INFO, "Sepeartion :%s", record->st_min);
                break;
            case TRANSPORT_DOIP:
                UOZ_DBGLOG(UOZ_LOG_INFO, "GW IP Address: %s", record->gw_ip);
                UOZ_DBGLOG(UOZ_LOG_INFO, "SA: %s", record->sa);
                UOZ_DBGLOG(UOZ_LOG_INFO, "TA: %s", record->ta);
                break;
            case TRANSPORT_CANFD:
            case TRANSPORT_IOC:
                break;
        }
    }
}
