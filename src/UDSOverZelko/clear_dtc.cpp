// ClearDiagnosticInformation (UDS 0x14), run by the agent as the routine
// "ClearDTC_Routine".
#include <stdio.h>

#include <utility>

#include "UDSOverZelko/routine_query.h"
#include "kt5Utils/kt5_json.h"

namespace {

// Appends value to array; false (value released) when it cannot.
bool append(json_object *array, JsonPtr value) {
    json_object *element = value.release();
    if (element == nullptr || json_object_array_add(array, element) != 0) {
        json_object_put(element);
        return false;
    }
    return true;
}

// {"name": "ClearDTC_Routine", "commands": [{"command", "service", "subfn",
// "data"}]}, or NULL when memory runs out.
json_object *clear_dtc_routine(uint32_t group_of_dtc) {
    char group[128];
    snprintf(group, sizeof(group), "0x%06X", group_of_dtc);
    JsonPtr command(json_object_new_object());
    JsonPtr commands(json_object_new_array());
    JsonPtr routine(json_object_new_object());
    bool built = command && commands && routine &&
                 kt5_json_add(command.get(), "command", json_object_new_string("ClearDTC")) &&
                 kt5_json_add(command.get(), "service", json_object_new_string("0x14")) &&
                 kt5_json_add(command.get(), "subfn", json_object_new_string("")) &&
                 kt5_json_add(command.get(), "data", json_object_new_string(group)) &&
                 append(commands.get(), std::move(command)) &&
                 kt5_json_add(routine.get(), "name", json_object_new_string("ClearDTC_Routine")) &&
                 kt5_json_add(routine.get(), "commands", commands.release());
    return built ? routine.release() : nullptr;
}

}  // namespace

int UDSOverZelkoClearDTC(UDSOverZelkoHandle *handle, int32_t target_address, uint32_t group_of_dtc,
                         CommandResponse *response) {
    UOZ_LOG_BANNER();
    if (handle == nullptr) {
        UOZ_SET_ERROR("Invalid UDS Handler");
        return UOZ_ERR_GENERAL;
    }
    if (response == nullptr) {
        UOZ_SET_ERROR("Invalid response record");
        return UOZ_ERR_GENERAL;
    }
    JsonPtr routine(clear_dtc_routine(group_of_dtc));
    if (!routine) {
        UOZ_SET_ERROR("Could not create JSON Command");
        return UOZ_ERR_GENERAL;
    }
    char address_text[128];
    snprintf(address_text, sizeof(address_text), "0x%06X", static_cast<uint32_t>(target_address));
    Request request;
    int rc = build_routine_request(handle, target_address, address_text, routine.release(),
                                   "Could not get tp mode", &request);
    return rc != UOZ_OK ? rc : run_routine_request(handle, std::move(request), response);
}
