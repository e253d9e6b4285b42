// ReadDTCInformation answers of the simulated ECU: exact bytes per report type.
#include "read_dtc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>

#include "hex_bytes.h"
#include "hex_text.h"
#include "vehicle.h"

namespace {

using uozecusim::Bytes;

Bytes bytes(const std::string &hex) {
    return uoztest::hex_bytes(hex);
}

const char *const kVehicle = R"({"ecus": [
  {"name": "engine", "targetAddress": "0x7E0", "phy-req-id": "0x7E0",
   "dtcs": [
     {"code": "0x030100", "status": "0x2F", "severity": "0x40", "fdc": "0x7F", "obd": true,
      "permanent": true,
      "snapshots": {"01": {"0xF40C": "1A2B", "0xF405": "32"}, "02": {"0xF442": "3A98"}},
      "extended": {"01": "05", "02": "7F", "10": "01 02 A0"}},
     {"code": "0x017100", "status": "0x2B", "severity": "0x20", "obd": true,
      "snapshots": {"01": {"0xF40D": "0A"}}, "extended": {"01": "02"}},
     {"code": "0x011300", "status": "0x50", "severity": "0x20", "fdc": "0x32"},
     {"code": "0x0A0000", "status": "0x08"}
   ],
   "user-memories": {"01": [{"code": "0x0A1B00", "status": "0x28",
                             "snapshots": {"01": {"0xF40D": "00"}}, "extended": {"01": "01"}}]}},
  {"name": "partial", "targetAddress": "0x7E1", "phy-req-id": "0x7E1",
   "dtcs": [{"code": "0x070000", "status": "0x08", "fdc": "0x10"}],
   "unsupported-reports": ["0x09", "0x14"]}
]})";

struct ReportCase {
    std::string name;
    std::string request;
    std::string response;
    int ecu = 0;
};

// Shown in test names and failures instead of the bytes of the object.
void PrintTo(const ReportCase &c, std::ostream *os) {
    *os << c.request;
}

// The answer of the vehicle's ECU to the request, both as hex text.
std::string answer(int ecu, const std::string &request) {
    static const uozecusim::VehicleFile vehicle = uozecusim::parse_vehicle(kVehicle);
    Bytes sent = bytes(request);
    Bytes got = uozecusim::read_dtc_response(vehicle.ecus[ecu], sent.data(), sent.size());
    return uozuds::hex_compact(got.data(), got.size());
}

class ReadDtcResponse : public ::testing::TestWithParam<ReportCase> {};

