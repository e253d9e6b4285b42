// ECU version information, read as the ECU's "ecu_version" configuration says.
#include <string.h>

#include "UDSOverZelko/exchange.h"

int UDSOverZelko_ReadECUVersionInformation(UDSOverZelkoHandle *handle, int32_t target_address,
                                           char *version_buffer, uint32_t version_buffer_size) {
    UOZ_LOG_BANNER();
    if (version_buffer_size == 0) {
        UOZ_SET_ERROR("versionBufferSize is zero");
        return UOZ_ERR_GENERAL;
    }
    if (version_buffer == nullptr) {
        UOZ_SET_ERROR("versionBuffer is NULL");
        return UOZ_ERR_GENERAL;
    }
    if (handle == nullptr) {
        UOZ_SET_ERROR("Invalid UDS Handler");
        return UOZ_ERR_GENERAL;
    }
    DTCBuffer version{};
    int32_t result = query_exchange(handle, target_address, &version, JsonPtr(), QUERY_VERSION);
    if (result == 0 && version.entries != nullptr) {
        DTCBufferEntry *entry = version.entries[0];
        if (entry != nullptr && entry->data != nullptr) {
            uint32_t length = static_cast<uint32_t>(entry->length);
            memcpy(version_buffer, entry->data,
                   length < version_buffer_size ? length : version_buffer_size);
        }
    }
    UDSOverZelko_FreeDTCBuffer(&version);
    return result;
}
