// The simulated ECU as a UDS server: exchanges of requests and exact answers,
// with time moved on by the test.
#include "uds_server.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "hex_bytes.h"
#include "hex_text.h"

namespace {

using uozecusim::Bytes;
using uozecusim::Clock;

Bytes bytes(const std::string &hex) {
    return uoztest::hex_bytes(hex);
}

std::string spaced(const Bytes &data) {
    return uozuds::hex_spaced(data.data(), data.size());
}

const char *const kEcu = R"({"ecus": [
  {"name": "engine", "targetAddress": "0x7E0", "phy-req-id": "0x7E0",
   "dids": {"0xF189": "ENG-2", "0xF40C": {"hex": "0BB8"}},
   "security-levels": ["0x01", "0x03"],
   "dtcs": [{"code": "0x030100", "status": "0x2F", "obd": true},
            {"code": "0x900113", "status": "0x24"}],
   "dtc-status-availability-mask": "0x2F",
   "user-memories": {"0x01": [{"code": "0x0A1B00", "status": "0x28"}]},
   "routine-control": {
     "0x0203": {"start": "00", "results": "00"},
     "0xFF01": {"start": "01", "results": "00 00", "stop": "02", "duration-ms": 1500},
     "0xFF02": {"start": "00", "results": "11", "security-level": "0x01"}}}]})";

// One exchange: wait `after_ms`, send `request`, expect `answer` ("" for no
// answer at all), and optionally the work time before it.
struct Step {
    std::string request;
    std::string answer;
    uint32_t after_ms = 0;
    uint32_t busy_ms = 0;
};

struct Exchange {
    std::string name;
    std::vector<Step> steps;
};

// Shown in test names and failures instead of the bytes of the object.
void PrintTo(const Exchange &c, std::ostream *os) {
    *os << c.name;
}

// Seeds 0x11223344, 0x55667788, ... so that keys are known in advance.
uozecusim::EcuServer make_server() {
    static const uint32_t kSeeds[] = {0x11223344, 0x55667788, 0x0BADF00D, 0x01020304};
    auto next = std::make_shared<size_t>(0);
    uozecusim::ServerSettings settings;
    settings.s3_ms = 5000;
    settings.security_delay_ms = 10000;
    return uozecusim::EcuServer(uozecusim::parse_vehicle(kEcu).ecus[0], settings,
                                [next] { return kSeeds[(*next)++ % 4]; });
}

std::string key_request(uint8_t level, uint32_t seed) {
    char text[32];
    snprintf(text, sizeof(text), "27 %02X %08X", level + 1, uozuds::builtin_key(level, seed));
    return text;
}

class UdsServerExchange : public ::testing::TestWithParam<Exchange> {};

