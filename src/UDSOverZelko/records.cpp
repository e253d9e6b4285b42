// The last-error text, the handle, the transport parameter table and the
// release helpers of the result records.
#include "UDSOverZelko/records.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <new>
#include <string_view>
#include <unordered_map>

#include "UDSOverZelko/config.h"

struct RequestIdIndex {
    // Keys are the records' own texts, which live as long as the handle.
    std::unordered_map<std::string_view, const EcuConfig *> records;
};

thread_local char uoz_last_error[UOZ_LAST_ERROR_SIZE];

void uoz_set_last_error(const char *text) {
    snprintf(uoz_last_error, sizeof(uoz_last_error), "%s", text != nullptr ? text : "");
}

void uoz_format_last_error(const char *format, ...) {
    va_list args;
    va_start(args, format);
    vsnprintf(uoz_last_error, sizeof(uoz_last_error), format, args);
    va_end(args);
}

namespace {

const TransportParam kIfname = {"ifname", &EcuConfig::ifname, "could not find 'ifname'",
                                "Could not add 'ifname' to JSON"};
const TransportParam kFuncAddr = {"func-addr", &EcuConfig::func_addr, "could not find 'func-addr'",
                                  "Could not add 'func-addr' to JSON"};
const TransportParam kPhyReqId = {"phy-req-id", &EcuConfig::phy_req_id,
                                  "could not find 'phy-req-id'",
                                  "Could not add 'phy-req-id' to JSON"};
const TransportParam kPhyRespId = {"phy-resp-id", &EcuConfig::phy_resp_id,
                                   "could not find 'phy-resp-id'",
                                   "Could not add 'phy-resp-id' to JSON"};
const TransportParam kStMin = {"st-min", &EcuConfig::st_min, nullptr,
                               "Could not add 'st-min' to JSON"};
const TransportParam kBsize = {"bsize", &EcuConfig::bsize, nullptr,
                               "Could not add 'bsize' to JSON"};
const TransportParam kBusId = {"bus-id", &EcuConfig::bus_id, "could not find 'bus-id'",
                               "Could not add 'bus_id' to JSON"};
// The configuration's messages lack their closing quote, as they always have.
const TransportParam kSa = {"sa", &EcuConfig::sa, "could not find 'sa",
                            "Could not add 'sa' to JSON"};
const TransportParam kTa = {"ta", &EcuConfig::ta, "could not find 'ta",
                            "Could not add 'ta' to JSON"};
const TransportParam kGwIp = {"gw-ip", &EcuConfig::gw_ip, "could not find 'gw-ip",
                              "Could not add 'gw-ip' to JSON"};

const TransportParam *const kCanParams[] = {&kIfname,    &kFuncAddr, &kPhyReqId,
                                            &kPhyRespId, &kStMin,    &kBsize};
const TransportParam *const kIocParams[] = {&kBusId, &kFuncAddr, &kPhyReqId, &kPhyRespId};
const TransportParam *const kDoipParams[] = {&kSa, &kTa, &kGwIp};

template <size_t N>
TransportParams params_of(const TransportParam *const (&params)[N]) {
    return {params, params + N};
}

void release_ecu_record(EcuConfig *record) {
    if (record == nullptr)
        return;
    free_ecu_config(record);
    reply_wait_destroy(&record->reply_wait);
    free(record);
}

}  // namespace

const char *transport_block_key(TransportType type) {
    switch (type) {
        case TRANSPORT_CAN:
            return "can";
        case TRANSPORT_CANFD:
            return "canfd";
        case TRANSPORT_DOIP:
            return "doip";
        case TRANSPORT_IOC:
            return "ioc";
    }
    return nullptr;
}

TransportParams transport_params(TransportType type) {
    switch (type) {
        case TRANSPORT_CAN:
            return params_of(kCanParams);
        case TRANSPORT_IOC:
            return params_of(kIocParams);
        case TRANSPORT_DOIP:
            return params_of(kDoipParams);
        case TRANSPORT_CANFD:
            break;
    }
    return {nullptr, nullptr};
}

UDSOverZelkoHandle *new_handle() {
    auto *handle = static_cast<UDSOverZelkoHandle *>(calloc(1, sizeof(UDSOverZelkoHandle)));
    if (handle != nullptr && reply_wait_init(&handle->consent_wait) != 0) {
        free(handle);
        return nullptr;
    }
    return handle;
}

void release_handle(UDSOverZelkoHandle *handle) {
    if (handle == nullptr)
        return;
    for (EcuConfig *record = handle->ecus; record != nullptr;) {
        EcuConfig *next = record->next;
        release_ecu_record(record);
        record = next;
    }
    release_ecu_record(handle->broadcast_ecu);
    delete handle->request_ids;
    free(handle->config_path);
    reply_wait_destroy(&handle->consent_wait);
    free(handle);
}

EcuConfig *find_ecu(UDSOverZelkoHandle *handle, int32_t target_address) {
    for (EcuConfig *record = handle->ecus; record != nullptr; record = record->next) {
        if (record->target_address == target_address)
            return record;
    }
    return nullptr;
}

bool index_request_ids(UDSOverZelkoHandle *handle) {
    auto *index = new (std::nothrow) RequestIdIndex;
    if (index == nullptr)
        return false;
    try {
        for (const EcuConfig *record = handle->ecus; record != nullptr; record = record->next) {
            bool has_request_id = record->type == TRANSPORT_CAN || record->type == TRANSPORT_IOC;
            // emplace keeps the first record of a text: the earlier entry wins.
            if (has_request_id && record->phy_req_id != nullptr)
                index->records.emplace(record->phy_req_id, record);
        }
    } catch (const std::bad_alloc &) {
        delete index;
        return false;
    }
    delete handle->request_ids;
    handle->request_ids = index;
    return true;
}

const EcuConfig *find_ecu_by_request_id(const UDSOverZelkoHandle *handle, const char *request_id) {
    if (handle->request_ids == nullptr)
        return nullptr;
    auto found = handle->request_ids->records.find(request_id);
    return found != handle->request_ids->records.end() ? found->second : nullptr;
}

void UDSOverZelko_FreeDTCBuffer(DTCBuffer *buffer) {
    if (buffer == nullptr)
        return;
    if (buffer->entries != nullptr) {
        for (int32_t i = 0; i < buffer->count; ++i) {
            DTCBufferEntry *entry = buffer->entries[i];
            if (entry == nullptr)
                continue;
            free(entry->data);
            free(entry->ecu_name);
            free(entry);
        }
        free(buffer->entries);
    }
    buffer->entries = nullptr;
    buffer->count = 0;
}

void UDSOverZelko_FreeCommandResponse(CommandResponse *response) {
    if (response == nullptr)
        return;
    free(response->body_text);
    response->body_text = nullptr;
    response->status = 0;
}
