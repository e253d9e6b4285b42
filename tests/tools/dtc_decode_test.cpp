// The command line's DTC decoder against byte vectors of every report family.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "dtc_decode.h"
#include "hex_bytes.h"

namespace uozctl {
namespace {

DtcReport decode(const std::vector<uint8_t> &bytes) {
    return decode_dtc_response(bytes.data(), bytes.size());
}

TEST(DtcDecodeTest, dtcTextsFollowTheCustomaryForm) {
    struct Case {
        uint32_t code;
        const char *text;
    } cases[] = {{0x030100, "P0301-00"}, {0x017100, "P0171-00"}, {0x900113, "B1001-13"},
                 {0xC10000, "U0100-00"}, {0x4ABCDE, "C0ABC-DE"}, {0xFFFFFF, "U3FFF-FF"}};
    for (const Case &c : cases)
        EXPECT_EQ(dtc_text(c.code), c.text);
}

TEST(DtcDecodeTest, statusMaskReportsListDtcsWithTheirSetBits) {
    DtcReport report = decode({0x59, 0x02, 0xFF, 0x03, 0x01, 0x00, 0x2F, 0x90, 0x01, 0x13, 0x24});
    EXPECT_EQ(report.report, 0x02);
    EXPECT_EQ(report.availability_mask, 0xFF);
    ASSERT_EQ(report.dtcs.size(), 2u);
    EXPECT_EQ(report.dtcs[0].text, "P0301-00");
    EXPECT_EQ(report.dtcs[0].status, 0x2F);
    EXPECT_EQ(report.dtcs[0].status_names,
              (std::vector<std::string>{"testFailed", "testFailedThisOperationCycle", "pendingDTC",
                                        "confirmedDTC", "testFailedSinceLastClear"}));
    EXPECT_EQ(report.dtcs[1].status_names,
              (std::vector<std::string>{"pendingDTC", "testFailedSinceLastClear"}));
    EXPECT_TRUE(report.note.empty());
}

TEST(DtcDecodeTest, countReportsGiveFormatAndCount) {
    DtcReport report = decode({0x59, 0x01, 0xFF, 0x01, 0x01, 0x02});
    EXPECT_EQ(report.count, 258);
    EXPECT_EQ(report.format, 0x01);
    EXPECT_NE(decode({0x59, 0x11, 0xFF, 0x01, 0x00}).note.find("too short"), std::string::npos);
    EXPECT_NE(decode({0x59, 0x12, 0xFF, 0x01, 0x00, 0x01, 0xAA}).note.find("extra bytes"),
              std::string::npos);
}

TEST(DtcDecodeTest, severityAndFaultCounters) {
    DtcReport severity = decode({0x59, 0x09, 0xFF, 0x40, 0x10, 0x03, 0x01, 0x00, 0x2F});
    ASSERT_EQ(severity.dtcs.size(), 1u);
    EXPECT_EQ(severity.dtcs[0].severity, 0x40);
    EXPECT_EQ(severity.dtcs[0].functional_unit, 0x10);
    EXPECT_EQ(severity.dtcs[0].text, "P0301-00");
    DtcReport counters = decode({0x59, 0x14, 0x03, 0x01, 0x00, 0x7F});
    EXPECT_EQ(counters.dtcs[0].fault_detection_counter, 0x7F);
}

TEST(DtcDecodeTest, truncatedPaddedNegativeAndForeignResponsesAreNamedNotCrashed) {
    DtcReport cut = decode({0x59, 0x02, 0xFF, 0x03, 0x01});
    EXPECT_TRUE(cut.dtcs.empty());
    EXPECT_EQ(cut.note, "trailing 2 byte(s) that form no whole record: 03 01");
    DtcReport padded = decode({0x59, 0x02, 0xFF, 0x03, 0x01, 0x00, 0x2F, 0x00});
    EXPECT_EQ(padded.dtcs.size(), 1u);
    EXPECT_NE(padded.note.find("trailing 1 byte"), std::string::npos);
    DtcReport negative = decode({0x7F, 0x19, 0x12});
    EXPECT_TRUE(negative.negative);
    EXPECT_EQ(negative.nrc_name, "subFunctionNotSupported");
    EXPECT_NE(decode({0x7F, 0x19}).note.find("cut short"), std::string::npos);
    EXPECT_NE(decode({0x62, 0xF1}).note.find("not a ReadDTCInformation response"),
              std::string::npos);
    EXPECT_EQ(decode({}).note, "empty response");
    EXPECT_NE(decode({0x59, 0x42, 0x01}).note.find("unknown report"), std::string::npos);
    for (size_t length = 0; length < 12; ++length) {  // every prefix of every family decodes
        for (uint8_t report = 0; report < 0x1A; ++report) {
            std::vector<uint8_t> bytes = {0x59, report, 0xFF, 0x03, 0x01, 0x00,
                                          0x2F, 0x01,   0x02, 0x03, 0x04, 0x05};
            bytes.resize(length);
            decode(bytes);
        }
    }
}

TEST(DtcDecodeTest, textAndJsonRenderings) {
    DtcReport report = decode({0x59, 0x02, 0xFF, 0x03, 0x01, 0x00, 0x09});
    EXPECT_EQ(report_to_text(report),
              "  report 0x02: DTCs by status mask\n"
              "  P0301-00  (0x030100)  status 0x09 [testFailed, confirmedDTC]\n");
    json_object *json = report_to_json(report);
    EXPECT_STREQ(
        json_object_to_json_string_ext(json, JSON_C_TO_STRING_PLAIN),
        R"({"negative":false,"report":2,"availability_mask":255,"dtcs":[{"dtc":"P0301-00","code":196864,"status":9,"status_bits":["testFailed","confirmedDTC"],"records":[]}]})");
    json_object_put(json);
}

using uoztest::hex_bytes;

struct ReportCase {
    std::string name;
    std::string bytes;
    std::string text;
};

// Shown in test names and failures instead of the bytes of the object.
void PrintTo(const ReportCase &c, std::ostream *os) {
    *os << c.bytes;
}

class DtcDecodeReport : public ::testing::TestWithParam<ReportCase> {};

// Each report type laid out as ISO 14229-1 has it, decoded to the exact text.
TEST_P(DtcDecodeReport, ReadsTheIsoLayout) {
    EXPECT_EQ(report_to_text(decode(hex_bytes(GetParam().bytes))), GetParam().text)
        << GetParam().bytes;
}

const char kP0301[] =
    "  P0301-00  (0x030100)  status 0x2F [testFailed, testFailedThisOperationCycle, "
    "pendingDTC, confirmedDTC, testFailedSinceLastClear]\n";
const char kP0171[] =
    "  P0171-00  (0x017100)  status 0x2B [testFailed, testFailedThisOperationCycle, "
    "confirmedDTC, testFailedSinceLastClear]\n";

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, DtcDecodeReport, ::testing::Values(
    ReportCase{"r01", "59 01 FF 01 00 04",
               "  report 0x01: number of DTCs by status mask\n"
               "  4 DTC(s) (format 0x01, availability mask 0xFF)\n"},
    ReportCase{"r02", "59 02 FF 030100 2F 017100 2B",
               std::string("  report 0x02: DTCs by status mask\n") + kP0301 + kP0171},
    ReportCase{"r03", "59 03 030100 01 030100 02",
               "  report 0x03: snapshot identification\n"
               "  P0301-00  (0x030100)  record 0x01\n"
               "  P0301-00  (0x030100)  record 0x02\n"},
    ReportCase{"r04_two_records", "59 04 030100 2F 01 02 F40C 1A2B F405 32 02 01 F442 3A98",
               std::string("  report 0x04: snapshot records of a DTC\n") + kP0301 +
               "      snapshot record 0x01, 2 identifier(s)\n"
               "        DID 0xF40C (engine speed): 1A 2B\n"
               "        DID 0xF405 (engine coolant temperature): 32\n"
               "      snapshot record 0x02, 1 identifier(s)\n"
               "        DID 0xF442 (control module voltage): 3A 98\n"},
    ReportCase{"r04_no_record", "59 04 017100 2B",
               std::string("  report 0x04: snapshot records of a DTC\n") + kP0171},
    ReportCase{"r04_unknown_did", "59 04 030100 2F 01 02 F40D 0A 1234 0102 02 01 F40D 00",
               std::string("  report 0x04: snapshot records of a DTC\n") + kP0301 +
               "      snapshot record 0x01, 2 identifier(s)\n"
               "        DID 0xF40D (vehicle speed): 0A\n"
               "  undecoded: 12 34 01 02 02 01 F4 0D 00\n"
               "  note: DID 0x1234 of record 0x01 has no known size: the rest is left undecoded\n"},
    ReportCase{"r04_cut_short", "59 04 030100 2F 01 01 F40C 1A",
               std::string("  report 0x04: snapshot records of a DTC\n") + kP0301 +
               "      snapshot record 0x01, 1 identifier(s)\n"
               "  undecoded: F4 0C 1A\n"
               "  note: DID 0xF40C of record 0x01 cut short\n"},
    ReportCase{"r05_record", "59 05 01 030100 2F 01 F40D 0A",
               std::string("  report 0x05: stored data by record number\n") + kP0301 +
               "      stored data record 0x01, 1 identifier(s)\n"
               "        DID 0xF40D (vehicle speed): 0A\n"},
    ReportCase{"r05_all", "59 05 01 030100 2F 01 F40D 0A 02 017100 2B 01 F405 28",
               std::string("  report 0x05: stored data by record number\n") + kP0301 +
               "      stored data record 0x01, 1 identifier(s)\n"
               "        DID 0xF40D (vehicle speed): 0A\n" + kP0171 +
               "      stored data record 0x02, 1 identifier(s)\n"
               "        DID 0xF405 (engine coolant temperature): 28\n"},
    ReportCase{"r05_echo", "59 05 02",
               "  report 0x05: stored data by record number\n"
               "  no DTCs with record 0x02\n"},
    ReportCase{"r06_all_known", "59 06 030100 2F 01 05 02 7F",
               std::string("  report 0x06: extended data records of a DTC\n") + kP0301 +
               "      extended data record 0x01 (occurrence counter): 05\n"
               "      extended data record 0x02 (aging counter): 7F\n"},
    ReportCase{"r06_unknown_size_is_left_whole", "59 06 030100 2F 01 05 10 01 02 A0",
               std::string("  report 0x06: extended data records of a DTC\n") + kP0301 +
               "      extended data record 0x01 (occurrence counter): 05\n"
               "  undecoded: 10 01 02 A0\n"
               "  note: extended data record 0x10 has no known size: the rest is left undecoded\n"},
    ReportCase{"r06_first_unknown", "59 06 030100 2F 20 05 02 7F",
               std::string("  report 0x06: extended data records of a DTC\n") + kP0301 +
               "  undecoded: 20 05 02 7F\n"
               "  note: extended data record 0x20 has no known size: the rest is left undecoded\n"},
    ReportCase{"r08", "59 08 FF 20 10 017100 2B",
               "  report 0x08: DTCs by severity mask\n"
               "  P0171-00  (0x017100)  status 0x2B [testFailed, testFailedThisOperationCycle, "
               "confirmedDTC, testFailedSinceLastClear]  severity 0x20\n"},
    ReportCase{"r10", "59 10 017100 2B 01 02",
               std::string("  report 0x10: mirror memory extended data of a DTC\n") + kP0171 +
               "      extended data record 0x01 (occurrence counter): 02\n"},
    ReportCase{"r14", "59 14 011300 32",
               "  report 0x14: fault detection counters\n"
               "  P0113-00  (0x011300)  fault detection counter 50\n"},
    ReportCase{"r16", "59 16 01 030100 2F 05 017100 2B 02",
               std::string("  report 0x16: extended data by record number\n") + kP0301 +
               "      extended data record 0x01 (occurrence counter): 05\n" + kP0171 +
               "      extended data record 0x01 (occurrence counter): 02\n"},
    ReportCase{"r16_unknown_size", "59 16 10 030100 2F 01 02 A0 017100 2B 03 04 05",
               std::string("  report 0x16: extended data by record number\n") + kP0301 +
               "  undecoded: 01 02 A0 01 71 00 2B 03 04 05\n"
               "  note: extended data record 0x10 has no known size: the rest is left undecoded\n"},
    ReportCase{"r16_none", "59 16 01",
               "  report 0x16: extended data by record number\n"
               "  no DTCs with record 0x01\n"},
    ReportCase{"r17", "59 17 01 FF 0A1B00 28",
               "  report 0x17: user memory DTCs by status mask\n"
               "  memory selection 0x01\n"
               "  P0A1B-00  (0x0A1B00)  status 0x28 [confirmedDTC, testFailedSinceLastClear]\n"},
    ReportCase{"r18", "59 18 01 0A1B00 28 01 01 F40D 00",
               "  report 0x18: user memory snapshot records of a DTC\n"
               "  memory selection 0x01\n"
               "  P0A1B-00  (0x0A1B00)  status 0x28 [confirmedDTC, testFailedSinceLastClear]\n"
               "      snapshot record 0x01, 1 identifier(s)\n"
               "        DID 0xF40D (vehicle speed): 00\n"},
    ReportCase{"r19", "59 19 01 0A1B00 28 01 01",
               "  report 0x19: user memory extended data of a DTC\n"
               "  memory selection 0x01\n"
               "  P0A1B-00  (0x0A1B00)  status 0x28 [confirmedDTC, testFailedSinceLastClear]\n"
               "      extended data record 0x01 (occurrence counter): 01\n"},
    ReportCase{"negative_pending", "7F 19 78",
               "  negative response: NRC 0x78 requestCorrectlyReceived-ResponsePending\n"}),
    [](const auto &info) { return info.param.name; });
// clang-format on

TEST(DtcDecodeTest, SizesGivenByTheCallerSplitWhatTheTableDoesNot) {
    DataSizes sizes;
    sizes.extended_records[0x10] = 3;
    sizes.dids[0x1234] = 2;
    std::vector<uint8_t> extended = hex_bytes("59 06 030100 2F 10 01 02 A0 01 05");
    DtcReport report = decode_dtc_response(extended.data(), extended.size(), &sizes);
    ASSERT_EQ(report.dtcs.size(), 1u);
    ASSERT_EQ(report.dtcs[0].records.size(), 2u);
    EXPECT_EQ(report.dtcs[0].records[0].hex, "01 02 A0");
    EXPECT_EQ(report.dtcs[0].records[1].hex, "05");
    EXPECT_TRUE(report.undecoded.empty());
    std::vector<uint8_t> snapshot = hex_bytes("59 04 030100 2F 01 01 1234 0102");
    report = decode_dtc_response(snapshot.data(), snapshot.size(), &sizes);
    ASSERT_EQ(report.dtcs[0].records.size(), 1u);
    EXPECT_EQ(report.dtcs[0].records[0].dids[0].hex, "01 02");
}

TEST(DtcDecodeTest, SnapshotJsonCarriesDidsAndUndecodedBytes) {
    DtcReport report = decode(hex_bytes("59 04 030100 2F 01 02 F40D 0A 1234 01"));
    json_object *json = report_to_json(report);
    EXPECT_STREQ(
        json_object_to_json_string_ext(json, JSON_C_TO_STRING_PLAIN),
        R"({"negative":false,"report":4,"dtcs":[{"dtc":"P0301-00","code":196864,"status":47,)"
        R"("status_bits":["testFailed","testFailedThisOperationCycle","pendingDTC","confirmedDTC",)"
        R"("testFailedSinceLastClear"],"records":[{"number":1,"identifiers":2,"dids":[{"did":62477,)"
        R"("name":"vehicle speed","data":"0A"}]}]}],"undecoded":"12 34 01","note":"DID 0x1234 of )"
        R"(record 0x01 has no known size: the rest is left undecoded"})");
    json_object_put(json);
}

TEST(DtcDecodeTest, ExtendedRecordJsonHasNumberNameAndData) {
    DtcReport report = decode(hex_bytes("59 16 02 030100 2F 7F"));
    json_object *json = report_to_json(report);
    EXPECT_STREQ(
        json_object_to_json_string_ext(json, JSON_C_TO_STRING_PLAIN),
        R"({"negative":false,"report":22,"record_number":2,"dtcs":[{"dtc":"P0301-00","code":196864,)"
        R"("status":47,"status_bits":["testFailed","testFailedThisOperationCycle","pendingDTC",)"
        R"("confirmedDTC","testFailedSinceLastClear"],"records":[{"number":2,"name":"aging counter",)"
        R"("data":"7F"}]}]})");
    json_object_put(json);
}

}  // namespace
}  // namespace uozctl