TEST_P(UdsServerExchange, AnswersEachRequestExactly) {
    uozecusim::EcuServer server = make_server();
    Clock::time_point now = Clock::now();
    int index = 0;
    for (const Step &step : GetParam().steps) {
        now += std::chrono::milliseconds(step.after_ms);
        Bytes request = bytes(step.request);
        uozecusim::UdsAnswer answer = server.handle(request.data(), request.size(), now);
        std::string got = answer.suppressed ? "" : spaced(answer.response);
        EXPECT_EQ(got, spaced(bytes(step.answer))) << "step " << index << ": " << step.request;
        EXPECT_EQ(answer.busy_ms, step.busy_ms) << "step " << index;
        ++index;
    }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, UdsServerExchange, ::testing::Values(
    Exchange{"sessions_with_timing", {{"10 03", "50 03 0032 01F4"}, {"22 F186", "62 F186 03"},
                                      {"10 02", "50 02 0032 01F4"}, {"10 01", "50 01 0032 01F4"},
                                      {"22 F186", "62 F186 01"}}},
    Exchange{"session_errors", {{"10 04", "7F 10 12"}, {"10", "7F 10 13"}, {"10 03 00", "7F 10 13"}}},
    Exchange{"session_suppressed", {{"10 83", ""}, {"22 F186", "62 F186 03"}}},
    Exchange{"s3_falls_back_and_locks",
             {{"10 03", "50 03 0032 01F4"}, {"27 01", "67 01 11223344"},
              {key_request(0x01, 0x11223344), "67 02"}, {"31 01 FF02", "71 01 FF02 00"},
              {"22 F186", "62 F186 01", 5001}, {"31 01 FF02", "7F 31 33"}}},
    Exchange{"tester_present_keeps_the_session",
             {{"10 03", "50 03 0032 01F4"}, {"3E 00", "7E 00", 4000}, {"3E 80", "", 4000},
              {"22 F186", "62 F186 03", 4000}, {"22 F186", "62 F186 01", 5001}}},
    Exchange{"tester_present_errors", {{"3E 01", "7F 3E 12"}, {"3E", "7F 3E 13"}}},
    Exchange{"reset", {{"10 03", "50 03 0032 01F4"}, {"11 01", "51 01"}, {"22 F186", "62 F186 01"},
                       {"11 81", ""}, {"11 04", "7F 11 12"}, {"11", "7F 11 13"}}},
    Exchange{"read_dids", {{"22 F189", "62 F189 454E472D32"},
                           {"22 F189 F40C", "62 F189 454E472D32 F40C 0BB8"},
                           {"22 F189 1234", "62 F189 454E472D32"},
                           {"22 1234", "7F 22 31"}, {"22 F1", "7F 22 13"}, {"22", "7F 22 13"}}},
    Exchange{"clear_one_then_all",
             {{"19 02 FF", "59 02 2F 030100 2F 900113 24"}, {"14 030100", "54"},
              {"19 02 FF", "59 02 2F 900113 24"}, {"14 030100", "54"},
              {"19 0A", "59 0A 2F 030100 00 900113 24"}, {"14 123456", "7F 14 31"}, {"14 FFFFFF", "54"},
              {"19 02 FF", "59 02 2F"}, {"14 FFFF", "7F 14 13"}}},
    Exchange{"clear_emission_group", {{"14 FFFF33", "54"}, {"19 02 FF", "59 02 2F 900113 24"}}},
    Exchange{"clear_user_memory",
             {{"14 FFFFFF 07", "7F 14 31"}, {"19 17 FF 01", "59 17 01 2F 0A1B00 28"},
              {"14 FFFFFF 01", "54"}, {"19 17 FF 01", "59 17 01 2F"},
              {"19 02 FF", "59 02 2F 030100 2F 900113 24"}, {"14 FFFFFF 01 00", "7F 14 13"}}},
    Exchange{"security_needs_a_non_default_session", {{"27 01", "7F 27 7F"}}},
    Exchange{"security_unlocks_with_the_builtin_key",
             {{"10 03", "50 03 0032 01F4"}, {"27 01", "67 01 11223344"},
              {key_request(0x01, 0x11223344), "67 02"}, {"27 01", "67 01 00000000"},
              {"27 03", "67 03 55667788"}, {key_request(0x03, 0x55667788), "67 04"}}},
    Exchange{"key_of_another_level_is_invalid",
             {{"10 03", "50 03 0032 01F4"}, {"27 03", "67 03 11223344"},
              {"27 04 " + key_request(0x01, 0x11223344).substr(6), "7F 27 35"}}},
    Exchange{"key_without_seed", {{"10 03", "50 03 0032 01F4"}, {"27 02 00000000", "7F 27 24"}}},
    Exchange{"key_answers_one_seed",
             {{"10 03", "50 03 0032 01F4"}, {"27 01", "67 01 11223344"}, {"27 02 00000000", "7F 27 35"},
              {key_request(0x01, 0x11223344), "7F 27 24"}}},
    Exchange{"attempts_then_delay",
             {{"10 03", "50 03 0032 01F4"},
              {"27 01", "67 01 11223344"}, {"27 02 00000000", "7F 27 35"},
              {"27 01", "67 01 55667788"}, {"27 02 00000000", "7F 27 35"},
              {"27 01", "67 01 0BADF00D"}, {"27 02 00000000", "7F 27 36"},
              {"3E 00", "7E 00", 4000}, {"27 01", "7F 27 37", 4000}, {"3E 00", "7E 00", 1900},
              {"27 01", "67 01 01020304", 200}, {key_request(0x01, 0x01020304), "67 02"}}},
    Exchange{"security_errors",
             {{"10 03", "50 03 0032 01F4"}, {"27 05", "7F 27 12"}, {"27 00", "7F 27 12"},
              {"27", "7F 27 13"}, {"27 01 00", "7F 27 13"}, {"27 01", "67 01 11223344"},
              {"27 02 00", "7F 27 13"}}},
    Exchange{"session_change_relocks",
             {{"10 03", "50 03 0032 01F4"}, {"27 01", "67 01 11223344"},
              {key_request(0x01, 0x11223344), "67 02"}, {"10 03", "50 03 0032 01F4"},
              {"31 01 FF02", "7F 31 33"}}},
    Exchange{"routine_start_results",
             {{"31 03 0203", "7F 31 24"}, {"31 01 0203", "71 01 0203 00"},
              {"31 03 0203", "71 03 0203 00"}, {"31 02 0203", "7F 31 12"}}},
    Exchange{"slow_routine_is_busy_then_stops",
             {{"31 01 FF01", "71 01 FF01 01", 0, 1500}, {"31 02 FF01", "71 02 FF01 02"},
              {"31 02 FF01", "7F 31 24"}, {"31 03 FF01", "71 03 FF01 0000"}}},
    Exchange{"routine_errors",
             {{"31 01 1234", "7F 31 31"}, {"31 04 0203", "7F 31 12"}, {"31 01 02", "7F 31 13"},
              {"31 01 FF02", "7F 31 33"}, {"31 81 0203", ""}}},
    Exchange{"unknown_service_or_none",
             {{"2E F189 00", "7F 2E 11"}, {"85 01", "7F 85 11"}, {"", "7F 00 13"}}}),
    [](const auto &info) { return info.param.name; });
// clang-format on

TEST(UdsServer, RandomSeedsAreNeverZero) {
    uozecusim::EcuServer server(uozecusim::parse_vehicle(kEcu).ecus[0], {}, [] { return 0u; });
    Clock::time_point now = Clock::now();
    Bytes session = bytes("10 03");
    server.handle(session.data(), session.size(), now);
    Bytes seed_request = bytes("27 01");
    EXPECT_EQ(spaced(server.handle(seed_request.data(), seed_request.size(), now).response),
              "67 01 00 00 00 01");
}

}  // namespace
