// ClearDiagnosticInformation (UDS 0x14), run by the agent as the routine
// "ClearDTC_Routine".
#include <stdio.h>

#include <utility>

#include "UDSOverZelko/routine_query.h"
#include "kt5Utils/kt5_json.h"

namespace {

// {"name": "ClearDTC_Routine", "commands": [{"command", "service", "subfn", "data"}]}
json_object *clear_dtc_routine(uint32_t group_of_dtc) {
    char group[128];
    snprintf(group, sizeof(group), "0x%06X", group_of_dtc);
    // Built without testing the additions (see kt5_json_add).
    json_object *command = json_object_new_object();
    kt5_json_add(command, "command", json_object_new_string("ClearDTC"));
    kt5_json_add(command, "service", json_object_new_string("0x14"));
    kt5_json_add(command, "subfn", json_object_new_string(""));
    kt5_json_add(command, "data", json_object_new_string(group));
    json_object *commands = json_object_new_array();
    json_object_array_add(commands, command);
    json_object *routine = json_object_new_object();
    kt5_json_add(routine, "name", json_object_new_string("ClearDTC_Routine"));
    kt5_json_add(routine, "commands", commands);
    return routine;
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
    char address_text[128];
    snprintf(address_text, sizeof(address_text), "0x%06X", static_cast<uint32_t>(target_address));
    Request request;
    int rc =
        build_routine_request(handle, target_address, address_text, clear_dtc_routine(group_of_dtc),
                              "Could not get tp mode", &request);
    return rc != UOZ_OK ? rc : run_routine_request(handle, std::move(request), response);
}
