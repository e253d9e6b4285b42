// The command line's DTC decoder against byte vectors of every report family.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dtc_decode.h"
#include "hex_bytes.h"

namespace uozctl {
namespace {

using uoztest::hex_bytes;

DtcReport decode(const std::string &hex) {
    std::vector<uint8_t> bytes = hex_bytes(hex);
    return decode_dtc_response(bytes.data(), bytes.size());
}

std::string json_of(const DtcReport &report) {
    json_object *json = report_to_json(report);
    std::string text = json_object_to_json_string_ext(json, JSON_C_TO_STRING_PLAIN);
    json_object_put(json);
    return text;
}

TEST(DtcDecodeTest, dtcTextsFollowTheCustomaryForm) {
    const struct {
        uint32_t code;
        const char *text;
    } cases[] = {{0x030100, "P0301-00"}, {0x017100, "P0171-00"}, {0x900113, "B1001-13"},
                 {0xC10000, "U0100-00"}, {0x4ABCDE, "C0ABC-DE"}, {0xFFFFFF, "U3FFF-FF"}};
    for (const auto &c : cases)
        EXPECT_EQ(dtc_text(c.code), c.text);
}

// What does not fit is named, never read past the end: every prefix of
// every family decodes.
TEST(DtcDecodeTest, truncatedPaddedNegativeAndForeignResponsesAreNamed) {
    const struct {
        const char *hex;
        const char *note;
    } cases[] = {
        {"59 02 FF 03 01", "trailing 2 byte(s) that form no whole record: 03 01"},
        {"59 02 FF 030100 2F 00", "trailing 1 byte(s) that form no whole record: 00"},
        {"59 11 FF 01 00", "response too short for a count: FF 01 00"},
        {"59 12 FF 01 0001 AA", "extra bytes after the count: AA"},
        {"7F 19", "negative response cut short: 7F 19"},
        {"62 F1", "not a ReadDTCInformation response: 62 F1"},
        {"", "empty response"},
        {"59 42 01", "unknown report; bytes: 01"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(decode(c.hex).note, c.note) << c.hex;
    EXPECT_TRUE(decode("59 02 FF 03 01").dtcs.empty());
    EXPECT_EQ(decode("59 02 FF 030100 2F 00").dtcs.size(), 1u);
    DtcReport negative = decode("7F 19 12");
    EXPECT_TRUE(negative.negative);
    EXPECT_EQ(negative.nrc_name, "subFunctionNotSupported");
    for (size_t length = 0; length < 12; ++length) {
        for (uint8_t report = 0; report < 0x1A; ++report) {
            std::vector<uint8_t> bytes = {0x59, report, 0xFF, 0x03, 0x01, 0x00,
                                          0x2F, 0x01,   0x02, 0x03, 0x04, 0x05};
            bytes.resize(length);  // so that a read past the end is caught by ASan
            decode_dtc_response(bytes.data(), bytes.size());
        }
    }
}

const char kP0301[] =
    "  P0301-00  (0x030100)  status 0x2F [testFailed, testFailedThisOperationCycle, "
    "pendingDTC, confirmedDTC, testFailedSinceLastClear]\n";
const char kP0171[] =
    "  P0171-00  (0x017100)  status 0x2B [testFailed, testFailedThisOperationCycle, "
    "confirmedDTC, testFailedSinceLastClear]\n";

// Each report type laid out as ISO 14229-1 has it, decoded to the exact text.
TEST(DtcDecodeTest, eachReportReadsTheIsoLayout) {
    const struct {
        const char *name;
        const char *bytes;
        std::string text;
    } cases[] = {
        // clang-format off
        {"r01", "59 01 FF 01 01 02",
         "  report 0x01: number of DTCs by status mask\n"
         "  258 DTC(s) (format 0x01, availability mask 0xFF)\n"},
        {"r02", "59 02 FF 030100 2F 017100 2B",
         std::string("  report 0x02: DTCs by status mask\n") + kP0301 + kP0171},
        {"r03", "59 03 030100 01 030100 02",
         "  report 0x03: snapshot identification\n"
         "  P0301-00  (0x030100)  record 0x01\n"
         "  P0301-00  (0x030100)  record 0x02\n"},
        {"r04_two_records", "59 04 030100 2F 01 02 F40C 1A2B F405 32 02 01 F442 3A98",
         std::string("  report 0x04: snapshot records of a DTC\n") + kP0301 +
         "      snapshot record 0x01, 2 identifier(s)\n"
         "        DID 0xF40C (engine speed): 1A 2B\n"
         "        DID 0xF405 (engine coolant temperature): 32\n"
         "      snapshot record 0x02, 1 identifier(s)\n"
         "        DID 0xF442 (control module voltage): 3A 98\n"},
        {"r04_no_record", "59 04 017100 2B",
         std::string("  report 0x04: snapshot records of a DTC\n") + kP0171},
        {"r04_unknown_did", "59 04 030100 2F 01 02 F40D 0A 1234 0102 02 01 F40D 00",
         std::string("  report 0x04: snapshot records of a DTC\n") + kP0301 +
         "      snapshot record 0x01, 2 identifier(s)\n"
         "        DID 0xF40D (vehicle speed): 0A\n"
         "  undecoded: 12 34 01 02 02 01 F4 0D 00\n"
         "  note: DID 0x1234 of record 0x01 has no known size: the rest is left undecoded\n"},
        {"r04_cut_short", "59 04 030100 2F 01 01 F40C 1A",
         std::string("  report 0x04: snapshot records of a DTC\n") + kP0301 +
         "      snapshot record 0x01, 1 identifier(s)\n"
         "  undecoded: F4 0C 1A\n"
         "  note: DID 0xF40C of record 0x01 cut short\n"},
        {"r05_all", "59 05 01 030100 2F 01 F40D 0A 02 017100 2B 01 F405 28",
         std::string("  report 0x05: stored data by record number\n") + kP0301 +
         "      stored data record 0x01, 1 identifier(s)\n"
         "        DID 0xF40D (vehicle speed): 0A\n" + kP0171 +
         "      stored data record 0x02, 1 identifier(s)\n"
         "        DID 0xF405 (engine coolant temperature): 28\n"},
        {"r05_echo", "59 05 02",
         "  report 0x05: stored data by record number\n"
         "  no DTCs with record 0x02\n"},
        {"r06_all_known", "59 06 030100 2F 01 05 02 7F",
         std::string("  report 0x06: extended data records of a DTC\n") + kP0301 +
         "      extended data record 0x01 (occurrence counter): 05\n"
         "      extended data record 0x02 (aging counter): 7F\n"},
        {"r06_unknown_size_is_left_whole", "59 06 030100 2F 01 05 10 01 02 A0",
         std::string("  report 0x06: extended data records of a DTC\n") + kP0301 +
         "      extended data record 0x01 (occurrence counter): 05\n"
         "  undecoded: 10 01 02 A0\n"
         "  note: extended data record 0x10 has no known size: the rest is left undecoded\n"},
        {"r06_first_unknown", "59 06 030100 2F 20 05 02 7F",
         std::string("  report 0x06: extended data records of a DTC\n") + kP0301 +
         "  undecoded: 20 05 02 7F\n"
         "  note: extended data record 0x20 has no known size: the rest is left undecoded\n"},
        {"r08", "59 08 FF 20 10 017100 2B",
         "  report 0x08: DTCs by severity mask\n"
         "  P0171-00  (0x017100)  status 0x2B [testFailed, testFailedThisOperationCycle, "
         "confirmedDTC, testFailedSinceLastClear]  severity 0x20\n"},
        {"r10", "59 10 017100 2B 01 02",
         std::string("  report 0x10: mirror memory extended data of a DTC\n") + kP0171 +
         "      extended data record 0x01 (occurrence counter): 02\n"},
        {"r14", "59 14 011300 32",
         "  report 0x14: fault detection counters\n"
         "  P0113-00  (0x011300)  fault detection counter 50\n"},
        {"r16", "59 16 01 030100 2F 05 017100 2B 02",
         std::string("  report 0x16: extended data by record number\n") + kP0301 +
         "      extended data record 0x01 (occurrence counter): 05\n" + kP0171 +
         "      extended data record 0x01 (occurrence counter): 02\n"},
        {"r16_unknown_size", "59 16 10 030100 2F 01 02 A0 017100 2B 03 04 05",
         std::string("  report 0x16: extended data by record number\n") + kP0301 +
         "  undecoded: 01 02 A0 01 71 00 2B 03 04 05\n"
         "  note: extended data record 0x10 has no known size: the rest is left undecoded\n"},
        {"r16_none", "59 16 01",
         "  report 0x16: extended data by record number\n"
         "  no DTCs with record 0x01\n"},
        {"r17", "59 17 01 FF 0A1B00 28",
         "  report 0x17: user memory DTCs by status mask\n"
         "  memory selection 0x01\n"
         "  P0A1B-00  (0x0A1B00)  status 0x28 [confirmedDTC, testFailedSinceLastClear]\n"},
        {"r18", "59 18 01 0A1B00 28 01 01 F40D 00",
         "  report 0x18: user memory snapshot records of a DTC\n"
         "  memory selection 0x01\n"
         "  P0A1B-00  (0x0A1B00)  status 0x28 [confirmedDTC, testFailedSinceLastClear]\n"
         "      snapshot record 0x01, 1 identifier(s)\n"
         "        DID 0xF40D (vehicle speed): 00\n"},
        {"r19", "59 19 01 0A1B00 28 01 01",
         "  report 0x19: user memory extended data of a DTC\n"
         "  memory selection 0x01\n"
         "  P0A1B-00  (0x0A1B00)  status 0x28 [confirmedDTC, testFailedSinceLastClear]\n"
         "      extended data record 0x01 (occurrence counter): 01\n"},
        {"negative_pending", "7F 19 78",
         "  negative response: NRC 0x78 requestCorrectlyReceived-ResponsePending\n"}
        // clang-format on
    };
    for (const auto &c : cases)
        EXPECT_EQ(report_to_text(decode(c.bytes)), c.text) << c.name << ": " << c.bytes;
}

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

TEST(DtcDecodeTest, jsonRenderings) {
    const std::string p0301 =
        R"({"dtc":"P0301-00","code":196864,"status":47,"status_bits":["testFailed",)"
        R"("testFailedThisOperationCycle","pendingDTC","confirmedDTC","testFailedSinceLastClear"],)";
    const struct {
        const char *bytes;
        std::string json;
    } cases[] = {
        {"59 02 FF 030100 09",
         R"({"negative":false,"report":2,"availability_mask":255,"dtcs":[{"dtc":"P0301-00",)"
         R"("code":196864,"status":9,"status_bits":["testFailed","confirmedDTC"],"records":[]}]})"},
        {"59 09 FF 40 10 030100 2F",
         R"({"negative":false,"report":9,"availability_mask":255,"dtcs":[)" + p0301 +
             R"("severity":64,"functional_unit":16,"records":[]}]})"},
        {"59 04 030100 2F 01 02 F40D 0A 1234 01",
         R"({"negative":false,"report":4,"dtcs":[)" + p0301 +
             R"("records":[{"number":1,"identifiers":2,"dids":[{"did":62477,"name":"vehicle )"
             R"(speed","data":"0A"}]}]}],"undecoded":"12 34 01","note":"DID 0x1234 of record )"
             R"(0x01 has no known size: the rest is left undecoded"})"},
        {"59 16 02 030100 2F 7F",
         R"({"negative":false,"report":22,"record_number":2,"dtcs":[)" + p0301 +
             R"("records":[{"number":2,"name":"aging counter","data":"7F"}]}]})"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(json_of(decode(c.bytes)), c.json) << c.bytes;
}

}  // namespace
}  // namespace uozctl
