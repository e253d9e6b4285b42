// What uozctl prints, in one place: each command's result on standard output
// as readable text or, with --json, as one JSON document (failures too), and
// messages on standard error. The commands hand over what they found; the
// words, the layout and the JSON keys are chosen here.
#ifndef UOZ_TOOLS_UOZCTL_OUTPUT_H
#define UOZ_TOOLS_UOZCTL_OUTPUT_H

#include <json-c/json.h>
#include <stdint.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "config_check.h"
#include "console.h"
#include "discovery.h"
#include "dtc_decode.h"

namespace uozctl {

// What uozctl can say of a failure the agent reported when the agent's
// reply (see Console) gives no reason.
extern const char kAgentFailure[];

// One ECU's answer to a DTC read.
struct DtcAnswer {
    const char *ecu = nullptr;  // its configured name; nullptr when none is known
    int32_t address = 0;
    const uint8_t *bytes = nullptr;
    size_t length = 0;
    bool failed = false;  // the agent could not ask it (empty data)
    std::string error;    // the agent's reason when it failed
    DtcReport decoded;
    std::string label() const;  // "engine (0x7E0)"
};

// One ECU's result of a routine (clear DTCs, a remote command).
struct RoutineResult {
    std::string ecu;
    std::string response;  // hex, empty when the ECU gave none
    std::string negative;  // the negative response's text, or empty
    std::string error;     // the agent's reason when it is a failure
};

class Output {
  public:
    explicit Output(bool json = false) : json_(json) {}
    // Where results go (the console's real standard output).
    void send_results_to(FILE *results) { results_ = results; }
    // Where the agent's replies are kept, for the reasons of its failures.
    void read_replies_from(Console *console) { console_ = console; }
    // The library's log level for --debug `shown`: high enough to log the
    // agent's replies when the console keeps them (it shows only `shown`).
    int library_level(int shown) const {
        return console_ != nullptr ? console_->library_level(shown) : shown;
    }
    bool json() const { return json_; }
    void set_json(bool json) { json_ = json; }

    // Says why on standard error (and as {"error", "exit_code"} with --json);
    // gives the code back.
    int fail(int code, const std::string &message) const;
    // "no reply from the <who> within N s: ..." with exit code 3.
    int no_reply(const char *who, int timeout_seconds) const;
    void warn(const std::string &message) const;
    // Every configuration entry the library drops or cannot reach.
    void config_warnings(const ConfigReport &report) const;

    // ecus (the loaded entries) and check-config (a verdict per entry).
    void ecus(const ConfigReport &report, const std::string &file) const;
    void config_check(const ConfigReport &report, const std::string &file, int code) const;
    // A DTC read: one block per ECU; `ecu_count` ECUs were in the answer.
    void dtc_answers(const std::vector<DtcAnswer> &answers, int ecu_count, int total_bytes,
                     int code) const;
    // clear DTCs and remote commands: one line per ECU.
    void routine_results(const char *what, const std::vector<RoutineResult> &results,
                         int code) const;
    void version(const char *ecu, int32_t address, const char *version) const;
    void consent(const std::string &kind, const std::string &campaign, const char *result) const;

    // The agent's reason in its latest reply: for the whole query (without
    // the ECU's title the agent puts first), or for the element'th ECU of a
    // DTC read of several; kAgentFailure when it has none.
    std::string agent_failure(const std::string &ecu_title) const;
    std::string agent_failure_of(size_t element) const;
    // ---- doip discover ----
    // The entities found: one table row each (identity, status, power mode)
    // and a note for each value missing or out of the ordinary.
    void doip_entities(const std::vector<uozdoip::DiscoveredEntity> &entities) const;

  private:
    FILE *out() const { return results_ != nullptr ? results_ : stdout; }
    void print_json(json_object *object) const;

    bool json_ = false;
    FILE *results_ = nullptr;
    Console *console_ = nullptr;
};

}  // namespace uozctl

#endif
