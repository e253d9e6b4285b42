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
#include "discovery.h"
#include "dtc_decode.h"

namespace uozctl {

// What uozctl can say of a failure the agent reported when the library
// passes on only that the call failed, not the agent's reason.
extern const char kAgentFailure[];

// One ECU's answer to a DTC read.
struct DtcAnswer {
    const char *ecu = nullptr;  // its configured name; nullptr when none is known
    int32_t address = 0;
    const uint8_t *bytes = nullptr;
    size_t length = 0;
    bool failed = false;  // the agent could not ask it (empty data)
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

    // ---- doip discover ----
    // The entities found: one table row each (identity, status, power mode)
    // and a note for each value missing or out of the ordinary.
    void doip_entities(const std::vector<uozdoip::DiscoveredEntity> &entities) const;

  private:
    FILE *out() const { return results_ != nullptr ? results_ : stdout; }
    void print_json(json_object *object) const;

    bool json_ = false;
    FILE *results_ = nullptr;
};

}  // namespace uozctl

#endif
