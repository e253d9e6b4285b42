// Remote command documents: the commands become one routine that the agent
// runs on the ECU that the document names.
#include "UDSOverZelko/remote_command.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <utility>

#include "UDSOverZelko/routine_query.h"
#include "kt5Utils/kt5_json.h"

namespace {

constexpr const char *kTimeFormat = "%Y-%m-%dT%H:%M:%SZ";

// strtoul's value in base 16, its low 32 bits taken as a signed number: the
// configuration file's rule of all bits set for a long text does not apply,
// so a mistyped long address does not become the address of every ECU.
int32_t command_target_address(const char *text) {
    return static_cast<int32_t>(static_cast<uint32_t>(strtoul(text, nullptr, 16)));
}

// Parses a UTC time text into calendar fields; false after printing why not.
bool parse_utc(const char *text, struct tm *calendar) {
    const char *end = text != nullptr ? strptime(text, kTimeFormat, calendar) : nullptr;
    if (end == nullptr) {
        puts("Failed to parse time string");
        return false;
    }
    return true;
}

// -1 when the period is missing a time text, 0 when it is not current, 1 when
// the command may run. A document without a period may always run.
int check_period(json_object *document) {
    if (!kt5_json_has(document, "diagnostic_period", nullptr)) {
        UOZ_DBGLOG(UOZ_LOG_WARN, "No Command Validity found, making command valid forever");
        return 1;
    }
    const char *start = nullptr;
    const char *end = nullptr;
    if (kt5_json_get(document, json_type_string, &start, "diagnostic_period", "start_time",
                     nullptr) != 0 ||
        kt5_json_get(document, json_type_string, &end, "diagnostic_period", "end_time", nullptr) !=
            0) {
        UOZ_SET_ERROR("Error");
        return -1;
    }
    return check_command_validity(start, end) > 0 ? 1 : 0;
}

// The i-th element of array, logged at DBG, with its text member `key` in
// *text (NULL when it has none).
json_object *element_with_text(json_object *array, size_t i, const char *key, const char **text) {
    json_object *element = json_object_array_get_idx(array, i);
    UOZ_DBGLOG(UOZ_LOG_DBG, "%s\n", json_object_to_json_string(element));
    *text = nullptr;
    kt5_json_get(element, json_type_string, text, key, nullptr);
    return element;
}

// A copy of the configured routine named `name`, or NULL when the
// configuration file has none of that name.
json_object *find_predefined_routine(const char *config_path, const char *name, bool *copy_failed) {
    JsonPtr config(config_path != nullptr ? json_object_from_file(config_path) : nullptr);
    json_object *routines =
        kt5_json_borrow(config.get(), json_type_array, "pre-defined-routines", nullptr);
    if (routines == nullptr) {
        UOZ_DBGLOG(UOZ_LOG_WARN, "No pre-defined routines in %s for command %s",
                   config_path != nullptr ? config_path : "(none)", name);
        return nullptr;
    }
    size_t count = json_object_array_length(routines);
    for (size_t i = 0; i < count; ++i) {
        const char *routine_name = nullptr;
        json_object *routine = element_with_text(routines, i, "name", &routine_name);
        if (routine_name == nullptr || strcmp(routine_name, name) != 0)
            continue;
        json_object *copy = kt5_json_copy(routine);
        if (copy == nullptr) {
            UOZ_SET_ERROR("Could not create JSON Command");
            *copy_failed = true;
            return nullptr;
        }
        UOZ_DBGLOG(UOZ_LOG_INFO, "%s\n", json_object_to_json_string(copy));
        return copy;
    }
    // A name that matches no routine chooses nothing: never another routine.
    UOZ_DBGLOG(UOZ_LOG_WARN, "No pre-defined routine named %s", name);
    return nullptr;
}

json_object *custom_routine(json_object *document, json_object *commands) {
    // Built without testing the additions (see kt5_json_add).
    json_object *routine = json_object_new_object();
    kt5_json_add(routine, "name", json_object_new_string("custom_commands"));
    kt5_json_add(routine, "commands", kt5_json_copy(commands));
    json_object *security_access =
        kt5_json_borrow(document, json_type_object, "security_access", nullptr);
    if (security_access != nullptr)
        kt5_json_add(routine, "security_access", kt5_json_copy(security_access));
    return routine;
}

// The routine that the commands choose: the last configured routine that a
// "predefined" command names, or the custom routine once a command of another
// type appears.
json_object *choose_routine(UDSOverZelkoHandle *handle, json_object *document,
                            json_object *commands) {
    JsonPtr chosen;
    size_t count = json_object_array_length(commands);
    for (size_t i = 0; i < count; ++i) {
        const char *type = nullptr;
        json_object *command = element_with_text(commands, i, "type", &type);
        if (type == nullptr || strcmp(type, "predefined") != 0) {
            return custom_routine(document, commands);
        }
        const char *name = nullptr;
        if (kt5_json_get(command, json_type_string, &name, "command", nullptr) != 0) {
            UOZ_SET_ERROR("Could not find command");
            break;
        }
        UOZ_DBGLOG(UOZ_LOG_DBG, "%s command received\n", name);
        bool copy_failed = false;
        json_object *routine = find_predefined_routine(handle->config_path, name, &copy_failed);
        if (copy_failed)
            break;
        if (routine != nullptr)
            chosen.reset(routine);
    }
    return chosen.release();
}

}  // namespace

