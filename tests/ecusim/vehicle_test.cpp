// The vehicle file: what it gives the simulator, and the exact error for what
// does not describe a vehicle.
#include "vehicle.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "golden.h"

namespace {

TEST(VehicleFile, ReadsAnEcuWithItsAddressesDidsRoutinesAndMemories) {
    uozecusim::VehicleFile vehicle = uozecusim::parse_vehicle(
        R"({"gateway": {"logical-address": "0x0E90", "vin": "WZL12345678901234",
                        "eid": "00 11 22 33 44 55", "gid": "AABBCCDDEEFF"},
            "ecus": [
              {"name": "engine", "targetAddress": "0x7E0", "phy-req-id": "0x7E0",
               "dids": {"0xF189": "ENG-1", "0xF40C": {"hex": "0BB8"}},
               "security-levels": ["0x01", "0x05"],
               "routine-control": {"0xFF01": {"name": "self test", "start": "01",
                                              "results": "00 00", "stop": "02",
                                              "duration-ms": 1500, "security-level": "0x05"}},
               "dtcs": [{"code": "0x030100", "status": "0x2F", "snapshots": {"01": {"F40D": "0A"}},
                         "extended": {"0x02": "7F"}}],
               "user-memories": {"0x03": [{"code": "0x0A1B00", "status": "0x28",
                                           "extended": {"0x04": "10"}}]}},
              {"name": "telematics", "targetAddress": "0x1001", "phy-req-id": "0x1001"},
              {"name": "far", "targetAddress": "0x12345", "logical-address": "0x2001",
               "phy-req-id": "0x12345"}]})");
    EXPECT_EQ(vehicle.gateway_address, 0x0E90);
    EXPECT_EQ(vehicle.vin, "WZL12345678901234");
    EXPECT_EQ(vehicle.eid[5], 0x55);
    EXPECT_EQ(vehicle.gid[0], 0xAA);
    ASSERT_EQ(vehicle.ecus.size(), 3u);
    const uozecusim::SimulatedEcu &engine = vehicle.ecus[0];
    EXPECT_EQ(engine.logical_address, 0x07E0);
    EXPECT_EQ(engine.dids.at(0xF189), (uozecusim::Bytes{'E', 'N', 'G', '-', '1'}));
    EXPECT_EQ(engine.dids.at(0xF40C), (uozecusim::Bytes{0x0B, 0xB8}));
    EXPECT_EQ(engine.security_levels, (std::set<uint8_t>{0x01, 0x05}));
    const uozecusim::Routine &routine = engine.routine_control.at(0xFF01);
    EXPECT_EQ(routine.name, "self test");
    EXPECT_EQ(routine.results, (uozecusim::Bytes{0x00, 0x00}));
    EXPECT_TRUE(routine.stoppable);
    EXPECT_EQ(routine.duration_ms, 1500u);
    EXPECT_EQ(routine.security_level, 0x05);
    EXPECT_EQ(engine.snapshot_record_numbers, (std::set<uint8_t>{0x01}));
    EXPECT_EQ(engine.extended_record_numbers, (std::set<uint8_t>{0x02, 0x04}));
    EXPECT_EQ(engine.user_memories.at(0x03).at(0).code, 0x0A1B00u);
    EXPECT_EQ(vehicle.ecus[1].logical_address, 0x1001);
    EXPECT_EQ(vehicle.ecus[1].security_levels, (std::set<uint8_t>{0x01}));
    EXPECT_EQ(vehicle.ecus[2].logical_address, 0x2001);
}

// Each file of golden/vehicle_errors.txt is refused with its exact message.
TEST(VehicleFile, RejectsWhatDescribesNoVehicleNamingThePlace) {
    uoztest::expect_refusals(UOZ_ECUSIM_GOLDEN "/vehicle_errors.txt", "file",
                             uozecusim::parse_vehicle);
}

// Status bytes that ISO's rules allow, and the contradiction named for those
// they do not.
TEST(DtcStatusRules, NameTheContradiction) {
    const std::pair<uint8_t, const char *> cases[] = {
        {0x00, ""},
        {0x08, ""},
        {0x2F, ""},
        {0x2B, ""},
        {0x24, ""},
        {0x50, ""},
        {0x28, ""},
        {0x09, "testFailed without testFailedThisOperationCycle"},
        {0x03, "testFailed without testFailedSinceLastClear"},
        {0x02, "testFailedThisOperationCycle without testFailedSinceLastClear"},
        {0x0C, "pendingDTC without testFailedSinceLastClear"}};
    for (const auto &[status, contradiction] : cases)
        EXPECT_EQ(uozecusim::status_contradiction(status), contradiction) << int(status);
}

}  // namespace
