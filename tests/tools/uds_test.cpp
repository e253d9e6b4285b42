#include "uds.h"

#include <gtest/gtest.h>

#include <string>

#include "UDSOverZelko/read_dtc.h"
#include "dtc_reports.h"
#include "hex_text.h"

namespace {

// The library keeps its own names of report types and status bits (it
// depends on nothing in tools/); queries carry them, so both must agree, as
// must what the library sends for a report and what its layout asks for.
TEST(UdsReportTable, AgreesWithTheLibrarysNamesAndParameters) {
    EXPECT_STREQ(uds_report_names[0], "");
    for (uint8_t number = 1; number < 26; ++number) {
        const uozuds::DtcReportType *type = uozuds::find_dtc_report(number);
        ASSERT_NE(type, nullptr) << int(number);
        EXPECT_EQ(type->number, number);
        EXPECT_STREQ(type->query_name, uds_report_names[number]);
        EXPECT_EQ(uozuds::find_dtc_report(type->query_name), type);
        bool asked = dtc_subfunction_supported(number) == 0;
        EXPECT_EQ(uozuds::asked_by_queries(*type), asked) << int(number);
        if (!asked)
            continue;
        uint32_t params = dtc_subfunction_params(number);
        EXPECT_EQ((params & PARAM_STATUS_MASK) != 0,
                  type->request == uozuds::DtcRequestLayout::kStatusMask);
        EXPECT_EQ((params & PARAM_NONE) != 0, type->request == uozuds::DtcRequestLayout::kNothing);
        EXPECT_EQ((params & PARAM_DTC) != 0, uozuds::carries_dtc(type->request)) << int(number);
        EXPECT_EQ((params & PARAM_RECORD) != 0, uozuds::carries_record(type->request));
    }
    EXPECT_EQ(uozuds::dtc_reports().size(), 25u);
    EXPECT_EQ(uozuds::find_dtc_report("NO_SUCH_REPORT"), nullptr);
    for (int bit = 0; bit < 8; ++bit)
        EXPECT_STREQ(uozuds::kQueryStatusBitNames[bit], uds_status_mask_names[bit]);
}

// Expected keys worked out from the documented formula outside this code.
TEST(UdsBuiltinKey, FollowsTheDocumentedFormula) {
    const struct {
        uint8_t level;
        uint32_t seed, key;
    } cases[] = {{0x01, 0x11223344, 0x976CE25B},
                 {0x03, 0xDEADBEEF, 0x28D6EB37},
                 {0x21, 0x00000000, 0xD550A8F3},
                 {0x20, 0x5A17C3E9, 0x20202020},
                 {0x7F, 0xFFFFFFFF, 0xD2739D8A}};
    for (const auto &c : cases)
        EXPECT_EQ(uozuds::builtin_key(c.level, c.seed), c.key) << int(c.level) << "/" << c.seed;
}

TEST(UdsNames, NrcsAndServicesHaveTheirIsoNamesAndUnknownOtherwise) {
    std::string nrcs;
    for (uint8_t code : {0x10, 0x11, 0x12, 0x13, 0x21, 0x22, 0x24, 0x31, 0x33, 0x35, 0x36, 0x37,
                         0x78, 0x7E, 0x7F, 0x00, 0xFF})
        nrcs += uozuds::hex_number(code, 2) + " " + uozuds::nrc_name(code) + "\n";
    EXPECT_EQ(nrcs,
              "0x10 generalReject\n0x11 serviceNotSupported\n0x12 subFunctionNotSupported\n"
              "0x13 incorrectMessageLengthOrInvalidFormat\n0x21 busyRepeatRequest\n"
              "0x22 conditionsNotCorrect\n0x24 requestSequenceError\n0x31 requestOutOfRange\n"
              "0x33 securityAccessDenied\n0x35 invalidKey\n0x36 exceedNumberOfAttempts\n"
              "0x37 requiredTimeDelayNotExpired\n0x78 requestCorrectlyReceived-ResponsePending\n"
              "0x7E subFunctionNotSupportedInActiveSession\n"
              "0x7F serviceNotSupportedInActiveSession\n0x00 unknown\n0xFF unknown\n");
    EXPECT_STREQ(uozuds::service_name(0x19), "ReadDTCInformation");
    EXPECT_STREQ(uozuds::service_name(0x27), "SecurityAccess");
    EXPECT_STREQ(uozuds::service_name(0x31), "RoutineControl");
    EXPECT_STREQ(uozuds::service_name(0x01), "unknown");
}

TEST(UdsHexText, BytesAndNumbersInUpperCase) {
    const uint8_t bytes[] = {0x59, 0x02, 0xFF, 0x0a};
    EXPECT_EQ(uozuds::hex_compact(bytes, sizeof(bytes)), "5902FF0A");
    EXPECT_EQ(uozuds::hex_spaced(bytes, sizeof(bytes)), "59 02 FF 0A");
    EXPECT_EQ(uozuds::hex_spaced(bytes, 1), "59");
    EXPECT_EQ(uozuds::hex_compact(bytes, 0), "");
    EXPECT_EQ(uozuds::hex_spaced(nullptr, 0), "");
    // At least the digits asked for.
    EXPECT_EQ(uozuds::hex_number(0x7E0, 4), "0x07E0");
    EXPECT_EQ(uozuds::hex_number(0x0A, 2), "0x0A");
    EXPECT_EQ(uozuds::hex_number(0x030100, 6), "0x030100");
    EXPECT_EQ(uozuds::hex_number(0x1234, 2), "0x1234");
    EXPECT_EQ(uozuds::hex_number(0xFFFFFFFF, 8), "0xFFFFFFFF");
}

TEST(UdsHexText, ParsesPrefixedAndBareNumbersOfUpToEightDigits) {
    uint32_t value = 0;
    EXPECT_TRUE(uozuds::parse_hex_number("0X7e0", &value));
    EXPECT_EQ(value, 0x7E0u);
    EXPECT_TRUE(uozuds::parse_hex_number("FFFFFFFF", &value));
    EXPECT_EQ(value, 0xFFFFFFFFu);
    value = 5;
    for (const char *bad : {"", "0x", "7G", "1 2", "-1", "0x123456789", "\xC3\xA9"})
        EXPECT_FALSE(uozuds::parse_hex_number(bad, &value)) << bad;
    EXPECT_FALSE(uozuds::parse_hex_number(nullptr, &value));
    EXPECT_EQ(value, 5u);  // untouched when refused
    EXPECT_EQ(uozuds::hex_digit('b'), 11);
    EXPECT_EQ(uozuds::hex_digit('F'), 15);
    EXPECT_EQ(uozuds::hex_digit('g'), -1);
}

TEST(UdsHexText, ParsesBytesWithOrWithoutPrefixAndSpaces) {
    const struct {
        const char *text;
        const char *bytes;  // nullptr: refused
    } cases[] = {
        {"0xF190", "F1 90"}, {"62 f1 90", "62 F1 90"}, {"0x7", "07"}, {"123", "01 23"}, {"", ""},
        {nullptr, ""},       {"F1-90", nullptr}};
    for (const auto &c : cases) {
        std::vector<uint8_t> bytes = {0xAA};
        bool parsed = uozuds::parse_hex_bytes(c.text, &bytes);
        EXPECT_EQ(parsed, c.bytes != nullptr) << (c.text ? c.text : "nullptr");
        if (parsed) {
            EXPECT_EQ(uozuds::hex_spaced(bytes.data(), bytes.size()), c.bytes);
        }
    }
}

}  // namespace
