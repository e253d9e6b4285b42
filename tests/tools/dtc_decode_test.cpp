// The command line's DTC decoder against byte vectors of every report family.
#include <gtest/gtest.h>

#include <vector>

#include "dtc_decode.h"

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

TEST(DtcDecodeTest, recordReportsKeepRecordNumbersAndBytes) {
    DtcReport snapshots = decode({0x59, 0x04, 0x03, 0x01, 0x00, 0x2F, 0x01, 0x0C, 0x1A});
    ASSERT_EQ(snapshots.dtcs.size(), 1u);
    ASSERT_EQ(snapshots.dtcs[0].records.size(), 1u);
    EXPECT_EQ(snapshots.dtcs[0].records[0].number, 0x01);
    EXPECT_EQ(snapshots.dtcs[0].records[0].hex, "0C 1A");
    DtcReport identification = decode({0x59, 0x03, 0x03, 0x01, 0x00, 0x01, 0x01, 0x71, 0x00, 0x02});
    ASSERT_EQ(identification.dtcs.size(), 2u);
    EXPECT_EQ(identification.dtcs[1].record_number, 2);
    EXPECT_EQ(identification.dtcs[1].status, -1);
    DtcReport stored = decode({0x59, 0x05, 0x01, 0x03, 0x01, 0x00, 0x2F, 0xAA});
    ASSERT_EQ(stored.dtcs.size(), 1u);
    EXPECT_EQ(stored.dtcs[0].record_number, 1);
    EXPECT_EQ(stored.dtcs[0].records[0].hex, "AA");
    DtcReport extended = decode({0x59, 0x06, 0x03, 0x01, 0x00, 0x2F, 0x01, 0x05});
    EXPECT_EQ(extended.dtcs[0].records[0].hex, "05");
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

}  // namespace
}  // namespace uozctl
