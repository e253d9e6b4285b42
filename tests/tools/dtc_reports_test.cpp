// ReadDTCInformation across the rooms that share the report table: the
// library's query becomes the agent's request bytes, the simulator answers
// them, uozctl decodes the answer; each case of dtc_reports.expected pins all
// three.
#include <gtest/gtest.h>

#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "UDSOverZelko/read_dtc.h"
#include "dtc_decode.h"
#include "dtc_reports.h"
#include "file_text.h"
#include "hex_bytes.h"
#include "kt5Utils/kt5_json.h"
#include "read_dtc.h"
#include "uds_requests.h"
#include "vehicle.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Case {
    std::string name;
    int ecu = 0;
    std::string request;  // "" for bytes that are only decoded
    std::string answer;
    bool sizes = false;
    std::string json;
    std::string text;
};

void PrintTo(const Case &c, std::ostream *os) {
    *os << c.name;
}

std::vector<Case> read_cases() {
    std::istringstream lines(uoztest::file_text(UOZ_TESTS_DIR "/dtc_reports.expected"));
    std::vector<Case> cases;
    for (std::string line; std::getline(lines, line);) {
        std::string word = line.substr(0, line.find(' '));
        std::string rest = line.size() > word.size() ? line.substr(word.size() + 1) : "";
        if (word == "case") {
            cases.emplace_back();
            cases.back().name = rest;
        } else if (line.rfind("  ", 0) == 0)
            cases.back().text += line + "\n";
        else if (word == "ecu")
            cases.back().ecu = std::stoi(rest);
        else if (word == "request")
            cases.back().request = rest;
        else if (word == "answer")
            cases.back().answer = rest;
        else if (word == "sizes")
            cases.back().sizes = true;
        else if (word == "json")
            cases.back().json = rest;
    }
    return cases;
}

const uozecusim::VehicleFile &test_vehicle() {
    static const uozecusim::VehicleFile vehicle =
        uozecusim::parse_vehicle(uoztest::file_text(UOZ_TESTS_DIR "/dtc_reports_vehicle.json"));
    return vehicle;
}

std::string spaced(const Bytes &bytes) {
    return uozuds::hex_spaced(bytes.data(), bytes.size());
}

// The agent's bytes for the query the library builds for this request; the
// request itself when the library cannot ask for it.
std::string agent_request(const Bytes &request, std::string *error) {
    const uozuds::DtcReportType *type =
        request.size() >= 2 ? uozuds::find_dtc_report(request[1]) : nullptr;
    if (type == nullptr || !uozuds::asked_by_queries(*type) ||
        request.size() != uozuds::dtc_request_length(*type))
        return spaced(request);
    uozuds::DtcRequest asked = uozuds::parse_dtc_request(*type, request.data());
    JsonPtr uds(build_read_dtc_body(type->number, asked.status_mask, asked.dtc, asked.record));
    return spaced(uozagent::read_dtc_request(uds.get(), error));
}

class DtcReports : public ::testing::TestWithParam<Case> {};

TEST_P(DtcReports, QueryRequestAnswerAndDecodedTextAgree) {
    const Case &c = GetParam();
    const Bytes answer = uoztest::hex_bytes(c.answer);
    if (!c.request.empty()) {
        const Bytes request = uoztest::hex_bytes(c.request);
        const uozecusim::SimulatedEcu &ecu = test_vehicle().ecus.at(c.ecu);
        EXPECT_EQ(spaced(uozecusim::read_dtc_response(ecu, request.data(), request.size())),
                  spaced(answer));
        std::string error;
        EXPECT_EQ(agent_request(request, &error), spaced(request)) << error;
    }
    uozuds::DataSizes sizes;
    sizes.dids[0x1234] = 2;
    sizes.extended_records[0x10] = 3;
    uozctl::DtcReport report =
        uozctl::decode_dtc_response(answer.data(), answer.size(), c.sizes ? &sizes : nullptr);
    EXPECT_EQ(uozctl::report_to_text(report), c.text);
    if (!c.json.empty()) {
        JsonPtr json(uozctl::report_to_json(report));
        EXPECT_EQ(json_object_to_json_string_ext(json.get(), JSON_C_TO_STRING_PLAIN), c.json);
    }
}

