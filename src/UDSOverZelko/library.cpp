// The library's front door: start, stop, and the look-ups between ECU names
// and target addresses.
#include <stdio.h>
#include <stdlib.h>
#include <strings.h>

#include "UDSOverZelko/config.h"
#include "UDSOverZelko/exchange.h"
#include "zelkobus/zelkobus.h"

namespace {

constexpr size_t kBrokerUrlSize = 1024;

// The first missing required text of the broker configuration, or nullptr.
const char *missing_broker_text(const BrokerConfig *broker) {
    if (broker->broker_ip == nullptr)
        return "Invlid broker IP";
    if (broker->cert_path == nullptr)
        return "Invlaid Certpath";
    if (broker->node_address == nullptr)
        return "Invlaid node Address";
    return nullptr;
}

}  // namespace

UDSOverZelkoHandle *UDSOverZelko_Init(const BrokerConfig *broker, const char *config_path) {
    UOZ_LOG_BANNER();
    if (config_path == nullptr || broker == nullptr) {
        UOZ_DBGLOG(UOZ_LOG_ERR, "Invalid uds config or broker configuration provided\n");
        return nullptr;
    }
    uoz_dbg_level = broker->debug_level;
    auto *handle = static_cast<UDSOverZelkoHandle *>(calloc(1, sizeof(UDSOverZelkoHandle)));
    if (handle == nullptr) {
        UOZ_SET_ERROR("Memory Allocation failed");
        return nullptr;
    }
    if (const char *missing = missing_broker_text(broker)) {
        UOZ_SET_ERROR(missing);
        free(handle);
        return nullptr;
    }
    if (reply_wait_init(&handle->consent_wait) != 0) {
        UOZ_SET_ERROR("Memory Allocation failed");
        free(handle);
        return nullptr;
    }
    if (load_ecu_config(handle, config_path) != 0) {
        UOZ_DBGLOG(UOZ_LOG_ERR, "Could not parse configuration\n");
        return nullptr;
    }
    char url[kBrokerUrlSize] = "";
    snprintf(url, sizeof(url), "tcp://%s:%d", broker->broker_ip, broker->port);
    handle->bus =
        zebus_init(nullptr, broker->cert_path, url, handle, on_bus_message, broker->bus_option);
    if (handle->bus == nullptr) {
        UDSOverZelko_Terminate(handle);
        return nullptr;
    }
    print_ecu_config(handle);
    // Remote commands read the configuration file again through this copy.
    handle->config_path = uoz_strdup(config_path);
    if (handle->config_path == nullptr) {
        UOZ_SET_ERROR("Memory Allocation failed");
        UDSOverZelko_Terminate(handle);
        return nullptr;
    }
    return handle;
}

int UDSOverZelko_Terminate(UDSOverZelkoHandle *handle) {
    UOZ_LOG_BANNER();
    if (handle == nullptr)
        return 0;
    // Stopped first, so that no delivery reaches what is released below.
    zebus_stop(handle->bus);
    handle->bus = nullptr;
    free_handle(handle);
    return 0;
}

int UDSOverZelkoGetTargetAddressFromECUName(UDSOverZelkoHandle *handle, const char *name) {
    if (handle == nullptr || name == nullptr)
        return -1;
    for (const EcuConfig *record = handle->ecus; record != nullptr; record = record->next) {
        if (record->name != nullptr && strcasecmp(record->name, name) == 0) {
            return record->target_address;
        }
    }
    return -1;
}

const char *UDSOverZelkoGetECUNameFromTargetAddress(UDSOverZelkoHandle *handle,
                                                    int target_address) {
    if (handle == nullptr)
        return nullptr;
    for (const EcuConfig *record = handle->ecus; record != nullptr; record = record->next) {
        if (record->target_address == target_address)
            return record->name;
    }
    return nullptr;
}