int build_remote_command_request(UDSOverZelkoHandle *handle, const char *document,
                                 Request *request) {
    JsonPtr parsed(json_tokener_parse(document));
    if (!parsed) {
        UOZ_SET_ERROR("Could not convert JSON Object");
        return UOZ_ERR_GENERAL;
    }
    int period = check_period(parsed.get());
    if (period < 0)
        return UOZ_ERR_GENERAL;
    if (period == 0)
        return UOZ_ERR_VALIDITY;
    // Read in place: the custom routine makes its own copy of the commands.
    json_object *commands = kt5_json_borrow(parsed.get(), json_type_array, "commands", nullptr);
    if (commands == nullptr) {
        UOZ_SET_ERROR("Could not find 'commands' property in JSON");
        return UOZ_ERR_GENERAL;
    }
    JsonPtr routine(choose_routine(handle, parsed.get(), commands));
    const char *server_address = nullptr;
    if (kt5_json_get(parsed.get(), json_type_string, &server_address, "ecu", "ServerAddress",
                     nullptr) != 0) {
        UOZ_SET_ERROR("No TA found");
        return UOZ_ERR_GENERAL;
    }
    return build_routine_request(handle, command_target_address(server_address), server_address,
                                 routine.release(), "Unable to get transport mode", request);
}

int check_command_validity(const char *start_time, const char *end_time) {
    struct tm start_calendar = {};
    struct tm end_calendar = {};
    if (!parse_utc(start_time, &start_calendar) || !parse_utc(end_time, &end_calendar))
        return 0;
    time_t start = timegm(&start_calendar);
    time_t end = timegm(&end_calendar);
    if (start == static_cast<time_t>(-1) || end == static_cast<time_t>(-1)) {
        puts("Failed to convert time");
        return 0;
    }
    time_t now = time(nullptr);
    if (start <= now && now <= end)
        return 1;
    if (now < start) {
        UOZ_DBGLOG(UOZ_LOG_ERR, "Command validity not started yet");
    } else {
        UOZ_DBGLOG(UOZ_LOG_ERR, "Command validity expired");
    }
    return 0;
}

int UDSOverZelko_ExecuteRemoteCommand(UDSOverZelkoHandle *handle, const char *document,
                                      uint32_t size, CommandResponse *response) {
    UOZ_LOG_BANNER();
    if (handle == nullptr) {
        UOZ_SET_ERROR("Invalid UDS Handler");
        return UOZ_ERR_GENERAL;
    }
    if (document == nullptr) {
        UOZ_SET_ERROR("Invalid buffer received");
        return UOZ_ERR_GENERAL;
    }
    if (size == 0) {
        UOZ_SET_ERROR("Invalid size received");
        return UOZ_ERR_GENERAL;
    }
    if (response == nullptr) {
        UOZ_SET_ERROR("Invalid response record");
        return UOZ_ERR_GENERAL;
    }
    UOZ_DBGLOG(UOZ_LOG_DBG, "Received msg: %s\n", document);
    Request request;
    int rc = build_remote_command_request(handle, document, &request);
    return rc != UOZ_OK ? rc : run_routine_request(handle, std::move(request), response);
}

int UDSOverZelko_ExecuteRemoteCommand_Async(UDSOverZelkoHandle *, const char *, uint32_t,
                                            CommandResponse *) {
    UOZ_LOG_BANNER();
    UOZ_DBGLOG(UOZ_LOG_ERR, "Not Supported yet");
    return UOZ_ERR_NOT_SUPPORTED;
}