INSTANTIATE_TEST_SUITE_P(Golden, DtcReports, ::testing::ValuesIn(read_cases()),
                         [](const auto &info) { return info.param.name; });

// Every report type answers the request of its own length and refuses one
// byte more or less; a report type not in the table is refused as such.
TEST(DtcReportRequests, HaveTheLengthOfTheirLayout) {
    const uozecusim::SimulatedEcu &engine = test_vehicle().ecus[0];
    for (const uozuds::DtcReportType &type : uozuds::dtc_reports()) {
        size_t length = uozuds::dtc_request_length(type);
        for (size_t wrong : {length - 1, length + 1}) {
            Bytes request = {0x19, type.number};
            request.resize(wrong, 0xFF);
            EXPECT_EQ(spaced(uozecusim::read_dtc_response(engine, request.data(), wrong)),
                      "7F 19 13")
                << int(type.number) << " " << wrong;
        }
    }
    EXPECT_EQ(uozuds::find_dtc_report(0x1A), nullptr);
}

// Each prefix of an answer of every report type decodes without reading past
// its end (which ASan would catch).
TEST(DtcReportAnswers, CutAnywhereStillDecode) {
    for (uint8_t report = 0; report < 0x1A; ++report) {
        const Bytes whole = {0x59, report, 0xFF, 0x03, 0x01, 0x00, 0x2F, 0x01, 0x02, 0x03, 0x04};
        for (size_t length = 0; length <= whole.size(); ++length) {
            Bytes cut(whole.begin(), whole.begin() + length);  // exact size
            uozctl::decode_dtc_response(cut.data(), cut.size());
        }
    }
}

// Requests of every report type with masks, DTCs and records that the ECU has.
std::vector<Bytes> requests_for(const uozecusim::SimulatedEcu &ecu) {
    std::vector<Bytes> requests;
    for (const uozuds::DtcReportType &type : uozuds::dtc_reports()) {
        uozuds::DtcRequest request;
        request.type = &type;
        request.severity_mask = 0xFF;
        const std::vector<uozecusim::SimulatedDtc> *memory = &ecu.dtcs;
        if (type.memory_selection && !ecu.user_memories.empty()) {
            request.memory_selection = ecu.user_memories.begin()->first;
            memory = &ecu.user_memories.begin()->second;
        }
        request.dtc = memory->empty() ? 0x123456 : memory->front().code;
        for (uint8_t value : {0x01, 0x02, 0x08, 0xFF}) {
            request.status_mask = value;
            request.record = value;
            requests.push_back(uozuds::encode_dtc_request(request));
        }
    }
    return requests;
}

// Every answer of the example vehicle decodes whole, except the data of an
// extended record whose size only the ECU knows.
TEST(DtcReportAnswers, OfTheExampleVehicleDecodeWhole) {
    int positive = 0;
    for (const uozecusim::SimulatedEcu &ecu :
         uozecusim::parse_vehicle(uoztest::file_text(UOZ_EXAMPLES "/vehicle.json")).ecus) {
        for (const Bytes &request : requests_for(ecu)) {
            Bytes answer = uozecusim::read_dtc_response(ecu, request.data(), request.size());
            uozctl::DtcReport report = uozctl::decode_dtc_response(answer.data(), answer.size());
            std::string where = ecu.name + " " + spaced(request) + " -> " + spaced(answer);
            if (report.negative)
                continue;
            ++positive;
            EXPECT_EQ(report.report, request[1]) << where;
            bool unknown_record = ecu.name == "engine" && request.back() == 0xFF &&
                                  (request[1] == 0x06 || request[1] == 0x10);
            EXPECT_EQ(report.undecoded, unknown_record ? "10 01 02 A0" : "") << where;
            if (!unknown_record) {
                EXPECT_EQ(report.note, "") << where;
            }
        }
    }
    EXPECT_GT(positive, 100);
}

}  // namespace
