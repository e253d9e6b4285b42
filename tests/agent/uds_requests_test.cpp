// The query -> UDS request translation, byte for byte.
#include "uds_requests.h"

#include <gtest/gtest.h>

#include "j1939_version.h"
#include "json_helpers.h"

namespace uozagent {
namespace {

using uoztools::JsonPtr;

JsonPtr parse(const char *text) {
    JsonPtr json(json_tokener_parse(text));
    EXPECT_NE(json, nullptr) << text;
    return json;
}

struct RefusedCase {
    const char *uds;
    const char *error;
};

const RefusedCase kRefusedCases[] = {
    {R"({"SID":"0x22","subfunction":"UDS_REPORT_SUPPORTED_DTCS"})",
     "only ReadDTCInformation (\"SID\" \"0x19\") is served as \"uds\""},
    {R"({"SID":"0x19","subfunction":"UDS_REPORT_NO_DTC_BY_SEVERITY_MASK_RECORD"})",
     "unknown report \"UDS_REPORT_NO_DTC_BY_SEVERITY_MASK_RECORD\""},
    {R"({"SID":"0x19","subfunction":"NO_SUCH_REPORT"})", "unknown report \"NO_SUCH_REPORT\""},
    {R"({"SID":"0x19","subfunction":"UDS_REPORT_DTC_BY_STATUS_MASK"})",
     "report \"UDS_REPORT_DTC_BY_STATUS_MASK\" needs a \"data-record\""},
    {R"({"SID":"0x19","subfunction":"UDS_REPORT_DTC_BY_STATUS_MASK","data-record":{"type":"STATUS_MASK","record":["BIT_NINE"]}})",
     "unknown status bit name \"BIT_NINE\""},
    {R"({"SID":"0x19","subfunction":"UDS_REPORT_DTC_SNAPSHOT_RECORD_BY_DTC_NUMBER","data-record":{"type":"DTC_AND_RECORD","record":"1FFFFFF05"}})",
     "\"1FFFFFF05\" holds no three-byte DTC number"},
    {R"({"SID":"0x19","subfunction":"UDS_REPORT_DTC_STORED_DATA_BY_RECORD_NUMBER","data-record":{"type":"RECORD","record":"0101"}})",
     "the report needs its DTC and/or record number as hex text in \"record\""},
    {R"({"SID":"0x19","subfunction":"UDS_REPORT_DTC_STORED_DATA_BY_RECORD_NUMBER","data-record":{"type":"RECORD","record":"G1"}})",
     "\"G1\" holds no record number"},
};

class RefusedDtcRequestTest : public ::testing::TestWithParam<RefusedCase> {};

TEST_P(RefusedDtcRequestTest, saysWhyAndGivesNoBytes) {
    JsonPtr uds = parse(GetParam().uds);
    std::string error;
    EXPECT_TRUE(read_dtc_request(uds.get(), &error).empty());
    EXPECT_EQ(error, GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(MalformedRequests, RefusedDtcRequestTest,
                         ::testing::ValuesIn(kRefusedCases));

TEST(VersionTest, readsEveryConfiguredDidInOrder) {
    JsonPtr version =
        parse(R"({"uds":[{"did":"0xF189","name":"software version"},{"did":"0xF191"}]})");
    std::string error;
    std::vector<VersionItem> items = version_items(version.get(), &error);
    ASSERT_EQ(items.size(), 2u) << error;
    EXPECT_EQ(hex_text(read_did_request(items[0].did)), "22F189");
    EXPECT_EQ(hex_text(read_did_request(items[1].did)), "22F191");
    EXPECT_EQ(items[0].name, "software version");
    EXPECT_EQ(version_text(items, {"ENG-2.4.1", "B3"}), "software version: ENG-2.4.1, 0xF191: B3");
    EXPECT_EQ(version_text({items[0]}, {"ENG-2.4.1"}), "ENG-2.4.1");
    // F189's size is not known here: its answer could not be split after it.
    EXPECT_TRUE(read_dids_request(items).empty());
    std::vector<VersionItem> speeds = {{0xF40D, ""}, {0xF40C, ""}, {0xF189, ""}};
    EXPECT_EQ(hex_text(read_dids_request(speeds)), "22F40DF40CF189");
    std::vector<Bytes> answers;
    ASSERT_TRUE(split_dids_answer(
        speeds, {0x62, 0xF4, 0x0D, 0x32, 0xF4, 0x0C, 0x0B, 0xB8, 0xF1, 0x89, 'A', 'B'}, &answers));
    EXPECT_EQ(hex_text(answers[0]) + " " + hex_text(answers[1]) + " " + hex_text(answers[2]),
              "62F40D32 62F40C0BB8 62F1894142");
    // A DID the ECU left out, or a short answer, does not split.
    EXPECT_FALSE(split_dids_answer(speeds, {0x62, 0xF4, 0x0D, 0x32, 0xF1, 0x89, 'A'}, &answers));
    EXPECT_FALSE(split_dids_answer(speeds, {0x62, 0xF4, 0x0D, 0x32, 0xF4, 0x0C, 0x0B}, &answers));
}

TEST(VersionTest, aJ1939DescriptionIsReadOnlyWithACanInterface) {
    const struct {
        const char *version;
        bool j1939;
        const char *error;
    } cases[] = {
        {R"({"uds":[]})", false, ""},
        {R"({"j1939":{"pgn":"0xFEDA","source-address":"0x03"}})", true,  // a DoIP ECU's
         "a J1939 version read needs the ECU's CAN interface name, which only a CAN ECU's "
         "description carries"},
        {R"({"pgn":"0xFEDAX","source-address":"0x03","ifname":"can0"})", true,
         "the J1939 description's \"pgn\" (0xFEDAX) is not a valid value"},
        {R"({"pgn":65242,"source-address":"0xFE","ifname":"can0"})", true,
         "the J1939 description's \"source-address\" (0xFE) is not a valid value"},
    };
    EcuTarget routed;
    routed.transport = Transport::kDoip;
    std::string error;
    read_j1939_version(parse(cases[2].version).get(), routed, AgentSettings{}, &error);
    EXPECT_EQ(error, "a J1939 version read goes over CAN, and this ECU is reached over DoIP");
    for (const auto &row : cases) {
        JsonPtr version = parse(row.version);
        EXPECT_EQ(is_j1939_description(version.get()), row.j1939) << row.version;
        if (!row.j1939)
            continue;
        std::string error;
        EXPECT_EQ(read_j1939_version(version.get(), EcuTarget{}, AgentSettings{}, &error), "");
        EXPECT_EQ(error, row.error) << row.version;
    }
}

TEST(VersionTest, j1939AnswersAreShownAsText) {
    const struct {
        uint32_t pgn;
        std::string data;
        const char *text;
    } cases[] = {
        {0xFEDA, std::string("\x02") + "ENG-1.2*BOOT-0.9*", "ENG-1.2, BOOT-0.9"},
        {0xFEDA, std::string("\x01") + "ENG-1.2  *BOOT-0.9*", "ENG-1.2"},  // the count rules
        {0xFEDA, std::string("\x02") + "ENG-1.2*BOOT", "ENG-1.2, BOOT"},
        {0xFEEB, "ACME*X1**U7*", "make: ACME, model: X1, unit number: U7"},
        {0xFEEB, std::string("AC\x01*", 4), "make: 414301"},
        {0xFEEC, "1FUJA6CV12L123456*", "1FUJA6CV12L123456*"},
        {0xFEEC, std::string("\x01\x02", 2), "0102"},
    };
    for (const auto &row : cases)
        EXPECT_EQ(j1939_text(row.pgn, Bytes(row.data.begin(), row.data.end())), row.text)
            << row.data;
}

TEST(VersionTest, anEmptyUdsListIsAClearFailure) {
    JsonPtr empty = parse(R"({"uds":[]})");
    std::string error;
    EXPECT_TRUE(version_items(empty.get(), &error).empty());
    EXPECT_EQ(error, "the version description has no \"uds\" identifiers to read");
}

TEST(VersionTest, didValuesAreTextWhenPrintableElseHex) {
    std::string error;
    EXPECT_EQ(did_value_text(0xF189, {0x62, 0xF1, 0x89, 'A', '-', '1', 0, 0}, &error), "A-1");
    EXPECT_EQ(did_value_text(0xF189, {0x62, 0xF1, 0x89, 0x01, 0xFF}, &error), "01FF");
    EXPECT_EQ(error, "");
    EXPECT_EQ(did_value_text(0xF189, {0x62, 0xF1, 0x90, 'A'}, &error), "");
    EXPECT_EQ(error, "the answer to DID 0xF189 is not its value: 62F19041");
}

TEST(RoutineTest, commandsBecomeServiceSubFunctionAndData) {
    JsonPtr routine = parse(R"({"name":"custom_commands","commands":[
        {"command":"ClearDTC","service":"0x14","subfn":"","data":"0xFFFFFF"},
        {"command":"ECUReset","service":"0x11","subfn":"0x01","data":""},
        {"command":"ReadDataByIdentifier","service":"0x22","subfn":"","data":"0xF190"},
        {"command":"StartRoutine","service":"0x31","subfn":"0x01","data":"0xFF00"},
        {"command":"Raw","request":"3E 00"},
        {"type":"predefined","service":"0x10","subfn":"0x03"}]})");
    std::string error;
    std::vector<UdsCommand> commands = routine_commands(routine.get(), &error);
    ASSERT_EQ(commands.size(), 6u) << error;
    const char *expected[][2] = {
        {"ClearDTC", "14FFFFFF"},     {"ECUReset", "1101"}, {"ReadDataByIdentifier", "22F190"},
        {"StartRoutine", "3101FF00"}, {"Raw", "3E00"},      {"command 6", "1003"}};
    for (size_t i = 0; i < commands.size(); ++i) {
        EXPECT_EQ(commands[i].name, expected[i][0]);
        EXPECT_EQ(hex_text(commands[i].request), expected[i][1]);
    }
}

TEST(RoutineTest, aCommandWithoutAServiceIsRefusedByName) {
    std::string error;
    JsonPtr routine = parse(R"({"commands":[{"command":"ReadVIN","data":"0xF190"}]})");
    EXPECT_TRUE(routine_commands(routine.get(), &error).empty());
    EXPECT_EQ(error, "ReadVIN: a command needs a one-byte \"service\" such as \"0x22\"");
    JsonPtr none = parse(R"({"name":"x","commands":[]})");
    EXPECT_TRUE(routine_commands(none.get(), &error).empty());
    EXPECT_EQ(error, "the routine has no \"commands\"");
    JsonPtr bad = parse(R"({"commands":[{"command":"X","service":"0x22","data":"0xZZ"}]})");
    EXPECT_TRUE(routine_commands(bad.get(), &error).empty());
    EXPECT_EQ(error, "X: \"data\" \"0xZZ\" is not hex");
}

TEST(SecurityTest, levelAndSessionComeFromTheRoutine) {
    std::string error;
    JsonPtr routine = parse(R"({"security_access":{"level":"0x03"}})");
    SecurityRequest wanted = security_request(routine.get(), &error);
    EXPECT_TRUE(wanted.wanted);
    EXPECT_EQ(wanted.level, 0x03);
    EXPECT_EQ(wanted.session, 0x03);
    JsonPtr programming = parse(R"({"security_access":{"level":"0x11","session":"0x02"}})");
    EXPECT_EQ(security_request(programming.get(), &error).session, 0x02);
    JsonPtr even = parse(R"({"security_access":{"level":"0x02"}})");
    EXPECT_FALSE(security_request(even.get(), &error).wanted);
    EXPECT_EQ(error, "\"security_access\" needs an odd \"level\" from 0x01 to 0x7D");
    JsonPtr none = parse(R"({"name":"x"})");
    error.clear();
    EXPECT_FALSE(security_request(none.get(), &error).wanted);
    EXPECT_EQ(error, "");
}

TEST(SecurityTest, seedAndKeyMessages) {
    EXPECT_TRUE(is_seed_request({0x27, 0x01}));
    EXPECT_FALSE(is_seed_request({0x27, 0x02, 0x00}));
    EXPECT_FALSE(is_seed_request({0x27, 0x01, 0x00}));
    Bytes seed;
    EXPECT_TRUE(seed_of({0x67, 0x01, 0x12, 0x34, 0x56, 0x78}, 0x01, &seed));
    EXPECT_EQ(hex_text(seed), "12345678");
    EXPECT_FALSE(seed_of({0x67, 0x03, 0x12}, 0x01, &seed));
    EXPECT_FALSE(seed_of({0x7F, 0x27, 0x35}, 0x01, &seed));
    EXPECT_EQ(hex_text(send_key_request(0x01, {0xAA, 0xBB, 0xCC, 0xDD})), "2702AABBCCDD");
}

TEST(SessionTimingTest, readsP2InMillisecondsAndP2StarInTensOfMilliseconds) {
    uint32_t p2 = 0, p2_star = 0;
    EXPECT_TRUE(session_timing({0x50, 0x03, 0x00, 0x32, 0x01, 0xF4}, &p2, &p2_star));
    EXPECT_EQ(p2, 50u);
    EXPECT_EQ(p2_star, 5000u);
    EXPECT_FALSE(session_timing({0x50, 0x03}, &p2, &p2_star));
    EXPECT_FALSE(session_timing({0x7F, 0x10, 0x12, 0x00, 0x00, 0x00}, &p2, &p2_star));
}

TEST(NegativeResponseTest, isSevenFServiceCode) {
    uint8_t code = 0;
    EXPECT_TRUE(is_negative_response({0x7F, 0x19, 0x31}, &code));
    EXPECT_EQ(code, 0x31);
    EXPECT_FALSE(is_negative_response({0x7F, 0x19}));
    EXPECT_FALSE(is_negative_response({0x59, 0x02, 0xFF}));
}

}  // namespace
}  // namespace uozagent
