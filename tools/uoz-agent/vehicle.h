// A simulated vehicle: ECUs with DTC memories, version texts and routines,
// answering the library's queries as a real diagnostic agent would.
#ifndef UOZ_TOOLS_VEHICLE_H
#define UOZ_TOOLS_VEHICLE_H

#include <stdint.h>

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace uozagent {

struct SimulatedDtc {
    uint32_t code = 0;  // three bytes
    uint8_t status = 0;
    uint8_t severity = 0;
    uint8_t fault_detection_counter = 0;
    std::map<uint8_t, std::vector<uint8_t>> snapshots;  // record number -> data
    std::map<uint8_t, std::vector<uint8_t>> extended;
};

struct SimulatedEcu {
    std::string name;
    int32_t target_address = 0;
    std::string request_id;  // "phy-req-id" as configured
    std::string version;
    std::vector<SimulatedDtc> dtcs;
    std::map<std::string, std::string> routines;  // name -> response bytes (hex)
    std::set<uint8_t> unsupported_reports;
};

enum class ConsentPolicy { kAccept, kReject, kAsk };

// The bytes an ECU answers to ReadDTCInformation: a positive response
// (0x59, report, ...) or the negative response 7F 19 12.
std::vector<uint8_t> read_dtc_response(const SimulatedEcu &ecu, uint8_t report, uint8_t mask,
                                       uint32_t dtc, uint8_t record);

class Vehicle {
  public:
    // Throws std::runtime_error for a file that does not describe a vehicle.
    static Vehicle from_json(const std::string &text);
    Vehicle(const Vehicle &other);

    // The reply text to a "zelko.skyharbor-query", or "" when the text is none.
    std::string answer_query(const std::string &query);
    // The answer to a "zelko.external-consent" message under the policy; the
    // ask function is used for ConsentPolicy::kAsk and returns true to accept.
    std::string answer_consent(const std::string &message, ConsentPolicy policy,
                               bool (*ask)(const std::string &campaign));
    ConsentPolicy default_policy() const { return policy_; }
    std::vector<std::string> ecu_names() const;

  private:
    Vehicle() = default;

    mutable std::mutex lock_;
    std::vector<SimulatedEcu> ecus_;
    ConsentPolicy policy_ = ConsentPolicy::kAccept;
};

std::string to_hex(const std::vector<uint8_t> &bytes);

}  // namespace uozagent

#endif
