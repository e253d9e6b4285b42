#include "output.h"

#include <algorithm>

#include "exit_codes.h"
#include "hex_text.h"
#include "json_helpers.h"

namespace uozctl {

namespace {

using uoztools::JsonPtr;

json_object *text_or_null(const char *text) {
    return text != nullptr ? json_object_new_string(text) : nullptr;
}

// The document of a result with its exit code when that is not 0.
void add_exit_code(json_object *object, int code) {
    if (code != uoztools::kExitOk)
        json_object_object_add(object, "exit_code", json_object_new_int(code));
}

std::string failure_of(const DtcAnswer &answer) {
    return answer.error.empty() ? kAgentFailure : answer.error;
}

// The "error" text at the end of the path through the agent's reply.
std::string reply_error(const std::string &reply, std::initializer_list<const char *> path,
                        size_t element) {
    JsonPtr parsed(json_tokener_parse(reply.c_str()));
    json_object *at = parsed.get();
    for (const char *key : path) {
        if (!json_object_object_get_ex(at, key, &at))
            return kAgentFailure;
    }
    if (json_object_is_type(at, json_type_array))
        at = json_object_array_get_idx(at, element);
    const char *error = uoztools::text_member(at, "error");
    return error != nullptr && *error != '\0' ? error : kAgentFailure;
}

json_object *dtc_answer_json(const DtcAnswer &answer) {
    json_object *item = json_object_new_object();
    json_object_object_add(item, "ecu", text_or_null(answer.ecu));
    json_object_object_add(item, "target_address", json_object_new_int(answer.address));
    json_object_object_add(item, "length", json_object_new_int(static_cast<int>(answer.length)));
    json_object_object_add(item, "bytes",
                           json_object_new_string(hex_of(answer.bytes, answer.length).c_str()));
    json_object_object_add(item, "decoded",
                           answer.failed ? nullptr : report_to_json(answer.decoded));
    if (answer.failed)
        json_object_object_add(item, "error", json_object_new_string(failure_of(answer).c_str()));
    return item;
}

json_object *routine_result_json(const RoutineResult &result) {
    json_object *item = json_object_new_object();
    json_object_object_add(item, "ecu", json_object_new_string(result.ecu.c_str()));
    json_object_object_add(item, "response", json_object_new_string(result.response.c_str()));
    json_object_object_add(item, "negative", json_object_new_boolean(!result.negative.empty()));
    if (!result.error.empty())
        json_object_object_add(item, "error", json_object_new_string(result.error.c_str()));
    return item;
}

std::string routine_result_line(const char *what, const RoutineResult &result) {
    if (!result.error.empty())
        return std::string(what) + ": " + result.ecu + ": failed: " + result.error + "\n";
    if (!result.negative.empty())
        return std::string(what) + ": " + result.ecu + ": " + result.negative + "\n";
    // An ECU asked for no positive answer gives none.
    return std::string(what) + ": " + result.ecu + ": done, " +
           (result.response.empty() ? "positive response suppressed"
                                    : "response " + result.response) +
           "\n";
}

}  // namespace

const char kAgentFailure[] =
    "the agent reported a failure (see the agent's log; --debug 2 shows its reply)";

std::string DtcAnswer::label() const {
    char text[96];
    snprintf(text, sizeof(text), "%s (0x%X)", ecu != nullptr ? ecu : "unknown ECU",
             static_cast<unsigned>(address));
    return text;
}

void Output::print_json(json_object *object) const {
    fprintf(out(), "%s\n",
            json_object_to_json_string_ext(
                object, JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE));
    fflush(out());
}

int Output::fail(int code, const std::string &message) const {
    if (json_) {
        JsonPtr object(json_object_new_object());
        json_object_object_add(object.get(), "error", json_object_new_string(message.c_str()));
        json_object_object_add(object.get(), "exit_code", json_object_new_int(code));
        print_json(object.get());
    }
    fprintf(stderr, "uozctl: %s\n", message.c_str());
    return code;
}

int Output::no_reply(const char *who, int timeout_seconds) const {
    return fail(uoztools::kExitNoReply,
                std::string("no reply from the ") + who + " within " +
                    std::to_string(timeout_seconds) +
                    " s: the broker is up; is uoz-agent running and connected to it?");
}

void Output::warn(const std::string &message) const {
    fprintf(stderr, "uozctl: warning: %s\n", message.c_str());
}

void Output::config_warnings(const ConfigReport &report) const {
    for (const EntryReport &entry : report.entries) {
        if (!entry.problem.empty()) {
            warn("configuration entry " + std::to_string(entry.index) +
                 (entry.name.empty() ? "" : " ") + entry.name + ": " + entry.problem +
                 (entry.loaded ? "" : " (dropped)"));
        }
    }
}

void Output::ecus(const ConfigReport &report, const std::string &file) const {
    if (json_) {
        config_check(report, file, uoztools::kExitOk);
        return;
    }
    fprintf(out(), "%-14s %-8s %-6s %-8s %s\n", "NAME", "ADDRESS", "TP", "VERSION", "PARAMETERS");
    for (const EntryReport &entry : report.entries) {
        if (!entry.loaded)
            continue;
        std::string address =
            entry.target_address >= 0
                ? uozuds::hex_number(static_cast<uint32_t>(entry.target_address), 1)
                : "-";
        fprintf(out(), "%-14s %-8s %-6s %-8s %s\n", entry.name.c_str(), address.c_str(),
                entry.type.c_str(), entry.version_source.c_str(), entry.parameters.c_str());
    }
    config_warnings(report);
}

void Output::config_check(const ConfigReport &report, const std::string &file, int code) const {
    if (json_) {
        JsonPtr entries(json_object_new_array());
        for (const EntryReport &entry : report.entries)
            json_object_array_add(entries.get(), entry_to_json(entry));
        JsonPtr object(json_object_new_object());
        json_object_object_add(object.get(), "file", json_object_new_string(file.c_str()));
        json_object_object_add(object.get(), "entries", json_object_get(entries.get()));
        json_object_object_add(object.get(), "all_usable",
                               json_object_new_boolean(report.all_usable()));
        add_exit_code(object.get(), code);
        print_json(object.get());
        return;
    }
    for (const EntryReport &entry : report.entries) {
        fprintf(out(), "entry %zu %s: %s%s%s\n", entry.index,
                entry.name.empty() ? "(no name)" : entry.name.c_str(),
                entry.loaded ? "loaded" : "dropped",
                entry.problem.empty() ? ""
                : entry.loaded        ? ", but "
                                      : ": ",
                entry.problem.c_str());
    }
    fprintf(out(), "%s: %s\n", file.c_str(),
            code == uoztools::kExitOk ? "every entry loads"
                                      : "some entries are dropped or unreachable");
}

void Output::dtc_answers(const std::vector<DtcAnswer> &answers, int ecu_count, int total_bytes,
                         int code) const {
    if (!json_) {
        for (const DtcAnswer &answer : answers) {
            fprintf(out(), "%s\n", answer.label().c_str());
            if (answer.failed)
                fprintf(out(), "  failed: %s\n", failure_of(answer).c_str());
            else
                fputs(report_to_text(answer.decoded).c_str(), out());
        }
        if (ecu_count == 0)
            fprintf(out(), "no ECU answered\n");
        return;
    }
    JsonPtr object(json_object_new_object());
    json_object *ecus = json_object_new_array();
    for (const DtcAnswer &answer : answers)
        json_object_array_add(ecus, dtc_answer_json(answer));
    json_object_object_add(object.get(), "total_length", json_object_new_int(total_bytes));
    json_object_object_add(object.get(), "ecus", ecus);
    add_exit_code(object.get(), code);
    print_json(object.get());
}

void Output::routine_results(const char *what, const std::vector<RoutineResult> &results,
                             int code) const {
    if (!json_) {
        for (const RoutineResult &result : results)
            fputs(routine_result_line(what, result).c_str(), out());
        if (results.empty())
            fprintf(out(), "%s: done\n", what);
        return;
    }
    bool failed = false, negative = false;
    json_object *responses = json_object_new_array();
    for (const RoutineResult &result : results) {
        failed = failed || !result.error.empty();
        negative = negative || !result.negative.empty();
        json_object_array_add(responses, routine_result_json(result));
    }
    JsonPtr object(json_object_new_object());
    json_object_object_add(object.get(), "result",
                           json_object_new_string(failed     ? "failed"
                                                  : negative ? "negative response"
                                                             : "done"));
    json_object_object_add(object.get(), "responses", responses);
    add_exit_code(object.get(), code);
    print_json(object.get());
}

void Output::version(const char *ecu, int32_t address, const char *version) const {
    if (!json_) {
        fprintf(out(), "%s (0x%X): %s\n", ecu, static_cast<unsigned>(address), version);
        return;
    }
    JsonPtr object(json_object_new_object());
    json_object_object_add(object.get(), "ecu", json_object_new_string(ecu));
    json_object_object_add(object.get(), "target_address", json_object_new_int(address));
    json_object_object_add(object.get(), "version", json_object_new_string(version));
    print_json(object.get());
}

void Output::consent(const std::string &kind, const std::string &campaign,
                     const char *result) const {
    if (!json_) {
        fprintf(out(), "%s consent for campaign %s: %s\n", kind.c_str(), campaign.c_str(), result);
        return;
    }
    JsonPtr object(json_object_new_object());
    json_object_object_add(object.get(), "campaign", json_object_new_string(campaign.c_str()));
    json_object_object_add(object.get(), "consent", json_object_new_string(kind.c_str()));
    json_object_object_add(object.get(), "result", json_object_new_string(result));
    print_json(object.get());
}

std::string Output::agent_failure(const std::string &ecu_title) const {
    if (console_ == nullptr)
        return kAgentFailure;
    std::string reason = reply_error(console_->latest_agent_reply(), {"body"}, 0);
    // The agent names the ECU as "name (address)", or by its address alone
    // when it does not know the name.
    size_t open = ecu_title.rfind(" (");
    std::string address = open == std::string::npos || ecu_title.back() != ')'
                              ? ""
                              : ecu_title.substr(open + 2, ecu_title.size() - open - 3);
    for (const std::string &name : {ecu_title, address}) {
        if (!name.empty() && reason.compare(0, name.size() + 2, name + ": ") == 0)
            return reason.substr(name.size() + 2);
    }
    return reason;
}

std::string Output::agent_failure_of(size_t element) const {
    return console_ != nullptr ? reply_error(console_->latest_agent_reply(),
                                             {"body", "uds", "data-record"}, element)
                               : kAgentFailure;
}

// ---- doip discover ----

namespace {

using uozdoip::DiscoveredEntity;

std::string hex4(uint16_t value) {
    return uozuds::hex_number(value, 4);
}

json_object *entity_json(const DiscoveredEntity &entity) {
    json_object *item = json_object_new_object();
    auto add = [item](const char *key, json_object *value) {
        json_object_object_add(item, key, value);
    };
    auto text = [](const std::string &value) { return json_object_new_string(value.c_str()); };
    const uozdoip::VehicleAnnouncement &identity = entity.identity;
    add("address", text(entity.from.host));
    add("port", json_object_new_int(entity.from.port));
    add("logical_address", json_object_new_int(identity.logical_address));
    add("vin", text(uozdoip::vin_text(identity.vin)));
    add("eid", text(uozdoip::id_text(identity.eid)));
    add("gid", text(uozdoip::id_text(identity.gid)));
    add("further_action", text(uozdoip::further_action_name(identity.further_action)));
    add("vin_gid_sync",
        identity.sync_status ? text(uozdoip::sync_status_name(*identity.sync_status)) : nullptr);
    add("protocol_version", json_object_new_int(entity.version));
    add("answered", json_object_new_boolean(entity.answered));
    add("announcements", json_object_new_int(entity.announcements));
    json_object *status = nullptr;
    if (entity.status) {
        status = json_object_new_object();
        json_object_object_add(status, "node_type",
                               text(uozdoip::node_type_name(entity.status->node_type)));
        json_object_object_add(status, "max_open_sockets",
                               json_object_new_int(entity.status->max_open_sockets));
        json_object_object_add(status, "open_sockets",
                               json_object_new_int(entity.status->open_sockets));
        json_object_object_add(status, "max_data_size",
                               entity.status->max_data_size
                                   ? json_object_new_int64(*entity.status->max_data_size)
                                   : nullptr);
    }
    add("entity_status", status);
    if (!entity.status)
        add("entity_status_error", text(entity.status_error));
    add("power_mode",
        entity.power_mode ? text(uozdoip::power_mode_name(*entity.power_mode)) : nullptr);
    if (!entity.power_mode)
        add("power_mode_error", text(entity.power_mode_error));
    return item;
}

std::vector<std::string> entity_row(const DiscoveredEntity &entity) {
    const uozdoip::VehicleAnnouncement &identity = entity.identity;
    const std::optional<uozdoip::EntityStatus> &status = entity.status;
    return {entity.from.text(),
            hex4(identity.logical_address),
            uozdoip::vin_text(identity.vin),
            uozdoip::id_text(identity.eid),
            uozdoip::id_text(identity.gid),
            uozuds::hex_number(identity.further_action, 2),
            identity.sync_status
                ? (*identity.sync_status == uozdoip::sync_status::kSynchronized ? "yes" : "no")
                : "-",
            status ? uozdoip::node_type_name(status->node_type) : "-",
            status ? std::to_string(status->open_sockets) + "/" +
                         std::to_string(status->max_open_sockets)
                   : "-",
            status && status->max_data_size ? std::to_string(*status->max_data_size) : "-",
            entity.power_mode ? uozdoip::power_mode_name(*entity.power_mode) : "-"};
}

// What the table cannot say in its columns: missing answers, a further
// action or a sync status that asks for attention.
std::vector<std::string> entity_notes(const DiscoveredEntity &entity) {
    const uozdoip::VehicleAnnouncement &identity = entity.identity;
    const std::string who = hex4(identity.logical_address) + " at " + entity.from.text() + ": ";
    std::vector<std::string> notes;
    if (identity.further_action != uozdoip::further_action::kNone)
        notes.push_back(who + "further action " + uozuds::hex_number(identity.further_action, 2) +
                        ": " + uozdoip::further_action_name(identity.further_action));
    if (identity.sync_status && *identity.sync_status != uozdoip::sync_status::kSynchronized)
        notes.push_back(who + "VIN/GID " + uozdoip::sync_status_name(*identity.sync_status));
    if (!entity.status)
        notes.push_back(who + "entity status: " + entity.status_error);
    if (!entity.power_mode)
        notes.push_back(who + "power mode: " + entity.power_mode_error);
    return notes;
}

// Rows under a heading, each column as wide as its widest cell.
void print_table(FILE *out, const std::vector<std::vector<std::string>> &rows) {
    std::vector<size_t> widths(rows.front().size(), 0);
    for (const auto &row : rows) {
        for (size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    }
    for (const auto &row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i)
            line += i + 1 < row.size() ? row[i] + std::string(widths[i] - row[i].size() + 2, ' ')
                                       : row[i];
        fprintf(out, "%s\n", line.c_str());
    }
}

}  // namespace

void Output::doip_entities(const std::vector<DiscoveredEntity> &entities) const {
    if (json_) {
        JsonPtr object(json_object_new_object());
        json_object *list = json_object_new_array();
        for (const DiscoveredEntity &entity : entities)
            json_object_array_add(list, entity_json(entity));
        json_object_object_add(object.get(), "entities", list);
        print_json(object.get());
        return;
    }
    std::vector<std::vector<std::string>> rows = {{"ADDRESS", "LOGICAL", "VIN", "EID", "GID",
                                                   "ACTION", "SYNC", "NODE", "SOCKETS", "MAX DATA",
                                                   "POWER MODE"}};
    std::vector<std::string> notes;
    for (const DiscoveredEntity &entity : entities) {
        rows.push_back(entity_row(entity));
        for (const std::string &note : entity_notes(entity))
            notes.push_back(note);
    }
    print_table(out(), rows);
    for (const std::string &note : notes)
        fprintf(out(), "%s\n", note.c_str());
    fprintf(out(), "%zu DoIP %s found\n", entities.size(),
            entities.size() == 1 ? "entity" : "entities");
}

}  // namespace uozctl
