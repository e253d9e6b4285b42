// The library's front door: start, stop, and the look-ups between ECU names
// and target addresses.
#include <stdio.h>
#include <stdlib.h>

#include <memory>

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

struct Terminate {
    void operator()(UDSOverZelkoHandle *handle) const { UDSOverZelko_Terminate(handle); }
};
using OwnedHandle = std::unique_ptr<UDSOverZelkoHandle, Terminate>;

}  // namespace

UDSOverZelkoHandle *UDSOverZelko_Init(const BrokerConfig *broker, const char *config_path) {
    UOZ_LOG_BANNER();
    if (config_path == nullptr || broker == nullptr) {
        UOZ_DBGLOG(UOZ_LOG_ERR, "Invalid uds config or broker configuration provided\n");
        return nullptr;
    }
    uoz_dbg_level = broker->debug_level;
    if (const char *missing = missing_broker_text(broker)) {
        UOZ_SET_ERROR(missing);
        return nullptr;
    }
    // From here on every early return releases the handle as termination
    // does, the banner included.
    OwnedHandle handle(new_handle());
    if (!handle) {
        UOZ_SET_ERROR("Memory Allocation failed");
        return nullptr;
    }
    if (load_ecu_config(handle.get(), config_path) != 0) {
        handle.reset();
        UOZ_DBGLOG(UOZ_LOG_ERR, "Could not parse configuration\n");
        return nullptr;
    }
    char url[kBrokerUrlSize] = "";
    snprintf(url, sizeof(url), "tcp://%s:%d", broker->broker_ip, broker->port);
    handle->bus = zebus_init(nullptr, broker->cert_path, url, handle.get(), on_bus_message,
                             broker->bus_option);
    if (handle->bus == nullptr)
        return nullptr;
    print_ecu_config(handle.get());
    // Remote commands read the configuration file again through this copy.
    handle->config_path = uoz_strdup(config_path);
    if (handle->config_path == nullptr) {
        UOZ_SET_ERROR("Memory Allocation failed");
        return nullptr;
    }
    return handle.release();
}

int UDSOverZelko_Terminate(UDSOverZelkoHandle *handle) {
    UOZ_LOG_BANNER();
    if (handle == nullptr)
        return 0;
    // Stopped first, so that no delivery reaches what is released below.
    zebus_stop(handle->bus);
    handle->bus = nullptr;
    release_handle(handle);
    return 0;
}

int UDSOverZelkoGetTargetAddressFromECUName(UDSOverZelkoHandle *handle, const char *name) {
    if (handle == nullptr || name == nullptr)
        return -1;
    for (const EcuConfig *record = handle->ecus; record != nullptr; record = record->next) {
        if (record->name != nullptr && ascii_equal_ignoring_case(record->name, name)) {
            return record->target_address;
        }
    }
    return -1;
}

const char *UDSOverZelkoGetECUNameFromTargetAddress(UDSOverZelkoHandle *handle,
                                                    int target_address) {
    if (handle == nullptr)
        return nullptr;
    const EcuConfig *record = find_ecu(handle, target_address);
    return record != nullptr ? record->name : nullptr;
}