TEST_P(ReadDtcResponse, IsTheIsoLayout) {
    std::string expected = GetParam().response;
    expected.erase(std::remove(expected.begin(), expected.end(), ' '), expected.end());
    EXPECT_EQ(answer(GetParam().ecu, GetParam().request), expected);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, ReadDtcResponse, ::testing::Values(
    ReportCase{"r01_all", "19 01 FF", "59 01 FF 01 0004"},
    ReportCase{"r01_confirmed", "19 01 08", "59 01 FF 01 0003"},
    ReportCase{"r02_test_failed", "19 02 01", "59 02 FF 030100 2F 017100 2B"},
    ReportCase{"r02_confirmed", "19 02 08", "59 02 FF 030100 2F 017100 2B 0A0000 08"},
    ReportCase{"r02_none", "19 02 80", "59 02 FF"},
    ReportCase{"r03", "19 03", "59 03 030100 01 030100 02 017100 01"},
    ReportCase{"r04_all_records", "19 04 030100 FF",
               "59 04 030100 2F 01 02 F40C 1A2B F405 32 02 01 F442 3A98"},
    ReportCase{"r04_one_record", "19 04 030100 02", "59 04 030100 2F 02 01 F442 3A98"},
    ReportCase{"r04_record_not_held", "19 04 017100 02", "59 04 017100 2B"},
    ReportCase{"r04_unknown_record", "19 04 030100 05", "7F 19 31"},
    ReportCase{"r04_unknown_dtc", "19 04 123456 01", "7F 19 31"},
    ReportCase{"r05_record", "19 05 01", "59 05 01 030100 2F 02 F40C 1A2B F405 32"},
    ReportCase{"r05_second_record", "19 05 02", "59 05 02 030100 2F 01 F442 3A98"},
    ReportCase{"r05_all", "19 05 FF",
               "59 05 01 030100 2F 02 F40C 1A2B F405 32 02 030100 2F 01 F442 3A98"},
    ReportCase{"r05_unknown_record", "19 05 07", "7F 19 31"},
    ReportCase{"r06_all", "19 06 030100 FF", "59 06 030100 2F 01 05 02 7F 10 01 02 A0"},
    ReportCase{"r06_one", "19 06 030100 02", "59 06 030100 2F 02 7F"},
    ReportCase{"r06_not_held", "19 06 017100 02", "59 06 017100 2B"},
    ReportCase{"r06_obd_records", "19 06 030100 FE", "59 06 030100 2F"},
    ReportCase{"r06_unknown_record", "19 06 030100 33", "7F 19 31"},
    ReportCase{"r07", "19 07 40 FF", "59 07 FF 01 0001"},
    ReportCase{"r08", "19 08 20 FF", "59 08 FF 20 10 017100 2B 20 10 011300 50"},
    ReportCase{"r09", "19 09 030100", "59 09 FF 40 10 030100 2F"},
    ReportCase{"r09_unknown_dtc", "19 09 999999", "7F 19 31"},
    ReportCase{"r0A", "19 0A", "59 0A FF 030100 2F 017100 2B 011300 50 0A0000 08"},
    ReportCase{"r0B", "19 0B", "59 0B FF 030100 2F"},
    ReportCase{"r0C", "19 0C", "59 0C FF 030100 2F"},
    ReportCase{"r0D", "19 0D", "59 0D FF 017100 2B"},
    ReportCase{"r0E", "19 0E", "59 0E FF 0A0000 08"},
    ReportCase{"r0F", "19 0F 04", "59 0F FF 030100 2F"},
    ReportCase{"r10", "19 10 017100 01", "59 10 017100 2B 01 02"},
    ReportCase{"r11", "19 11 08", "59 11 FF 01 0003"},
    ReportCase{"r12", "19 12 08", "59 12 FF 01 0002"},
    ReportCase{"r13", "19 13 01", "59 13 FF 030100 2F 017100 2B"},
    ReportCase{"r14_pre_failed_only", "19 14", "59 14 011300 32"},
    ReportCase{"r15", "19 15", "59 15 FF 030100 2F"},
    ReportCase{"r16", "19 16 01", "59 16 01 030100 2F 05 017100 2B 02"},
    ReportCase{"r16_three_bytes", "19 16 10", "59 16 10 030100 2F 01 02 A0"},
    ReportCase{"r16_unknown_record", "19 16 55", "7F 19 31"},
    ReportCase{"r17", "19 17 FF 01", "59 17 01 FF 0A1B00 28"},
    ReportCase{"r17_unknown_memory", "19 17 FF 02", "7F 19 31"},
    ReportCase{"r18", "19 18 0A1B00 FF 01", "59 18 01 0A1B00 28 01 01 F40D 00"},
    ReportCase{"r19", "19 19 0A1B00 FF 01", "59 19 01 0A1B00 28 01 01"},
    ReportCase{"r19_dtc_of_other_memory", "19 19 030100 FF 01", "7F 19 31"},
    ReportCase{"unknown_report", "19 42 FF 01", "7F 19 12"},
    ReportCase{"suppress_bit", "19 82 FF", "7F 19 12"},
    ReportCase{"too_short", "19 02", "7F 19 13"},
    ReportCase{"no_report", "19", "7F 19 13"},
    ReportCase{"too_long", "19 02 FF 00", "7F 19 13"},
    ReportCase{"unsupported_report", "19 14", "7F 19 12", 1},
    ReportCase{"unsupported_before_length", "19 09", "7F 19 12", 1}),
    [](const auto &info) { return info.param.name; });
// clang-format on

TEST(ReadDtcStoredData, EchoesASupportedRecordThatNoDtcHolds) {
    uozecusim::VehicleFile vehicle = uozecusim::parse_vehicle(kVehicle);
    uozecusim::SimulatedEcu &engine = vehicle.ecus[0];
    engine.dtcs.clear();  // as after ClearDiagnosticInformation
    Bytes request = bytes("19 05 02");
    EXPECT_EQ(uozecusim::read_dtc_response(engine, request.data(), request.size()),
              bytes("59 05 02"));
    request = bytes("19 16 01");
    EXPECT_EQ(uozecusim::read_dtc_response(engine, request.data(), request.size()),
              bytes("59 16 01"));
}

// Every report type known to the builder answers the request of its own
// length, and refuses one byte more or less.
TEST(ReadDtcRequestLength, IsCheckedForEveryReportType) {
    uozecusim::VehicleFile vehicle = uozecusim::parse_vehicle(kVehicle);
    for (int report = 0x01; report <= 0x19; ++report) {
        size_t length = uozecusim::read_dtc_request_length(static_cast<uint8_t>(report));
        ASSERT_GE(length, 2u) << report;
        for (size_t wrong : {length - 1, length + 1}) {
            Bytes request(wrong, 0xFF);
            request[0] = 0x19;
            if (wrong >= 2)
                request[1] = static_cast<uint8_t>(report);
            Bytes answer =
                uozecusim::read_dtc_response(vehicle.ecus[0], request.data(), request.size());
            EXPECT_EQ(answer, bytes("7F 19 13")) << "report " << report << " length " << wrong;
        }
    }
    EXPECT_EQ(uozecusim::read_dtc_request_length(0x1A), 0u);
}

}  // namespace
