// The simulated vehicle: ECUs with their DTC memories, data identifiers and
// routines, read from a vehicle file (JSON). The ECU simulator serves them
// over DoIP.
#ifndef UOZ_TOOLS_VEHICLE_H
#define UOZ_TOOLS_VEHICLE_H

#include <stdint.h>

#include <array>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace uozecusim {

using Bytes = std::vector<uint8_t>;

// One data identifier and its value, as a snapshot record carries it.
struct DidValue {
    uint16_t did = 0;
    Bytes data;
};

struct SimulatedDtc {
    uint32_t code = 0;  // three bytes
    uint8_t status = 0;
    uint8_t severity = 0;
    uint8_t functional_unit = 0x10;
    uint8_t fault_detection_counter = 0;                 // 0x01..0x7E: pre-failed, 0x7F: failed
    bool emission_related = false;                       // listed by the OBD reports 0x12/0x13
    bool permanent = false;                              // listed by report 0x15
    std::map<uint8_t, std::vector<DidValue>> snapshots;  // record number -> DIDs
    std::map<uint8_t, Bytes> extended;                   // record number -> data
};

// A routine of RoutineControl (0x31), by routine identifier.
struct Routine {
    uint16_t id = 0;
    std::string name;
    Bytes start_result;      // routineStatusRecord of the start answer
    Bytes results;           // of the results answer
    bool stoppable = false;  // answers stop (0x02)
    Bytes stop_result;
    uint32_t duration_ms = 0;    // above zero: start answers 0x78 until done
    uint8_t security_level = 0;  // 0: none, else the odd level that must be unlocked
};

// An ECU on a J1939 network: its source address and the identification it
// gives on request (j1939_ecu.h serves it).
struct J1939Identity {
    bool present = false;
    uint8_t address = 0;
    std::vector<std::string> software;   // software identification fields (PGN 0xFEDA)
    std::vector<std::string> component;  // make, model, serial number, unit number (0xFEEB)
};

struct SimulatedEcu {
    std::string name;
    int32_t target_address = 0;    // as the library addresses it
    uint16_t logical_address = 0;  // DoIP logical address
    std::string request_id;        // "phy-req-id" as configured
    // On CAN when the file gives "phy-resp-id": requests come on the
    // "phy-req-id" and on "func-addr" (every ECU's), answers go on the
    // response id; ids above 0x7FF are 29-bit.
    bool on_can = false;
    uint32_t can_request_id = 0;
    uint32_t can_response_id = 0;
    uint32_t can_functional_id = 0x7DF;
    std::vector<SimulatedDtc> dtcs;
    uint8_t dtc_availability_mask = 0xFF;  // the status bits the ECU supports
    // User-defined DTC memories (reports 0x17-0x19), by memory selection.
    std::map<uint8_t, std::vector<SimulatedDtc>> user_memories;
    std::map<uint16_t, Bytes> dids;
    std::map<uint16_t, Routine> routine_control;
    std::set<uint8_t> security_levels;  // odd request-seed levels
    std::set<uint8_t> unsupported_reports;
    // Record numbers the ECU knows, whether or not a DTC holds one now.
    std::set<uint8_t> snapshot_record_numbers;
    std::set<uint8_t> extended_record_numbers;
    J1939Identity j1939;
};

struct VehicleFile {
    std::string vin = "WZL00000000000001";
    uint16_t gateway_address = 0x1000;
    uint16_t functional_address = 0xE400;  // a request to it goes to every ECU
    std::array<uint8_t, 6> eid{{0x02, 0x00, 0x00, 0x00, 0x10, 0x00}};
    std::array<uint8_t, 6> gid{{0x02, 0x00, 0x00, 0x00, 0x10, 0x00}};
    std::vector<SimulatedEcu> ecus;
};

// Parses a vehicle file. Throws std::runtime_error with a message naming the
// ECU and member for anything that does not describe a vehicle: malformed
// numbers, DTC status bits that contradict each other, data whose size
// differs from the known size of its DID or record, duplicate addresses.
VehicleFile parse_vehicle(const std::string &text);

// The status byte's bits that ISO 14229-1 forbids together, as a text, or ""
// when the byte is consistent (testFailed implies testFailedThisOperationCycle
// and testFailedSinceLastClear; pendingDTC and testFailedThisOperationCycle
// imply testFailedSinceLastClear).
std::string status_contradiction(uint8_t status);

}  // namespace uozecusim

#endif
