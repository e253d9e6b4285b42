// The simulator's answers read back by uozctl's decoder: for every report
// type and every ECU of the example vehicle, the decoder finds nothing it
// cannot place, except the data of an extended record whose size only the
// ECU knows.
#include <gtest/gtest.h>

#include <string>

#include "dtc_decode.h"
#include "file_text.h"
#include "hex_text.h"
#include "read_dtc.h"
#include "vehicle.h"

namespace {

uozecusim::VehicleFile example_vehicle() {
    return uozecusim::parse_vehicle(uoztest::file_text(UOZ_EXAMPLES "/vehicle.json"));
}

// Requests of every report type: masks, DTCs and records that each ECU has.
std::vector<std::vector<uint8_t>> requests_for(const uozecusim::SimulatedEcu &ecu) {
    std::vector<std::vector<uint8_t>> requests;
    uint32_t dtc = ecu.dtcs.empty() ? 0x123456 : ecu.dtcs[0].code;
    uint8_t high = static_cast<uint8_t>(dtc >> 16), middle = static_cast<uint8_t>(dtc >> 8),
            low = static_cast<uint8_t>(dtc);
    for (uint8_t report = 0x01; report <= 0x19; ++report) {
        switch (uozecusim::read_dtc_request_length(report)) {
            case 2:
                requests.push_back({0x19, report});
                break;
            case 3:
                for (uint8_t value : {0x01, 0x02, 0x08, 0xFF})
                    requests.push_back({0x19, report, value});
                break;
            case 4:
                requests.push_back(
                    {0x19, report, 0xFF, report == 0x17 ? uint8_t{0x01} : uint8_t{0xFF}});
                break;
            case 5:
                requests.push_back({0x19, report, high, middle, low});
                break;
            case 6:
                for (uint8_t record : {0x01, 0x02, 0xFF})
                    requests.push_back({0x19, report, high, middle, low, record});
                break;
            case 7:
                requests.push_back({0x19, report, 0x0A, 0x1B, 0x00, 0xFF, 0x01});
                break;
        }
    }
    return requests;
}

TEST(SimulatorAndDecoder, AgreeOnEveryReportOfTheExampleVehicle) {
    int positive = 0;
    for (const uozecusim::SimulatedEcu &ecu : example_vehicle().ecus) {
        for (const std::vector<uint8_t> &request : requests_for(ecu)) {
            std::vector<uint8_t> answer =
                uozecusim::read_dtc_response(ecu, request.data(), request.size());
            uozctl::DtcReport report = uozctl::decode_dtc_response(answer.data(), answer.size());
            std::string where = ecu.name + " " +
                                uozuds::hex_spaced(request.data(), request.size()) + " -> " +
                                uozuds::hex_spaced(answer.data(), answer.size());
            if (report.negative)
                continue;
            ++positive;
            EXPECT_EQ(report.report, request[1]) << where;
            bool unknown_record = (answer[1] == 0x06 || answer[1] == 0x10) && request[5] == 0xFF &&
                                  ecu.name == "engine";
            if (unknown_record) {
                EXPECT_EQ(report.undecoded, "10 01 02 A0") << where;
                continue;
            }
            EXPECT_EQ(report.note, "") << where;
            EXPECT_EQ(report.undecoded, "") << where;
        }
    }
    EXPECT_GT(positive, 100);
}

}  // namespace
