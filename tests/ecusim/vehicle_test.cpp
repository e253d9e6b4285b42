// The vehicle file: what it gives the simulator, and the exact error for what
// does not describe a vehicle.
#include "vehicle.h"

#include <gtest/gtest.h>

#include <ostream>
#include <stdexcept>
#include <string>

namespace {

std::string ecu_file(const std::string &ecu_members) {
    return R"({"ecus": [{"name": "engine", "targetAddress": "0x7E0", "phy-req-id": "0x7E0")" +
           ecu_members + "}]}";
}

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

struct BadFile {
    std::string name;
    std::string text;
    std::string error;
};

// Shown in test names and failures instead of the bytes of the object.
void PrintTo(const BadFile &c, std::ostream *os) {
    *os << c.name;
}

class VehicleFileRejects : public ::testing::TestWithParam<BadFile> {};

TEST_P(VehicleFileRejects, WithAMessageNamingThePlace) {
    try {
        uozecusim::parse_vehicle(GetParam().text);
        FAIL() << "accepted";
    } catch (const std::runtime_error &error) {
        EXPECT_EQ(std::string(error.what()), GetParam().error);
    }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, VehicleFileRejects, ::testing::Values(
    BadFile{"not_json", "{", "a vehicle file is a JSON object with an \"ecus\" array"},
    BadFile{"no_ecus", "{}", "a vehicle file is a JSON object with an \"ecus\" array"},
    BadFile{"ecus_not_array", R"({"ecus": {}})", "vehicle: \"ecus\" must be array, not object"},
    BadFile{"ecu_without_name", R"({"ecus": [{"targetAddress": "0x7E0"}]})",
            "ECU #1: every ECU needs \"name\", \"targetAddress\" and \"phy-req-id\""},
    BadFile{"bad_address", R"({"ecus": [{"name": "e", "targetAddress": "0x7G0", "phy-req-id": "1"}]})",
            "ECU \"e\" \"targetAddress\": \"0x7G0\" is not a hex number"},
    BadFile{"wide_address", R"({"ecus": [{"name": "e", "targetAddress": "0x10000", "phy-req-id": "1"}]})",
            "ECU \"e\": \"targetAddress\" above 0xFFFF needs a \"logical-address\""},
    BadFile{"status_09", ecu_file(R"(, "dtcs": [{"code": "0x017100", "status": "0x09"}])"),
            "ECU \"engine\" DTC 0x017100: status 0x09: testFailed without testFailedThisOperationCycle"},
    BadFile{"pending_alone", ecu_file(R"(, "dtcs": [{"code": "0x017100", "status": "0x04"}])"),
            "ECU \"engine\" DTC 0x017100: status 0x04: pendingDTC without testFailedSinceLastClear"},
    BadFile{"dtc_twice", ecu_file(R"(, "dtcs": [{"code": "0x1"}, {"code": "0x000001"}])"),
            "ECU \"engine\": DTC 0x000001 is listed twice"},
    BadFile{"dtc_without_code", ecu_file(R"(, "dtcs": [{"status": "0x08"}])"),
            "ECU \"engine\": every DTC needs a \"code\""},
    BadFile{"dtc_too_wide", ecu_file(R"(, "dtcs": [{"code": "0x1000000"}])"),
            "ECU \"engine\" DTC \"code\": \"0x1000000\" is above 0xFFFFFF"},
    BadFile{"did_of_wrong_size", ecu_file(R"(, "dtcs": [{"code": "0x1", "snapshots": {"01": {"0xF40C": "1A"}}}])"),
            "ECU \"engine\" DTC 0x000001 snapshot 01 DID 0xF40C: has 1 bytes where its size is 2"},
    BadFile{"empty_snapshot", ecu_file(R"(, "dtcs": [{"code": "0x1", "snapshots": {"01": {}}}])"),
            "ECU \"engine\" DTC 0x000001 snapshot 01: a snapshot record holds 1 to 255 DIDs"},
    BadFile{"raw_snapshot", ecu_file(R"(, "dtcs": [{"code": "0x1", "snapshots": {"01": "0C1A2B"}}])"),
            "ECU \"engine\" DTC 0x000001 snapshot 01: a snapshot record is an object of DIDs and "
            "their data, e.g. {\"0xF40C\": \"1A2B\"}"},
    BadFile{"snapshot_ff", ecu_file(R"(, "dtcs": [{"code": "0x1", "snapshots": {"FF": {"F40D": "00"}}}])"),
            "ECU \"engine\" DTC 0x000001 snapshot FF: \"FF\" is above 0xFE"},
    BadFile{"extended_of_wrong_size", ecu_file(R"(, "dtcs": [{"code": "0x1", "extended": {"01": "0102"}}])"),
            "ECU \"engine\" DTC 0x000001 extended record 01: has 2 bytes where its size is 1"},
    BadFile{"odd_hex", ecu_file(R"(, "dtcs": [{"code": "0x1", "extended": {"20": "010"}}])"),
            "ECU \"engine\" DTC 0x000001 extended record 20: \"010\" has an odd number of hex digits"},
    BadFile{"vin_did_size", ecu_file(R"(, "dids": {"0xF190": "SHORT"})"),
            "ECU \"engine\" DID 0xF190: has 5 bytes where its size is 17"},
    BadFile{"did_not_text", ecu_file(R"(, "dids": {"0xF189": 5})"),
            "ECU \"engine\" DID 0xF189: a DID's value is a text or {\"hex\": \"...\"}"},
    BadFile{"even_security_level", ecu_file(R"(, "security-levels": ["0x02"])"),
            "ECU \"engine\": security levels are odd (request seed) levels such as \"0x01\""},
    BadFile{"routine_even_level", ecu_file(R"(, "routine-control": {"0x0203": {"security-level": "0x02"}})"),
            "ECU \"engine\" routine 0x0203: \"security-level\" is an odd (request seed) level"},
    BadFile{"routine_too_long", ecu_file(R"(, "routine-control": {"0x0203": {"duration-ms": 70000}})"),
            "ECU \"engine\" routine 0x0203: \"duration-ms\" is 0 to 60000"},
    BadFile{"flag_not_boolean", ecu_file(R"(, "dtcs": [{"code": "0x1", "obd": "yes"}])"),
            "ECU \"engine\" DTC 0x000001: \"obd\" must be boolean, not string"},
    BadFile{"same_logical_address",
            R"({"ecus": [{"name": "a", "targetAddress": "0x7E0", "phy-req-id": "1"},
                         {"name": "b", "targetAddress": "0x1", "logical-address": "0x7E0", "phy-req-id": "2"}]})",
            "ECU \"b\": logical address 0x07E0 is also \"a\"'s"},
    BadFile{"gateway_address_taken",
            R"({"gateway": {"logical-address": "0x7E0"},
                "ecus": [{"name": "a", "targetAddress": "0x7E0", "phy-req-id": "1"}]})",
            "ECU \"a\": logical address 0x07E0 is the gateway's own"},
    BadFile{"functional_address_taken",
            R"({"ecus": [{"name": "a", "targetAddress": "0xE400", "phy-req-id": "1"}]})",
            "ECU \"a\": logical address 0xE400 is the functional address"},
    BadFile{"short_vin", R"({"gateway": {"vin": "WZL"}, "ecus": []})",
            "\"gateway\": \"vin\" has 17 characters"},
    BadFile{"short_eid", R"({"gateway": {"eid": "0102"}, "ecus": []})",
            "\"gateway\": \"eid\" is 6 bytes"}),
    [](const auto &info) { return info.param.name; });
// clang-format on

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
